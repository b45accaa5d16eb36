"""The applications and the shared folders that they use: over HTTP and on the command line, for each account."""

import contextlib
import json
import sqlite3

import pytest

from candidates import CommandLine
from life import delete, edit, find, make
from node import SHARE_API

_API = "KORV.Pavane.Application"
_REFUSED = {"success": False, "error": {"code": 105}}
_CHANGES = [("set", {"applicationId": 3, "enabled": False}),
            ("add_storage", {"applicationId": 3, "shareId": -1, "name": "loose"}),
            ("remove_storage", {"applicationId": 3, "shareId": -1, "name": "loose"})]


@pytest.fixture(autouse=True)
def cleaned(node, admin):
    """Applications are as they come, and nothing is used."""
    node.allow("RecShare of RV 0 is empty")
    yield
    for row in storage(admin):
        assert admin.call(_API, "remove_storage", **row)["data"] == {"removed": True}
    for application in admin.call(_API, "list")["data"]["applications"]:
        answer = admin.call(_API, "set", applicationId=application["id"], compatible=True, enabled=True)
        assert answer == {"success": True}
    share = find(admin, "rec")
    assert share is None or delete(admin, share)["success"]


def storage(client):
    data = client.call(_API, "list_storage")["data"]
    assert data["total"] == len(data["storage"])
    return data["storage"]


def usage(client, **parameters):
    return client.call(SHARE_API, "ListShareUsage", **parameters)["data"]["usage"]


def test_users_of_the_application_read_and_administrators_change(admin, viewer):
    for method, parameters in _CHANGES:
        assert viewer.call(_API, method, **parameters) == _REFUSED
    assert storage(admin) == []
    for method, parameters in _CHANGES[:2]:
        assert admin.call(_API, method, **parameters)["success"]
    assert storage(viewer) == [{"name": "loose", "shareId": -1, "applicationId": 3}]
    applications = viewer.call(_API, "list")["data"]["applications"]
    assert len(applications) == 26
    assert applications[3] == {"id": 3, "name": {"enu": "Archive", "ger": "Archiv"}, "compatible": True,
                               "enabled": False}


def test_nobody_else_reads_or_changes_anything(node):
    for client in (node.client(), node.client("viewer")):
        for method, parameters in [("list", {}), ("list_storage", {}), *_CHANGES]:
            assert client.call(_API, method, **parameters) == _REFUSED


def test_usage_tells_what_applications_said_of_themselves(admin):
    share = make(admin, "rec")
    row = {"shareId": share["shareId"], "name": "rec"}
    for application, added in [(0, True), (2, True), (99, True), (2, False)]:
        assert admin.call(_API, "add_storage", applicationId=application, **row)["data"] == {"added": added}
    assert admin.call(_API, "set", applicationId=2, enabled=False)["success"]
    assert admin.call(_API, "set", applicationId=0, compatible=False)["success"]
    assert [(entry["application_id"], entry.get("app", {}).get("enabled"))
            for entry in usage(admin, shareId=share["shareId"])] == [(2, False), (99, None)]
    assert edit(admin, share, shareName="rec 2")["success"]
    assert {row["name"] for row in storage(admin)} == {"rec 2"}
    assert delete(admin, find(admin, "rec 2"))["success"]
    assert [entry["application_id"] for entry in usage(admin)] == [2, 99]


def test_the_command_line_says_and_shows_it(node, admin, tmp_path):
    share = make(admin, "rec")
    number = str(share["shareId"])
    pavane = CommandLine(node, "admin", tmp_path)
    assert pavane.run("application", "use", "3", number) == "application 3 uses rec\n"
    assert pavane.run("application", "use", "3", number) == "application 3 used rec already\n"
    assert pavane.run("application", "use", "99", "--name", "loose") == "application 99 uses loose\n"
    assert pavane.run("application", "disable", "3") == "application 3 disabled\n"
    rows = [row.split() for row in pavane.run("application", "storage").splitlines()]
    assert rows == [["FOLDER", "SHARE", "APPLICATION"], ["loose", "-1", "99"], ["rec", number, "3"]]
    rows = [row.split() for row in pavane.run("application", "list").splitlines()]
    assert rows[0] == ["ID", "APPLICATION", "ENABLED", "CAN", "RUN"] and len(rows) == 27
    assert rows[4] == ["3", "Archive", "no", "yes"] and rows[5] == ["4", "Export", "yes", "yes"]
    assert pavane.run("application", "enable", "3") == "application 3 enabled\n"
    assert json.loads(pavane.run("application", "list", "--json"))["applications"][3]["enabled"] is True
    assert json.loads(pavane.run("application", "storage", "--json")) == {
        "storage": [{"name": "loose", "shareId": -1, "applicationId": 99},
                    {"name": "rec", "shareId": share["shareId"], "applicationId": 3}], "total": 2}
    assert json.loads(pavane.run("application", "release", "3", number, "--json")) == {"removed": True}
    assert pavane.run("application", "release", "3", number) == "application 3 did not use rec\n"
    assert pavane.run("application", "release", "99", "--name", "loose") == "application 99 uses loose no more\n"
    assert storage(admin) == []


def test_a_long_list_of_uses_comes_whole(node, tmp_path):
    count = 2001  # more than two pages
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20)) as database:
        database.executemany("insert into shared_folder_storage values ('loose', -1, ?)", [(i,) for i in range(count)])
        database.commit()
        try:
            rows = CommandLine(node, "admin", tmp_path).run("application", "storage").splitlines()
        finally:
            database.execute("delete from shared_folder_storage")
            database.commit()
    assert [int(row.split()[2]) for row in rows[1:]] == list(range(count))


def test_the_command_line_refuses_what_there_is_not(node, tmp_path):
    pavane = CommandLine(node, "admin", tmp_path)
    assert "there is no recording share 4711" in pavane.run("application", "use", "3", "4711", status=2)
    assert "say which folder" in pavane.run("application", "use", "3", status=2)
    assert "error 401" in pavane.run("application", "use", "3", "4711", "--name", "x", status=1)
    assert "error 401" in pavane.run("application", "enable", "26", status=1)
    assert "did not use" in pavane.run("application", "release", "3", "4711", "--name", "x")
    pavane.run("application", "enable", "x", status=2)
    pavane.run("application", "use", "-1", status=2)
