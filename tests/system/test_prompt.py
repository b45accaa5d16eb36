"""The command line asks for a password at a terminal."""

import fcntl
import os
import pty
import re
import select
import signal
import subprocess
import termios

import pytest

from node import BUILD, wait_until

_PATIENCE_S = 30


class Terminal:
    """A program at a terminal of its own."""

    def __init__(self, *command, environment):
        self.master, slave = pty.openpty()
        self.process = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave, env=environment,
                                        start_new_session=True,
                                        preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        self.slave = slave
        self.text = ""

    def wait_for(self, pattern):
        while not re.search(pattern, self.text):
            assert select.select([self.master], [], [], _PATIENCE_S)[0], f"{pattern} in {self.text!r}"
            self.text += os.read(self.master, 4096).decode()

    def type(self, text):
        os.write(self.master, text.encode())

    def echoes(self):
        return bool(termios.tcgetattr(self.slave)[3] & termios.ECHO)

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.master)
        os.close(self.slave)


@pytest.fixture
def prompt(node, tmp_path):
    environment = dict(os.environ, PAVANE_URL=node.url, HOME=str(tmp_path))
    environment.pop("XDG_CONFIG_HOME", None)
    terminal = Terminal(f"{BUILD}/bin/pavane", "login", "admin", environment=environment)
    yield terminal
    terminal.close()


def test_a_typed_password_logs_in_and_is_not_shown(node, prompt):
    password = dict(line.split() for line in node.read("accounts.txt").splitlines())["admin"]
    prompt.wait_for("assword.*: ")
    wait_until(lambda: not prompt.echoes(), "the terminal is silent")
    prompt.type(password + "\n")
    assert prompt.process.wait(_PATIENCE_S) == 0
    prompt.wait_for("admin")
    assert password not in prompt.text
    assert prompt.echoes()


def test_a_prompt_that_is_broken_off_gives_the_terminal_its_echo_back(prompt):
    prompt.wait_for("assword.*: ")
    wait_until(lambda: not prompt.echoes(), "the terminal is silent")
    prompt.type("\x03")
    assert prompt.process.wait(_PATIENCE_S) == -signal.SIGINT
    assert prompt.echoes()
