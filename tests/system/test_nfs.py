"""NFS folders as recording shares, with a real server: written, lost, found again, replaced, busy."""

import contextlib
import os
import shutil
import signal
import subprocess
import time

import pytest

import life
import nfs
from candidates import CommandLine
from node import SHARE_API, Node, wait_until

MOUNT_API = "KORV.Tarsel.Mount"
LIST_API = "KORV.Tarsel.Mount.List"
SHARE = "/volume1/rec"
POINT = f"{SHARE}/nas"
SOURCE = f"127.0.0.1:{nfs.EXPORT}"


@pytest.fixture(scope="module")
def running():
    """A server and a node with a share. What a test does to the server is over when it ends."""
    with Node() as node:
        server = nfs.Ganesha(node.folder)
        try:
            server.start()
            nfs.put_client_in_place(node)
            assert node.client("admin").create("rec")["success"]
            yield server, node
        finally:
            server.end()


@pytest.fixture
def node(running):
    node = running[1]
    node.allowed.clear()
    node.unexpected_lines()
    yield node
    assert node.unexpected_lines() == []


@pytest.fixture
def server(running, node):
    server = running[0]
    server.kill()
    server.start()  # holds nothing open that an earlier test has written
    yield server
    if server.process:
        server.resume()
    node.allow("unmounting")
    admin = node.client("admin")
    wait_until(lambda: not mounts(admin) or unmount(admin)["success"], "nothing is mounted")
    for share in admin.list(blIncldRemoteAbnormal=True):
        if share["sharePath"] == POINT:
            assert life.delete(admin, share)["success"]
    for name in os.listdir(server.data):
        node.inside("rm", "-r", os.path.join(server.data, name))


@pytest.fixture
def admin(node):
    return node.client("admin")


def mounts(admin):
    return admin.call(LIST_API, "list", with_state=True)["data"]["mounts"]


def unmount(admin):
    return admin.call(MOUNT_API, "unmount", mount_point=POINT)


def mount(admin, server, source=SOURCE, **more):
    return admin.call(MOUNT_API, "mount_remote", **{"mount_type": "NFS", "server_ip": source, "mount_point": POINT,
                                                    "adv_opt": server.options, **more})


def adopt(admin, server, source=SOURCE):
    answer = admin.call(SHARE_API, "CreateRemoteRecShare", mountType=1, mountSource=source, mountPoint=POINT, mountPath=POINT,
                        blNeedMount=True, adv_opt=server.options, blAutoMount=True)
    assert answer["success"], answer
    return answer["data"]


def state(admin):
    states = [share["mountStatus"] for share in admin.list(blIncldRemoteAbnormal=True) if share["sharePath"] == POINT]
    assert len(states) == 1
    return states[0]


def as_recorder(node, script, **options):
    return node.inside("setpriv", "--reuid", "Pavane", "--regid", "Pavane", "--init-groups", "sh", "-ec", script, cwd="/",
                       **options)


def line_of(text, name):
    lines = [line.split() for line in text.splitlines() if name in line.split()]
    assert len(lines) < 2, text
    return lines[0] if lines else []


def test_a_folder_is_mounted_and_adopted_at_the_prompt_and_recorded_into(node, server, tmp_path):
    pavane = CommandLine(node, "admin", tmp_path)
    assert pavane.run("mount", "add", SOURCE, POINT, "--type", "nfs", "--nfs-version", "3", "--protocol", "tcp", "--options",
                      server.options, "--auto") == f"{SOURCE} is mounted at {POINT}\n"
    assert line_of(pavane.run("mount", "list"), POINT) == [POINT, SOURCE, "nfs", "yes", "normal"]
    admin = node.client("admin")
    assert admin.call(SHARE_API, "ListMountedFolder") == {"success": True}  # NFS folders are not offered
    pavane.run("share", "create-remote", SOURCE, POINT, "--mounted")
    listed = line_of(pavane.run("share", "list"), POINT)
    assert listed[4] == "nfs" and float(listed[5]) > 0

    as_recorder(node, f"""cd {POINT}; mkdir cam1; dd if=/dev/urandom of=cam1/first bs=1M count=20 status=none
                      cp cam1/first cam1/second; cmp cam1/first cam1/second; mv cam1/second cam1/third
                      truncate -s 5 cam1/third; rm cam1/first; printf text > cam1/kept; printf -- ' more' >> cam1/kept""")
    recorder = int(node.inside("id", "-u", "Pavane"))
    folder = os.path.join(server.data, "cam1")
    assert sorted(os.listdir(folder)) == ["kept", "third"]
    assert os.stat(folder).st_uid == os.stat(os.path.join(folder, "kept")).st_uid == recorder
    with open(os.path.join(folder, "kept"), encoding="utf-8") as file:
        assert file.read() == "text more"
    assert os.stat(os.path.join(folder, "third")).st_size == 5


def test_the_server_decides_who_may_write(node, server, admin):
    os.mkdir(os.path.join(server.data, "closed"), mode=0o700)
    adopt(admin, server)
    assert node.inside("touch", f"{POINT}/closed/by_root") == ""
    assert "Permission denied" in as_recorder(node, f"touch {POINT}/closed/by_recorder", check=False).stderr
    assert os.listdir(os.path.join(server.data, "closed")) == ["by_root"]


@pytest.mark.parametrize("source, wishes, code", [
    ("127.0.0.1:/nosuch", {}, 433), (f"{SOURCE}/nosuch", {}, 433), (SOURCE, {"nfs_version": "4.1"}, 435),
    (SOURCE, {"protocol": "udp"}, 435), (SOURCE, {"adv_opt": "port=1"}, 425), ("no-such-host.invalid:/video", {}, 422)])
def test_what_can_not_be_mounted_has_its_code(node, server, admin, source, wishes, code):
    node.allow("mounting at")
    assert mount(admin, server, source, **wishes)["error"] == {"code": code}
    assert mounts(admin) == [] and node.inside("ls", "-A", SHARE) == ""


def test_a_killed_server_is_abnormal_until_it_is_back_and_reconnected(node, server, tmp_path):
    node.allow("the mount at|reconnecting|korvd (serves|ends)|public.sock failed")
    admin = node.client("admin")
    pavane = CommandLine(node, "admin", tmp_path)
    assert adopt(admin, server)["totalSize"] > 0
    as_recorder(node, f"printf kept > {POINT}/recording")
    server.kill()
    wait_until(lambda: state(admin) == 1, "the share is abnormal", 30)
    begin = time.monotonic()
    assert line_of(pavane.run("share", "list"), POINT) == []
    assert time.monotonic() - begin < 5
    # It waits until the mount is taken away, a minute after the server was heard for the last time.
    assert as_recorder(node, f"touch {POINT}/unseen", check=False).returncode != 0
    wait_until(lambda: line_of(pavane.run("mount", "list"), POINT)[-3:] == ["not", "mounted", "425"], "it is not mounted")
    assert node.inside("touch", f"{POINT}/unseen", check=False).returncode != 0
    assert "error 425" in pavane.run("mount", "reconnect", POINT, status=1)

    server.start()
    assert pavane.run("mount", "reconnect", POINT) == f"{POINT} is mounted\n"
    wait_until(lambda: state(admin) == 0, "the share is normal again", 30)
    assert as_recorder(node, f"cat {POINT}/recording") == "kept"
    assert "unseen" not in os.listdir(server.data)

    node.stop()
    node.start()
    nfs.put_client_in_place(node)
    admin = node.client("admin")
    wait_until(lambda: [each["alive"] for each in mounts(admin)] == [True], "it is mounted by itself", 60)
    wait_until(lambda: state(admin) == 0, "the share is normal after a restart", 30)


def test_a_paused_server_is_abnormal_holds_up_nothing_and_loses_nothing(node, server, admin):
    node.allow("the mount at")
    adopt(admin, server)
    server.pause()
    with subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", "sh", "-c", f"printf kept > {POINT}/recording"],
                          stderr=subprocess.DEVNULL) as writer:
        wait_until(lambda: state(admin) == 1, "the share is abnormal", 30)
        begin = time.monotonic()
        for _ in range(5):
            assert state(admin) == 1
        assert time.monotonic() - begin < 10
        with pytest.raises(subprocess.TimeoutExpired):
            writer.wait(20)  # until the server answers: its mount is hard
        server.resume()
        assert writer.wait(60) == 0
    wait_until(lambda: state(admin) == 0, "the share is normal again", 90)
    with open(os.path.join(server.data, "recording"), encoding="utf-8") as file:
        assert file.read() == "kept"


def test_a_folder_of_a_silent_server_that_somebody_waits_for_is_freed_by_a_reconnection(node, server, admin):
    node.allow("unmounting|reconnecting|the mount at")
    assert mount(admin, server)["success"]
    server.pause()
    with subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", "ls", POINT], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL) as waiting:
        wait_until(lambda: wait_channel(waiting.pid) == "request_wait_answer", "somebody waits for the server")
        assert unmount(admin)["error"] == {"code": 438}  # as of any folder in use
        assert admin.call(LIST_API, "reconnect", mount_point=[POINT])["error"] == {"code": 424}
        assert waiting.wait(10) != 0
    assert unmount(admin)["success"]
    assert mounts(admin) == [] and node.inside("ls", "-A", SHARE) == ""


def test_a_folder_of_a_silent_server_is_unmounted_in_time(node, server, admin):
    node.allow("the mount at")
    assert mount(admin, server)["success"]
    server.pause()
    begin = time.monotonic()
    assert unmount(admin)["success"]
    assert time.monotonic() - begin < 30
    assert mounts(admin) == [] and node.inside("ls", "-A", SHARE) == ""


def wait_channel(pid):
    with open(f"/proc/{pid}/wchan", encoding="utf-8") as file:
        return file.read()


def replace(folder):
    """As when somebody restores a folder behind the server: another one of the same name."""
    shutil.rmtree(folder)
    os.mkdir(folder)
    os.chmod(folder, 0o777)


def programs_that_serve(node, path):
    """The processes of the node that have mounted encrypted files at `path`."""
    namespace = os.readlink(f"/proc/{node.korvd}/ns/mnt")
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", encoding="utf-8", errors="replace") as file:
            words = file.read().split("\0")
            if words[0].endswith("gocryptfs") and path in words and os.readlink(f"/proc/{pid}/ns/mnt") == namespace:
                found.append(int(pid))
    return found


def test_an_unmount_that_does_not_end_in_time_has_its_code(node, server, admin):
    """The way to the mount point leads through an encrypted share whose program has stopped."""
    node.allow("unmounting|the mount at")
    assert admin.create("vault", blEncryption=True, encPasswd=life.PASSWORD)["success"]
    point = "/volume1/vault/nas"
    assert mount(admin, server, mount_point=point)["success"]
    programs = programs_that_serve(node, "/volume1/vault")
    assert programs
    for program in programs:
        os.kill(program, signal.SIGSTOP)
    try:
        assert admin.call(MOUNT_API, "unmount", mount_point=point)["error"] == {"code": 441}
        assert [each["mount_point"] for each in mounts(admin)] == [point]
    finally:
        for program in programs:
            os.kill(program, signal.SIGCONT)
    assert admin.call(MOUNT_API, "unmount", mount_point=point)["success"]
    assert mounts(admin) == [] and node.inside("ls", "-A", "/volume1/vault") == ""
    assert life.delete(admin, life.find(admin, "vault"))["success"]


def test_a_share_on_a_mount_that_was_made_by_other_means_comes_back_with_it(node, server, admin):
    def mount_by_hand():
        node.inside("mount", "-t", "nfs", "-o", server.options, SOURCE, POINT)

    node.inside("mkdir", POINT)
    mount_by_hand()
    answer = admin.call(SHARE_API, "CreateRemoteRecShare", mountType=1, mountSource=SOURCE, mountPoint=POINT, mountPath=POINT,
                        blNeedMount=False)
    assert answer["success"], answer
    try:
        assert state(admin) == 0
        node.inside("umount", POINT)
        wait_until(lambda: state(admin) == 1, "the share is abnormal", 30)
        mount_by_hand()
        wait_until(lambda: state(admin) == 0, "the share is normal again", 30)
        server.pause()
        wait_until(lambda: state(admin) == 1, "the share of a silent server is abnormal", 30)
        server.resume()
        wait_until(lambda: state(admin) == 0, "the share is normal again", 30)
    finally:
        server.resume()
        node.inside("umount", POINT)
        assert life.delete(admin, *[share for share in admin.list(blIncldRemoteAbnormal=True) if share["sharePath"] == POINT],
                           keep=True)["success"]
        node.inside("rmdir", POINT)


def test_a_folder_replaced_behind_the_server_is_stale_and_found_again(node, server, admin):
    node.allow("the mount at .* is stale")
    folder = os.path.join(server.data, "deep")
    os.mkdir(folder)
    adopt(admin, server, f"{SOURCE}/deep")
    assert state(admin) == 0
    replace(folder)
    with open(os.path.join(folder, "new"), "w", encoding="utf-8"):
        pass
    assert "Stale file handle" in node.inside("ls", POINT, check=False).stderr
    wait_until(lambda: state(admin) == 0 and node.inside("ls", POINT, check=False).stdout == "new\n",
               "the new folder is mounted", 60)


@pytest.mark.parametrize("is_held_open", [False, True], ids=["gone", "held open at the server"])
def test_an_export_that_stays_stale_has_its_code_until_the_server_knows_better(node, server, admin, is_held_open):
    node.allow("the mount at|reconnecting")
    adopt(admin, server)
    if is_held_open:
        as_recorder(node, f"echo text > {POINT}/recording")
    replace(server.data)
    wait_until(lambda: state(admin) == 1, "the share is abnormal", 30)
    assert admin.call(SHARE_API, "ReconnetRemoteMount", mount_point=POINT)["error"]["code"] == 440
    assert admin.call(LIST_API, "reconnect", mount_point=[POINT])["error"]["code"] == 440
    assert [each["last_error"] for each in mounts(admin)] == [440]
    assert node.inside("touch", f"{POINT}/unseen", check=False).returncode != 0
    server.kill()
    server.start()
    assert admin.call(SHARE_API, "ReconnetRemoteMount", mount_point=POINT)["success"]
    assert state(admin) == 0
    assert os.listdir(server.data) == []
    replace(server.data)
    wait_until(lambda: state(admin) == 1, "a loss right after the reconnection is known as well", 30)


def test_a_folder_in_use_stays_mounted(node, server, admin):
    node.allow("unmounting")
    assert mount(admin, server)["success"]
    assert [(each["type"], each["source"], each["mounted"], each["status"], each["alive"]) for each in mounts(admin)] == [
        ("nfs", SOURCE, True, 0, True)]
    node.inside("sh", "-c", f"echo text > {POINT}/recording")
    with subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", "sh", "-c",
                           f"exec 3< {POINT}/recording && echo open && exec cat"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as user:
        assert user.stdout.readline() == "open\n"
        assert unmount(admin)["error"] == {"code": 438}
        assert mounts(admin)[0]["mounted"]
        user.stdin.close()
    wait_until(lambda: unmount(admin)["success"], "the mount is no longer in use")
    assert mounts(admin) == [] and node.inside("ls", "-A", SHARE) == ""
    assert os.listdir(server.data) == ["recording"]
