"""Each method that reaches across servers, from either side: what is on disk, and both sides' records compared field by field."""

import base64
import contextlib
import json
import os
import shlex

import pytest

import samba
from cluster import OUTSIDE, RECORD_FIELDS, Cluster, enter_own_network, failure, record
from node import SHARE_API, wait_until

_EDITED = {"description": "edited", "blHideShare": False, "blRecLimit": True, "recLimitGB": 12}


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    with Cluster("--peer-answer-s", "20", settings="workers: {public: 2, peer: 1}\n") as running:
        running.log_in(running.host)
        running.pair(running.second)
        running.pair(running.third)
        yield running


def expect_alike(cluster, member, path):
    """The server has the share, the host has its record of it, and they agree. Returns the ids (host's, server's)."""
    there = record(member, path, 0)
    at_host = record(cluster.host, path, cluster.ids[member.name])
    assert there and at_host, (there, at_host)
    assert at_host[1] == there[0], "the host knows its id there"
    assert at_host[2] == there[2]
    assert member.has_folder(path)
    return at_host[0], there[0]


def expect_gone(cluster, member, path):
    assert record(member, path, 0) is None
    assert record(cluster.host, path, cluster.ids[member.name]) is None
    assert not member.has_folder(path)


def untouched(*members):
    """The members' records, to be compared with later ones."""
    return [member.rows(f"select id, id_on_rec, owner_rv_id, {RECORD_FIELDS} from recording_share order by id")
            for member in members]


def create_far(cluster, member, name, **parameters):
    """A share of a recording server, made through the host; the ids on both sides."""
    answer = cluster.host.client("admin").create(name, rvId=cluster.ids[member.name], **parameters)
    assert answer["success"], answer
    return expect_alike(cluster, member, f"{parameters.get('volume', '/volume1')}/{name}")


def change(client, method, **parameters):
    return client.call(SHARE_API, method, **parameters)


def element(share_id, owner, path):
    return {"shareId": share_id, "shareRvId": owner, "sharePath": path}


# Edit

def test_the_host_edits_a_share_of_its_own(cluster):
    before = untouched(cluster.second, cluster.third)
    client = cluster.host.client("admin")
    number = client.create("plain")["data"]["id"]
    answer = change(client, "EditRecShare", shareId=number, shareName="planed", **_EDITED)
    assert answer["success"], (answer, cluster.host.log()[-2000:], cluster.host.log("korvd.log")[-2000:])
    fields = record(cluster.host, "/volume1/planed", 0)[2]
    assert fields[:5] == ("planed", "/volume1/planed", "volume1", "edited", 0)
    assert fields[-3:-1] == (12, 1)
    assert cluster.host.has_folder("/volume1/planed") and not cluster.host.has_folder("/volume1/plain")
    assert untouched(cluster.second, cluster.third) == before


def test_the_host_edits_a_share_of_a_recording_server(cluster):
    before = untouched(cluster.third)
    at_host, there = create_far(cluster, cluster.second, "door")
    answer = change(cluster.host.client("admin"), "EditRecShare", rvId=cluster.ids["server2"], shareId=at_host,
                    shareName="gate", **_EDITED)
    assert answer["success"], answer
    assert expect_alike(cluster, cluster.second, "/volume1/gate") == (at_host, there)
    assert record(cluster.second, "/volume1/gate", 0)[2][3] == "edited"
    assert not cluster.second.has_folder("/volume1/door")
    assert untouched(cluster.third) == before


@pytest.mark.parametrize("from_host", [False, True], ids=["by both", "through the host"])
def test_a_recording_server_edits_its_share(cluster, from_host):
    name = "hall" if from_host else "room"
    ids = create_far(cluster, cluster.second, name)
    answer = change(cluster.second.client("admin"), "EditRecShare", shareId=ids[1], shareName=f"new{name}",
                    actFromHost=from_host, **_EDITED)
    assert answer["success"], answer
    assert expect_alike(cluster, cluster.second, f"/volume1/new{name}") == ids
    assert record(cluster.host, f"/volume1/new{name}", cluster.ids["server2"])[2][3] == "edited"
    assert not cluster.second.has_folder(f"/volume1/{name}")


def test_a_refused_edit_leaves_both_sides_as_they_were(cluster):
    at_host, _ = create_far(cluster, cluster.second, "keeper")
    create_far(cluster, cluster.second, "taken")
    before = untouched(*cluster.members)
    answer = change(cluster.host.client("admin"), "EditRecShare", rvId=cluster.ids["server2"], shareId=at_host,
                    shareName="taken")
    assert answer == failure(443)
    assert untouched(*cluster.members) == before


# Delete

def test_the_host_deletes_shares_of_all_servers_at_once(cluster):
    client = cluster.host.client("admin")
    own = client.create("sweep")["data"]["id"]
    second = create_far(cluster, cluster.second, "sweep")[0]
    third = create_far(cluster, cluster.third, "sweep")[0]
    answer = change(client, "DelRecShare", delShareList=[
        element(own, 0, "/volume1/sweep"), element(third, cluster.ids["server3"], "/volume1/sweep"),
        element(second, cluster.ids["server2"], "/volume1/sweep")])
    assert answer == {"success": True}
    for member in (cluster.second, cluster.third):
        expect_gone(cluster, member, "/volume1/sweep")
    assert record(cluster.host, "/volume1/sweep", 0) is None
    assert not cluster.host.has_folder("/volume1/sweep")


@pytest.mark.parametrize("keep", [False, True], ids=["folder", "record only"])
def test_the_host_deletes_one_share_of_a_recording_server(cluster, keep):
    name = f"single{int(keep)}"
    client = cluster.host.client("admin")
    own = client.create(name)["data"]["id"]
    at_host, _ = create_far(cluster, cluster.second, name)
    path = f"/volume1/{name}"
    answer = change(client, "DelRecShare", blKeepOskShare=keep,
                    delShareList=[element(at_host, cluster.ids["server2"], path)])
    assert answer == {"success": True}
    assert record(cluster.second, path, 0) is None
    assert record(cluster.host, path, cluster.ids["server2"]) is None
    assert cluster.second.has_folder(path) == keep
    assert record(cluster.host, path, 0)[0] == own, "its own of that name stays"
    assert cluster.host.has_folder(path)


def test_a_recording_server_deletes_its_share(cluster):
    _, there = create_far(cluster, cluster.third, "leaf")
    answer = change(cluster.third.client("admin"), "DelRecShare", delShareList=[element(there, 0, "/volume1/leaf")])
    assert answer == {"success": True}
    expect_gone(cluster, cluster.third, "/volume1/leaf")


def test_a_deletion_that_a_recording_server_leaves_to_its_host_deletes_a_record_only(cluster):
    """As both were asked: the host forgets its record, and the server leaves out its own part."""
    at_host, there = create_far(cluster, cluster.second, "clinging")
    answer = change(cluster.second.client("admin"), "DelRecShare", delShareList=[element(there, 0, "/volume1/clinging")],
                    actFromHost=True)
    assert answer == {"success": True}
    assert record(cluster.host, "/volume1/clinging", cluster.ids["server2"]) is None
    assert record(cluster.second, "/volume1/clinging", 0)[0] == there
    assert cluster.second.has_folder("/volume1/clinging")
    done = cluster.pavane(cluster.host, "server", "check", check=False)
    assert done.returncode == 1
    assert "/volume1/clinging" in done.stdout and "the host has no record of this share" in done.stdout
    cluster.pavane(cluster.host, "server", "check", "--repair")
    repaired, own = expect_alike(cluster, cluster.second, "/volume1/clinging")
    assert own == there and repaired != at_host


def test_a_camera_that_only_the_recording_server_knows_keeps_the_share(cluster):
    at_host, _ = create_far(cluster, cluster.second, "watched")
    cluster.second.rows("insert into camera (owner_rv_id, name, recording_path, rec_storage_status)"
                        " values (0, 'yard', '/volume1/watched/yard', 0)")
    before = untouched(*cluster.members)
    answer = change(cluster.host.client("admin"), "DelRecShare",
                    delShareList=[element(at_host, cluster.ids["server2"], "/volume1/watched")])
    assert answer == {"success": False, "error": {"code": 445, "errors": {"param1": "1", "param2": ""}},
                      "data": {"param1": "1", "param2": ""}}
    assert untouched(*cluster.members) == before
    assert cluster.second.has_folder("/volume1/watched")


def test_a_camera_of_the_server_that_the_host_knows_keeps_all(cluster):
    number = cluster.ids["server3"]
    client = cluster.host.client("admin")
    own = client.create("free")["data"]["id"]
    at_host, _ = create_far(cluster, cluster.third, "busy")
    cluster.host.rows("insert into camera (owner_rv_id, name, recording_path, rec_storage_status)"
                      " values (?, 'lane', '/volume1/busy/lane', 0)", number)
    before = untouched(*cluster.members)
    answer = change(client, "DelRecShare", delShareList=[element(own, 0, "/volume1/free"),
                                                         element(at_host, number, "/volume1/busy")])
    assert answer["error"] == {"code": 445, "errors": {"param1": "1", "param2": ""}}
    assert untouched(*cluster.members) == before


def test_what_one_of_several_servers_refused_is_named_by_the_check(cluster):
    """With several targets their errors do not stop the host, which forgets both records."""
    second = create_far(cluster, cluster.second, "pair")[0]
    third = create_far(cluster, cluster.third, "pair")[0]
    cluster.second.rows("insert into camera (owner_rv_id, name, recording_path, rec_storage_status)"
                        " values (0, 'pair', '/volume1/pair/one', 0)")
    answer = change(cluster.host.client("admin"), "DelRecShare", delShareList=[
        element(second, cluster.ids["server2"], "/volume1/pair"), element(third, cluster.ids["server3"], "/volume1/pair")])
    assert answer == {"success": True}
    expect_gone(cluster, cluster.third, "/volume1/pair")
    assert cluster.second.has_folder("/volume1/pair")
    assert [(entry["kind"], entry["rvId"], entry["sharePath"]) for entry in cluster.host.cms("check", id=0)["differences"]
            ] == [("missing", cluster.ids["server2"], "/volume1/pair")]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    expect_alike(cluster, cluster.second, "/volume1/pair")


# Remote folders; the mount point stands ready, so that nothing is mounted.

def remote(point, **parameters):
    return {"mountType": 2, "mountPoint": point, "mountSource": "//nas/video", "blAutoMount": True, **parameters}


def make_point(cluster, member, name):
    if member is cluster.host:
        assert member.client("admin").create(name)["success"]
    else:
        create_far(cluster, member, name)
    member.inside("mkdir", f"/volume1/{name}/far")
    return f"/volume1/{name}/far"


def test_the_host_makes_a_remote_folder_its_share(cluster):
    before = untouched(cluster.second, cluster.third)
    point = make_point(cluster, cluster.host, "base")
    answer = change(cluster.host.client("admin"), "CreateRemoteRecShare", **remote(point))
    assert answer["success"], answer
    number, _, fields = record(cluster.host, point, 0)
    assert answer["data"]["id"] == number
    assert (fields[0], fields[7:10]) == ("far", (2, "//nas/video", 1))
    assert untouched(cluster.second, cluster.third) == before


@pytest.mark.parametrize("from_host", [True, False], ids=["from the host", "forwarded"])
def test_a_remote_folder_of_a_recording_server(cluster, from_host):
    point = make_point(cluster, cluster.third, "west" if from_host else "east")
    if from_host:
        answer = change(cluster.host.client("admin"), "CreateRemoteRecShare",
                        **remote(point, rvId=cluster.ids["server3"]))
    else:
        answer = change(cluster.third.client("admin"), "CreateRemoteRecShare", **remote(point, actFromHost=True))
    assert answer["success"], answer
    ids = expect_alike(cluster, cluster.third, point)
    assert answer["data"]["id"] == ids[0], "it is the host that answers"
    assert record(cluster.third, point, 0)[2][7:10] == (2, "//nas/video", 1)
    edit = change(cluster.host.client("admin"), "EditRecShare", rvId=cluster.ids["server3"], shareId=ids[0], shareName="x")
    assert edit == failure(401)


def test_a_remote_folder_that_is_forwarded_plainly_becomes_a_share_of_both(cluster):
    """Both have the same mount point ready."""
    before = untouched(cluster.second)
    for member in (cluster.host, cluster.third):
        assert member.client("admin").call("KORV.Core.Share", "create", name="middle",
                                           shareinfo={"vol_path": "/volume1"})["success"]
        member.inside("mkdir", "/volume1/middle/far")
    answer = change(cluster.third.client("admin"), "CreateRemoteRecShare", **remote("/volume1/middle/far"))
    assert answer["success"], answer
    at_host = record(cluster.host, "/volume1/middle/far", 0)
    there = record(cluster.third, "/volume1/middle/far", 0)
    assert answer["data"]["id"] == there[0], "it is the server that answers"
    assert there[1] == at_host[0]
    assert at_host[2][7:10] == there[2][7:10] == (2, "//nas/video", 1)
    assert record(cluster.host, "/volume1/middle/far", cluster.ids["server3"]) is None, "the host made one of its own"
    assert untouched(cluster.second) == before


def test_a_lost_mount_of_a_recording_server_is_named(cluster):
    number = cluster.ids["server3"]
    point = make_point(cluster, cluster.third, "lost")
    host = cluster.host.client("admin")
    assert change(host, "CreateRemoteRecShare", **remote(point, rvId=number))["success"]

    def status(member, owner):
        return member.rows("select mount_status from recording_share where path = ? and owner_rv_id = ?", point, owner)

    def listed():
        return [share["sharePath"] for share in host.list(rvId=number) if share["sharePath"] == point]

    assert listed() == [point]
    wait_until(lambda: status(cluster.third, 0) == [(1,)], "the server has seen that nothing is mounted there")
    assert status(cluster.host, number) == [(0,)]
    done = cluster.pavane(cluster.host, "--json", "server", "check", check=False)
    found = {entry["sharePath"]: entry["fields"] for entry in json.loads(done.stdout)["differences"]}
    assert found[point] == ["mountStatus"]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    assert status(cluster.host, number) == [(1,)]
    assert listed() == []


def test_the_host_has_a_recording_server_mount_a_folder(cluster):
    """Nothing is pretended: source, account, password, options and the path for the mount service arrive and are used."""
    server = samba.Samba(cluster.third.folder, OUTSIDE)
    server.start()
    try:
        samba.put_helpers_in_place(cluster.third)
        create_far(cluster, cluster.third, "real")
        with open(f"{server.data}/seen", "w", encoding="utf-8") as file:
            file.write("from the server")
        wanted = remote("/volume1/real/nas", rvId=cluster.ids["server3"], mountSource=f"//{OUTSIDE}/data", mountPath="/real/nas",
                        blNeedMount=True, account=samba.ACCOUNT, passwd=samba.PASSWORD, adv_opt=f"port={server.port}")
        answer = change(cluster.host.client("admin"), "CreateRemoteRecShare", **{**wanted, "passwd": "wrong"})
        assert answer == failure(492), answer
        answer = change(cluster.host.client("admin"), "CreateRemoteRecShare", **wanted)
        assert answer["success"], answer
        assert answer["data"]["fsType"] == 11 and answer["data"]["totalSize"] > 0
        ids = expect_alike(cluster, cluster.third, "/volume1/real/nas")
        assert cluster.third.inside("cat", "/volume1/real/nas/seen") == "from the server"
        listed = cluster.third.client("admin").call("KORV.Tarsel.Mount.List", "list")["data"]["mounts"]
        assert [(mount["mount_point"], mount["source"], mount["auto_mount"], mount["status"]) for mount in listed] == [
            ("/volume1/real/nas", f"//{OUTSIDE}/data", "yes", 0)]
        for member in cluster.members:
            assert "c#r=et" in samba.PASSWORD and "c#r=et" not in member.log() + member.log("korvd.log")

        answer = change(cluster.host.client("admin"), "DelRecShare",
                        delShareList=[element(ids[0], cluster.ids["server3"], "/volume1/real/nas")])
        assert answer["success"], answer
        expect_gone(cluster, cluster.third, "/volume1/real/nas")
        assert os.path.exists(f"{server.data}/seen")
        assert os.listdir(f"{cluster.third.state}/state/mounts") == [], "the password is forgotten"
    finally:
        server.kill()


def test_a_bad_remote_folder_is_refused_before_anything_is_sent(cluster):
    before = untouched(*cluster.members)
    for parameters, code in ((remote(""), 401), (remote("/volume1/only"), 485), (remote("/volume1/a/b", mountType=0), 401),
                             (remote("/volume1/none/there"), 484)):
        answer = change(cluster.host.client("admin"), "CreateRemoteRecShare", rvId=cluster.ids["server3"], **parameters)
        assert answer["error"] == {"code": code, "errors": {"param1": "", "param2": ""}}, parameters
    assert untouched(*cluster.members) == before


# Reports

def test_the_use_of_all_servers_shares_is_gathered(cluster):
    at_host, there = create_far(cluster, cluster.second, "used")
    cluster.second.rows("insert into shared_folder_storage (name, share_id, application_id) values ('in order', ?, 99)", there)
    for member in (cluster.host, cluster.second):  # of no share, so that it is always told
        member.rows("insert into shared_folder_storage (name, share_id, application_id) values (?, -1, 99)",
                    f"on {member.name}")
    client = cluster.host.client("admin")
    far = {"name": "in order", "share_id": there, "application_id": 99, "rvId": cluster.ids["server2"]}
    assert change(client, "ListShareUsage", shareId=at_host) == {"success": True, "data": {"usage": [far]}}
    far.update(name="on server2", share_id=-1)
    usage = change(client, "ListShareUsage")["data"]["usage"]
    assert {entry["name"] for entry in usage} == {"on host", "on server2"}
    assert far in usage
    table = cluster.pavane(cluster.host, "share", "usage", "--server", str(cluster.ids["server2"])).stdout
    assert "on server2" in table and "on host" not in table
    cluster.second.cut_off()
    try:
        answer = change(client, "ListShareUsage")
        assert answer["error"] == {"code": 400, "errors": {"param1": "", "param2": ""}}
        cluster.await_state(cluster.second, "offline")
        assert [entry["name"] for entry in change(client, "ListShareUsage")["data"]["usage"]] == ["on host"]
    finally:
        cluster.second.reconnect()
    cluster.await_state(cluster.second, "online")


def test_cameras_of_a_recording_servers_share(cluster):
    number = cluster.ids["server2"]
    at_host, _ = create_far(cluster, cluster.second, "seen")
    cluster.host.rows("insert into camera (owner_rv_id, name, recording_path, rec_storage_status, ip)"
                      " values (?, 'ramp', '/volume1/seen/ramp', 0, '10.0.0.9')", number)
    client = cluster.host.client("admin")
    answer = change(client, "ListUsingCam", shareId=at_host, blCheckMigrating=True)
    assert [(camera["name"], camera["ip"]) for camera in answer["data"]["camList"]] == [("ramp", "10.0.0.9")]
    cluster.second.rows("insert into camera (owner_rv_id, name, recording_path, rec_storage_status)"
                        " values (0, 'moving', '/volume1/seen/moving', 0)")
    (camera,) = cluster.second.rows("select id from camera where name = 'moving'")[0]
    with migration(cluster.second, camera, "/volume1/seen/moving"):
        answer = change(client, "ListUsingCam", shareId=at_host, blCheckMigrating=True)
        assert answer["error"] == {"code": 449, "errors": {"param1": "1", "param2": ""}}
        assert change(client, "ListUsingCam", shareId=at_host)["data"]["total"] == 1
    cluster.second.cut_off()
    try:
        answer = change(client, "ListUsingCam", shareId=at_host, blCheckMigrating=True)
        assert answer["error"] == {"code": 406, "errors": {"param1": "", "param2": ""}}
        assert f"Failed to send cmd to rv[{number}]." in cluster.host.log()
    finally:
        cluster.second.reconnect()
    cluster.await_state(cluster.second, "online")


@contextlib.contextmanager
def migration(member, camera, source):
    """The recordings of a camera are being moved out of `source`."""
    file = f"/srv/pavane/state/migrations/camera-{camera}"
    member.inside("sh", "-c", f"mkdir -p /srv/pavane/state/migrations && echo {shlex.quote(f'srcDir={chr(39)}{source}{chr(39)}')}"
                              f" > {file} && chown -R --reference=/srv/pavane/state /srv/pavane/state/migrations")
    yield
    member.inside("rm", file)


# Encrypted shares

_PASSWORD = "far away and locked"


def locked(member, name):
    return member.client("admin").call("KORV.Core.Share", "get", name=name)["data"]["encryption"] == 1


def unlock_by_file(cluster, key, **parameters):
    """Uploads a key file to the host."""
    client = cluster.host.client("admin")
    request = {"api": SHARE_API, "version": 1, "method": "DecryptByFile", **parameters}
    return client.session.post(f"{client.url}/webapi", timeout=60, files={
        "request": (None, json.dumps(request), "application/json"),
        "password_file_tmp": ("share.key", key, "application/octet-stream")}).json()


def test_the_host_unlocks_a_recording_servers_share_by_its_key_file(cluster):
    number = cluster.ids["server2"]
    create_far(cluster, cluster.second, "vault", blEncryption=True, encPasswd=_PASSWORD)
    assert record(cluster.second, "/volume1/vault", 0)[2][5] == 2
    there = cluster.second.client("admin")
    exported = there.call("KORV.Core.Share.Crypto", "export", name="vault", password=_PASSWORD)
    key = base64.b64decode(exported["data"]["content"])
    assert there.call("KORV.Core.Share.Crypto", "lock", name="vault")["success"]
    assert locked(cluster.second, "vault")
    refused = unlock_by_file(cluster, b"no key", rvId=number, name="vault")
    assert refused["error"] == {"code": 400, "errors": {"param1": "", "param2": ""}}
    wrong = unlock_by_file(cluster, key, rvId=cluster.ids["server3"], name="vault")
    assert wrong["error"] == {"code": 3303, "errors": {"param1": "", "param2": ""}}, "that server has no such share"
    assert locked(cluster.second, "vault")
    cluster.second.cut_off()
    try:
        answer = unlock_by_file(cluster, key, rvId=number, name="vault")
        assert answer["error"] == {"code": 400, "errors": {"param1": "", "param2": ""}}
        assert f"Failed to send webapi to slave [{number}]" in cluster.host.log()
    finally:
        cluster.second.reconnect()
    cluster.await_state(cluster.second, "online")
    assert unlock_by_file(cluster, key, rvId=number, name="vault") == {"success": True}
    assert not locked(cluster.second, "vault")
    for member in cluster.members:
        assert _PASSWORD not in member.log() + member.log("korvd.log") + member.log("nginx-access.log")


def test_no_log_holds_a_secret_at_any_level(cluster):
    """What passes between servers is logged at these levels, but for what opens something."""
    number = cluster.ids["server2"]
    for member in cluster.members:
        cluster.log_in(member)
        for category in ("SHARE", "CMS"):
            cluster.pavane(member, "log", "level", category, "TRACE")
    secrets = {word: f"tell-nobody-{word}" for word in ("create", "edit", "mount", "forwarded")}
    host = cluster.host.client("admin")
    answer = host.create("safe", rvId=number, blEncryption=True, encPasswd=secrets["create"])
    assert answer["success"], answer
    plain, _ = create_far(cluster, cluster.second, "hardened")
    answer = change(host, "EditRecShare", rvId=number, shareId=plain, shareName="hardened", blEncryption=True,
                    encPasswd=secrets["edit"])
    assert answer["success"], answer
    for client, parameters in ((host, {"rvId": number, "passwd": secrets["mount"]}),
                               (cluster.third.client("admin"), {"passwd": secrets["forwarded"]})):
        refused = change(client, "CreateRemoteRecShare", **remote("/volume1/none/there", username="u", **parameters))
        assert not refused["success"]
    there = cluster.second.client("admin")
    exported = there.call("KORV.Core.Share.Crypto", "export", name="safe", password=secrets["create"])
    assert there.call("KORV.Core.Share.Crypto", "lock", name="safe")["success"]
    key = base64.b64decode(exported["data"]["content"])
    assert unlock_by_file(cluster, key, rvId=number, name="safe") == {"success": True}
    assert "Relay result [" in cluster.host.log(), "the levels are in force"
    pairs = [member.pairing()[1] for member in (cluster.second, cluster.third)]
    for member in cluster.members:
        cluster.pavane(member, "log", "level", "SHARE", "ERR")
        cluster.pavane(member, "log", "level", "CMS", "ERR")
        for log in os.listdir(f"{member.state}/log"):
            text = member.log(log)
            for secret in (*secrets.values(), *pairs, exported["data"]["content"], member.password()):
                assert secret not in text, f"{member.name}: {log}"


def test_an_edit_that_names_no_encryption_leaves_it_as_it_is(cluster):
    """The host's record does not follow what is encrypted on the recording server."""
    number = str(cluster.ids["server2"])
    path = os.path.join(cluster.folder, "share.password")
    with open(path, "w", encoding="utf-8", opener=lambda name, flags: os.open(name, flags, 0o600)) as file:
        file.write(_PASSWORD)

    def pavane(*words, check=True):
        return cluster.pavane(cluster.host, "share", *words, "--server", number, check=check)

    def folder():
        return cluster.second.client("admin").call("KORV.Core.Share", "get", name="kept")["data"]

    at_host, on_rec = create_far(cluster, cluster.second, "kept")
    pavane("edit", str(at_host), "--encrypt", "--password-file", path)
    wait_until(lambda: folder()["encryption"] == 2 and not folder()["is_share_moving"], "it is encrypted", 60)
    assert record(cluster.host, "/volume1/kept", cluster.ids["server2"])[2][5] == 0, "what the host last heard"
    pavane("limit", str(at_host), "20")
    assert cluster.second.rows("select rec_limit_gb from recording_share where id = ?", on_rec) == [(20,)]
    assert folder()["encryption"] == 2 and not folder()["is_share_moving"]
    cluster.second.cut_off()
    try:
        refused = pavane("limit", str(at_host), "30", check=False)
        assert refused.returncode != 0 and "gives no answer" in refused.stderr, refused.stderr
    finally:
        cluster.second.reconnect()
    cluster.await_state(cluster.second, "online")
    pavane("edit", str(at_host), "--decrypt")
    wait_until(lambda: folder()["encryption"] == 0 and not folder()["is_share_moving"], "it is plain", 60)
    pavane("limit", str(at_host), "40")
    assert folder()["encryption"] == 0
