"""What uses a recording share: cameras and applications, as a user sees it."""

import contextlib
import json
import sqlite3

import pytest

from candidates import CommandLine
from life import PASSWORD, delete, find, make
from node import SHARE_API

_CAMERAS = 1000


@pytest.fixture(name="database")
def fixture_database(node):
    """The application's database; rows of applications are gone afterwards."""
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20)) as database:
        yield database
        database.execute("delete from shared_folder_storage")
        database.execute("delete from application")
        database.execute("delete from camera")
        database.commit()


@pytest.fixture(name="share")
def fixture_share(admin, database):
    """A recording share that nothing uses yet."""
    share = make(admin, "recording")
    yield share
    database.execute("delete from camera")
    database.commit()
    answer = delete(admin, share)
    assert answer["success"], answer


def store(database, *rows):
    database.executemany("insert into shared_folder_storage (name, share_id, application_id) values (?, ?, ?)", rows)
    database.commit()


def usage(client, **parameters):
    answer = client.call(SHARE_API, "ListShareUsage", **parameters)
    assert answer["success"], answer
    assert set(answer["data"]) == {"usage"}
    return answer["data"]["usage"]


def register(admin, count):
    cameras = [{"name": f"camera {i:04}", "recordingPath": f"/volume1/recording/{i}", "ip": f"192.0.2.{i % 256}",
                "occupiedMB": i, "rotatedBySpace": i % 2 == 0, "rotationBySpaceMB": 2048} for i in range(count)]
    cameras.append({"name": "elsewhere", "recordingPath": "/volume1/recording2/1"})
    cameras.append({"name": "unused", "recordingPath": "/volume1/recording/unused", "recStorageStatus": 1})
    answer = admin.call("KORV.Pavane.Camera", "import", cameras=cameras)
    assert answer == {"success": True, "data": {"imported": count + 2}}


def test_the_cameras_of_a_share_are_listed_and_no_others(node, admin, share, tmp_path):
    register(admin, _CAMERAS)
    number = str(share["shareId"])
    pavane = CommandLine(node, "admin", tmp_path)
    exact = json.loads(pavane.run("share", "cameras", number, "--json"))
    assert exact["total"] == _CAMERAS
    assert exact["camList"] == [
        {"name": f"camera {i:04}", "occupied": i, "ip": f"192.0.2.{i % 256}", "is_rotated_by_space": i % 2 == 0,
         "rotation_by_space": 2048} for i in range(_CAMERAS)]
    rows = [row.split() for row in pavane.run("share", "cameras", number).splitlines()]
    assert rows[0] == ["NAME", "ADDRESS", "OCCUPIED", "KEEPS", "FREE"]
    assert len(rows) == _CAMERAS + 1
    assert rows[8] == ["camera", "0007", "192.0.2.7", "7", "MB", "-"]
    assert rows[9] == ["camera", "0008", "192.0.2.8", "8", "MB", "2.0", "GB"]


def test_a_share_without_cameras_has_no_list_of_them(admin, share):
    for number in (share["shareId"], 4711):
        assert admin.call(SHARE_API, "ListUsingCam", shareId=number) == {"success": True, "data": {"total": 0}}


@pytest.mark.parametrize("parameters", [{}, {"shareId": -1}, {"shareId": -(1 << 31), "blCheckMigrating": True}],
                         ids=str)
def test_cameras_of_no_share_are_refused(admin, parameters):
    answer = admin.call(SHARE_API, "ListUsingCam", **parameters)
    assert answer["error"] == {"code": 401, "errors": {"param1": "", "param2": ""}}


def test_a_check_for_moves_wants_a_share_that_there_is(admin):
    answer = admin.call(SHARE_API, "ListUsingCam", shareId=4711, blCheckMigrating=True)
    assert answer["error"] == {"code": 400, "errors": {"param1": "", "param2": ""}}


def test_a_share_that_recordings_are_moved_out_of_can_be_told(admin, share):
    register(admin, 3)
    cameras = admin.call("KORV.Pavane.Camera", "list")["data"]["cameras"]
    moving = next(camera["id"] for camera in cameras if camera["name"] == "camera 0001")
    assert admin.call("KORV.Pavane.Camera", "migrate_start", id=moving)["success"]
    try:
        answer = admin.call(SHARE_API, "ListUsingCam", shareId=share["shareId"], blCheckMigrating=True)
        assert answer["error"] == {"code": 449, "errors": {"param1": "1", "param2": ""}}
        assert admin.call(SHARE_API, "ListUsingCam", shareId=share["shareId"])["data"]["total"] == 3
    finally:
        assert admin.call("KORV.Pavane.Camera", "migrate_stop", id=moving)["success"]
    answer = admin.call(SHARE_API, "ListUsingCam", shareId=share["shareId"], blCheckMigrating=True)
    assert answer["data"]["total"] == 3


def test_the_command_line_refuses_a_share_that_recordings_are_moved_out_of(node, admin, share, tmp_path):
    register(admin, 1)
    number = str(share["shareId"])
    pavane = CommandLine(node, "admin", tmp_path)
    listed = pavane.run("share", "cameras", number)
    assert len(listed.splitlines()) == 2
    assert pavane.run("share", "cameras", number, "--refuse-migrating") == listed
    moving = str(admin.call("KORV.Pavane.Camera", "list")["data"]["cameras"][0]["id"])
    pavane.run("camera", "migrate", "start", moving)
    try:
        assert "error 449" in pavane.run("share", "cameras", number, "--refuse-migrating", status=1)
        assert pavane.run("share", "cameras", number) == listed
    finally:
        pavane.run("camera", "migrate", "stop", moving)
    assert pavane.run("share", "cameras", number, "--refuse-migrating") == listed


def test_usage_of_one_share_names_its_applications(node, admin, share, database, tmp_path):
    number = share["shareId"]
    store(database, ("recording", number, 0), ("recording", number, 99), ("other", 4711, 2))
    assert usage(admin, shareId=number) == [
        {"name": "recording", "share_id": number, "application_id": 0, "rvId": 0,
         "app": {"enabled": True, "name": {"enu": "Recording", "ger": "Aufnahme"}}},
        {"name": "recording", "share_id": number, "application_id": 99, "rvId": 0}]
    rows = CommandLine(node, "admin", tmp_path).run("share", "usage", str(number)).splitlines()
    assert [row.split() for row in rows] == [["FOLDER", "SHARE", "SERVER", "APPLICATION", "ENABLED"],
                                             ["recording", str(number), "0", "Recording", "yes"],
                                             ["recording", str(number), "0", "unknown", "(99)"]]


def test_usage_of_all_tells_of_shares_that_are_not_in_order(admin, share, database):
    store(database, ("fine", share["shareId"], 1), ("gone", 4711, 2), ("loose", -1, 3))
    assert [(entry["name"], entry["app"]["name"]["enu"]) for entry in usage(admin)] == [
        ("gone", "Time lapse"), ("loose", "Archive")]
    assert usage(admin, shareId=-1) == usage(admin)


def test_a_share_that_the_recorder_may_not_write_into_is_told(node, admin, share, database):
    store(database, ("recording", share["shareId"], 1))
    assert usage(admin) == []
    rights = node.inside("getfacl", "--numeric", "--absolute-names", share["sharePath"])
    node.inside("setfacl", "-m", "u:Pavane:r-x", share["sharePath"])
    try:
        assert [entry["name"] for entry in usage(admin)] == ["recording"]
    finally:
        node.inside("setfacl", "--restore=-", input=rights)
    assert usage(admin) == []


def test_a_locked_share_is_told_until_it_is_unlocked(admin, database):
    vault = make(admin, "vault", blEncryption=True, encPasswd=PASSWORD)
    store(database, ("vault", vault["shareId"], 1))
    try:
        assert usage(admin) == []
        assert admin.call("KORV.Core.Share.Crypto", "lock", name="vault")["success"]
        assert find(admin, "vault")["encType"] == 1  # the list has the record brought up to date
        assert [entry["name"] for entry in usage(admin)] == ["vault"]
        assert admin.call("KORV.Core.Share.Crypto", "decrypt", name="vault", password=PASSWORD)["success"]
        assert find(admin, "vault")["encType"] == 2
        assert usage(admin) == []
    finally:
        assert delete(admin, vault)["success"]


def test_usage_of_all_says_so_when_every_share_is_in_order(node, admin, share, database, tmp_path):
    store(database, ("fine", share["shareId"], 1))
    pavane = CommandLine(node, "admin", tmp_path)
    titles = ["FOLDER", "SHARE", "SERVER", "APPLICATION", "ENABLED"]
    for options, whose in (([], ""), (["--server", "0"], "of that server ")):
        table, said = pavane.both("share", "usage", *options)
        assert table.split() == titles
        assert said == (f"pavane: no application uses a share {whose}that is out of order; without a share's id only "
                        "those are listed\n")
    assert pavane.both("share", "usage", "--json") == ('{\n  "usage" : []\n}\n', "")
    assert pavane.both("share", "usage", str(share["shareId"]))[1] == ""
    store(database, ("loose", -1, 3))
    table, said = pavane.both("share", "usage")
    assert len(table.splitlines()) == 2 and said == ""


def test_applications_can_be_switched_off_or_unable_to_run(admin, database):
    store(database, ("off", -1, 0), ("unable", -1, 1), ("on", -1, 25))
    database.executemany("insert into application values (?, ?, ?)", [(0, 1, 0), (1, 0, 1)])
    database.commit()
    assert [(entry["name"], entry["app"]["enabled"]) for entry in usage(admin)] == [("off", False), ("on", True)]


def test_no_row_is_left_out_while_the_applications_cannot_be_read(node, admin, database):
    store(database, ("folder", -1, 1))
    database.execute("insert into application values (1, 0, 1)")
    database.commit()
    assert usage(admin) == []
    database.execute("alter table application rename to application_away")
    try:
        node.allow("Failed to read the applications: ")
        assert [(entry["name"], entry["app"]["enabled"]) for entry in usage(admin)] == [("folder", False)]
    finally:
        database.execute("alter table application_away rename to application")


def test_usage_of_a_share_that_there_is_not_is_an_error(admin):
    answer = admin.call(SHARE_API, "ListShareUsage", shareId=4711)
    assert answer["error"] == {"code": 400, "errors": {"param1": "", "param2": ""}}


@pytest.mark.parametrize("command", ["usage", "cameras"])
def test_a_share_that_there_is_not_is_named_whatever_is_asked_about_it(node, admin, share, command, tmp_path):
    node.allow(r"RecShare of RV (5|777) is empty")
    pavane = CommandLine(node, "admin", tmp_path)
    number = str(share["shareId"])
    assert pavane.run("share", command, "4711", status=2).startswith("pavane: there is no recording share 4711; ")
    for server, owner in (("5", "recording server 5"), ("777", "recording server 777")):
        told = pavane.run("share", command, number, "--server", server, status=2)
        assert told.startswith(f"pavane: there is no recording share {number} of {owner}; ")
    assert pavane.run("share", command, number, "--server", "0") == pavane.run("share", command, number)


def test_usage_of_a_server_that_nobody_knows_is_an_error(node, admin, tmp_path):
    pavane = CommandLine(node, "admin", tmp_path)
    assert pavane.run("share", "usage", "--server", "777", status=2) == (
        "pavane: there is no recording server 777; see `pavane server list`\n")
    assert pavane.run("share", "usage", "--server", "0") == pavane.run("share", "usage")


@pytest.mark.parametrize("method", ["ListShareUsage", "ListUsingCam"])
@pytest.mark.parametrize("share", ["1", "x", [], [1], {}, 1 << 31], ids=str)
def test_a_share_id_of_another_kind_is_a_malformed_request(node, admin, method, share):
    node.allow(rf"KORV\.Pavane\.Share {method} threw: ")
    assert admin.call(SHARE_API, method, shareId=share) == {"success": False, "error": {"code": 101}}


@pytest.mark.parametrize("value, number", [(None, 0), (True, 1), (False, 0), (4711.9, 4711)], ids=str)
def test_a_share_id_that_stands_for_a_number_is_that_number(admin, value, number):
    for method in ("ListShareUsage", "ListUsingCam"):
        assert admin.call(SHARE_API, method, shareId=value) == admin.call(SHARE_API, method, shareId=number)


def test_a_share_id_loses_its_fraction(admin, share, database):
    store(database, ("recording", share["shareId"], 1))
    assert len(usage(admin, shareId=share["shareId"] + 0.9)) == 1


@pytest.mark.parametrize("flag", ["x", "true", [], [True], {}], ids=str)
def test_a_check_for_moves_of_another_kind_is_a_malformed_request(node, admin, flag):
    node.allow(r"KORV\.Pavane\.Share ListUsingCam threw: ")
    answer = admin.call(SHARE_API, "ListUsingCam", shareId=4711, blCheckMigrating=flag)
    assert answer == {"success": False, "error": {"code": 101}}


@pytest.mark.parametrize("flag, checks", [(None, False), (0, False), (1, True), (0.5, True)], ids=str)
def test_a_check_for_moves_may_be_a_number(admin, flag, checks):
    answer = admin.call(SHARE_API, "ListUsingCam", shareId=4711, blCheckMigrating=flag)
    assert answer == admin.call(SHARE_API, "ListUsingCam", shareId=4711, blCheckMigrating=checks)
    assert answer["success"] is not checks


@pytest.mark.parametrize("method", ["ListShareUsage", "ListUsingCam"])
def test_nobody_is_told_what_uses_shares(node, method):
    for client in (node.client(), node.client("viewer")):
        assert client.call(SHARE_API, method, shareId=1) == {"success": False, "error": {"code": 105}}
