"""A share's life by `pavane` commands: what goes on, what waits, and what could not be done is told."""

import os
import subprocess

import pytest

from candidates import CommandLine
from life import (JOBS, PASSWORD, checksums, delete, fill, find, make, nas, opened, remove_all_shares,
                  wait_for_job)
from node import BUILD, wait_until
from terminal import Terminal

_REFUSED = 1
_USAGE = 2


@pytest.fixture(autouse=True)
def cleaned(node):
    """No share is left behind."""
    node.allow("RecShare of RV 0 is empty")
    yield
    client = node.client("admin")
    wait_until(lambda: all(job["finish"] for job in client.call(JOBS, "list")["data"]["jobs"]), "no job is under way")
    remove_all_shares(node)


@pytest.fixture
def pavane(node, tmp_path):
    (tmp_path / "password").write_text(PASSWORD + "\n", encoding="utf-8")
    return CommandLine(node, "admin", tmp_path)


def begin(pavane, *arguments):
    """A command that goes on; its answer comes by its standard output."""
    return subprocess.Popen([os.path.join(BUILD, "bin/pavane"), *arguments], env=pavane.environment,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def at_terminal(pavane, *arguments):
    return Terminal(os.path.join(BUILD, "bin/pavane"), *arguments, environment=pavane.environment)


def answer(pavane, *arguments):
    """The exit status and all that is said."""
    with begin(pavane, *arguments) as process:
        said = process.communicate(timeout=120)[0]
        return process.returncode, said


def jobs_of(admin):
    return [job["id"] for job in admin.call(JOBS, "list")["data"]["jobs"]]


def waits(admin):
    return admin.call(JOBS, "list")["data"]["jobs"][0]["error"] == 3305


def test_the_end_of_an_encryption_is_told_however_soon_it_came(node, admin, pavane, tmp_path):
    make(admin, "rec")
    password = ["--password-file", str(tmp_path / "password")]
    status, said = answer(pavane, "share", "edit", str(find(admin, "rec")["shareId"]), "--encrypt", *password)
    assert status == 0 and said.endswith("encrypting rec is finished\n"), said
    assert nas(admin, "rec")["encryption"] == 2
    status, said = answer(pavane, "share", "edit", str(find(admin, "rec")["shareId"]), "--encrypt", *password)
    assert status == 0 and said == f"recording share {find(admin, 'rec')['shareId']} is changed\n"


def test_a_share_whose_files_are_being_decrypted_takes_other_changes(node, admin, pavane):
    node.allow("job [0-9]+: ")
    share = make(admin, "rec", blEncryption=True, encPasswd=PASSWORD)
    fill(node, "/volume1/rec", 3)
    number = str(share["shareId"])
    with opened(node, "/volume1/rec/cam0/2026 0 ä/0.mp4"):
        said = pavane.run("share", "edit", number, "--decrypt", "--no-wait")
        assert "moves its data" in said, said
        wait_until(lambda: waits(admin), "the job waits for the file")
        job = admin.call(JOBS, "list")["data"]["jobs"][0]["id"]
        assert pavane.run("share", "limit", number, "5") == f"recording share {number} is changed\n"
        pavane.run("share", "edit", number, "--description", "Yard")
        for change in (["--name", "other"], ["--encrypt"]):
            said = pavane.run("share", "edit", number, *change, status=_USAGE)
            assert f"are being decrypted; wait for it (`pavane job follow {job}`)" in said
        follower = begin(pavane, "job", "follow", job)
        line = follower.stdout.readline()
        assert line == "decrypting rec waits until nobody uses its files and nothing is mounted in it\n"
    assert wait_for_job(admin, job)["state"] == "finished"
    assert follower.communicate(timeout=30)[0].endswith("decrypting rec is finished\n") and follower.returncode == 0
    changed = find(admin, "rec")
    assert (changed["description"], changed["recLimitGB"], changed["encType"]) == ("Yard", 5, 0)


def test_a_folder_that_stays_after_a_deletion_is_told(node, admin, pavane):
    node.allow("was not removed")
    free, busy = make(admin, "free"), make(admin, "busy")
    fill(node, "/volume1/busy", 1)
    with opened(node, "/volume1/busy/cam0/2026 0 ä/0.mp4"):
        status, said = answer(pavane, "share", "delete", str(free["shareId"]), str(busy["shareId"]), "--yes")
    assert status == _REFUSED
    assert "these folders stay with all that is in them:\n  busy\n" in said and "free" not in said, said
    assert nas(admin, "busy") and not nas(admin, "free") and not find(admin, "busy")
    adopted = make(admin, "busy", blAddExistShare=True)
    assert answer(pavane, "share", "delete", str(adopted["shareId"]), "--yes") == (0, "deleted\n")
    kept = make(admin, "kept")
    status, said = answer(pavane, "share", "delete", str(kept["shareId"]), "--yes", "--keep-folder")
    assert (status, said) == (0, "no recording shares any more; the folders are kept\n")


@pytest.fixture
def viewers_pavane(node, admin, tmp_path):
    """`pavane` of an account without an administrator's rights that may use the application."""
    privilege = {"user": "viewer", "app": "KORV.KRX.Pavane"}
    assert admin.call("KORV.Core.AppPriv", "grant", **privilege)["success"]
    (tmp_path / "viewer").mkdir()
    yield CommandLine(node, "viewer", tmp_path / "viewer")
    assert admin.call("KORV.Core.AppPriv", "revoke", **privilege)["success"]


@pytest.mark.parametrize("encryption", [{}, {"blEncryption": True, "encPasswd": PASSWORD}])
def test_who_is_no_administrator_edits_a_share_as_it_is(admin, viewers_pavane, encryption):
    share = make(admin, "rec", **encryption)
    before = jobs_of(admin)
    number = str(share["shareId"])
    changed = f"recording share {number} is changed\n"
    assert viewers_pavane.run("share", "edit", number, "--description", "Yard", "--name", "yard") == changed
    assert viewers_pavane.run("share", "limit", number, "5") == changed
    edited = find(admin, "yard")
    assert (edited["description"], edited["recLimitGB"], edited["enableRecLimit"]) == ("Yard", 5, True)
    assert edited["encType"] == share["encType"] == (2 if encryption else 0)
    assert jobs_of(admin) == before


def test_who_is_no_administrator_edits_a_share_that_is_being_decrypted(node, admin, viewers_pavane, pavane):
    node.allow("job [0-9]+: ")
    share = make(admin, "rec", blEncryption=True, encPasswd=PASSWORD)
    fill(node, "/volume1/rec", 3)
    number = str(share["shareId"])
    with opened(node, "/volume1/rec/cam0/2026 0 ä/0.mp4"):
        pavane.run("share", "edit", number, "--decrypt", "--no-wait")
        wait_until(lambda: waits(admin), "the job waits for the file")
        job = admin.call(JOBS, "list")["data"]["jobs"][0]["id"]
        viewers_pavane.run("share", "edit", number, "--description", "Yard")
    assert wait_for_job(admin, job)["state"] == "finished"
    assert (find(admin, "rec")["description"], find(admin, "rec")["encType"]) == ("Yard", 0)
    assert jobs_of(admin)[0] == job


@pytest.mark.parametrize("typed, is_deleted", [("yes\n", True), ("no\n", False), ("y\n", False), ("\n", False),
                                               ("\x04", False)])
def test_a_deletion_shows_what_goes_and_asks(node, admin, pavane, typed, is_deleted):
    share = make(admin, "rec")
    fill(node, "/volume1/rec", 1)
    with at_terminal(pavane, "share", "delete", str(share["shareId"])) as terminal:
        terminal.wait_for("Go on\\? \\[yes/no\\] ")
        assert "rec   /volume1/rec" in terminal.text
        assert "They will be deleted, with their folders and all that is in them." in terminal.text
        assert find(admin, "rec") == share
        terminal.type(typed)
        status = terminal.end()
    said = "deleted" if is_deleted else "not confirmed; nothing was deleted"
    assert (status, said in terminal.text) == (0 if is_deleted else _USAGE, True), terminal.text
    assert find(admin, "rec") == (None if is_deleted else share)
    assert (nas(admin, "rec") is None) == is_deleted


def test_without_a_terminal_nothing_is_deleted_unasked(node, admin, pavane):
    share = make(admin, "rec")
    content = fill(node, "/volume1/rec", 1)
    for keep in ([], ["--keep-folder"]):
        said = pavane.run("share", "delete", str(share["shareId"]), *keep, status=_USAGE, input="yes\n")
        assert said == "pavane: nobody can be asked; give --yes to delete without a question\n"
    assert find(admin, "rec") == share and checksums(node, "/volume1/rec") == content


def test_a_terminal_shows_a_bar_until_the_end(node, admin, pavane):
    node.allow("job [0-9]+: ")
    share = make(admin, "rec", blEncryption=True, encPasswd=PASSWORD)
    fill(node, "/volume1/rec", 3)
    with (opened(node, "/volume1/rec/cam0/2026 0 ä/0.mp4"),
          at_terminal(pavane, "share", "edit", str(share["shareId"]), "--decrypt") as terminal):
        terminal.wait_for(r"\r\[[#.]{30}\] [ 0-9]{3} %  decrypting rec, waiting\x1b\[K")
        terminal.wait_for("decrypting rec waits until nobody uses its files and nothing is mounted in it\r\n")
        job = jobs_of(admin)[0]
        table = pavane.run("job", "list").splitlines()
        assert table[0].split() == ["ID", "KIND", "SHARE", "STATE", "DONE", "STARTED", "ENDED", "REASON"]
        assert table[1].split()[:4] == [job, "decrypt", "rec", "waiting"]
        assert table[1].endswith("The shared folder is in use: files of it are open, something is mounted in it, "
                                 "or it is changing.")
        assert pavane.run("job", "cancel", job) == (
            f"job {job} is being cancelled; the shared folder stays as it was\n")
        assert terminal.end() == _REFUSED
    assert terminal.text.endswith("\r\x1b[Kdecrypting rec cancelled\r\n")
    assert pavane.run("job", "list").splitlines()[1].split()[:4] == [job, "decrypt", "rec", "cancelled"]
    said = pavane.run("job", "cancel", job, status=_REFUSED)
    assert said.startswith("pavane: error 3315: ")
    assert "error 3314" in pavane.run("job", "cancel", "999", status=_REFUSED)
    assert nas(admin, "rec")["encryption"] == 2

    with at_terminal(pavane, "share", "edit", str(share["shareId"]), "--decrypt") as terminal:
        assert terminal.end() == 0
    assert terminal.text.endswith("\r\x1b[Kdecrypting rec is finished\r\n")
    table = pavane.run("job", "list").splitlines()
    assert table[1].split()[1:6] == ["decrypt", "rec", "finished", "100", "%"]
    assert nas(admin, "rec")["encryption"] == 0
