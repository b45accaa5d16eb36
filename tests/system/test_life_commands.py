"""A share's life by `pavane` commands: what goes on, what waits, and what could not be done is told."""

import contextlib
import os
import subprocess

import pytest

from candidates import CommandLine
from life import JOBS, NAS, PASSWORD, delete, fill, find, make, nas, wait_for_freed, wait_for_job
from node import BUILD, wait_until

_REFUSED = 1
_USAGE = 2


@pytest.fixture(autouse=True)
def cleaned(node):
    """No share is left behind."""
    node.allow("RecShare of RV 0 is empty")
    yield
    client = node.client("admin")
    wait_until(lambda: all(job["finish"] for job in client.call(JOBS, "list")["data"]["jobs"]), "no job is under way")
    for share in client.list(blIncldMigrating=True, blIncldEncUnmount=True):
        assert delete(client, share)["success"]
    names = [share["name"] for share in client.call(NAS, "list")["data"]["shares"]]
    assert client.call(NAS, "delete", name=names)["success"], names
    wait_for_freed(node, "/volume1")


@pytest.fixture
def pavane(node, tmp_path):
    (tmp_path / "password").write_text(PASSWORD + "\n", encoding="utf-8")
    return CommandLine(node, "admin", tmp_path)


@contextlib.contextmanager
def opened(node, path):
    """A process of the node that has the file open."""
    with subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", "sh", "-c", 'exec 3<"$1"; echo open; read end',
                           "sh", path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
        try:
            assert process.stdout.readline() == "open\n"
            yield
        finally:
            process.stdin.close()
            process.wait(20)


def begin(pavane, *arguments):
    """A command that goes on; its answer comes by its standard output."""
    return subprocess.Popen([os.path.join(BUILD, "bin/pavane"), *arguments], env=pavane.environment,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def answer(pavane, *arguments):
    """The exit status and all that is said."""
    with begin(pavane, *arguments) as process:
        said = process.communicate(timeout=120)[0]
        return process.returncode, said


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
