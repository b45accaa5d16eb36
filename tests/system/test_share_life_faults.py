"""Editing and deleting recording shares when what they stand on fails: folder, volume, database, disk."""

import concurrent.futures
import contextlib
import sqlite3
import threading

import pytest

from life import (NAS, PASSWORD, checksums, delete, edit, fill, find, is_there, make, nas, opened,
                  remove_all_shares, rows, wait_for_freed)
from node import SHARE_API, wait_until

CAMERAS = "KORV.Pavane.Camera"
_REFUSED = ("Failed to (create|edit|load) share|was not (changed|removed)|Failed to execute function after relay|"
            "Refused a service link")
_WRONG_TYPE = "(EditRecShare|DelRecShare) threw: "


@pytest.fixture(autouse=True)
def cleaned(node):
    """No share is left behind."""
    node.allow("RecShare of RV 0 is empty")
    yield
    remove_all_shares(node)


def code_of(answer):
    assert answer["success"] is False, answer
    return answer["error"]["code"]


def import_cameras(admin, *cameras):
    assert admin.call(CAMERAS, "import", cameras=list(cameras))["success"]


@contextlib.contextmanager
def recording_at(admin, *paths):
    """Cameras that record there; afterwards they record nowhere."""
    names = [f"Camera {number}" for number in range(len(paths))]
    import_cameras(admin, *({"name": name, "recordingPath": path} for name, path in zip(names, paths)))
    try:
        yield
    finally:
        import_cameras(admin, *({"name": name, "recordingPath": ""} for name in names))


def test_an_id_of_another_type_edits_nothing(node, admin):
    node.allow(_REFUSED)
    node.allow(_WRONG_TYPE)
    share = make(admin, "kept")
    for number, code in (("7", 101), ("", 101), ([], 101), ([7], 101), ({}, 101), ({"id": 7}, 101), (1e30, 101),
                         (-1e30, 101), (2**31, 101), (-(2**63), 101), (None, 401), (False, 401), (0.5, 401)):
        answer = admin.call(SHARE_API, "EditRecShare", shareId=number, shareName="other", description="other")
        assert code_of(answer) == code, number
    assert find(admin, "kept") == share


def test_a_delete_list_that_is_none_deletes_nothing(node, admin):
    node.allow(_REFUSED)
    node.allow(_WRONG_TYPE)
    share = make(admin, "kept")
    item = {"shareId": share["shareId"], "shareRvId": 0, "sharePath": share["sharePath"]}
    for empty in (None, "kept", 7, 1e30, True, [None], [{"shareId": None}], [{"shareName": "kept"}]):
        assert admin.call(SHARE_API, "DelRecShare", delShareList=empty)["success"], empty
        assert find(admin, "kept") == share, empty
    for wrong in (item, {"0": item}, [[item]], ["kept"], [7], [[]], [{**item, "shareId": str(share["shareId"])}],
                  [{**item, "shareRvId": []}], [{**item, "sharePath": {}}], [{**item, "shareId": 1e30}]):
        assert code_of(admin.call(SHARE_API, "DelRecShare", delShareList=wrong)) == 101, wrong
        assert find(admin, "kept") == share, wrong
    # What can be read comes to nothing when a later element can't.
    assert code_of(admin.call(SHARE_API, "DelRecShare", delShareList=[item, "kept"])) == 101
    assert find(admin, "kept") == share and is_there(node, "/volume1/kept")


def test_a_name_of_quote_percent_and_underscore_is_guarded_by_its_cameras(node, admin):
    node.allow(_REFUSED)
    odd = make(admin, "it's 100%_x")
    alike = make(admin, "it's 100 and a x")  # what the odd name also stands for when cameras are looked for
    other = make(admin, "its 100%_x")
    with recording_at(admin, "/volume1/it's 100%_x/gate", "/volume1/it's 100%_x/yard/2"):
        answer = delete(admin, odd)
        assert code_of(answer) == 445 and answer["error"]["errors"] == {"param1": "2", "param2": ""}
        assert code_of(delete(admin, other, odd)) == 445
        assert delete(admin, other)["success"]
    with recording_at(admin, "/volume1/it's 100 and a x/gate"):
        answer = delete(admin, odd)  # refused, since the camera's path fits
        assert code_of(answer) == 445 and answer["error"]["errors"]["param1"] == "1"
        assert code_of(delete(admin, alike)) == 445
        assert is_there(node, odd["sharePath"]) and is_there(node, alike["sharePath"])
    assert delete(admin, odd, alike)["success"]
    assert not is_there(node, odd["sharePath"]) and not is_there(node, alike["sharePath"])


def test_cameras_at_a_folders_own_path_or_in_other_letters_are_not_below_it(node, admin):
    node.allow(_REFUSED)
    share = make(admin, "rec")
    with recording_at(admin, "/volume1/REC/gate", "/volume1/rec2/gate", "/volume1/record", "/volume2/rec/gate"):
        assert find(admin, "rec") == share
        assert delete(admin, share)["success"]


def test_a_folder_removed_by_hand_stays_listed_and_is_made_anew_after_a_deletion(node, admin):
    node.allow(_REFUSED)
    share = make(admin, "byhand")
    node.inside("rm", "-r", "/volume1/byhand")
    assert find(admin, "byhand") == share
    assert edit(admin, share, description="what is left")["success"]
    assert find(admin, "byhand") == {**share, "description": "what is left"}
    assert not is_there(node, "/volume1/byhand")
    assert code_of(admin.create("byhand")) == 443  # the name is still taken
    assert code_of(admin.create("byhand", blAddExistShare=True)) == 442
    assert delete(admin, share)["success"]
    anew = make(admin, "byhand")
    assert anew["shareId"] != share["shareId"]
    assert nas(admin, "byhand")["desc"] == ""
    content = fill(node, "/volume1/byhand", 3)
    assert edit(admin, anew, shareName="other")["success"]
    assert checksums(node, "/volume1/other") == content


def test_a_folder_that_took_the_place_of_a_share_by_hand_is_never_removed(node, admin):
    node.allow(_REFUSED)
    share = make(admin, "byhand")
    node.inside("rm", "-r", "/volume1/byhand")
    content = fill(node, "/volume1/byhand", 3)
    try:
        assert code_of(edit(admin, share, shareName="other")) == 442
        assert find(admin, "byhand") == share
        assert delete(admin, share)["success"]
        assert nas(admin, "byhand") is None and find(admin, "byhand") is None
        wait_for_freed(node, "/volume1")
        assert checksums(node, "/volume1/byhand") == content
        assert code_of(admin.create("byhand")) == 443
    finally:
        node.inside("rm", "-r", "/volume1/byhand")


@contextlib.contextmanager
def read_only(node, volume):
    node.inside("mount", "-o", "remount,ro", volume)
    try:
        yield
    finally:
        node.inside("mount", "-o", "remount,rw", volume)


@contextlib.contextmanager
def unmounted(node, volume):
    node.inside("umount", "-l", volume)
    try:
        yield
    finally:
        node.inside("mount", "-o", "loop,nosuid,nodev", f"{node.state}/{volume[1:]}.img", volume)


@pytest.mark.parametrize("failing", [read_only, unmounted])
@pytest.mark.parametrize("volume, other_volume", [("/volume1", "/volume2"), ("/volume2", "/volume1")])
def test_a_volume_that_fails_for_a_while_loses_nothing(node, admin, volume, other_volume, failing):
    node.allow(_REFUSED)
    kept, dropped, there = make(admin, "kept", volume), make(admin, "dropped", volume), make(admin, "there",
                                                                                             other_volume)
    content, more = fill(node, kept["sharePath"], 3), fill(node, dropped["sharePath"], 3)
    wait_for_freed(node, volume)
    with failing(node, volume):
        assert [find(admin, share["shareName"]) for share in (kept, dropped, there)] == [kept, dropped, there]
        assert code_of(edit(admin, kept, shareName="other")) == 442
        assert code_of(edit(admin, kept, blEncryption=True, encPasswd=PASSWORD)) == 442
        assert code_of(admin.call(NAS, "set", name="kept", shareinfo={"name": "other"})) == 3304
        assert code_of(admin.call(NAS, "delete", name="kept")) == 3304
        assert code_of(admin.create("fresh", volume)) == 442
        assert find(admin, "kept") == kept and nas(admin, "fresh") is None
        # Nobody looks at why the folder stays: only the record goes.
        assert delete(admin, dropped)["success"]
        assert find(admin, "dropped") is None and nas(admin, "dropped")["path"] == dropped["sharePath"]
        assert "the share " + dropped["sharePath"] + " was not removed: " in node.read("log/korvd.log")
        assert edit(admin, there, shareName="reached")["success"]
        assert is_there(node, f"{other_volume}/reached")
    assert find(admin, "kept") == kept
    assert checksums(node, kept["sharePath"]) == content
    make(admin, "dropped", volume, blAddExistShare=True)
    assert checksums(node, dropped["sharePath"]) == more
    assert edit(admin, kept, shareName="other")["success"]
    assert checksums(node, f"{volume}/other") == content
    assert delete(admin, find(admin, "other"), find(admin, "dropped"))["success"]
    assert not is_there(node, f"{volume}/other") and not is_there(node, f"{volume}/dropped")


@contextlib.contextmanager
def locked(node, database):
    """Nobody else writes into the database until the end, or until what it gives is called."""
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/{database}", timeout=20, isolation_level=None,
                                            check_same_thread=False)) as connection:
        connection.execute("begin exclusive")
        yield connection.rollback


@contextlib.contextmanager
def unwritable(node, table):
    """Nothing in the table can be changed, as on a disk that fails."""
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20)) as connection:
        connection.execute(f"create trigger unwritable before update on {table} begin select raise(abort, 'no'); end")
        try:
            yield
        finally:
            connection.execute("drop trigger unwritable")


def at_once(*calls):
    with concurrent.futures.ThreadPoolExecutor(len(calls)) as pool:
        return [future.result() for future in [pool.submit(call) for call in calls]]


def expect_agreement(node, admin, name):
    """List, NAS and disk know the recording share alike, or none of them does."""
    folder = nas(admin, name)
    assert bool(find(admin, name)) == bool(folder) == is_there(node, f"/volume1/{name}"), name
    for journal in ("share_rename", "share_creation"):
        assert rows(node, "korv.db", f"select * from {journal}") == []
    assert rows(node, "korv.db", "select * from share_removal where is_hidden = 0") == []
    return folder is not None


def test_databases_that_are_locked_for_a_moment_are_waited_for(node, admin):
    one, two, three = make(admin, "one"), make(admin, "two"), make(admin, "three")
    content = fill(node, "/volume1/one", 3)
    with locked(node, "korv.db") as release_folders, locked(node, "pavane.db") as release_records:
        timers = [threading.Timer(3, release_folders), threading.Timer(4, release_records)]
        for timer in timers:
            timer.start()
        answers = at_once(lambda: edit(admin, one, shareName="renamed"), lambda: delete(admin, two),
                          lambda: edit(admin, three, description="new"))
        for timer in timers:
            timer.join()
    assert all(answer["success"] for answer in answers), answers
    assert [expect_agreement(node, admin, name) for name in ("one", "renamed", "two", "three")] == \
        [False, True, False, True]
    assert find(admin, "three") == {**three, "description": "new"} and nas(admin, "three")["desc"] == "new"
    assert checksums(node, "/volume1/renamed") == content


def test_a_database_of_folders_that_stays_locked_changes_nothing(node, admin):
    node.allow(_REFUSED)
    node.allow("locked")
    one, two, three = make(admin, "one"), make(admin, "two"), make(admin, "three")
    contents = [fill(node, share["sharePath"], 3) for share in (one, two)]
    begin = len(node.read("log/korvd.log"))
    with locked(node, "korv.db"):
        edited, deleted, described = at_once(
            lambda: edit(admin, one, shareName="renamed"), lambda: delete(admin, two),
            lambda: edit(admin, three, description="new"))
    assert code_of(edited) == code_of(described) == 442
    assert [expect_agreement(node, admin, name) for name in ("one", "renamed", "three")] == [True, False, True]
    assert (find(admin, "one"), find(admin, "three")) == (one, three)
    # Of the deletion the record goes all the same; the folder is one as any other.
    assert deleted["success"] and find(admin, "two") is None
    assert "the share /volume1/two was not removed: " in node.read("log/korvd.log")[begin:]
    assert [checksums(node, share["sharePath"]) for share in (one, two)] == contents
    assert edit(admin, one, shareName="renamed")["success"]
    assert delete(admin, make(admin, "two", blAddExistShare=True))["success"]
    assert [expect_agreement(node, admin, name) for name in ("one", "renamed", "two")] == [False, True, False]


def test_a_database_of_records_that_stays_locked_is_told(node, admin):
    node.allow(_REFUSED)
    node.allow("database is locked")
    one, two, three = make(admin, "one"), make(admin, "two"), make(admin, "three")
    content = fill(node, "/volume1/one", 3)
    with locked(node, "pavane.db") as release:
        def delete_until_refused():
            answer = delete(admin, two)
            release()
            return answer
        edited, deleted, described = at_once(
            lambda: edit(admin, one, shareName="renamed"), delete_until_refused,
            lambda: edit(admin, three, description="new"))
    assert edited["success"] and described["success"]
    assert [expect_agreement(node, admin, name) for name in ("one", "renamed", "three")] == [False, True, True]
    assert find(admin, "three")["description"] == nas(admin, "three")["desc"] == "new"
    assert checksums(node, "/volume1/renamed") == content
    # The folder had gone before; the record can be deleted once more.
    assert code_of(deleted) == 400
    assert find(admin, "two") == two and nas(admin, "two") is None and not is_there(node, "/volume1/two")
    assert delete(admin, two)["success"]
    assert not expect_agreement(node, admin, "two")


def test_a_record_that_could_not_follow_a_rename_follows_later(node, admin):
    node.allow(_REFUSED)
    node.allow("Failed to save|recording_share can't be written|Failed to refresh")
    share = make(admin, "one")
    content = fill(node, "/volume1/one", 3)
    with unwritable(node, "recording_share"):
        assert edit(admin, share, shareName="renamed")["success"]  # nobody looks at whether the record was saved
        assert nas(admin, "renamed")["path"] == "/volume1/renamed"
    wait_until(lambda: find(admin, "renamed"), "the record has followed")
    assert find(admin, "renamed")["shareId"] == share["shareId"] and find(admin, "one") is None
    assert checksums(node, "/volume1/renamed") == content
    assert expect_agreement(node, admin, "renamed") and not expect_agreement(node, admin, "one")


@contextlib.contextmanager
def mounted(node, path):
    node.inside("mount", "-t", "tmpfs", "tmpfs", path)
    try:
        yield
    finally:
        node.inside("umount", path)


def test_a_share_in_use_loses_its_record_only(node, admin):
    node.allow(_REFUSED)
    busy, covered = make(admin, "busy"), make(admin, "covered")
    contents = [fill(node, share["sharePath"], 3) for share in (busy, covered)]
    begin = len(node.read("log/korvd.log"))
    with opened(node, "/volume1/busy/cam0/2026 0 ä/0.mp4"), mounted(node, "/volume1/covered/cam0"):
        assert code_of(admin.call(NAS, "delete", name="busy")) == 3305
        assert code_of(admin.call(NAS, "delete", name="covered")) == 3305
        assert delete(admin, busy, covered)["success"]
    log = node.read("log/korvd.log")[begin:]
    assert log.count("the share /volume1/busy was not removed: files of the share are open") == 2
    assert log.count("the share /volume1/covered was not removed: something is mounted in the share") == 2
    assert find(admin, "busy") is None and find(admin, "covered") is None
    for share, content in zip((busy, covered), contents):
        assert nas(admin, share["shareName"])["path"] == share["sharePath"]
        assert checksums(node, share["sharePath"]) == content
    make(admin, "busy", blAddExistShare=True)
    assert checksums(node, "/volume1/busy") == contents[0]
    assert admin.call(NAS, "delete", name="covered")["success"]
    assert nas(admin, "covered") is None and not is_there(node, "/volume1/covered")
