"""Remote folders as recording shares: mounted, lost, found again, with a real Samba server."""

import os
import time

import pytest

import samba
from life import delete, edit, find, is_there, make
from node import SHARE_API, Node, wait_until

CAMERA_API = "KORV.Pavane.Camera"
MOUNT_API = "KORV.Tarsel.Mount"
LIST_API = "KORV.Tarsel.Mount.List"
POINT = "/volume1/video/nas"
KEEPER_ROUND_S = 5  # between two looks at all mounts


@pytest.fixture(scope="module")
def server_and_node():
    with Node() as node:
        server = samba.Samba(node.folder)
        server.start()
        samba.put_helpers_in_place(node)
        node.client("admin").create("video")
        yield server, node
        server.kill()


@pytest.fixture
def server(server_and_node):
    return server_and_node[0]


@pytest.fixture
def node(server_and_node):
    node = server_and_node[1]
    node.allowed.clear()
    node.unexpected_lines()
    yield node
    assert node.unexpected_lines() == []


@pytest.fixture
def admin(node):
    return node.client("admin")


def wanted(server, **more):
    return {"mountType": 2, "mountSource": "//127.0.0.1/data", "mountPoint": POINT, "mountPath": POINT,
            "blNeedMount": True, "account": samba.ACCOUNT, "passwd": samba.PASSWORD,
            "adv_opt": f"port={server.port}", "blAutoMount": True, **more}


def state(admin, **filters):
    return {share["sharePath"]: share["mountStatus"] for share in admin.list(**filters)}.get(POINT)


def mounts(admin):
    return admin.call(LIST_API, "list")["data"]["mounts"]


@pytest.mark.parametrize("change, code", [
    ({"passwd": "wrong"}, 492),
    ({"mountSource": "//127.0.0.1/nosuch"}, 496),
    ({"mountSource": "//no-such-host.invalid/data"}, 493),
    ({"adv_opt": "port=1"}, 495),
    ({"adv_opt": "suid"}, 502),
    ({"mountSource": "//127.0.0.1/data,uid=0"}, 491),
    ({"mountPath": "/volume1/video"}, 485),
    ({"mountPoint": "/volume1/video"}, 485),
    ({"mountPath": "/volume1/nosuch/nas"}, 485),
    ({"mountPath": "/volume1/video/a/b"}, 498),
    ({"account": "a\nb"}, 484),
    ({"mountPath": "/volume1/video/../nas"}, 484),
    ({"mountType": 1}, 491),
])
def test_a_failure_tells_its_cause_and_leaves_nothing(node, server, admin, change, code):
    node.allow("mounting at|Error response|Failed to execute function after relay")
    answer = admin.call(SHARE_API, "CreateRemoteRecShare", **{**wanted(server), **change})
    assert answer.get("error", {}).get("code") == code, answer
    assert mounts(admin) == []
    assert node.inside("ls", "-A", "/volume1/video") == ""


def test_a_remote_folder_becomes_a_share_and_survives_its_server(node, server, admin):
    node.allow("the mount at|mounting at|reconnecting|korvd ends|korvd serves on|public.sock failed")
    answer = admin.call(SHARE_API, "CreateRemoteRecShare", **wanted(server))
    assert answer["success"], answer
    assert answer["data"]["fsType"] == 11 and answer["data"]["totalSize"] > 0
    assert state(admin) == 0
    node.inside("setpriv", "--reuid", "Pavane", "--regid", "Pavane", "--init-groups", "touch", f"{POINT}/recording")
    assert os.path.exists(f"{server.data}/recording")
    assert [mount["status"] for mount in mounts(admin)] == [0]

    server.kill()
    wait_until(lambda: state(admin, blIncldRemoteAbnormal=True) == 1, "the share is abnormal", 30)
    assert state(admin) is None
    assert node.inside("touch", f"{POINT}/unseen", check=False).returncode != 0
    answer = admin.call(SHARE_API, "ReconnetRemoteMount", mount_point=POINT)
    assert answer["error"]["code"] == 425, answer

    server.start()
    assert admin.call(LIST_API, "reconnect", mount_point=[POINT])["success"]
    wait_until(lambda: state(admin) == 0, "the share knows of a reconnection of its mount", 30)
    answer = admin.call(SHARE_API, "ReconnetRemoteMount", mount_point=POINT)
    assert answer["success"], answer
    assert state(admin) == 0
    assert "recording" in node.inside("ls", POINT)

    node.stop()
    node.start()
    samba.put_helpers_in_place(node)
    admin = node.client("admin")
    wait_until(lambda: [mount["status"] for mount in mounts(admin) if mount["mounted"]] == [0],
               "the automatic mount is back", 60)
    wait_until(lambda: state(admin) == 0, "the share is normal again", 30)


def test_a_mount_is_offered_until_it_is_a_share(node, server, admin):
    node.allow("the mount at|unmounting")
    point = "/volume1/video/second"
    answer = admin.call(MOUNT_API, "mount_remote", mount_type="CIFS", account=samba.ACCOUNT, passwd=samba.PASSWORD,
                        server_ip="//127.0.0.1/data", mount_point="/video/second", adv_opt=f"port={server.port}")
    assert answer["success"], answer
    offered = admin.call(SHARE_API, "ListMountedFolder")["data"]["remoteList"]
    assert offered == [{"blAutoMount": False, "mountType": 2, "mountPoint": point, "mountSource": "//127.0.0.1/data"}]
    answer = admin.call(SHARE_API, "CreateRemoteRecShare",
                        **wanted(server, mountPoint=point, blNeedMount=False, blAutoMount=False))
    assert answer["success"], answer
    assert admin.call(SHARE_API, "ListMountedFolder") == {"success": True}
    answer = admin.call(MOUNT_API, "unmount", mount_type="remote", is_mount_point=True, mount_point="/video/second")
    assert answer["success"], answer
    assert {share["sharePath"]: share["mountStatus"] for share in admin.list(blIncldRemoteAbnormal=True)}[point] == 1
    assert node.client("viewer").call(MOUNT_API, "unmount", mount_point="/video/nas")["error"]["code"] == 431


def test_trailing_slashes_of_a_mount_point_mean_nothing(node, server, admin):
    """The share has its folder's name and path, and its mount's state follows the mount, not the text that was sent."""
    node.allow("the mount at|reconnecting|unmounting")
    point = "/volume1/video/third"
    answer = admin.call(SHARE_API, "CreateRemoteRecShare",
                        **wanted(server, mountPoint=point + "//", mountPath=point + "/", blAutoMount=False))
    assert answer["success"], answer
    assert answer["data"]["fsType"] == 11 and answer["data"]["totalSize"] > 0

    def shown():
        return [(share["shareName"], share["mountStatus"]) for share in admin.list(blIncldRemoteAbnormal=True)
                if share["sharePath"] == point]

    time.sleep(2 * KEEPER_ROUND_S)
    assert shown() == [("third", 0)]
    node.inside("umount", point)
    wait_until(lambda: shown() == [("third", 1)], "the share is abnormal", 30)
    answer = admin.call(SHARE_API, "ReconnetRemoteMount", mount_point=point + "/")
    assert answer["success"], answer
    assert shown() == [("third", 0)]
    wait_until(lambda: [mount["status"] for mount in mounts(admin) if mount["mount_point"] == point] == [0],
               "the mount is normal")
    assert point not in str(admin.call(SHARE_API, "ListMountedFolder"))
    listed = [share for share in admin.list() if share["sharePath"] == point]
    answer = admin.call(SHARE_API, "DelRecShare", delShareList=listed)
    assert answer["success"], answer
    assert [mount for mount in mounts(admin) if mount["mount_point"] == point] == []


def test_a_plain_folder_that_is_adopted_as_a_mount_is_abnormal(node, admin):
    """Nothing is mounted there, so nothing may be recorded there."""
    node.inside("mkdir", "/volume1/video/plain")
    answer = admin.call(SHARE_API, "CreateRemoteRecShare", mountType=2, mountSource="//127.0.0.1/data",
                        mountPoint="/volume1/video/plain", blNeedMount=False)
    assert answer["success"], answer
    assert (answer["data"]["fsType"], answer["data"]["totalSize"]) == (-1, 0)
    wait_until(lambda: [share["mountStatus"] for share in admin.list(blIncldRemoteAbnormal=True)
                        if share["shareName"] == "plain"] == [1], "the share is abnormal", 30)
    assert [share for share in admin.list() if share["shareName"] == "plain"] == []


def test_a_mount_on_btrfs_is_guarded_like_any(node, server, admin):
    node.allow("the mount at|reconnecting|unmounting")
    point = "/volume2/cams/nas"
    assert admin.create("cams", "/volume2")["success"]
    answer = admin.call(SHARE_API, "CreateRemoteRecShare",
                        **wanted(server, mountPoint=point, mountPath="/cams/nas", blAutoMount=False))
    assert answer["success"], answer
    assert answer["data"]["fsType"] == 11
    as_recorder = ("setpriv", "--reuid", "Pavane", "--regid", "Pavane", "--init-groups")
    node.inside(*as_recorder, "touch", f"{point}/on-btrfs")
    assert os.path.exists(f"{server.data}/on-btrfs")

    node.inside("umount", point)
    for who in ((), as_recorder):
        assert node.inside(*who, "touch", f"{point}/unseen", check=False).returncode != 0
    assert "i" in node.inside("lsattr", "-d", point).split()[0]
    assert admin.call(LIST_API, "reconnect", mount_point=[point])["success"]
    assert "on-btrfs" in node.inside("ls", point)
    assert admin.call(MOUNT_API, "unmount", mount_point=point)["success"]
    assert node.inside("ls", "-A", "/volume2/cams") == "", "the folder that was made for the mount goes with it"


def test_nothing_is_mounted_inside_a_locked_share(node, server, admin):
    """It would lie where the share's files are to show, and keep them from being unlocked."""
    node.allow("mounting at|Error response|Failed to execute function after relay|the mount at|reconnecting|unmounting")
    crypto = "KORV.Core.Share.Crypto"
    point = "/volume1/vault/nas"
    assert admin.create("vault", blEncryption=True, encPasswd="s3cret")["success"]
    assert admin.call(crypto, "lock", name="vault")["success"]
    request = wanted(server, mountPoint=point, mountPath=point, blAutoMount=False)
    assert admin.call(SHARE_API, "CreateRemoteRecShare", **request)["error"]["code"] == 498
    assert node.inside("ls", "-A", "/volume1/vault") == ""

    assert admin.call(crypto, "decrypt", name="vault", password="s3cret")["success"]
    assert admin.call(SHARE_API, "CreateRemoteRecShare", **request)["success"]
    node.inside("umount", point)  # lost, and then the share is locked
    assert admin.call(crypto, "lock", name="vault")["success"]
    assert admin.call(LIST_API, "reconnect", mount_point=[point])["error"]["code"] == 430
    assert admin.call(crypto, "decrypt", name="vault", password="s3cret")["success"]
    assert admin.call(LIST_API, "reconnect", mount_point=[point])["success"]
    assert "seen-in-vault" not in node.inside("ls", point)
    with open(f"{server.data}/seen-in-vault", "w", encoding="utf-8"):
        pass
    wait_until(lambda: "seen-in-vault" in node.inside("ls", point), "the server's files show")
    assert admin.call(MOUNT_API, "unmount", mount_point=point)["success"]
    assert admin.call(crypto, "lock", name="vault")["success"]


def test_a_foreign_mount_is_watched_like_any(node, server, admin):
    """Somebody else has mounted it; the share on it is told alive or not all the same."""
    node.allow("the mount at|reconnecting")
    point = "/volume1/video/foreign"
    node.inside("mkdir", point)
    account = os.path.join(node.folder, "foreign.account")
    with open(account, "w", encoding="utf-8", opener=lambda name, flags: os.open(name, flags, 0o600)) as file:
        file.write(f"username={samba.ACCOUNT}\npassword={samba.PASSWORD}\n")
    node.inside("mount.cifs", "//127.0.0.1/data", point, "-o", f"port={server.port},credentials={account}")
    answer = admin.call(SHARE_API, "CreateRemoteRecShare", mountType=2, mountSource="//127.0.0.1/data", mountPoint=point,
                        blNeedMount=False)
    assert answer["success"], answer

    def status():
        return [share["mountStatus"] for share in admin.list(blIncldRemoteAbnormal=True) if share["sharePath"] == point]

    assert status() == [0]
    server.kill()
    wait_until(lambda: status() == [1], "the share is abnormal", 60)
    server.start()
    wait_until(lambda: status() == [0], "the share is normal again", 60)
    assert admin.call(LIST_API, "reconnect", mount_point=[point])["error"]["code"] == 411
    node.inside("umount", point)
    wait_until(lambda: status() == [1], "the share knows that nothing is mounted", 60)


def test_a_rename_takes_the_remote_share_in_the_folder_along(node, server, admin):
    node.allow("Failed to execute function after relay")
    share = make(admin, "rec")
    answer = admin.call(SHARE_API, "CreateRemoteRecShare",
                        **wanted(server, mountPoint="/volume1/rec/far", mountPath="/volume1/rec/far"))
    assert answer["success"], answer
    remote = find(admin, "far")
    camera = {"name": "Door", "recordingPath": "/volume1/rec/far/door"}
    assert admin.call(CAMERA_API, "import", cameras=[camera])["success"]

    assert edit(admin, share, shareName="yard")["success"]
    moved = {**remote, "sharePath": "/volume1/yard/far", "camCnt": 1}
    assert moved["mountStatus"] == 0
    wait_until(lambda: find(admin, "far") == moved, "the record follows, normal as before")
    assert "/volume1/yard/far" in [mount["mount_point"] for mount in mounts(admin)]
    assert node.inside("findmnt", "-n", "-o", "TARGET", "/volume1/yard/far") == "/volume1/yard/far\n"
    answer = delete(admin, moved)
    assert answer["error"]["code"] == 445 and answer["error"]["errors"]["param1"] == "1", answer

    camera["recordingPath"] = ""
    assert admin.call(CAMERA_API, "import", cameras=[camera])["success"]
    before = len(mounts(admin))
    assert delete(admin, moved)["success"]
    assert find(admin, "far") is None and len(mounts(admin)) == before - 1
    assert node.inside("mountpoint", "-q", "/volume1/yard/far", check=False).returncode != 0
    assert delete(admin, find(admin, "yard"))["success"]
    assert not is_there(node, "/volume1/yard")


def test_nobody_mounts_without_a_session(node):
    for api, method in ((MOUNT_API, "mount_remote"), (MOUNT_API, "unmount"), (LIST_API, "list"),
                        (LIST_API, "reconnect")):
        assert node.client().call(api, method)["error"]["code"] == 105
