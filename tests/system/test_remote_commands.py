"""Remote folders as `pavane` shows them: adopted, lost, found again, and back after a restart."""

import os
import sqlite3
import time

import pytest

import samba
from candidates import CommandLine
from node import Node, wait_until

POINT = "/volume1/rec/nas"
_EXPECTED = "mount|reconnecting|could not be|RecShare of RV 0 is empty|korvd (serves|ends)|connect\\(\\)"


@pytest.fixture
def server_and_node():
    with Node() as node:
        node.allow(_EXPECTED)
        server = samba.Samba(node.folder)
        server.start()
        samba.put_helpers_in_place(node)
        try:
            yield server, node
        finally:
            server.kill()
        assert node.unexpected_lines() == []


def line_of(text, name):
    """The words of the table's line that has `name` in it."""
    lines = [line.split() for line in text.splitlines() if name in line.split()]
    assert len(lines) < 2, text
    return lines[0] if lines else []


def mount_rec(pavane, server, folder):
    """A share and below it the server's folder, which is no recording share yet."""
    password = folder / "password"
    password.write_text(samba.PASSWORD + "\n", encoding="utf-8")
    pavane.run("share", "create", "rec", "--volume", "/volume1")
    pavane.run("mount", "add", "//127.0.0.1/data", POINT, "--account", samba.ACCOUNT, "--password-file", str(password),
               "--options", f"port={server.port}")


def test_a_remote_share_lives_through_the_loss_of_its_server_and_a_restart(server_and_node, tmp_path):
    server, node = server_and_node
    pavane = CommandLine(node, "admin", tmp_path)
    password = tmp_path / "password"
    password.write_text(samba.PASSWORD + "\n", encoding="utf-8")
    pavane.run("share", "create", "rec", "--volume", "/volume1")
    assert pavane.run("share", "create-remote", "//127.0.0.1/data", POINT, "--account", samba.ACCOUNT,
                      "--password-file", str(password), "--options", f"port={server.port}", "--auto") \
        == f"recording share 2: {POINT}\n"
    listed = line_of(pavane.run("share", "list"), POINT)
    assert listed[4] == "cifs" and float(listed[5]) > 0
    assert line_of(pavane.run("mount", "list"), POINT) == [POINT, "//127.0.0.1/data", "cifs", "yes", "normal"]

    server.kill()
    wait_until(lambda: "mount failed" in pavane.run("share", "list", "--abnormal"), "it is known to be lost", 30)
    begin = time.monotonic()
    assert line_of(pavane.run("share", "list"), POINT) == []
    assert time.monotonic() - begin < 5
    assert line_of(pavane.run("mount", "list"), POINT)[-3:] == ["not", "mounted", "425"]
    assert node.inside("touch", f"{POINT}/unseen", check=False).returncode != 0
    assert "error 425" in pavane.run("mount", "reconnect", POINT, status=1)

    server.start()
    assert pavane.run("mount", "reconnect", POINT) == f"{POINT} is mounted\n"
    assert line_of(pavane.run("share", "list"), POINT)[4] == "cifs"

    node.stop()
    node.start()
    samba.put_helpers_in_place(node)
    pavane = CommandLine(node, "admin", tmp_path)
    wait_until(lambda: line_of(pavane.run("mount", "list"), POINT)[-1:] == ["normal"], "it is mounted again", 60)
    wait_until(lambda: line_of(pavane.run("share", "list"), POINT), "the share is usable again", 30)
    for point in (POINT, "/rec/nas", POINT + "/"):
        told = pavane.run("mount", "remove", point, status=2)
        assert "recording share 2 stands on" in told and "`pavane share delete 2 --keep-folder`" in told
    assert line_of(pavane.run("mount", "list"), POINT)[-1:] == ["normal"]
    pavane.run("share", "delete", "2", "--keep-folder", "--yes")
    assert pavane.run("mount", "remove", POINT) == f"{POINT} is no longer mounted\n"
    assert line_of(pavane.run("mount", "list"), POINT) == []


def test_a_mount_is_taken_from_its_recording_share_by_force_only(server_and_node, tmp_path):
    server, node = server_and_node
    pavane = CommandLine(node, "admin", tmp_path)
    mount_rec(pavane, server, tmp_path)
    pavane.run("share", "create-remote", "//127.0.0.1/data", POINT, "--mounted")
    node.inside("umount", POINT)
    assert "recording share 2 stands on" in pavane.run("mount", "remove", POINT, status=2)
    for user in ("root", "Pavane"):  # the refusal leaves the guard on, whoever writes
        assert node.inside("setpriv", "--reuid", user, "--clear-groups", "touch", f"{POINT}/unseen", check=False).returncode != 0
    assert pavane.run("mount", "reconnect", POINT) == f"{POINT} is mounted\n"
    assert pavane.run("mount", "remove", POINT, "--force") == f"{POINT} is no longer mounted\n"
    wait_until(lambda: "mount failed" in pavane.run("share", "list", "--abnormal"), "the share is abnormal", 30)
    home = tmp_path / "viewer"
    home.mkdir()
    viewer = CommandLine(node, "viewer", home)
    assert "may not see whether a recording share stands on" in viewer.run("mount", "remove", POINT, status=2)
    assert "error 411" in viewer.run("mount", "remove", POINT, "--force", status=1)


def test_what_was_mounted_but_not_recorded_is_told(server_and_node, tmp_path):
    server, node = server_and_node
    pavane = CommandLine(node, "admin", tmp_path)
    mount_rec(pavane, server, tmp_path)
    for options in (["--auto"], ["--account", "x"], ["--options", "ro"], ["--nfs-version", "3"]):
        told = pavane.run("share", "create-remote", "//127.0.0.1/data", POINT, "--mounted", *options, status=2)
        assert f"with --mounted nothing is mounted, so {options[0]} can't be given" in told
    with sqlite3.connect(os.path.join(node.state, "state/pavane.db")) as database:
        database.execute("create trigger refusal before insert on recording_share begin select raise(abort, 'no'); end")
    node.allow("Failed to save a recording share")
    told = pavane.run("share", "create-remote", "//127.0.0.1/data", POINT, "--mounted", status=1)
    assert "could not record it as a recording share; repeat the command with --mounted" in told
    with sqlite3.connect(os.path.join(node.state, "state/pavane.db")) as database:
        database.execute("drop trigger refusal")
    assert "recording share" in pavane.run("share", "create-remote", "//127.0.0.1/data", POINT, "--mounted")


def test_a_folder_is_mounted_first_and_adopted_later(server_and_node, tmp_path):
    server, node = server_and_node
    pavane = CommandLine(node, "admin", tmp_path)
    mount_rec(pavane, server, tmp_path)
    assert line_of(pavane.run("mount", "list"), POINT)[3:] == ["no", "normal"]
    assert pavane.run("mount", "reconnect", POINT) == f"{POINT} is mounted\n"
    pavane.run("share", "create-remote", "//127.0.0.1/data", POINT, "--mounted")
    assert line_of(pavane.run("share", "list"), POINT)[4] == "cifs"
    assert "error 411" in pavane.run("mount", "remove", "/volume1/rec/other", status=1)
