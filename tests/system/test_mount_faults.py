"""Servers of remote folders that fail: each failure has its code, harms nothing and ends in time."""

import contextlib
import json
import os
import signal
import socket
import threading
import time

import pytest

import samba
from node import SHARE_API, wait_until

MOUNT_API = "KORV.Tarsel.Mount"
LIST_API = "KORV.Tarsel.Mount.List"
POINT = "/volume1/video/nas"


@pytest.fixture(scope="module", autouse=True)
def helpers(shared_node):
    assert shared_node.client("admin").create("video")["success"]
    samba.put_helpers_in_place(shared_node, {
        "/denied": {"says": "access denied by server while mounting 127.0.0.1:/denied"},
        "/stale": {"says": "Stale file handle"},
        "/away": {"says": "Connection timed out"},
        "/version": {"says": "requested NFS version or transport protocol is not supported for /x"},
        "/option": {"says": "an incorrect mount option was specified"},
        "/driver": {"says": "unknown filesystem type 'nfs'"},
        "/odd": {"says": "something that nobody has heard of"},
        "/slow": {"hangs": True},
        "/late": {"hangs": True, "mounts": True},
    })


@pytest.fixture
def port():
    """A server that takes connections and never says a word."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(64)
        yield listener.getsockname()[1]


def mount(admin, port, export="/video", kind="NFS", **more):
    source = f"127.0.0.1:{export}" if kind == "NFS" else f"//127.0.0.1{export}"
    return admin.call(MOUNT_API, "mount_remote", mount_type=kind, server_ip=source, mount_point="/video/nas",
                      adv_opt=f"port={port}", **more)


def nothing_is_left(node, admin):
    return admin.call(LIST_API, "list")["data"]["total"] == 0 and node.inside("ls", "-A", "/volume1/video") == ""


@pytest.mark.parametrize("export, code", [("/denied", 433), ("/stale", 440), ("/away", 424), ("/version", 435), ("/option", 436), ("/driver", 439),
                                          ("/odd", 412), ("/nosuch", 427)])
def test_what_the_mount_program_says_becomes_a_code(node, admin, port, export, code):
    node.allow("mounting at")
    answer = mount(admin, port, export, nfs_version="3", protocol="tcp")
    assert answer["error"] == {"code": code}
    assert nothing_is_left(node, admin)
    assert os.listdir(f"{node.state}/run/mounts") == []


def test_a_missing_mount_program_has_its_code(node, admin, port):
    node.allow("mounting at")
    node.inside("mount", "--bind", "/dev/null", "/usr/sbin/mount.nfs")
    try:
        assert mount(admin, port)["error"] == {"code": 439}
    finally:
        node.inside("umount", "/usr/sbin/mount.nfs")
    assert nothing_is_left(node, admin)


def test_a_slow_mount_program_has_its_code_and_keeps_others_from_its_place(node, admin, port):
    node.allow("mounting at")
    slow = {}
    first = threading.Thread(target=lambda: slow.update(mount(node.client("admin"), port, "/slow")))
    first.start()
    wait_until(lambda: os.listdir(f"{node.state}/run/mounts"), "the mount program runs")
    begin = time.monotonic()
    assert mount(admin, port, "/odd")["error"] == {"code": 438}
    assert time.monotonic() - begin < 20
    first.join()
    assert slow["error"] == {"code": 441}
    assert nothing_is_left(node, admin)


def stand_ins():
    """The processes of mount.nfs that are told to mount /late."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", encoding="utf-8", errors="replace") as file:
            words = file.read().split("\0")
            if "127.0.0.1:/late" in words and words[1].endswith("mount.nfs"):
                found.append(int(pid))
    return found


def test_an_attempt_that_is_killed_with_its_worker_leaves_nothing_mounted(node, admin, port):
    node.allow("mounting at|worker [0-9]+ was killed by signal 9|while reading response header")

    def mounts_out_of_sight():
        return [line for line in node.inside("cat", "/proc/self/mountinfo").splitlines() if "/run/mounts/" in line]

    answers = []
    first = threading.Thread(target=lambda: answers.append(node.client("admin").post(json.dumps(
        {"api": MOUNT_API, "version": 1, "method": "mount_remote", "mount_type": "NFS", "server_ip": "127.0.0.1:/late",
         "mount_point": "/video/nas", "adv_opt": f"port={port}"}))))
    first.start()
    try:
        wait_until(mounts_out_of_sight, "it is mounted out of sight")
        for worker in node.workers():
            os.kill(worker, signal.SIGKILL)
        first.join()
        assert answers[0].status_code == 503
        wait_until(lambda: not mounts_out_of_sight() and os.listdir(f"{node.state}/run/mounts") == [], "nothing is left of it")
        wait_until(node.is_healthy, "the workers are back")
        wait_until(lambda: nothing_is_left(node, admin), "the mount is undone")
    finally:
        first.join()
        for stand_in in stand_ins():
            os.kill(stand_in, signal.SIGKILL)


def test_a_host_that_drops_packets_has_its_code(node, admin):
    """A full queue of connections: what asks for another one is dropped without a word."""
    node.allow("mounting at")
    with socket.socket() as listener, contextlib.ExitStack() as waiting:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        for _ in range(3):
            client = waiting.enter_context(socket.socket())
            client.setblocking(False)
            client.connect_ex(listener.getsockname())
        begin = time.monotonic()
        assert mount(admin, listener.getsockname()[1])["error"] == {"code": 424}
        assert 5 < time.monotonic() - begin < 30
    assert nothing_is_left(node, admin)


def test_a_silent_server_has_its_code(node, admin, port):
    node.allow("mounting at")
    assert mount(admin, port, "/data", "CIFS", account="a", passwd="b")["error"] == {"code": 424}
    assert nothing_is_left(node, admin)


def test_a_paused_server_is_abnormal_and_holds_up_nothing(node, admin):
    node.allow("the mount at")
    server = samba.Samba(node.folder)
    server.start()
    try:
        answer = admin.call(SHARE_API, "CreateRemoteRecShare", mountType=2, mountSource="//127.0.0.1/data",
                            mountPoint=POINT, mountPath=POINT, blNeedMount=True, account=samba.ACCOUNT,
                            passwd=samba.PASSWORD, adv_opt=f"port={server.port}", blAutoMount=True)
        assert answer["success"], answer

        def state():
            return [share["mountStatus"] for share in admin.list(blIncldRemoteAbnormal=True) if share["sharePath"] == POINT]

        assert state() == [0]
        server.pause()
        wait_until(lambda: state() == [1], "the share is abnormal", 30)
        start = time.monotonic()
        for _ in range(5):
            assert state() == [1]
        assert time.monotonic() - start < 10
        server.resume()
        wait_until(lambda: state() == [0], "the share is normal again", 90)
        assert [share["quota"] > 0 for share in admin.list() if share["sharePath"] == POINT] == [True]
    finally:
        server.kill()
