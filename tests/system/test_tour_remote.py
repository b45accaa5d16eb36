"""The guide to recordings on another machine prints what a node and a Samba answer, while that dies and comes back."""

import os
import re
import time

import samba
from console_blocks import Shell, commands_of, reader_environment, steady
from node import ROOT, Node

_GUIDE = "docs/guide/remote.md"
_NEWS_S = 30  # until the node knows how the server is
_PORT = re.compile(r"\bport=\d+")
_SIZE = re.compile(r"\bcifs +\d+\.\d+")
_EXPECTED = "mount|reconnecting|could not be|RecShare of RV 0 is empty|connect\\(\\)"


def comparable(text):
    return _SIZE.sub("cifs SIZE", steady(text))


def act_before(command, server, reconnections):
    """What the guide says happens to the other machine between two commands."""
    if command.endswith("--abnormal") and server.is_listening():
        server.kill()
    elif command.startswith("pavane mount reconnect") and reconnections:
        server.start()


def answer(command, node, shell):
    """What root does is done inside the node, where its volumes are."""
    if command.startswith("pavane "):
        return shell.run(command)
    done = node.inside(*command.split(), check=False)
    return done.stdout + done.stderr


def test_every_command_prints_what_the_guide_says(tmp_path):
    commands = commands_of(os.path.join(ROOT, _GUIDE), ("$ ", "# "))
    assert commands, "the guide has commands"
    wrong, reconnections = [], 0
    with Node("--volume-mb", "256") as node:
        node.unexpected_lines()
        node.allow(_EXPECTED)
        environment = reader_environment(tmp_path, PAVANE_URL=node.url, ASAN_OPTIONS="detect_leaks=0")
        (tmp_path / "nas.password").write_text(samba.PASSWORD + "\n", encoding="utf-8")
        (tmp_path / "vault.password").write_text("of the vault\n", encoding="utf-8")
        accounts = dict(line.split() for line in node.read("accounts.txt").splitlines())
        (tmp_path / "admin.password").write_text(accounts["admin"] + "\n", encoding="utf-8")
        server = samba.Samba(node.folder)
        server.start()
        samba.put_helpers_in_place(node)
        try:
            with Shell(tmp_path, environment) as shell:
                shell.run("pavane login admin --password-file admin.password")
                for command, expected in commands:
                    act_before(command, server, reconnections)
                    reconnections += command.startswith("pavane mount reconnect")
                    runnable = _PORT.sub(f"port={server.port}", command)
                    end = time.monotonic() + (_NEWS_S if " list" in command else 0)
                    printed = answer(runnable, node, shell)
                    while comparable(printed) != comparable(expected) and time.monotonic() < end:
                        time.sleep(0.5)
                        printed = answer(runnable, node, shell)
                    if comparable(printed) != comparable(expected):
                        wrong.append(f"$ {command}\nprinted:\n{printed}\nthe guide says:\n{expected}")
        finally:
            server.kill()
        assert not wrong, "\n\n".join(wrong)
        assert node.unexpected_lines() == []
