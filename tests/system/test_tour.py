"""README.md and the guide print what the system really answers."""

import os
import select
import subprocess

import pytest

from console_blocks import Shell, commands_of, reader_environment, steady
from node import ROOT, Node

_FOLLOW = "pavane event follow"
_GREETING_DEADLINE_S = 30
_FIRST_CREATION = "pavane share create"


class Follower:
    """The reader's further terminal: listens from before the first share is created."""

    def __init__(self, command, folder, environment):
        self.process = subprocess.Popen(["bash", "-c", f"exec {command}"], cwd=folder, env=environment,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert select.select([self.process.stderr], [], [], _GREETING_DEADLINE_S)[0], f"{command} greets"
        self.greeting = self.process.stderr.readline()  # from here on it misses nothing

    def output(self):
        out, _ = self.process.communicate(timeout=30)
        return self.greeting + out


@pytest.mark.parametrize("document, volume_mb", [("README.md", "1024"), ("docs/guide/first-share.md", "1024"),
                                                 ("docs/guide/share-life.md", "3000")])
def test_every_command_prints_what_the_document_says(document, volume_mb, tmp_path):
    with Node("--volume-mb", volume_mb) as node:
        node.unexpected_lines()
        (tmp_path / "var").symlink_to(node.state)
        environment = reader_environment(tmp_path, PAVANE_URL=node.url)
        commands = commands_of(os.path.join(ROOT, document))
        assert commands, "the document has commands"
        followers = {}
        wrong = []
        with Shell(tmp_path, environment) as shell:
            for command, expected in commands:
                if command.startswith("export PATH="):
                    continue
                if command.startswith(_FIRST_CREATION) and not followers:
                    followers = {each: Follower(each, tmp_path, environment)
                                 for each, _ in commands if each.startswith(_FOLLOW)}
                if command in followers:
                    printed = followers[command].output()
                else:
                    printed = shell.run(command.replace("http://127.0.0.1:5080", node.url))
                if steady(printed) != steady(expected):
                    wrong.append(f"$ {command}\nprinted:\n{printed}\nthe document says:\n{expected}")
        assert not wrong, "\n\n".join(wrong)
        node.allow("Failed to create share|Failed to execute function after relay|RecShare of RV 0 is empty")
        assert node.unexpected_lines() == []
