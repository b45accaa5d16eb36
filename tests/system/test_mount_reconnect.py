"""Why a remote folder can't be mounted again: each cause has its code, is told by `reconnect` and stands in the list."""

import contextlib
import json
import os
import shutil
import sqlite3
import subprocess
import threading
import time

import pytest

import nfs
import samba
from life import NAS
from node import BUILD, Node, wait_until

MOUNT_API = "KORV.Tarsel.Mount"
LIST_API = "KORV.Tarsel.Mount.List"
SHARE = "/volume1/rec"
POINT = f"{SHARE}/deep/nas"
EXPORT = nfs.EXPORT


@pytest.fixture(scope="module")
def machine():
    """A node with a share, an NFS server and a CIFS server."""
    with Node() as node:
        nfs_server, samba_server = nfs.Ganesha(node.folder), samba.Samba(node.folder)
        try:
            nfs_server.start()
            samba_server.start()
            os.mkdir(os.path.join(node.folder, "sbin"))
            shutil.copy(os.path.join(BUILD, "bin/nfs_mount"), os.path.join(node.folder, "sbin"))
            samba.put_helpers_in_place(node)
            yield node, nfs_server, samba_server
        finally:
            samba_server.kill()
            nfs_server.end()


@pytest.fixture
def node(machine):
    node = machine[0]
    node.allowed.clear()
    node.unexpected_lines()
    node.allow("the mount at|reconnecting")
    assert node.client("admin").call(NAS, "create", name="rec", shareinfo={"name": "rec", "vol_path": "/volume1"})["success"]
    node.inside("mkdir", f"{SHARE}/deep")
    yield node
    node.allow("unmounting")
    fail_as(node, {})
    admin = node.client("admin")
    wait_until(lambda: not listed(admin) or admin.call(MOUNT_API, "unmount", mount_point=POINT)["success"], "none is mounted")
    if admin.call(NAS, "get", name="rec")["success"]:
        assert admin.call(NAS, "delete", name="rec")["success"]
    assert node.unexpected_lines() == []


@pytest.fixture
def admin(node):
    return node.client("admin")


@pytest.fixture
def nfs_mount(machine, node, admin):
    """A mounted NFS folder that has gone lost: only the mount is gone, the server would serve it."""
    answer = admin.call(MOUNT_API, "mount_remote", mount_type="NFS", server_ip=f"127.0.0.1:{EXPORT}", mount_point=POINT,
                        adv_opt=machine[1].options)
    assert answer["success"], answer
    node.inside("umount", POINT)


def mount_cifs(admin, server, source="//127.0.0.1/data"):
    answer = admin.call(MOUNT_API, "mount_remote", mount_type="CIFS", server_ip=source, mount_point=POINT,
                        account=samba.ACCOUNT, passwd=samba.PASSWORD, adv_opt=f"port={server.port}")
    assert answer["success"], answer


def listed(admin):
    return admin.call(LIST_API, "list")["data"]["mounts"]


def fail_as(node, exports):
    """How the mount program fails from now on; written over, since the file lies below an overlay."""
    with open(os.path.join(node.folder, "sbin/mount.nfs.exports"), "r+", encoding="utf-8") as file:
        json.dump(exports, file)
        file.truncate()


def reconnect(client):
    answer = client.call(LIST_API, "reconnect", mount_point=[POINT])
    return None if answer["success"] else answer["error"]


def refused(admin, code):
    """The last failed attempt stands in the list as well."""
    assert reconnect(admin) == {"code": code}
    assert [(each["mounted"], each["status"], each["last_error"]) for each in listed(admin)] == [(False, 1, code)]


@pytest.mark.parametrize("failure, code", [
    ({"says": "something that nobody has heard of"}, 412), ({"says": "No such file or directory"}, 427),
    ({"says": f"access denied by server while mounting 127.0.0.1:{EXPORT}"}, 433),
    ({"says": "requested NFS version or transport protocol is not supported"}, 435),
    ({"says": "an incorrect mount option was specified"}, 436), ({"says": "127.0.0.1:/video is busy or already mounted or sharecache fail"}, 438),
    ({"says": "unknown filesystem type 'nfs'"}, 439), ({"says": "Stale file handle"}, 440), ({"hangs": True}, 441)])
def test_what_the_mount_program_says(node, admin, nfs_mount, failure, code):
    fail_as(node, {EXPORT: failure})
    refused(admin, code)
    fail_as(node, {})
    assert reconnect(admin) is None
    assert [(each["mounted"], each["status"], each["last_error"]) for each in listed(admin)] == [(True, 0, 0)]


def test_content_in_the_mount_point(node, admin, nfs_mount):
    node.inside("chattr", "-i", POINT)
    node.inside("touch", f"{POINT}/recording")
    refused(admin, 428)
    node.inside("chattr", "-i", POINT)
    node.inside("rm", f"{POINT}/recording")
    assert reconnect(admin) is None


def test_a_missing_mount_point(node, admin, nfs_mount):
    node.inside("chattr", "-i", POINT)
    node.inside("rmdir", POINT)
    refused(admin, 430)
    node.inside("mkdir", POINT)
    assert reconnect(admin) is None


def test_a_mount_above_the_mount_point(node, admin, nfs_mount):
    node.inside("mount", "-t", "tmpfs", "tmpfs", f"{SHARE}/deep")
    try:
        refused(admin, 429)
    finally:
        node.inside("umount", f"{SHARE}/deep")
    assert reconnect(admin) is None


def test_a_mount_that_another_one_covers_is_not_forgotten(node, admin, nfs_mount):
    node.allow("unmounting")
    assert reconnect(admin) is None
    node.inside("mount", "-t", "tmpfs", "tmpfs", f"{SHARE}/deep")
    try:
        assert admin.call(MOUNT_API, "unmount", mount_point=POINT)["error"] == {"code": 412}
        assert [each["mount_point"] for each in listed(admin)] == [POINT]
    finally:
        node.inside("umount", f"{SHARE}/deep")
    assert admin.call(MOUNT_API, "unmount", mount_point=POINT)["success"]
    assert node.inside("ls", "-A", f"{SHARE}/deep") == ""


def test_a_link_in_the_place_of_the_mount_point(node, admin, nfs_mount):
    node.inside("chattr", "-i", POINT)
    node.inside("rmdir", POINT)
    node.inside("ln", "-s", "/etc", POINT)
    try:
        refused(admin, 413)
    finally:
        node.inside("rm", POINT)
    node.inside("mkdir", POINT)
    assert reconnect(admin) is None


def change_database(node, statement):
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/korv.db", timeout=10)) as connection, connection:
        assert connection.execute(statement).rowcount == 1


def test_a_share_that_is_gone(node, admin, nfs_mount):
    """Deleting one that holds mounts is refused, so that only a database restored from elsewhere knows the mount alone."""
    node.allow("the share /volume1/rec was not removed: something is mounted in the share")
    assert admin.call(NAS, "delete", name="rec")["error"]["code"] == 3305
    change_database(node, "update share set name = 'other', name_key = 'other' where name = 'rec'")
    try:
        assert reconnect(admin) == {"code": 434}
    finally:
        change_database(node, "update share set name = 'rec', name_key = 'rec' where name = 'other'")
    assert reconnect(admin) is None


def test_a_source_that_makes_no_sense(node, admin, nfs_mount):
    """Such a mount is never taken on: the database was changed by other hands."""
    change_database(node, f"update mount set source = '127.0.0.1' where source = '127.0.0.1:{EXPORT}'")
    refused(admin, 410)


def test_a_mount_of_somebody_else_and_one_that_nobody_knows(node, admin, nfs_mount):
    assert reconnect(node.client("viewer")) == {"code": 431}
    for point, code in (("/rec/other", 411), (f"{SHARE}/../rec/deep/nas", 413)):
        assert admin.call(LIST_API, "reconnect", mount_point=[point])["error"] == {"code": code}
    assert reconnect(admin) is None


def test_a_server_that_is_gone_or_silent(machine, node, admin):
    server = machine[2]
    mount_cifs(admin, server)
    server.kill()
    wait_until(lambda: reconnect(admin) == {"code": 425}, "the loss of the server is seen")
    assert [(each["mounted"], each["last_error"]) for each in listed(admin)] == [(False, 425)]
    server.start()
    server.pause()
    try:
        second = {}
        busy = threading.Thread(target=lambda: second.update(time.sleep(1) or reconnect(node.client("admin"))))
        busy.start()
        refused(admin, 424)
        busy.join()
        assert second == {"code": 438}  # the first had not ended
    finally:
        server.resume()
    assert reconnect(admin) is None


def test_an_account_that_the_server_no_longer_takes(machine, node, admin):
    server = machine[2]
    mount_cifs(admin, server)
    node.inside("umount", POINT)
    subprocess.run(["smbpasswd", "-c", server.configuration, "-s", samba.ACCOUNT], input="another\nanother\n", text=True,
                   check=True, stdout=subprocess.DEVNULL)
    try:
        refused(admin, 421)
    finally:
        subprocess.run(["smbpasswd", "-c", server.configuration, "-s", samba.ACCOUNT], text=True, check=True,
                       input=f"{samba.PASSWORD}\n{samba.PASSWORD}\n", stdout=subprocess.DEVNULL)
    assert reconnect(admin) is None


def test_a_server_whose_name_is_lost(machine, node, admin):
    hosts = os.path.join(node.folder, "hosts")
    with open(hosts, "w", encoding="utf-8") as file:
        file.write("127.0.0.1 localhost nas.invalid\n")
    node.inside("mount", "--bind", hosts, "/etc/hosts")
    try:
        mount_cifs(admin, machine[2], "//nas.invalid/data")
        node.inside("umount", POINT)
    finally:
        node.inside("umount", "/etc/hosts")
    refused(admin, 422)
