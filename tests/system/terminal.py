"""Programs that talk to a person."""

import fcntl
import os
import pty
import re
import select
import signal
import subprocess
import termios

PATIENCE_S = 30


def take_terminal():
    """Makes standard input the terminal of this process, whose keys reach it also when its parent heeds none of them."""
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class Terminal:
    """A program at a terminal of its own."""

    def __init__(self, *command, environment):
        self.master, slave = pty.openpty()
        self.process = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave, env=environment,
                                        start_new_session=True, preexec_fn=take_terminal)
        self.slave = slave
        self.text = ""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def wait_for(self, pattern):
        while not re.search(pattern, self.text):
            assert select.select([self.master], [], [], PATIENCE_S)[0], f"{pattern} in {self.text!r}"
            self.text += os.read(self.master, 4096).decode()

    def type(self, text):
        os.write(self.master, text.encode())

    def end(self):
        """Its exit status; all that it said is in `text` then."""
        status = self.process.wait(PATIENCE_S)
        while select.select([self.master], [], [], 0)[0]:
            self.text += os.read(self.master, 4096).decode()
        return status

    def echoes(self):
        return bool(termios.tcgetattr(self.slave)[3] & termios.ECHO)

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.master)
        os.close(self.slave)
