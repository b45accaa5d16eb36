"""Encrypting and decrypting shares while people use them, whatever dies meanwhile."""

import contextlib
import os
import signal
import sqlite3

import pytest

from life import (JOBS, NAS, PASSWORD, checksums, delete, edit, fill, find, is_there, latest_job, make, nas, rows,
                  wait_for_freed, wait_for_job)
from node import Node, wait_until

_AFTER_A_KILL = ("starting it again|connect\\(\\) to|signal|refused|No such file|prematurely|recv\\(\\) failed|"
                 "earlier korvd|korvd (serves|ends)|died and starts|locked|RecShare of RV 0 is empty|Broken pipe")


@pytest.fixture(autouse=True)
def cleaned(request):
    """No share is left behind on the file's node, nor a password."""
    if "node" not in request.fixturenames:
        yield
        return
    node = request.getfixturevalue("node")
    node.allow("RecShare of RV 0 is empty")
    yield
    client = node.client("admin")
    wait_until(lambda: all(job["finish"] for job in client.call(JOBS, "list")["data"]["jobs"]), "no job is under way")
    for share in client.list(blIncldMigrating=True, blIncldEncUnmount=True):
        assert delete(client, share)["success"]
    assert client.call(NAS, "list")["data"]["total"] == 0
    for volume in ("/volume1", "/volume2"):
        wait_for_freed(node, volume)
    jobs = f"{node.state}/state/jobs"
    assert not os.path.exists(jobs) or not os.listdir(jobs)


@pytest.fixture
def own_node():
    """A node of the test's own, since one that dies often is not started again."""
    with Node() as node:
        node.allow(_AFTER_A_KILL)
        yield node
        assert node.unexpected_lines() == []


def write_record(node, statement):
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20)) as database, database:
        assert database.execute(statement).rowcount == 1


def kill_everything(node):
    """All of the node's daemon and what serves encrypted folders, as when the machine is switched off."""
    pids = [node.korvd]
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            same = os.readlink(f"/proc/{entry}/ns/mnt") == os.readlink(f"/proc/{node.korvd}/ns/mnt")
            with open(f"/proc/{entry}/comm", encoding="utf-8") as file:
                name = file.read().strip()
        except OSError:
            continue
        if same and (name == "gocryptfs" or name.startswith("korvd")):
            pids.append(int(entry))
    for pid in pids:
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


@pytest.mark.parametrize("volume", ["/volume1", "/volume2"])
def test_a_share_is_created_encrypted_locked_and_unlocked(node, admin, volume):
    share = make(admin, "vault", volume, blEncryption=True, encPasswd=PASSWORD)
    assert share["encType"] == 2 and nas(admin, "vault")["encryption"] == 2
    content = fill(node, f"{volume}/vault", 5)
    assert admin.call("KORV.Core.Share.Crypto", "lock", name="vault")["success"]
    assert nas(admin, "vault")["encryption"] == 1
    assert find(admin, "vault")["encType"] == 1
    assert node.inside("ls", "-A", f"{volume}/vault") == ""
    node.allow("could not be locked")
    assert admin.call("KORV.Core.Share.Crypto", "decrypt", name="vault", password="wrong")["error"]["code"] == 3328
    assert admin.call("KORV.Core.Share.Crypto", "decrypt", name="vault", password=PASSWORD)["success"]
    assert find(admin, "vault")["encType"] == 2
    assert checksums(node, f"{volume}/vault") == content
    write_record(node, "update recording_share set enc_type = 0 where name = 'vault'")  # as an edit meanwhile may
    assert find(admin, "vault")["encType"] == 2


@pytest.mark.parametrize("password", ["", "two\nlines", "x" * 2000])
def test_bad_passwords_are_refused(node, admin, password):
    node.allow("Failed to (create|edit) share|Failed to execute function after relay|was not made|was not changed")
    assert admin.create("vault", blEncryption=True, encPasswd=password)["error"]["code"] == 526
    assert not is_there(node, "/volume1/vault") and nas(admin, "vault") is None
    share = make(admin, "plain")
    assert edit(admin, share, blEncryption=True, encPasswd=password)["error"]["code"] == 526
    assert nas(admin, "plain")["encryption"] == 0


@pytest.mark.parametrize("volume", ["/volume1", "/volume2"])
def test_a_plain_share_becomes_encrypted_and_plain_again(node, admin, volume):
    share = make(admin, "rec", volume)
    fill(node, f"{volume}/rec")
    node.inside("install", "-d", "-m", "0700", f"{volume}/rec/root's own")
    content = checksums(node, f"{volume}/rec")
    rights = node.inside("getfacl", "-cp", f"{volume}/rec")
    assert edit(admin, share, blEncryption=True, encPasswd=PASSWORD)["success"]
    status = admin.call(NAS, "move_status", task_id=latest_job(admin))["data"]
    assert status["name"] == "rec" and status["status"] in ("waiting", "progressing", "finished")
    assert wait_for_job(admin, latest_job(admin))["state"] == "finished"
    listed = find(admin, "rec")  # an edit by an older state would start the way back
    assert listed["encType"] == 2 and not listed["blMigrating"]
    assert nas(admin, "rec")["encryption"] == 2 and not nas(admin, "rec")["is_share_moving"]
    assert checksums(node, f"{volume}/rec") == content
    assert node.inside("getfacl", "-cp", f"{volume}/rec") == rights
    assert "gocryptfs" in node.inside("findmnt", "-no", "FSTYPE", f"{volume}/rec")
    names = node.inside("find", f"{volume}/.korv/cipher")
    assert ".mp4" not in names and "cam0" not in names
    answer = admin.call(NAS, "set", name="rec", shareinfo={"encryption": False, "enc_passwd": ""})
    assert answer["success"], answer
    assert wait_for_job(admin, answer["data"]["task_id"])["state"] == "finished"
    assert nas(admin, "rec")["encryption"] == 0
    assert checksums(node, f"{volume}/rec") == content
    assert not is_there(node, f"{volume}/.korv/cipher/*")


def test_passwords_of_jobs_are_rootonly_gone_afterwards_and_never_logged(node, admin):
    share = make(admin, "rec")
    fill(node, "/volume1/rec", 60, 1000)
    assert edit(admin, share, blEncryption=True, encPasswd="unheard-of-word")["success"]
    folder = f"{node.state}/state/jobs"
    assert os.stat(folder).st_mode & 0o777 == 0o700 and os.stat(folder).st_uid == 0
    for name in os.listdir(folder):
        assert os.stat(f"{folder}/{name}").st_mode & 0o777 == 0o600
    wait_for_job(admin, latest_job(admin))
    assert os.listdir(folder) == []
    for name in ("log/korvd.log", "log/pavane.log", "log/nginx-error.log"):
        if os.path.exists(os.path.join(node.state, name)):
            assert "unheard-of-word" not in node.read(name)
    with open(f"{node.state}/state/korv.db", "rb") as file:
        assert b"unheard-of-word" not in file.read()


def test_a_move_can_be_cancelled_and_keeps_other_changes_away(node, admin):
    node.allow("was not (changed|removed)|Failed to edit share|Failed to execute function after relay")
    share = make(admin, "rec")
    content = fill(node, "/volume1/rec", 45, 1000)
    answer = admin.call(NAS, "set", name="rec", shareinfo={"encryption": True, "enc_passwd": PASSWORD})
    job = answer["data"]["task_id"]
    assert admin.call(NAS, "move_status", name="rec")["data"]["task_id"] == job
    assert admin.call(NAS, "set", name="rec", shareinfo={"name": "other"})["error"]["code"] == 3305
    assert admin.call(NAS, "delete", name="rec")["error"]["code"] == 3305
    assert admin.call(NAS, "set", name="rec", shareinfo={"encryption": False})["error"]["code"] == 3305
    assert admin.call(JOBS, "cancel", id=job)["success"]
    assert wait_for_job(admin, job)["state"] == "cancelled"
    assert admin.call(JOBS, "cancel", id=job)["error"]["code"] == 3315
    assert admin.call(JOBS, "cancel", id="999")["error"]["code"] == 3314
    assert admin.call(NAS, "move_status", name="rec")["error"]["code"] == 3314
    assert nas(admin, "rec")["encryption"] == 0 and checksums(node, "/volume1/rec") == content
    assert find(admin, "rec") == share


def test_only_administrators_see_and_cancel_jobs(node):
    viewer = node.client("viewer")
    assert viewer.call(JOBS, "list")["error"]["code"] == 105
    assert viewer.call(JOBS, "cancel", id="1")["error"]["code"] == 105
    assert viewer.call(NAS, "move_status", name="rec")["error"]["code"] == 105


def test_a_move_that_does_not_fit_is_refused_before_it_starts(node, admin):
    node.allow("was not changed|Failed to edit share|Failed to execute function after relay")
    share = make(admin, "rec")
    node.inside("fallocate", "-l", "110M", "/volume1/rec/large")
    before = admin.call(JOBS, "list")["data"]
    assert edit(admin, share, blEncryption=True, encPasswd=PASSWORD)["error"]["code"] == 442
    answer = admin.call(NAS, "set", name="rec", shareinfo={"encryption": True, "enc_passwd": PASSWORD})
    assert answer["error"]["code"] == 3306
    assert nas(admin, "rec")["encryption"] == 0 and admin.call(JOBS, "list")["data"] == before
    assert not nas(admin, "rec")["is_share_moving"]


@pytest.mark.parametrize("percent", [0, 10, 30, 55, 80, 99])
def test_a_move_survives_the_death_of_everything(own_node, percent):
    node, admin = own_node, own_node.client("admin")
    make(admin, "rec")
    content = fill(node, "/volume1/rec", 60, 700)
    answer = admin.call(NAS, "set", name="rec", shareinfo={"encryption": True, "enc_passwd": PASSWORD})
    job = answer["data"]["task_id"]
    wait_until(lambda: rows(node, "korv.db", f"select 1 from job where id = {job} and (percent >= {percent} or "
                            "state not in ('waiting', 'progressing'))"), "the move is so far")
    kill_everything(node)
    wait_until(node.is_healthy, "the node answers again", 60)
    client = node.client("admin")
    assert wait_for_job(client, job)["state"] == "finished"
    if nas(client, "rec")["encryption"] == 1:  # it was over already when all died
        assert client.call("KORV.Core.Share.Crypto", "decrypt", name="rec", password=PASSWORD)["success"]
    assert nas(client, "rec")["encryption"] == 2
    assert checksums(node, "/volume1/rec") == content


def test_decrypting_waits_for_the_key_after_everything_died(own_node):
    node, admin = own_node, own_node.client("admin")
    make(admin, "rec", blEncryption=True, encPasswd=PASSWORD)
    content = fill(node, "/volume1/rec", 60, 700)
    job = admin.call(NAS, "set", name="rec", shareinfo={"encryption": False})["data"]["task_id"]
    wait_until(lambda: rows(node, "korv.db", f"select 1 from job where id = {job} and percent >= 10"), "it copies")
    kill_everything(node)
    wait_until(node.is_healthy, "the node answers again", 60)
    client = node.client("admin")

    def waits():
        data = client.call(NAS, "move_status", task_id=job)["data"]
        return data["finish"] or data["error"] == 3328
    wait_until(waits, "the job waits for the key")
    if nas(client, "rec")["encryption"] == 1:
        assert client.call("KORV.Core.Share.Crypto", "decrypt", name="rec", password=PASSWORD)["success"]
    assert wait_for_job(client, job)["state"] == "finished"
    assert nas(client, "rec")["encryption"] == 0
    assert checksums(node, "/volume1/rec") == content


def test_an_encrypted_share_can_be_renamed_and_deleted(node, admin):
    share = make(admin, "vault", blEncryption=True, encPasswd=PASSWORD)
    content = fill(node, "/volume1/vault", 5)
    assert edit(admin, share, shareName="safe", blEncryption=True, encPasswd="not looked at")["success"]
    assert nas(admin, "safe")["encryption"] == 2
    assert checksums(node, "/volume1/safe") == content
    assert delete(admin, find(admin, "safe"))["success"]
    assert nas(admin, "safe") is None and not is_there(node, "/volume1/safe")
    wait_for_freed(node, "/volume1")
