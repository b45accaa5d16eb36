"""What "List" and "ListShareUsage" answer when accounts, volumes or mounts fail under them."""

import contextlib
import os
import shutil
import sqlite3
import time

import pytest

from candidates import candidates, core_share, permit, silent_mount, stop
from life import delete, find, wait_for_freed
from node import BUILD, SHARE_API, Node

_ANSWER_DEADLINE_S = 3  # the longest that one question to a file system takes
_PATIENCE_S = 10


@pytest.fixture(name="node")
def fixture_node(single_worker_node):
    """One worker, so that a test knows what was asked before."""
    return single_worker_node


@pytest.fixture(name="folders")
def fixture_folders(admin):
    """The paths of a folder on each volume; viewer may write into both."""
    with core_share(admin, "first", "/volume1") as first, core_share(admin, "second", "/volume2") as second:
        permit(admin, "first", "viewer", write=True)
        permit(admin, "second", "viewer", write=True)
        yield {"first": first, "second": second}


@contextlib.contextmanager
def without_account(node, name):
    node.inside("cp", "-a", "/etc/passwd", "/etc/passwd.kept")
    try:
        node.inside("sed", "-i", f"/^{name}:/d", "/etc/passwd")
        yield
    finally:
        node.inside("mv", "/etc/passwd.kept", "/etc/passwd")


def timed(work):
    start = time.monotonic()
    result = work()
    return time.monotonic() - start, result


def rights_lines(node):
    """What the log says about rights since it was last looked at, and it says nothing else."""
    lines = node.unexpected_lines()
    assert all("korvd.log: " in line and "] the rights of " in line for line in lines), lines
    return [line.partition("] ")[2] for line in lines]


def test_a_user_that_no_longer_exists_sees_nothing(node, viewer, folders):
    assert list(candidates(viewer)) == sorted(folders)
    with without_account(node, "viewer"):
        assert viewer.call(SHARE_API, "List", sharePriv=3) == {"success": False, "error": {"code": 105}}
    assert list(candidates(viewer)) == sorted(folders)


def test_a_share_whose_volume_is_gone_is_not_offered(node, admin, viewer, folders):
    node.inside("umount", "-l", "/volume2")
    try:
        for client in (admin, viewer):
            assert list(candidates(client, 3)) == ["first"]
    finally:
        node.inside("mount", "-o", "loop,nosuid,nodev", f"{node.state}/volume2.img", "/volume2")
    assert list(candidates(viewer)) == sorted(folders)


def test_a_share_whose_folder_is_gone_is_not_offered(node, admin, folders):
    node.inside("mv", folders["first"], "/volume1/elsewhere")
    try:
        assert list(candidates(admin, 3)) == ["second"]
    finally:
        node.inside("mv", "/volume1/elsewhere", folders["first"])


@pytest.fixture(name="build")
def fixture_build(tmp_path):
    """The programs under test, but for a platform that gives a broken list of shared folders."""
    (tmp_path / "bin").mkdir()
    shutil.copytree(os.path.join(BUILD, "lib"), tmp_path / "lib")  # a link would lead where only root may go
    tmp_path.chmod(0o755)
    korvd = tmp_path / "bin/korvd"
    korvd.write_text("#!/bin/sh\nexport LD_PRELOAD=/srv/build/lib/broken_share_list.so\n"
                     "export ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0\n"
                     f"exec {BUILD}/bin/korvd \"$@\"\n", encoding="utf-8")
    korvd.chmod(0o755)
    yield str(tmp_path)
    shutil.rmtree(tmp_path / "lib")


def test_a_list_of_shares_that_breaks_its_schema_is_an_error(build):
    with Node("--build", build) as node:
        answer = node.client("admin").call(SHARE_API, "List", sharePriv=1)
        assert answer == {"success": False, "error": {"code": 400}}
        (line,) = [line for line in node.read("log/pavane.log").splitlines() if "LocalSharesEnum" in line]
        assert line.endswith('Failed to validate webapi share list response data[[{"name":7,"vol_path":"/volume1"}]].')


def test_a_list_of_shares_that_cannot_be_read_is_an_error(node, admin, folders):
    node.allow("korv.db|no such table")
    database = sqlite3.connect(f"{node.state}/state/korv.db", timeout=20)
    with contextlib.closing(database):
        database.execute("alter table share rename to hidden")
        database.commit()
        try:
            answer = admin.call(SHARE_API, "List", sharePriv=1)
        finally:
            database.execute("alter table hidden rename to share")
            database.commit()
    assert answer == {"success": False, "error": {"code": 400}}
    assert list(candidates(admin)) == sorted(folders)


def test_a_volume_that_hangs_holds_nobody_up(node, admin, viewer, folders):
    room = candidates(admin)["first"]["freesize"]
    wait_for_freed(node, "/volume2")
    with silent_mount(node, "/volume2") as server:
        stop(server)
        took, listed = timed(lambda: candidates(admin))
        assert sorted(listed) == sorted(folders)
        assert listed["second"]["freesize"] == 0
        assert listed["first"]["freesize"] == room
        assert _ANSWER_DEADLINE_S <= took < _PATIENCE_S
        lines = node.unexpected_lines()
        assert len(lines) == 1 and "Failed to get volume [/volume2] info." in lines[0], lines
        took, listed = timed(lambda: candidates(admin))
        assert listed["second"]["freesize"] == 0
        assert took < _ANSWER_DEADLINE_S
        lines = node.unexpected_lines()
        assert len(lines) == 1 and "Failed to get volume [/volume2] info." in lines[0], lines
        # Whether viewer may use it can't be told, and its name is not for everybody.
        assert list(candidates(viewer)) == ["first"]
        assert rights_lines(node) == ["the rights of viewer on /volume2/second can't be told: it doesn't answer"]
    assert candidates(viewer)["second"]["freesize"] > 0


def test_a_volume_that_only_hides_its_size_is_offered_to_whom_it_admits(node, viewer, folders):
    wait_for_freed(node, "/volume1")
    # Not the other volume: for a while nobody asks a place that was silent.
    with silent_mount(node, "/volume1"):
        took, listed = timed(lambda: candidates(viewer))
        assert sorted(listed) == sorted(folders)
        assert listed["first"]["freesize"] == 0
        assert _ANSWER_DEADLINE_S <= took < _PATIENCE_S
        lines = node.unexpected_lines()
        assert len(lines) == 1 and "Failed to get volume [/volume1] info." in lines[0], lines


@pytest.mark.parametrize("name", ["first", "second"])
def test_a_share_whose_own_mount_hangs_holds_nobody_up(node, admin, viewer, folders, name):
    (other,) = set(folders) - {name}
    wait_for_freed(node, "/volume1")
    room = candidates(admin)["first"]["freesize"]
    with silent_mount(node, folders[name]) as server:
        stop(server)
        took, listed = timed(lambda: candidates(admin))
        assert sorted(listed) == sorted(folders)
        # Only on Btrfs the folder itself is asked.
        assert listed[name]["freesize"] == (room if name == "first" else 0)
        assert _ANSWER_DEADLINE_S <= took < _PATIENCE_S
        assert rights_lines(node) == [f"the rights of admin on {folders[name]} can't be told: it doesn't answer"]
        took, listed = timed(lambda: candidates(viewer))
        assert list(listed) == [other]
        assert took < _ANSWER_DEADLINE_S
        assert rights_lines(node) == [f"the rights of viewer on {folders[name]} can't be told: it doesn't answer"]
        answer = admin.call("KORV.Core.Share.Permission", "set", name=name, user_group_type="local_user",
                            permissions=[{"name": "viewer", "is_readonly": True}])
        assert answer == {"success": False, "error": {"code": 3304}}
    assert list(candidates(viewer)) == sorted(folders)


def test_many_mounts_that_hang_cost_no_more_than_two(node, admin):
    count = 5
    with contextlib.ExitStack() as shares, contextlib.ExitStack() as mounts:
        paths = [shares.enter_context(core_share(admin, f"share{i}", "/volume2")) for i in range(count)]
        wait_for_freed(node, "/volume2")
        for path in paths:
            stop(mounts.enter_context(silent_mount(node, path)))
        took, listed = timed(lambda: candidates(admin))
        assert [share["freesize"] for share in listed.values()] == [0] * count
        assert took < 3 * _ANSWER_DEADLINE_S < count * _ANSWER_DEADLINE_S
        assert len(rights_lines(node)) == count


def test_usage_tells_of_a_share_that_hangs_without_waiting_for_it(node, admin, folders):
    answer = admin.create("second", "/volume2", blAddExistShare=True)
    assert answer["success"], answer
    share = answer["data"]["id"]
    with sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20) as database:
        database.execute("insert into shared_folder_storage values ('second', ?, 0)", (share,))

    def used():
        return [entry["share_id"] for entry in admin.call(SHARE_API, "ListShareUsage")["data"]["usage"]]

    assert used() == []
    with silent_mount(node, folders["second"]) as server:
        stop(server)
        took, found = timed(used)
        assert found == [share]
        assert took < _PATIENCE_S
        assert rights_lines(node) == ["the rights of Pavane on /volume2/second can't be told: it doesn't answer"]
    assert used() == []
    assert delete(admin, find(admin, "second"), keep=True)["success"]
    with sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20) as database:
        database.execute("delete from shared_folder_storage")
