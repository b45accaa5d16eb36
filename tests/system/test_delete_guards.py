"""What keeps a recording share from being deleted, and who is told when one goes."""

import contextlib
import json
import os
import sqlite3

import pytest

from candidates import CommandLine
from life import delete, edit, fill, find, is_there, make, nas, remove_all_shares, rows
from node import SHARE_API

CAMERA_API = "KORV.Pavane.Camera"
_REFUSED = 1
_USAGE = 2


@pytest.fixture(autouse=True)
def cleaned(node):
    """Neither share nor camera, nor what a share was used for, is left behind."""
    node.allow("RecShare of RV 0 is empty|Failed to execute function after relay")
    yield
    remove_all_shares(node)


@pytest.fixture
def pavane(node, tmp_path):
    return CommandLine(node, "admin", tmp_path)


def data_of(pavane, *arguments):
    return json.loads(pavane.run("--json", *arguments))


def cameras(admin, *paths):
    """Registers cameras 0, 1, ... that record there; gives their ids."""
    wanted = [{"name": f"Camera {number}", "recordingPath": path} for number, path in enumerate(paths)]
    assert admin.call(CAMERA_API, "import", cameras=wanted)["success"]
    known = {camera["name"]: camera["id"] for camera in admin.call(CAMERA_API, "list")["data"]["cameras"]}
    return [str(known[camera["name"]]) for camera in wanted]


def refusal(answer):
    return answer["error"]["code"], answer["error"]["errors"]["param1"]


def test_archive_tasks_keep_a_share(node, admin, pavane):
    rec, free = make(admin, "rec"), make(admin, "free")
    fill(node, "/volume1/rec", 2)
    first = data_of(pavane, "archive", "add", "nightly", "/volume1/rec")["id"]
    second = data_of(pavane, "archive", "add", "weekly", "/volume1/rec")["id"]
    assert refusal(delete(admin, rec, free)) == (525, "2")
    said = pavane.run("share", "delete", str(rec["shareId"]), "--yes", status=_REFUSED)
    assert said.startswith("pavane: error 525: ") and "param1: 2" in said
    assert find(admin, "rec") == rec and find(admin, "free") == free
    assert is_there(node, "/volume1/rec/cam0") and is_there(node, "/volume1/free")
    assert nas(admin, "rec") and nas(admin, "free")
    for task in (first, second):
        pavane.run("archive", "remove", str(task))
    assert delete(admin, rec, free)["success"]
    assert not is_there(node, "/volume1/rec") and not is_there(node, "/volume1/free")


def test_recordings_that_are_moved_out_of_a_share_keep_it(node, admin, pavane):
    rec, free = make(admin, "rec"), make(admin, "free")
    fill(node, "/volume1/rec", 2)
    ids = cameras(admin, "", "", "")  # they record elsewhere already
    for number, folder in zip(ids, ("/volume1/rec/door", "/volume1/rec/yard", "/volume1/rec/old/gate")):
        pavane.run("camera", "migrate", "start", number, "--from", folder)
    assert refusal(delete(admin, rec, free)) == (449, "2")
    said = pavane.run("share", "delete", str(rec["shareId"]), "--yes", status=_REFUSED)
    assert said.startswith("pavane: error 449: ") and "param1: 2" in said
    assert find(admin, "rec") == rec and find(admin, "free") == free
    assert is_there(node, "/volume1/rec/cam0") and is_there(node, "/volume1/free")
    pavane.run("camera", "migrate", "stop", ids[0])
    assert refusal(delete(admin, rec)) == (449, "1")
    for number in ids[1:]:
        pavane.run("camera", "migrate", "stop", number)
    assert delete(admin, rec, free)["success"]
    assert not is_there(node, "/volume1/rec")


def test_a_client_can_ask_whether_recordings_are_moved_out_of_a_share(admin, pavane):
    node_share, other = make(admin, "rec"), make(admin, "rec2")

    def check(**parameters):
        return admin.call(SHARE_API, "CheckStorageMigrating", **parameters)

    for parameters, code in (({}, 401), ({"shareId": -1}, 401), ({"shareId": 999999}, 400)):
        answer = check(**parameters)
        empty = {"param1": "", "param2": ""}
        assert answer == {"success": False, "error": {"code": code, "errors": empty}, "data": empty}
    assert check(shareId=node_share["shareId"]) == {"success": True}
    ids = cameras(admin, "/volume1/rec2/door", "/volume1/rec2/yard")
    for count, number in enumerate(ids, 1):
        pavane.run("camera", "migrate", "start", number, "--from", f"/volume1/rec/{number}")
        assert refusal(check(shareId=node_share["shareId"])) == (449, str(count))
        assert check(shareId=other["shareId"]) == {"success": True}
    said = pavane.run("share", "migrating", str(node_share["shareId"]), status=_REFUSED)
    assert said.startswith("pavane: error 449: ") and "param1: 2" in said
    for number in ids:
        pavane.run("camera", "migrate", "stop", number)
    assert check(shareId=node_share["shareId"]) == {"success": True}
    cameras(admin, "", "")


def test_other_services_are_told_of_a_folder_that_stays(node, admin, pavane):
    rec, gone = make(admin, "rec"), make(admin, "gone")
    before = data_of(pavane, "service", "outbox")["notices"]
    pavane.run("share", "delete", str(gone["shareId"]), "--yes")
    assert data_of(pavane, "service", "outbox")["notices"] == before
    pavane.run("share", "delete", str(rec["shareId"]), "--yes", "--keep-folder")
    notices = [notice for notice in data_of(pavane, "service", "outbox")["notices"] if notice not in before]
    told = [(notice["service"], notice["operation"], notice["path"], notice["newPath"], notice["afterwards"])
            for notice in notices]
    assert told == [("archive", 6, "/volume1/rec", "", False), ("timelapse", 6, "/volume1/rec", "", False)]
    table = pavane.run("service", "outbox").splitlines()
    assert [(line.split()[0], line.split()[3]) for line in table[-2:]] == [
        (str(notice["id"]), notice["service"]) for notice in notices]
    assert all("/volume1/rec" in line and "no recording share any more" in line for line in table[-2:])
    for notice in notices:
        pavane.run("service", "taken", str(notice["id"]))
        pavane.run("service", "taken", str(notice["id"]), status=_REFUSED)
    assert data_of(pavane, "service", "outbox")["notices"] == before
    assert is_there(node, "/volume1/rec")


def test_a_rename_takes_links_backup_and_applications_along(node, admin, pavane):
    share = make(admin, "rec")
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20)) as database, database:
        database.execute("insert into shared_folder_storage (name, share_id, application_id) values ('rec', ?, 3)",
                         (share["shareId"],))
    assert edit(admin, share, shareName="yard 倉庫")["success"]
    links = data_of(pavane, "link", "list")["links"]
    assert links == [{"name": "yard 倉庫", "path": "/volume1/yard 倉庫", "inPlace": True}]
    folder = f"{node.state}/state/links"
    assert os.listdir(folder) == ["yard 倉庫"] and os.readlink(f"{folder}/yard 倉庫") == "/volume1/yard 倉庫"
    assert [each["name"] for each in data_of(pavane, "backup", "list")["folders"]] == ["yard 倉庫"]
    stored = "select name, application_id from shared_folder_storage"
    assert rows(node, "pavane.db", stored) == [("yard 倉庫", 3)]
    assert delete(admin, find(admin, "yard 倉庫"))["success"]
    assert data_of(pavane, "link", "list")["links"] == [] and os.listdir(folder) == []
    assert data_of(pavane, "backup", "list")["folders"] == []


@pytest.mark.parametrize("keep", [False, True])
def test_the_snapshot_share_is_forgotten_when_it_goes(node, admin, pavane, keep):
    rec, other = make(admin, "rec"), make(admin, "other")
    assert pavane.run("snapshot", "show") == "no share keeps snapshots\n"
    for wrong in ("/volume1/nosuch", "/volume1/rec/"):
        assert "error 401" in pavane.run("snapshot", "set", wrong, status=_REFUSED)
    for wrong in ("999999", "rec", ""):
        pavane.run("snapshot", "set", wrong, status=_USAGE)
    assert pavane.run("snapshot", "set", str(other["shareId"])) == "snapshots are kept in /volume1/other\n"
    assert pavane.run("snapshot", "set", "/volume1/rec") == "snapshots are kept in /volume1/rec\n"
    assert edit(admin, rec, shareName="yard")["success"]
    assert pavane.run("snapshot", "show") == "snapshots are kept in /volume1/yard\n"
    assert delete(admin, other, keep=keep)["success"]
    assert data_of(pavane, "snapshot", "show") == {"path": "/volume1/yard"}
    assert delete(admin, find(admin, "yard"), keep=keep)["success"]
    assert pavane.run("snapshot", "show") == "no share keeps snapshots\n"
    assert is_there(node, "/volume1/yard") == keep


def test_only_administrators_choose_the_snapshot_share(node, admin):
    make(admin, "rec")
    privilege = {"user": "viewer", "app": "KORV.KRX.Pavane"}
    viewer = node.client("viewer")
    assert viewer.call("KORV.Pavane.Snapshot", "get")["error"]["code"] == 105
    assert admin.call("KORV.Core.AppPriv", "grant", **privilege)["success"]
    try:
        assert viewer.call("KORV.Pavane.Snapshot", "get") == {"success": True, "data": {"path": ""}}
        for method in ("set", "clear"):
            answer = viewer.call("KORV.Pavane.Snapshot", method, path="/volume1/rec")
            assert answer["error"]["code"] == 105
    finally:
        assert admin.call("KORV.Core.AppPriv", "revoke", **privilege)["success"]
