"""Steps that the tests of "List" and of what uses a share have in common."""

import contextlib
import os
import signal
import subprocess
import sys

from life import NAS
from node import BUILD, SHARE_API

MB = 1 << 20
_HERE = os.path.dirname(os.path.realpath(__file__))


@contextlib.contextmanager
def core_share(client, name, volume):
    """A shared folder that is no recording share; gives its path."""
    answer = client.call(NAS, "create", name=name, shareinfo={"name": name, "vol_path": volume})
    assert answer == {"success": True, "data": {"name": name}}
    try:
        yield f"{volume}/{name}"
    finally:
        answer = client.call(NAS, "delete", name=name)
        assert answer["success"], answer


def permit(client, name, user, *, write):
    answer = client.call("KORV.Core.Share.Permission", "set", name=name, user_group_type="local_user",
                         permissions=[{"name": user, "is_writable": write, "is_readonly": not write}])
    assert answer == {"success": True}


def candidates(client, mask=1, /, **parameters):
    """The listed elements by name."""
    answer = client.call(SHARE_API, "List", sharePriv=mask, **parameters)
    assert answer["success"], answer
    assert set(answer["data"]) == {"sharelist", "total"}
    names = [share["value"] for share in answer["data"]["sharelist"]]
    assert answer["data"]["total"] == len(names) == len(set(names))
    return {share["value"]: share for share in answer["data"]["sharelist"]}


class CommandLine:
    """`pavane` in a home of its own, logged in."""

    def __init__(self, node, account, home):
        self.environment = dict(os.environ, PAVANE_URL=node.url, HOME=str(home), LC_ALL="C.UTF-8", TZ="UTC")
        self.environment.pop("XDG_CONFIG_HOME", None)
        passwords = dict(line.split() for line in node.read("accounts.txt").splitlines())
        self.run("login", account, "--password-stdin", input=passwords[account])

    def run(self, *arguments, status=0, **options):
        """What it says: on standard output, or on standard error when `status` is a failure."""
        output, errors = self.both(*arguments, status=status, **options)
        return output if status == 0 else errors

    def both(self, *arguments, status=0, **options):
        """What it says on standard output and on standard error."""
        done = subprocess.run([os.path.join(BUILD, "bin/pavane"), *arguments], env=self.environment,
                              capture_output=True, text=True, timeout=60, check=False, **options)
        assert done.returncode == status, done.stderr
        return done.stdout, done.stderr


@contextlib.contextmanager
def silent_mount(node, path):
    """A file system over `path` inside the node; gives its server. What waits for it gets errors at the end."""
    with subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", sys.executable,
                           f"{_HERE}/silent_file_system.py", path], stdout=subprocess.PIPE, text=True) as server:
        try:
            assert server.stdout.readline() == "mounted\n"
            yield server
        finally:
            server.kill()
            server.wait()
            node.inside("umount", "-l", path)


def stop(server):
    """Returns once the server answers nothing any more."""
    server.send_signal(signal.SIGSTOP)
    pid, status = os.waitpid(server.pid, os.WUNTRACED)
    assert pid == server.pid and os.WIFSTOPPED(status)
