"""The command line asks for a password at a terminal."""

import os
import signal

import pytest

from node import BUILD, wait_until
from terminal import PATIENCE_S, Terminal


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
    assert prompt.process.wait(PATIENCE_S) == 0
    prompt.wait_for("admin")
    assert password not in prompt.text
    assert prompt.echoes()


def test_a_prompt_that_is_broken_off_gives_the_terminal_its_echo_back(prompt):
    prompt.wait_for("assword.*: ")
    wait_until(lambda: not prompt.echoes(), "the terminal is silent")

    def is_broken_off():
        prompt.type("\x03")  # one that comes just before the program reads is noticed with the next
        return prompt.process.poll() is not None

    wait_until(is_broken_off, "the program ends")
    assert prompt.process.returncode == -signal.SIGINT
    assert prompt.echoes()
