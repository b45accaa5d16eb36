"""What can become a recording share, as each account sees it, and how much room there is."""

import contextlib
import json

import pytest

from candidates import MB, CommandLine, candidates, core_share, permit
from life import delete, find
from node import SHARE_API

_VIEWER = "7111"


@pytest.fixture(name="folders")
def fixture_folders(admin):
    """The paths of three folders: viewer may not enter the first, read the second and write into the third."""
    with contextlib.ExitStack() as stack:
        paths = {name: stack.enter_context(core_share(admin, name, volume))
                 for name, volume in (("closed", "/volume1"), ("readable", "/volume1"), ("writable", "/volume2"))}
        permit(admin, "readable", "viewer", write=False)
        permit(admin, "writable", "viewer", write=True)
        yield paths


def write_until_full(node, folder):
    """How many MB viewer can write there; frees them again."""
    path = f"{folder}/filler"
    ended = node.inside("setpriv", f"--reuid={_VIEWER}", f"--regid={_VIEWER}", "--clear-groups", "dd",
                        "if=/dev/urandom", f"of={path}", "bs=64K", "conv=fsync", check=False)
    assert ended.returncode != 0, "it did not become full"
    size = int(node.inside("stat", "-c", "%s", path))
    node.inside("rm", path)
    node.inside("sync", "-f", folder)
    return size / MB


def fill(node, folder, size_mb):
    node.inside("dd", "if=/dev/urandom", f"of={folder}/part", "bs=1M", f"count={size_mb}", "conv=fsync")


@contextlib.contextmanager
def limited(node, path, limit):
    """A Btrfs share under a limit of its own."""
    node.inside("btrfs", "quota", "enable", "/volume2")
    try:
        node.inside("btrfs", "qgroup", "limit", limit, path)
        yield
    finally:
        node.inside("btrfs", "quota", "disable", "/volume2")


def test_each_account_sees_what_it_may_use(admin, viewer, folders):
    for mask in (1, 2, 3):
        assert list(candidates(admin, mask)) == ["closed", "readable", "writable"] == sorted(folders)
    assert list(candidates(viewer, 1)) == ["writable"]
    assert list(candidates(viewer, 2)) == ["readable", "writable"]
    assert list(candidates(viewer, 3)) == ["readable", "writable"]


def test_where_nobody_can_write_is_offered_for_reading_only(node, admin, viewer, folders):
    everywhere = sorted(folders)
    node.inside("chattr", "+i", folders["closed"])
    node.inside("btrfs", "property", "set", folders["writable"], "ro", "true")
    try:
        assert list(candidates(admin, 1)) == ["readable"]
        assert list(candidates(admin, 2)) == list(candidates(admin, 3)) == everywhere
        assert list(candidates(viewer, 1)) == []
        assert list(candidates(viewer, 2)) == ["readable", "writable"]
    finally:
        node.inside("btrfs", "property", "set", folders["writable"], "ro", "false")
        node.inside("chattr", "-i", folders["closed"])
    assert list(candidates(admin, 1)) == everywhere
    assert list(candidates(viewer, 1)) == ["writable"]


def test_an_element_says_what_the_folder_is(admin, folders):
    assert "writable" in folders
    admin.call("KORV.Core.Share", "create", name="plain", shareinfo={"vol_path": "/volume2",
                                                                     "enable_share_cow": False})
    try:
        listed = candidates(admin)
    finally:
        assert admin.call("KORV.Core.Share", "delete", name="plain")["success"]
    sizes = {name: share.pop("freesize") for name, share in listed.items()}
    assert listed["plain"] == {"value": "plain", "display": "plain", "vol_path": "/volume2",
                               "enable_share_cow": False}
    assert listed["writable"] == {"value": "writable", "display": "writable", "vol_path": "/volume2",
                                  "enable_share_cow": True}
    assert sizes["closed"] == sizes["readable"] > 0
    assert sizes["plain"] == sizes["writable"] > 0


def test_whoever_may_not_use_the_application_sees_nothing(node, folders):
    assert folders
    for client in (node.client("viewer"), node.client()):
        assert client.call(SHARE_API, "List", sharePriv=3) == {"success": False, "error": {"code": 105}}


@pytest.mark.parametrize("parameters", [{}, *({"sharePriv": mask} for mask in (
    None, 0, 4, 5, -1, (1 << 31) - 1, -(1 << 31), False, 0.5, 4.9))], ids=str)
def test_a_mask_of_no_right_is_refused(admin, parameters):
    answer = admin.call(SHARE_API, "List", **parameters)
    assert answer == {"success": False, "error": {"code": 401}}


@pytest.mark.parametrize("mask", ["", "1", "1x", [], [1], {}, {"mask": 1}, 1e300, 1 << 31, (1 << 32) + 1,
                                  -(1 << 63)], ids=str)
def test_a_mask_that_is_no_number_of_32_bits_is_a_malformed_request(node, admin, mask):
    node.allow(r"KORV\.Pavane\.Share List threw: ")
    response = admin.post(json.dumps({"api": SHARE_API, "version": 1, "method": "List", "sharePriv": mask}))
    assert response.status_code == 400
    assert response.json() == {"success": False, "error": {"code": 101}}


def test_a_recording_share_can_be_left_out(admin, viewer, folders):
    answer = admin.create("writable", "/volume2", blAddExistShare=True)
    assert answer["success"], answer
    try:
        assert list(candidates(viewer, blIncShareInDB=False)) == []
        assert list(candidates(viewer)) == ["writable"]
        assert list(candidates(admin, blIncShareInDB=False)) == ["closed", "readable"]
    finally:
        assert delete(admin, find(admin, "writable"), keep=True)["success"]
    assert list(candidates(viewer, blIncShareInDB=False)) == ["writable"]
    assert list(candidates(admin, blIncShareInDB=False)) == sorted(folders)


@pytest.mark.parametrize("filled_mb", [0, 100])
def test_the_free_size_on_ext4_is_what_can_be_written(node, admin, viewer, folders, filled_mb):
    permit(admin, "closed", "viewer", write=True)
    fill(node, folders["closed"], filled_mb)
    told = candidates(viewer)["closed"]["freesize"]
    assert candidates(admin)["closed"]["freesize"] == told
    # What the file system needs for a file's own records is told as free.
    assert write_until_full(node, folders["closed"]) == pytest.approx(told, abs=1)


@pytest.mark.parametrize("filled_mb", [0, 20])
def test_the_free_size_on_btrfs_is_what_a_limit_leaves(node, admin, viewer, folders, filled_mb):
    path = folders["writable"]
    with limited(node, path, "40M"):
        fill(node, path, filled_mb)
        told = candidates(viewer)["writable"]["freesize"]
        assert candidates(admin)["writable"]["freesize"] == told
        assert told == pytest.approx(40 - filled_mb, abs=1)
        assert write_until_full(node, path) == pytest.approx(told, abs=1)
    assert candidates(viewer)["writable"]["freesize"] > told


def test_a_limit_that_is_exceeded_leaves_nothing(node, viewer, folders):
    fill(node, folders["writable"], 20)
    with limited(node, folders["writable"], "10M"):
        node.inside("btrfs", "quota", "rescan", "-w", "/volume2")
        assert candidates(viewer)["writable"]["freesize"] == 0


def test_the_command_line_shows_readable_sizes_and_exact_data(node, viewer, folders, tmp_path):
    pavane = CommandLine(node, "viewer", tmp_path)
    exact = json.loads(pavane.run("candidates", "--right", "any", "--json"))
    assert {share["value"]: share for share in exact["sharelist"]} == candidates(viewer, 3)
    rows = pavane.run("candidates", "--right", "any").splitlines()
    assert [row.split() for row in rows] == [
        ["NAME", "VOLUME", "FREE", "COPY", "ON", "WRITE"],
        *([name, folders[name].rpartition("/")[0], str(candidates(viewer, 3)[name]["freesize"]), "MB", "yes"]
          for name in ("readable", "writable"))]
    assert [row.split()[0] for row in pavane.run("candidates").splitlines()[1:]] == ["writable"]
    assert "--right" in pavane.run("candidates", "--right", "all", status=2)
