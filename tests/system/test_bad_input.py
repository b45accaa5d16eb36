"""Whatever a client sends: a clear code, nothing left behind, nothing of the server in the answer."""

import json
import sqlite3

import pytest

from node import SHARE_API

_CALL = {"api": SHARE_API, "version": 1, "method": "ListRecShare"}


def leftovers(node):
    """What a refused request could leave: folders, rows, journal."""
    folders = node.inside("find", "/volume1", "/volume2", "-mindepth", "1", "-not", "-name", "lost+found")
    with sqlite3.connect(f"file:{node.state}/state/korv.db?mode=ro", uri=True) as database:
        rows = [database.execute(f"select count(*) from {table}").fetchone()[0]
                for table in ("share", "share_creation", "share_grant")]
    with sqlite3.connect(f"file:{node.state}/state/pavane.db?mode=ro", uri=True) as database:
        rows.append(database.execute("select count(*) from recording_share").fetchone()[0])
    return folders.split(), rows


def says_nothing_of_the_server(text):
    return not any(word in text for word in ("/srv", "/volume", "korv.db", "sqlite", "select ", ".cpp", "std::"))


@pytest.fixture
def unchanged(node):
    before = leftovers(node)
    yield
    assert leftovers(node) == before


def code_of(answer):
    assert answer["success"] is False
    return answer["error"]["code"]


@pytest.mark.parametrize("body", [
    b"", b"{", b"[]", b"null", b"\"text\"", b"{\"api\": 1}", b"\xff\xfe{}", b"{\"api\": \"a\", \"api\"}",
    b"[" * 100_000, b"{\"a\":" * 5_000,
    json.dumps({"api": SHARE_API, "method": "ListRecShare"}).encode(),
    json.dumps({**_CALL, "version": "1"}).encode(),
    json.dumps({**_CALL, "version": 1e300}).encode(),
    json.dumps({**_CALL, "password_file_tmp": "/etc/shadow"}).encode(),
])
def test_a_malformed_request_is_answered_101(admin, unchanged, body):
    response = admin.post(body)
    assert response.status_code == 400
    assert response.json() == {"success": False, "error": {"code": 101}}


def test_a_body_over_the_limit_is_refused(admin):
    response = admin.post(json.dumps({**_CALL, "text": "x" * (1 << 20)}))
    assert response.status_code == 413
    assert code_of(response.json()) == 101


def test_an_unknown_api_version_or_method_has_its_code(admin):
    for change, status, code in (({"api": "KORV.Pavane.Shares"}, 404, 102), ({"version": 2}, 404, 102),
                                 ({"method": "ReconnectRemoteMount"}, 404, 401)):
        response = admin.post(json.dumps({**_CALL, **change}))
        assert (response.status_code, code_of(response.json())) == (status, code)


def test_without_a_session_nothing_is_done(node, unchanged):
    client = node.client()
    assert code_of(client.call(SHARE_API, "ListRecShare")) == 105
    assert code_of(client.create("stranger")) == 105


def test_an_unknown_session_is_answered_107(node):
    client = node.client()
    client.session.cookies["korv_session"] = "0" * 64
    response = client.post(json.dumps(_CALL))
    assert (response.status_code, code_of(response.json())) == (401, 107)


def test_an_expired_session_is_answered_107(node, admin):
    with sqlite3.connect(f"{node.state}/state/korv.db", timeout=10) as database:
        database.execute("update session set last_seen_s = last_seen_s - 100000")
    assert code_of(admin.call(SHARE_API, "ListRecShare")) == 107


@pytest.mark.parametrize("csrf", [None, "", "0" * 64])
def test_a_wrong_csrf_token_is_answered_107(admin, unchanged, csrf):
    admin.session.headers["X-Korv-Csrf"] = csrf
    assert code_of(admin.create("forged")) == 107


def test_a_user_without_the_privilege_is_answered_105(node, unchanged):
    viewer = node.client("viewer")
    assert code_of(viewer.create("mine")) == 105
    assert code_of(viewer.call(SHARE_API, "ListRecShare")) == 105
    assert code_of(viewer.call("KORV.Core.Share", "list")) == 105


@pytest.mark.parametrize("method, parameters", [
    ("ListRecShare", {"rvId": "x"}), ("ListRecShare", {"rvId": {}}), ("ListRecShare", {"blIncldMigrating": "no"}),
    ("CreateRecShare", {"shareName": ["a"]}), ("CreateRecShare", {"recLimitGB": 1e20, "shareName": "big"}),
])
def test_a_parameter_of_the_wrong_type_is_answered_101(node, admin, unchanged, method, parameters):
    node.allow(r"korvd\.log|\[error\]|KORV\.Pavane\.Share")
    response = admin.post(json.dumps({**_CALL, "method": method, "volume": "/volume1", **parameters}))
    assert (response.status_code, code_of(response.json())) == (400, 101)
    assert says_nothing_of_the_server(response.text)


@pytest.mark.parametrize("name", [
    "", ".", "..", "a/b", "../a", "/", ".hidden", " a", "a ", "homes", "HOMES", "netbackup", "a\nb", "a\tb",
    "a\u007fb", "n" * 300, "ä" * 40,
])
def test_a_bad_name_is_refused_and_leaves_nothing(node, admin, unchanged, name):
    node.allow("Failed to create share with error|Failed to execute function after relay")
    answer = admin.create(name)
    assert code_of(answer) in (442, 443)
    assert answer["data"] == {"param1": "", "param2": ""}


@pytest.mark.parametrize("body", [b'"a\\u0000b"', b'"a\xff\xfeb"', b'"\\ud800"'])
def test_a_name_that_is_no_text_is_answered_101(admin, unchanged, body):
    request = json.dumps({**_CALL, "method": "CreateRecShare", "volume": "/volume1"})[:-1].encode()
    assert code_of(admin.post(request + b', "shareName": ' + body + b"}").json()) == 101


@pytest.mark.parametrize("volume", ["", "/", "/volume3", "volume1", "/volume1/", "/volume1/..", "/tmp", "/etc"])
def test_a_volume_that_is_none_is_refused(node, admin, unchanged, volume):
    node.allow("Failed to create share with error|Failed to execute function after relay")
    assert code_of(admin.create("folder", volume)) == 442


def test_an_empty_volume_of_another_servers_share_is_an_internal_error(node, admin, unchanged):
    node.allow("basic_string::substr")
    workers = sorted(node.workers())
    for _ in range(20):
        response = admin.post(json.dumps({**_CALL, "method": "CreateRecShare", "shareName": "a", "volume": "",
                                          "rvId": 5}))
        assert (response.status_code, response.json()) == (500, {"success": False, "error": {"code": 110}})
    assert sorted(node.workers()) == workers, "the workers live on"


@pytest.mark.parametrize("name", [
    "'; drop table share; --", "$(reboot)", "`id`", "a;b|c&d", "%41 %s %n", "a\"b'c\\d", "[global]", "ünïcode 録画",
    "a*?", "-rf", "#x", "n" * 64, "~",
])
def test_a_strange_name_is_just_a_name(node, admin, name):
    answer = admin.create(name)
    if not answer["success"]:
        pytest.fail(f"{name}: {answer}")
    assert node.inside("stat", "-c", "%n", f"/volume1/{name}").rstrip("\n") == f"/volume1/{name}"
    assert name in [share["shareName"] for share in admin.list()]


def test_names_that_differ_only_in_case_are_one(node, admin):
    node.allow("Failed to create share with error|Failed to execute function after relay")
    assert admin.create("Entrance")["success"]
    assert code_of(admin.create("ENTRANCE")) == 443
    assert code_of(admin.create("entrance", "/volume2")) == 443
    assert node.inside("test", "-d", "/volume1/ENTRANCE", check=False).returncode != 0


def test_a_read_only_volume_is_refused(node, admin, unchanged):
    node.allow("Failed to create share with error|Failed to execute function after relay")
    node.inside("mount", "-o", "remount,ro", "/volume2")
    try:
        assert code_of(admin.create("readonly", "/volume2")) == 442
        assert admin.call("KORV.Core.Share", "create", name="readonly", shareinfo={
            "name": "readonly", "vol_path": "/volume2"})["error"]["code"] == 3304
    finally:
        node.inside("mount", "-o", "remount,rw", "/volume2")


def test_a_full_volume_is_refused(node, admin, unchanged):
    node.allow("No space left on device")
    node.allow("Failed to create share with error|Failed to execute function after relay")
    node.inside("mkdir", "/volume1/lost+found/ballast")
    try:
        # Inodes first run out, then blocks: folders need both.
        node.inside("sh", "-c", "cd /volume1/lost+found/ballast && dd if=/dev/zero of=fill bs=1M 2>/dev/null;"
                                " dd if=/dev/zero of=rest bs=1k 2>/dev/null; i=0;"
                                " while : > f$i && mkdir d$i; do i=$((i+1)); done 2>/dev/null; true")
        assert code_of(admin.create("full")) == 442
        assert admin.call("KORV.Core.Share", "create", name="full", shareinfo={
            "name": "full", "vol_path": "/volume1"})["error"]["code"] == 3306
    finally:
        node.inside("rm", "-rf", "/volume1/lost+found/ballast")


def test_an_encrypted_share_needs_a_password(node, admin, unchanged):
    node.allow("Failed to create share with error|Failed to execute function after relay|"
               "the share /volume1/secret was not made: cannot make an encrypted folder")
    assert code_of(admin.create("secret", blEncryption=True)) == 526
