"""The guide to candidates and to what uses a share prints what a node answers, with a disk attached and pulled."""

import os
import re

from console_blocks import Shell, commands_of, reader_environment, steady
from external_disk import device_manager
from node import ROOT, Node, wait_until

_GUIDE = "docs/guide/candidates.md"
_RULES = "cat /run/udev/rules.d/10-usb.rules"
_ATTACH = "losetup --find --show"
_DEVICE = re.compile(r"/dev/loop(\d+)")
_CHANGING = [
    (re.compile(r"^\d+ bytes .* copied.*$", re.MULTILINE), "BYTES copied"),
    (re.compile(r"\b0m\d\.\d+s"), "TIME"),
    (re.compile(r"\b90\d MB"), "SIZE"),  # of the volumes' rest some is the file systems' own
    (re.compile(r" {2,}"), "  "),  # columns are as wide as what changes in them
]


def comparable(text):
    text = steady(text)
    for pattern, word in _CHANGING:
        text = pattern.sub(word, text)
    return text


class AttachedDisk:
    """The loop device of the guide's disk, which is another one than the guide's."""

    def __init__(self, guide):
        self.of_guide = self.real = int(_DEVICE.search(guide).group(1))

    def found(self, printed):
        self.real = int(_DEVICE.search(printed).group(1))

    def renamed(self, text):
        """The guide's text with the device that the disk really has, and the name that it has from it."""
        return (text.replace(f"loop{self.of_guide}", f"loop{self.real}")
                .replace(f"usbshare{self.of_guide + 1}", f"usbshare{self.real + 1}"))


def await_device_manager(node, disk):
    facts = f"/run/udev/data/b7:{disk.real}"
    wait_until(lambda: node.inside("test", "-s", facts, check=False).returncode == 0, "the disk is known")


def detach(node):
    for line in node.inside("losetup", "--noheadings", "--output", "NAME,BACK-FILE", "--list").splitlines():
        name, _, file = line.strip().partition(" ")
        if file.strip() == os.path.realpath(f"{node.state}/usb.img"):
            node.inside("losetup", "-d", name)


def test_every_command_prints_what_the_guide_says(tmp_path):
    commands = commands_of(os.path.join(ROOT, _GUIDE))
    rules = dict(commands)[_RULES]
    disk = AttachedDisk("\n".join(expected for _, expected in commands))
    wrong = []
    with Node("--volume-mb", "1024") as node, device_manager(node, rules + "\n"):
        node.unexpected_lines()
        (tmp_path / "var").symlink_to(node.state)
        try:
            with Shell(tmp_path, reader_environment(tmp_path, PAVANE_URL=node.url)) as shell:
                for command, expected in commands:
                    if command == _RULES:
                        continue  # the node's device manager has it
                    command = disk.renamed(command).replace("http://127.0.0.1:5080", node.url)
                    printed = shell.run(command)
                    if command.startswith(_ATTACH):
                        disk.found(printed)
                        await_device_manager(node, disk)
                    if comparable(printed) != comparable(disk.renamed(expected)):
                        wrong.append(f"$ {command}\nprinted:\n{printed}\nthe guide says:\n{expected}")
        finally:
            detach(node)
        assert not wrong, "\n\n".join(wrong)
        assert node.unexpected_lines() == []
