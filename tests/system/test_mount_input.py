"""What may be said about a remote folder: refused or passed on, and nothing is left behind.

Port 1 refuses every connection: its code means that the input was taken.
"""

import os

import pytest

from node import SHARE_API

MOUNT_API = "KORV.Tarsel.Mount"
SHARE = "/volume1/video"
TAKEN = 495
_LONGEST = len("/volume1") + 200
TAKEN_BY_SERVICE = 425


@pytest.fixture(scope="module", autouse=True)
def share(shared_node):
    admin = shared_node.client("admin")
    assert admin.create("video")["success"]
    shared_node.inside("mkdir", "/volume1/outside", f"{SHARE}/inner")
    shared_node.inside("ln", "-s", "/volume1/outside", f"{SHARE}/link")
    shared_node.inside("mount", "-t", "tmpfs", "tmpfs", f"{SHARE}/inner")
    yield
    shared_node.inside("umount", f"{SHARE}/inner")


@pytest.fixture(autouse=True)
def nothing_is_left(node, admin):
    node.allow("mounting at|Error response|Failed to execute function after relay")
    yield
    assert admin.call("KORV.Tarsel.Mount.List", "list")["data"]["total"] == 0
    assert sorted(node.inside("ls", "-A", SHARE).split()) == ["inner", "link"]
    assert node.inside("ls", "-A", f"{SHARE}/inner") == node.inside("ls", "-A", "/volume1/outside") == ""
    accounts = f"{node.state}/state/mounts"
    assert not os.path.exists(accounts) or os.listdir(accounts) == []


def code_of(answer):
    assert answer["success"] is False
    return answer["error"]["code"]


def create(admin, point=f"{SHARE}/nas", **changes):
    wanted = {"mountType": 2, "mountSource": "//127.0.0.1/data", "mountPoint": point, "mountPath": point,
              "blNeedMount": True, "account": "daemon", "passwd": "secret", "adv_opt": "port=1"}
    return code_of(admin.call(SHARE_API, "CreateRemoteRecShare", **{**wanted, **changes}))


@pytest.mark.parametrize("point, code", [
    ("", 401), (SHARE, 485), ("/volume1/nosuch/nas", 485), ("/etc/nas", 485), ("/dev/shm/nas", 485),
    (f"{SHARE}/nas", TAKEN), (f"{SHARE}/nas/", TAKEN), (f"{SHARE}/a b #1 'q' \"ü\"", TAKEN),
    (f"{SHARE}/".ljust(_LONGEST, "n"), TAKEN), (f"{SHARE}/".ljust(_LONGEST + 1, "n"), 401),
    (f"{SHARE}/a\\b", 484), (f"{SHARE}/a\nb", 484), (f"{SHARE}/../video/nas", 484), (f"{SHARE}/./nas", 484),
    (f"{SHARE}//nas", 484), (f"{SHARE}/link", 484), (f"{SHARE}/link/nas", 484), (f"{SHARE}/inner", 497),
    (f"{SHARE}/inner/nas", 497), (f"{SHARE}/missing/nas", 498),
])
def test_a_mount_point(admin, point, code):
    assert create(admin, point) == code


def test_a_folder_with_content_is_not_covered(node, admin):
    node.inside("mkdir", f"{SHARE}/full")
    node.inside("touch", f"{SHARE}/full/recording")
    assert create(admin, f"{SHARE}/full") == 486
    answer = admin.call(MOUNT_API, "mount_remote", mount_type="CIFS", server_ip="//127.0.0.1/data", mount_point="/video/full",
                        adv_opt="port=1")
    assert code_of(answer) == 428
    node.inside("rm", f"{SHARE}/full/recording")  # it was left as it was, unguarded
    assert create(admin, f"{SHARE}/full") == TAKEN
    node.inside("rmdir", f"{SHARE}/full")


@pytest.mark.parametrize("kind, source, code", [
    (2, "", 401), (2, "//127.0.0.1", 491), (2, "//127.0.0.1/", 491), (2, "127.0.0.1:/data", 491), (2, "//-o/data", 491),
    (2, "//127.0.0.1/a b", TAKEN), (2, "//127.0.0.1/it's \"q\" #1", TAKEN), (2, "//127.0.0.1/ü/é", TAKEN),
    (2, "\\\\127.0.0.1\\data", TAKEN), (2, "//127.0.0.1/a,b", 491), (2, "//127.0.0.1/a\nuid=0", 491),
    (2, "//127.0.0.1/../a", 491), (2, "//127.0.0.1/" + "x" * 1100, 491),
    (1, "127.0.0.1:/x", TAKEN), (1, "127.0.0.1:/a b#ü'\"", TAKEN), (1, "127.0.0.1:/x,uid=0", 491), (1, "127.0.0.1", 491),
    (1, "//127.0.0.1/data", 491), (1, "-o:/x", 491), (0, "//127.0.0.1/data", 401), (3, "//127.0.0.1/data", 401),
])
def test_a_source(admin, kind, source, code):
    assert create(admin, mountType=kind, mountSource=source) == code


@pytest.mark.parametrize("changes, code", [
    ({"account": "a,b", "passwd": "c,d=e #\"'ü"}, TAKEN), ({"account": "DOMAIN\\name"}, TAKEN), ({"account": ""}, TAKEN),
    ({"account": "a\npassword=b"}, 484), ({"passwd": "a\nuid=0"}, 484), ({"account": "a" * 1000}, 484),
    ({"passwd": "a" * 1000}, 484), ({"passwd": "a" * 512}, TAKEN),
    *(({"adv_opt": f"port=1,{option}"}, 502)
      for option in ("suid", "dev", "exec", "uid=0", "credentials=/etc/shadow", "remount", "port=1", "vers=9", "x")),
    ({"adv_opt": " port=1 , ro,"}, TAKEN),
    ({"mountType": 1, "mountSource": "127.0.0.1:/x", "nfs_version": "3,suid"}, 502),
    ({"mountType": 1, "mountSource": "127.0.0.1:/x", "protocol": "rdma"}, 502),
    ({"mountType": 1, "mountSource": "127.0.0.1:/x", "nfs_version": "4.1", "protocol": "tcp"}, TAKEN),
])
def test_an_account_and_options(admin, changes, code):
    assert create(admin, **changes) == code


@pytest.mark.parametrize("changes, code", [
    ({}, TAKEN_BY_SERVICE), ({"server_ip": "//127.0.0.1/a,b"}, 410), ({"mount_point": "/video/a\\b"}, 413),
    ({"account": "a\nb"}, 414), ({"mount_point": "/video"}, 434), ({"adv_opt": "exec"}, 436), ({"mount_type": "NTFS"}, 401)])
def test_the_service_tells_the_same_by_codes_of_its_own(admin, changes, code):
    wanted = {"mount_type": "CIFS", "server_ip": "//127.0.0.1/data", "mount_point": "/video/nas", "adv_opt": "port=1"}
    assert code_of(admin.call(MOUNT_API, "mount_remote", **{**wanted, **changes})) == code


def test_a_share_of_others_is_not_mounted_on(node):
    viewer = node.client("viewer")
    answer = viewer.call(MOUNT_API, "mount_remote", mount_type="CIFS", server_ip="//127.0.0.1/data", mount_point="/video/nas")
    assert code_of(answer) == 432
    assert code_of(viewer.call(SHARE_API, "CreateRemoteRecShare")) == 105


@pytest.mark.parametrize("method, point, code", [("unmount", "/video/nas", 411), ("unmount", "/video/../x", 413)])
def test_what_is_not_known_is_not_unmounted(node, admin, method, point, code):
    node.allow("unmounting")
    assert code_of(admin.call(MOUNT_API, method, mount_point=point)) == code
    node.allow("reconnecting")
    assert code_of(admin.call("KORV.Tarsel.Mount.List", "reconnect", mount_point=[point])) == code
