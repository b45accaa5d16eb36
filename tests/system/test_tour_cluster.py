"""The guide to a host and its recording servers prints what three real nodes answer."""

import os
import re
import time

from cluster import NETWORK, Cluster, enter_own_network
from console_blocks import Shell, commands_of, reader_environment, steady
from node import ROOT
from terminal import PATIENCE_S, Terminal

_GUIDE = "docs/guide/two-servers.md"
_GUIDE_NETWORK = "10.77.0"
_GUIDE_BRIDGE = "pavane0"
_NEWS_S = 60  # until the host knows how a server is
_CHANGING = [
    (re.compile(r"sha256//\S+="), "KEY"),
    (re.compile(r"\b[0-9a-f]{16}\b"), "SERIAL"),
    (re.compile(r"\b\d+ s ago\b"), "AGO"),
    (re.compile(r"^Password of .*\n", re.MULTILINE), ""),  # given by file
    (re.compile(r"[ -]+$", re.MULTILINE), ""),
    (re.compile(r" {2,}"), "  "),  # columns are as wide as what changes in them
]


def comparable(text):
    text = steady(text) + "\n"
    for pattern, word in _CHANGING:
        text = pattern.sub(word, text)
    return text.strip()


def made_runnable(command, cluster, member):
    """The guide's command with this cluster's addresses and passwords."""
    command = command.replace(_GUIDE_NETWORK, NETWORK).replace(_GUIDE_BRIDGE, cluster.bridge)
    if command.startswith("pavane server add"):
        key = cluster.second.cms("status")["fingerprint"]
        return re.sub(r"sha256//\S+", key, command) + f" --password-file {cluster.password_file(cluster.second)}"
    if command.startswith("pavane login"):
        return f"{command} --password-file {cluster.password_file(member)}"
    return command


def addressed(command, cluster, before):
    """The node that the commands from this one on go to."""
    for member in cluster.members:
        if command == f"export PAVANE_URL={member.url}".replace(NETWORK, _GUIDE_NETWORK):
            return member
    return before


def agree(command, environment):
    """What the command prints, and the person who says yes to it."""
    terminal = Terminal("bash", "-c", command, environment=environment)
    try:
        terminal.wait_for(r"\[yes/no\] ")
        terminal.type("yes\n")
        assert terminal.process.wait(PATIENCE_S) == 0
        terminal.wait_for(r"\ndeleted")
        return terminal.text.replace("\r", "")
    finally:
        terminal.close()


def await_print(shell, command, expected):
    """What the command prints, at last what is expected."""
    end = time.monotonic() + (_NEWS_S if command.startswith("pavane server") else 0)
    printed = shell.run(command)
    while comparable(printed) != comparable(expected) and time.monotonic() < end:
        time.sleep(0.5)
        printed = shell.run(command)
    return printed


def test_every_command_prints_what_the_guide_says(tmp_path):
    enter_own_network()
    commands = commands_of(os.path.join(ROOT, _GUIDE), ("# ",))
    assert commands, "the guide has commands"
    environment = reader_environment(tmp_path, ASAN_OPTIONS="detect_leaks=0")
    wrong = []
    with Cluster("--volume-mb", "1024") as cluster, Shell(tmp_path, environment) as shell:
        cluster.log_in(cluster.host)
        member = None
        for command, expected in commands:
            member = addressed(command, cluster, member)
            if command.startswith(("script/cluster", "export PATH=")):
                continue
            if "pavane server list" in command and "server3" not in cluster.ids:
                cluster.pair(cluster.third)  # the guide leaves it to the reader
            command, expected = made_runnable(command, cluster, member), expected.replace(_GUIDE_NETWORK, NETWORK)
            printed = (agree(command, dict(environment, PAVANE_URL=member.url)) if "[yes/no]" in expected else
                       await_print(shell, command, expected))
            if comparable(printed) != comparable(expected):
                wrong.append(f"# {command}\nprinted:\n{printed}\nthe guide says:\n{expected}")
    assert not wrong, "\n\n".join(wrong)
