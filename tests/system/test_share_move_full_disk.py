"""Encrypting and decrypting a share on a volume that gets full at each of the move's steps."""

import contextlib
import os
import sqlite3

import pytest

from life import (NAS, PASSWORD, checksums, delete, edit, fill, find, latest_job, make, nas, rows, wait_for_freed,
                  wait_for_job)
from node import Node, wait_until

_NO_SPACE = 3306
_NEEDS_KEY = 3328
_ALLOWED = ("RecShare of RV 0 is empty|job [0-9]+( failed)?: .*(held|No space|needs [0-9]+ bytes|I/O error)|locked|"
            "could not be|No space left")
_AFTER_A_RESTART = "korvd (serves|ends)|connect\\(\\) to unix"
# Steps of a move, as the job's row names them, in their order; the folders are exchanged before _SETTLE.
_PREPARE, _COPY, _VERIFY, _CATCH_UP, _SWITCH, _SETTLE, _FOLLOW, _REMOVE_SOURCE, _DONE = _STEPS = (1, 2, 3, 4, 5, 11, 6,
                                                                                                   7, 8)


@pytest.fixture(autouse=True)
def cleaned(request):
    """No share is left behind on the file's node."""
    if "node" not in request.fixturenames:
        yield
        return
    node = request.getfixturevalue("node")
    node.allow(_ALLOWED)
    yield
    node.inside("sh", "-c", "rm -f /volume?/ballast*")
    client = node.client("admin")
    for share in client.list(blIncldMigrating=True, blIncldEncUnmount=True):
        assert delete(client, share)["success"]
    assert client.call(NAS, "list")["data"]["total"] == 0
    for volume in ("/volume1", "/volume2"):
        wait_for_freed(node, volume)


@pytest.fixture
def own_node():
    """A node of the test's own, which is stopped and started again."""
    with Node() as node:
        node.allow(f"{_ALLOWED}|{_AFTER_A_RESTART}")
        yield node
        assert node.unexpected_lines() == []


class Moved:
    """A share that changes between plain and encrypted."""

    def __init__(self, node, client, volume, *, encrypted):
        self.node, self.client, self.volume = node, client, volume
        self.path, self.ballast = f"{volume}/rec", f"{volume}/ballast"
        make(client, "rec", volume, blEncryption=encrypted, encPasswd=PASSWORD if encrypted else "")
        self.content = fill(node, self.path, 12)
        self.encrypted = encrypted

    def start(self):
        """Asks for the other kind as the recorder's own pages do; gives the job."""
        answer = edit(self.client, find(self.client, "rec"), blEncryption=not self.encrypted,
                      encPasswd="" if self.encrypted else PASSWORD)
        assert answer["success"], answer
        return latest_job(self.client)

    def start_by_service(self):
        answer = self.client.call(NAS, "set", name="rec", shareinfo={
            "encryption": not self.encrypted, "enc_passwd": "" if self.encrypted else PASSWORD})
        assert answer["success"], answer
        assert answer["data"]["task_id"] == latest_job(self.client)
        return answer["data"]["task_id"]

    def add_late_file(self, name):
        self.node.inside("dd", f"of={self.path}/cam1/{name}", "bs=1k", "status=none", input=os.urandom(300_000),
                         text=False)
        self.content = checksums(self.node, self.path)

    def fill_up(self):
        self.node.inside("sh", "-c", 'fallocate -l $(($(stat -fc "%f * %S" "$1") - (4 << 20))) "$2";'
                         'dd if=/dev/zero of="$2.rest" bs=64k; dd if=/dev/zero of="$2.last" bs=1k; sync -f "$1"; true',
                         "sh", self.volume, self.ballast)

    def make_room(self):
        self.node.inside("sh", "-c", 'rm "$1"*', "sh", self.ballast)

    def expect_as_before(self):
        folder = nas(self.client, "rec")
        assert folder["encryption"] == (2 if self.encrypted else 0) and not folder["is_share_moving"]
        assert checksums(self.node, self.path) == self.content
        for hidden in ("move", "view", *([] if self.encrypted else ["cipher"])):
            found = self.node.inside("find", f"{self.volume}/.korv/{hidden}", "-mindepth", "1", check=False)
            assert found.stdout == ""

    def expect_moved(self, job):
        job = wait_for_job(self.client, job)
        assert (job["state"], job["error"], job["percent"]) == ("finished", 0, 100)
        self.encrypted = not self.encrypted
        self.expect_as_before()

        def is_recorded():
            record = find(self.client, "rec")
            return (record["encType"], record["blMigrating"]) == (2 if self.encrypted else 0, False)
        wait_until(is_recorded, "the record says so")


def execute(node, statement):
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/korv.db", timeout=20)) as database, database:
        database.execute(statement)


@contextlib.contextmanager
def held_before(node, step):
    """No move gets to `step` or beyond for as long: what would save that fails. Gives a wait for one."""
    begin = len(node.read("log/korvd.log"))
    position = _STEPS.index(step)
    before = _STEPS[position - 1] if position else 0

    def has_tried(job):
        return "held" in node.read("log/korvd.log")[begin:] and \
            rows(node, "korv.db", f"select step from job where id = {job}") == [(before,)]

    execute(node, f"create trigger held before update on job when new.step in {_STEPS[position:]} "
            "begin select raise(abort, 'held'); end")
    try:
        yield lambda job: wait_until(lambda: has_tried(job), f"the move is before step {step}")
    finally:
        execute(node, "drop trigger held")


@pytest.mark.parametrize("encrypted", [False, True])
def test_a_disk_that_gets_full_at_any_step_costs_no_file(node, admin, encrypted):
    share = Moved(node, admin, "/volume1", encrypted=encrypted)
    for step in (_PREPARE, _COPY, _VERIFY, _CATCH_UP, _SWITCH):
        with held_before(node, step) as wait:
            job = share.start_by_service()
            wait(job)
            share.add_late_file(f"before {step}")
            share.fill_up()
        done = wait_for_job(admin, job)
        assert (done["state"], done["error"]) == ("failed", _NO_SPACE), step
        share.expect_as_before()
        share.make_room()
    with held_before(node, _SETTLE) as wait:  # nothing is left to be written from here on
        job = share.start()
        wait(job)
        share.fill_up()
    share.expect_moved(job)
    share.make_room()
    with held_before(node, _FOLLOW) as wait:
        job = share.start_by_service()
        wait(job)
        share.fill_up()
    share.expect_moved(job)


@pytest.mark.parametrize("encrypted", [False, True])
def test_a_full_disk_and_a_restart_in_the_middle_cost_no_file(own_node, encrypted):
    node = own_node
    share = Moved(node, node.client("admin"), "/volume1", encrypted=encrypted)
    with held_before(node, _VERIFY) as wait:
        job = share.start()
        wait(job)
        share.add_late_file("late")
        share.fill_up()
        node.stop()
    node.start()
    share.client = node.client("admin")
    if encrypted:
        # It may have met the full disk before the restart.
        wait_until(lambda: share.client.call(NAS, "move_status", task_id=job)["data"]["error"] in (_NEEDS_KEY, _NO_SPACE),
                   "the move waits for the key or has given up")
        assert share.client.call("KORV.Core.Share.Crypto", "decrypt", name="rec", password=PASSWORD)["success"]
        execute(node, f"update job set next_try_s = 0 where id = {job}")  # as if the pause were over
    done = wait_for_job(share.client, job)
    assert (done["state"], done["error"]) == ("failed", _NO_SPACE)
    share.expect_as_before()
    share.make_room()
    share.expect_moved(share.start())
