"""Who may do what in a share's folder, tried by processes that have the ids."""

import os
import shutil

import pytest

VOLUMES = ["/volume1", "/volume2"]


def runs_as(node, account, *command):
    """True when a process with all ids of `account` succeeds with the command."""
    result = node.inside("setpriv", "--reuid", account, "--regid", account, "--init-groups", "--", *command,
                         check=False)
    assert result.returncode in (0, 1, 2), result.stderr  # what the programs used here end with
    return result.returncode == 0


@pytest.fixture(params=VOLUMES)
def folder(request, node, admin):
    """A fresh share on each volume."""
    volume = request.param
    name = f"rights{volume[-1]}-{request.node.originalname}"[:64]
    answer = admin.create(name, volume)
    assert answer["success"], answer
    return f"{volume}/{name}"


def test_the_recorder_and_the_administrators_may_write_and_nobody_else(node, folder):
    assert runs_as(node, "Pavane", "mkdir", f"{folder}/by-recorder")
    assert runs_as(node, "admin", "mkdir", f"{folder}/by-admin")
    assert not runs_as(node, "viewer", "mkdir", f"{folder}/by-viewer")
    assert not runs_as(node, "viewer", "ls", folder)
    entries = node.inside("ls", folder).split()
    assert sorted(entries) == ["by-admin", "by-recorder"]


def test_what_the_one_creates_the_other_may_change(node, folder):
    assert runs_as(node, "Pavane", "sh", "-c", f"umask 077; mkdir -p '{folder}/a/b' && echo x > '{folder}/a/b/clip'")
    assert runs_as(node, "admin", "sh", "-c", f"echo y >> '{folder}/a/b/clip' && touch '{folder}/a/b/note'")
    assert runs_as(node, "Pavane", "rm", f"{folder}/a/b/note")
    assert not runs_as(node, "viewer", "cat", f"{folder}/a/b/clip")


def test_a_btrfs_share_is_a_subvolume_and_an_ext4_share_a_folder(node, folder):
    is_subvolume = node.inside("btrfs", "subvolume", "show", folder, check=False).returncode == 0
    assert is_subvolume == folder.startswith("/volume2")


def test_an_adopted_folder_gets_the_rights_and_keeps_what_it_holds(node, admin):
    answer = admin.call("KORV.Core.Share", "create", name="adopted", shareinfo={
        "name": "adopted", "vol_path": "/volume1", "desc": "", "hidden": False})
    assert answer["success"], answer
    node.inside("sh", "-c", "echo old > /volume1/adopted/old")
    assert not runs_as(node, "Pavane", "touch", "/volume1/adopted/new")
    assert admin.create("adopted", blAddExistShare=True)["success"]
    assert runs_as(node, "Pavane", "touch", "/volume1/adopted/new")
    assert node.inside("cat", "/volume1/adopted/old") == "old\n"


def test_accounts_that_the_machine_gets_meanwhile_take_none_away(node, admin):
    for name in ("/etc/passwd", "/etc/group"):
        shutil.copy2(name, f"{name}.copy")
        os.replace(f"{name}.copy", name)  # as programs that add accounts do
    assert runs_as(node, "Pavane", "true")
    assert admin.create("after-accounts")["success"]
