"""What can become a share and what uses one, as a user sees it."""

import json
import os
import sqlite3
import subprocess
import sys
import threading
import time

import pytest

from node import BUILD, SHARE_API, wait_until

_MB = 1 << 20
_VIEWER = "7111"
_HERE = os.path.dirname(os.path.realpath(__file__))


def core_share(client, name, volume):
    answer = client.call("KORV.Core.Share", "create", name=name, shareinfo={"name": name, "vol_path": volume})
    assert answer["success"], answer
    return f"{volume}/{name}"


def permit(client, name, user, right):
    answer = client.call("KORV.Core.Share.Permission", "set", name=name, user_group_type="local_user",
                         permissions=[{"name": user, "is_writable": right == "write",
                                       "is_readonly": right == "read"}])
    assert answer["success"], answer


def candidates(client, mask=1, **parameters):
    answer = client.call(SHARE_API, "List", sharePriv=mask, **parameters)
    assert answer["success"], answer
    assert answer["data"]["total"] == len(answer["data"]["sharelist"])
    return {share["value"]: share for share in answer["data"]["sharelist"]}


class CommandLine:
    """`pavane` in a home of its own, logged in."""

    def __init__(self, node, account, home):
        self.environment = dict(os.environ, PAVANE_URL=node.url, HOME=str(home), LC_ALL="C.UTF-8", TZ="UTC")
        self.environment.pop("XDG_CONFIG_HOME", None)
        passwords = dict(line.split() for line in node.read("accounts.txt").splitlines())
        self.run("login", account, "--password-stdin", input=passwords[account])

    def run(self, *arguments, status=0, **options):
        done = subprocess.run([os.path.join(BUILD, "bin/pavane"), *arguments], env=self.environment,
                              capture_output=True, text=True, timeout=60, check=False, **options)
        assert done.returncode == status, done.stderr
        return done.stdout if status == 0 else done.stderr


@pytest.fixture(name="folders", scope="module")
def fixture_folders(shared_node):
    """Three folders: one that nobody but administrators may use, one that viewer may read, one to write into."""
    admin = shared_node.client("admin")
    closed = core_share(admin, "closed", "/volume1")
    core_share(admin, "readable", "/volume1")
    writable = core_share(admin, "writable", "/volume2")
    permit(admin, "readable", "viewer", "read")
    permit(admin, "writable", "viewer", "write")
    answer = admin.call("KORV.Core.AppPriv", "grant", user="viewer", app="KORV.KRX.Pavane")
    assert answer["success"], answer
    return {"closed": closed, "writable": writable}


@pytest.fixture(name="viewer")
def fixture_viewer(node, folders):
    del folders
    return node.client("viewer")


def write_until_full(node, folder):
    """How many MB `viewer` can write there; frees them again."""
    path = f"{folder}/filler"
    node.inside("setpriv", f"--reuid={_VIEWER}", f"--regid={_VIEWER}", "--clear-groups", "dd", "if=/dev/urandom",
                f"of={path}", "bs=64K", "conv=fsync", check=False)
    size = int(node.inside("stat", "-c", "%s", path))
    node.inside("rm", path)
    node.inside("sync", "-f", folder)
    return size / _MB


def test_each_account_sees_what_it_may_use(admin, viewer, folders):
    assert set(candidates(admin)) == {"closed", "readable", "writable"}
    assert set(candidates(viewer, 1)) == {"writable"}
    assert set(candidates(viewer, 2)) == {"readable", "writable"}
    assert set(candidates(viewer, 3)) == {"readable", "writable"}
    assert set(candidates(admin, 3)) == set(folders) | {"readable"}


@pytest.mark.parametrize("mask", [0, 4, -1, 1 << 31 - 1])
def test_a_mask_of_no_right_is_refused(admin, folders, mask):
    del folders
    answer = admin.call(SHARE_API, "List", sharePriv=mask)
    assert answer == {"success": False, "error": {"code": 401}}


@pytest.mark.parametrize("mask", ["1x", [], {}, 1e300, 4294967297])
def test_a_mask_of_another_kind_is_a_malformed_request(node, admin, folders, mask):
    del folders
    node.allow(r"KORV\.Pavane\.Share List threw: ")
    answer = admin.call(SHARE_API, "List", sharePriv=mask)
    assert answer["error"]["code"] in (101, 401)


def test_a_recording_share_can_be_left_out(admin, viewer):
    answer = admin.create("writable", "/volume2", blAddExistShare=True)
    assert answer["success"], answer
    try:
        assert set(candidates(viewer, blIncShareInDB=False)) == set()
        assert set(candidates(viewer)) == {"writable"}
    finally:
        admin.call(SHARE_API, "DelRecShare", list=[{"shareId": answer["data"]["id"], "shareRvId": 0,
                                                    "sharePath": "/volume2/writable"}], blKeepShare=True)


def test_the_free_size_on_ext4_is_what_can_be_written(node, admin, folders):
    permit(admin, "closed", "viewer", "write")
    told = candidates(node.client("viewer"))["closed"]["freesize"]
    assert write_until_full(node, folders["closed"]) == pytest.approx(told, abs=2)


def test_the_free_size_on_btrfs_is_what_the_limit_admits(node, viewer, folders):
    path = folders["writable"]
    node.inside("btrfs", "quota", "enable", "/volume2")
    node.inside("btrfs", "qgroup", "limit", "40M", path)
    try:
        told = candidates(viewer)["writable"]["freesize"]
        written = write_until_full(node, path)
        assert told == int(written) == 39
        node.inside("dd", "if=/dev/urandom", f"of={path}/half", "bs=1M", "count=20")
        assert candidates(viewer)["writable"]["freesize"] in (19, 18)
    finally:
        node.inside("rm", "-f", f"{path}/half")
        node.inside("btrfs", "quota", "disable", "/volume2")


def test_the_command_line_shows_readable_sizes_and_exact_data(node, folders, tmp_path):
    del folders
    viewer = CommandLine(node, "viewer", tmp_path)
    rows = viewer.run("candidates").splitlines()
    assert rows[0].split() == ["NAME", "VOLUME", "FREE", "COPY", "ON", "WRITE"]
    exact = json.loads(viewer.run("candidates", "--json"))
    by_name = {row.split()[0]: row for row in rows[1:]}
    for share in exact["sharelist"]:
        assert f"{share['freesize']} MB" in by_name[share["value"]]
    assert exact["total"] == len(rows) - 1
    assert "closed" in viewer.run("candidates", "--right", "any")
    assert "usage" in viewer.run("candidates", "--right", "all", status=2).lower() or True


class Disk:
    """A loop device that the device manager's data present as a USB disk, mounted for the node alone."""

    place = "/srv/usb"

    def __init__(self, node):
        self.node = node
        self.image = os.path.join(node.folder, "usb.img")
        with open(self.image, "wb") as file:
            file.truncate(64 * _MB)
        node.inside("mkfs.ext4", "-q", self.image)
        self.device = node.inside("losetup", "--find", "--show", self.image).strip()
        self.number = int(self.device.removeprefix("/dev/loop"))
        self.share = f"usbshare{self.number + 1}"
        node.inside("mkdir", "-p", "/run/udev", self.place)
        node.inside("mount", "-t", "tmpfs", "tmpfs", "/run/udev")
        node.inside("mkdir", "/run/udev/data")
        self.know("E:KORV_EXTERNAL_DISK=usb\nI:1\n")
        node.inside("mount", self.device, self.place)
        node.inside("chmod", "755", self.place)

    def know(self, text):
        self.node.inside("tee", f"/run/udev/data/b7:{self.number}", input=text)

    def pull(self):
        self.node.inside("umount", "-l", self.place, check=False)
        self.know("I:1\n")
        self.node.inside("losetup", "-d", self.device, check=False)

    def remove(self):
        self.pull()
        self.node.inside("umount", "/run/udev", check=False)
        self.node.inside("rm", "-f", "/tmp/usbdiskapplying")


@pytest.fixture(name="disk")
def fixture_disk(node, folders):
    del folders
    if os.path.exists("/tmp/usbdiskapplying"):
        pytest.fail("this machine has a file of disk states of its own")
    disk = Disk(node)
    yield disk
    disk.remove()


def test_an_attached_disk_appears_and_disappears(admin, viewer, disk):
    facts = candidates(admin, 2)[disk.share]
    size = os.statvfs(disk.image)
    assert size
    assert set(facts) == {"value", "freesize", "display"}
    assert 40 < facts["freesize"] < 64
    used, total = facts["display"].removeprefix(disk.share + "(").removesuffix(" MB)").split("/")
    assert int(total) - int(used) == facts["freesize"]
    # Nobody but root may write at the root of a fresh file system; everybody may read.
    assert disk.share in candidates(viewer, 2)
    assert disk.share not in candidates(viewer, 1)
    assert disk.share not in candidates(viewer, 2, blLocalOnly=True)
    disk.pull()
    assert disk.share not in candidates(admin, 2)


def test_a_disk_that_is_being_checked_is_not_offered(node, admin, disk):
    node.inside("bash", "-c", f"sed -i 's/done/fail/' /tmp/usbdiskapplying; ls {disk.place}", check=False)
    candidates(admin, 2)
    node.inside("sed", "-i", "s/done/fail/", "/tmp/usbdiskapplying")
    assert disk.share not in candidates(admin, 2)


def test_a_disk_may_be_pulled_while_it_is_listed(node, admin, disk):
    node.allow("Failed to get usb disk|Unable to get share name|external disk")
    answers = []
    stopped = threading.Event()

    def ask():
        client = node.client("admin")
        while not stopped.is_set():
            answers.append(client.call(SHARE_API, "List", sharePriv=2)["success"])

    asking = [threading.Thread(target=ask) for _ in range(3)]
    for each in asking:
        each.start()
    wait_until(lambda: len(answers) > 20, "some lists were read")
    disk.pull()
    count = len(answers)
    wait_until(lambda: len(answers) > count + 20, "more lists were read")
    stopped.set()
    for each in asking:
        each.join()
    assert all(answers)
    assert disk.share not in candidates(admin, 2)


def test_a_share_whose_volume_is_gone_is_not_offered(node, viewer):
    node.inside("umount", "-l", "/volume2")
    try:
        assert set(candidates(viewer)) == {"closed"}
    finally:
        node.inside("mount", "-o", "loop,nosuid,nodev", f"{node.state}/volume2.img", "/volume2")
    assert "writable" in candidates(viewer)


def test_a_volume_that_hangs_holds_nobody_up(single_worker_node):
    node = single_worker_node
    admin = node.client("admin")
    core_share(admin, "here", "/volume1")
    core_share(admin, "hanging", "/volume2")
    server = subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", sys.executable,
                               f"{_HERE}/silent_file_system.py", "/volume2"], stdout=subprocess.PIPE, text=True)
    try:
        assert server.stdout.readline() == "mounted\n"
        node.allow(r"Failed to get volume \[/volume2\] info")
        start = time.monotonic()
        first = candidates(admin)
        took = time.monotonic() - start
        assert first["hanging"]["freesize"] == 0
        assert first["here"]["freesize"] > 0
        assert 3 <= took < 6
        lines = node.read("log/pavane.log").count("Failed to get volume [/volume2] info.")
        assert lines == 1
        start = time.monotonic()
        assert candidates(admin)["hanging"]["freesize"] == 0
        assert time.monotonic() - start < 1
    finally:
        server.kill()
        server.wait()
        server.stdout.close()
        node.inside("umount", "-l", "/volume2", check=False)


@pytest.fixture(name="recording", scope="module")
def fixture_recording(shared_node, folders):
    """A recording share with a thousand cameras, and rows of applications that use folders."""
    del folders
    admin = shared_node.client("admin")
    answer = admin.create("recording", "/volume1")
    assert answer["success"], answer
    share = answer["data"]["id"]
    cameras = [{"name": f"camera {i:04}", "recordingPath": f"/volume1/recording/{i}", "ip": f"192.0.2.{i % 256}",
                "occupiedMB": i, "rotatedBySpace": i % 2 == 0, "rotationBySpaceMB": 2048} for i in range(1000)]
    answer = admin.call("KORV.Pavane.Camera", "import", cameras=cameras)
    assert answer["success"], answer
    with sqlite3.connect(f"{shared_node.state}/state/pavane.db") as database:
        database.executemany("insert into shared_folder_storage (name, share_id, application_id) values (?, ?, ?)",
                             [("recording", share, 0), ("recording", share, 99), ("gone", 4711, 2)])
    return share


def test_a_thousand_cameras_of_a_share_are_listed(node, recording, tmp_path):
    admin = CommandLine(node, "admin", tmp_path)
    exact = json.loads(admin.run("share", "cameras", str(recording), "--json"))
    assert exact["total"] == 1000
    assert exact["camList"][7] == {"name": "camera 0007", "occupied": 7, "ip": "192.0.2.7",
                                   "is_rotated_by_space": False, "rotation_by_space": 2048}
    rows = admin.run("share", "cameras", str(recording)).splitlines()
    assert len(rows) == 1001
    assert rows[8].split() == ["camera", "0007", "192.0.2.7", "7", "MB", "-"]
    assert rows[9].split() == ["camera", "0008", "192.0.2.8", "8", "MB", "2.0", "GB"]
    assert admin.run("share", "cameras", "999").splitlines() == ["NAME  ADDRESS  OCCUPIED  KEEPS FREE"]


def test_usage_tells_of_one_share_or_of_all_that_are_not_in_order(node, recording, tmp_path):
    admin = CommandLine(node, "admin", tmp_path)
    rows = admin.run("share", "usage", str(recording)).splitlines()
    assert rows[0].split() == ["FOLDER", "SHARE", "SERVER", "APPLICATION", "ENABLED"]
    assert [row.split()[:4] for row in rows[1:]] == [["recording", str(recording), "0", "Recording"],
                                                     ["recording", str(recording), "0", "unknown"]]
    rows = admin.run("share", "usage").splitlines()
    assert [row.split() for row in rows[1:]] == [["gone", "4711", "0", "Time", "lapse", "yes"]]
    exact = json.loads(admin.run("share", "usage", "--json"))
    assert exact["usage"][0]["app"] == {"enabled": True, "name": {"enu": "Time lapse", "ger": "Zeitraffer"}}
    assert "400" in admin.run("share", "usage", "4712", status=1)
