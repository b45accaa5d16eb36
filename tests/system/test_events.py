"""What changes is announced, kept, and told only to those who are logged in."""

import contextlib
import json

import pytest
import requests

from node import wait_until

_HEADERS = {"Accept": "text/event-stream"}


@contextlib.contextmanager
def listening(client, patience_s=30):
    """The lines that a listener of /events gets, from when the server has greeted it."""
    with client.session.get(f"{client.url}/events", headers=_HEADERS, stream=True, timeout=patience_s) as response:
        assert response.status_code == 200
        assert response.headers["Content-Type"].startswith("text/event-stream")
        lines = response.iter_lines(chunk_size=1, decode_unicode=True)
        assert next(lines).startswith(":")
        yield lines


def next_event(lines):
    for line in lines:
        if line.startswith("data:"):
            return json.loads(line[len("data:"):])
    raise AssertionError("the stream ended")


def test_a_creation_reaches_every_listener_and_the_event_log(node, admin):
    other = node.client("admin")
    with listening(admin) as first, listening(other) as second:
        assert node.client("admin").create("announced")["success"]
        assert next_event(first) == {"type": 41}
        assert next_event(second) == {"type": 41}
    events = admin.call("KORV.Pavane.Event", "list", limit=1)["data"]["events"]
    assert (events[0]["type"], events[0]["user"], events[0]["args"]) == (0x133000C8, "admin", ["announced"])


def test_a_refused_creation_is_not_announced(node, admin):
    node.allow("Failed to create share with error|Failed to execute function after relay")
    before = admin.call("KORV.Pavane.Event", "list")["data"]["total"]
    with listening(admin, patience_s=3) as lines:
        client = node.client("admin")
        assert not client.create("..")["success"]
        assert client.create("announced2")["success"]
        assert next_event(lines) == {"type": 41}
        with pytest.raises(requests.exceptions.ConnectionError, match="timed out"):
            next_event(lines)
    assert admin.call("KORV.Pavane.Event", "list")["data"]["total"] == before + 1


@pytest.mark.parametrize("cookie", [None, "0" * 64])
def test_a_stranger_may_not_listen(node, cookie):
    client = node.client()
    if cookie:
        client.session.cookies["korv_session"] = cookie
    response = client.session.get(f"{client.url}/events", headers=_HEADERS, stream=True, timeout=10)
    assert response.status_code in (401, 403)
    assert "data:" not in response.text


def test_the_internal_location_and_the_notify_socket_are_closed(node, admin):
    assert admin.session.get(f"{admin.url}/korv-internal/events", timeout=10).status_code == 404
    assert admin.session.post(f"{admin.url}/publish", data="{}", timeout=10).status_code == 404
    assert node.inside("stat", "-c", "%a %U", "/srv/pavane/run/notify.sock").split() == ["600", "Pavane"]


def test_only_root_can_change_what_root_reads(node):
    for path in ("run", "run/nginx.conf", "samba", "samba/shares.conf"):
        assert node.inside("stat", "-c", "%U", f"/srv/pavane/{path}").strip() == "root", path


def test_what_a_share_brings_with_it_is_kept_through_a_restart(node, admin):
    assert admin.create("lasting", "/volume2")["success"]
    assert admin.call("KORV.Pavane.Camera", "import", cameras=[
        {"name": "Gate", "recordingPath": "/volume2/lasting/gate"}])["data"] == {"imported": 1}
    node.stop()
    node.start()
    node.allow("korvd (serves|ends)|connect\\(\\) to unix:.*GET /healthz")
    again = node.client("admin")
    share = next(share for share in again.list() if share["shareName"] == "lasting")
    assert share["camCnt"] == 1
    links = again.call("KORV.Pavane.Service", "list_links")["data"]["links"]
    assert {"name": "lasting", "path": "/volume2/lasting", "inPlace": True} in links
    folders = again.call("KORV.Pavane.Service", "list_backup")["data"]["folders"]
    assert "lasting" in [folder["name"] for folder in folders]
    wait_until(lambda: node.inside("test", "-d", "/volume2/lasting", check=False).returncode == 0, "the folder is there")
