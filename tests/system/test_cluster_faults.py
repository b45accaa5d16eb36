"""What the servers of a cluster say and do when a server, its key, its clock or the network fails."""

import email.utils
import json
import os
import re
import signal
import time

import pytest

from cluster import CMS_API, NOBODY, Cluster, FakePeer, enter_own_network, pair_key, send_as_peer, stamp
from node import SHARE_API, wait_until

_ANSWER_S = 5
_CLOCK_OFF_S = 600
_REQUESTS = 20
_SILENT_S = 60
_SILENT_SERVERS = 30
_WATCHED_S = 25
_OLDEST_S = 20


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    with Cluster("--peer-answer-s", str(_ANSWER_S), own_clocks=True) as running:
        running.log_in(running.host)
        running.pair(running.second)
        running.pair(running.third)
        yield running


@pytest.fixture
def fake(cluster):
    peer = FakePeer(cluster.folder)
    yield peer
    peer.close()
    cluster.host.rows("delete from rec_server where serial = ?", FakePeer.SERIAL)


def test_a_pairing_key_must_be_right_fresh_and_new(cluster):
    serial, secret = cluster.second.pairing()

    def code(**parameters):
        return send_as_peer(cluster.second, serial, secret, CMS_API, "ping", **parameters).get("error", {}).get("code")

    assert code() is None
    used = stamp()
    assert code(at=used) is None
    assert code(at=used) == 105, "replayed"
    assert code(key=pair_key("0" * 64, stamp())) == 105, "wrong secret"
    assert code(at=stamp(age_s=310)) == 105, "too old"
    assert code(at=stamp(age_s=-310)) == 105, "too far ahead"
    assert code(at=stamp(age_s=280)) is None
    assert code(key="") == 105
    assert "s behind this server's clock" in cluster.second.log()


def test_a_pairing_key_opens_nothing_that_asks_for_an_account(cluster):
    serial, secret = cluster.second.pairing()
    for api, method in ((CMS_API, "list"), ("KORV.Core.Share", "list"), ("KORV.Core.AppPriv", "list")):
        assert send_as_peer(cluster.second, serial, secret, api, method)["error"]["code"] == 105
    assert cluster.second.client().call(CMS_API, "ping")["error"]["code"] == 105
    assert cluster.second.client("viewer").call(CMS_API, "join")["error"]["code"] == 105


@pytest.mark.parametrize("answer", [b"", b"oops", b"[1]", b'{"success": true', b'{"a": "' + b"x" * 10_000_000 + b'"}'],
                         ids=["empty", "no JSON", "no object", "half", "10 MB"])
def test_an_answer_that_is_none_is_a_failed_send(cluster, fake, answer):
    fake.answer = answer
    number = fake.add_to(cluster.host)
    reply = cluster.host.client("admin").create("fake", rvId=number)
    assert reply == failure(406)
    assert f"Failed to send cmd to rv[{number}]." in cluster.host.log()
    assert fake.requests == ["CreateRecShare"]
    assert ("/volume1/fake", number) not in cluster.host.records()


def test_an_answer_after_the_deadline_is_a_failed_send(cluster, fake):
    fake.answer = json.dumps({"success": True, "data": {"id": 1}}).encode()
    fake.delay_s = _ANSWER_S + 10
    number = fake.add_to(cluster.host)
    begin = time.monotonic()
    reply = cluster.host.client("admin").create("late", rvId=number)
    assert reply["error"]["code"] == 406
    assert _ANSWER_S - 1 <= time.monotonic() - begin < _ANSWER_S + 8
    assert ("/volume1/late", number) not in cluster.host.records()


def test_connections_to_a_server_are_kept(cluster, fake):
    fake.answer = json.dumps({"success": True, "data": {"usage": []}}).encode()
    fake.add_to(cluster.host)
    client = cluster.host.client("admin")
    for _ in range(_REQUESTS):
        assert client.call(SHARE_API, "ListShareUsage")["success"]
    assert fake.requests == ["ListShareUsage"] * _REQUESTS
    workers = cluster.host.processes("korvd-public") + cluster.host.processes("korvd-jobs")
    assert fake.connections <= len(workers), "each process has one"


def test_a_job_process_that_dies_is_replaced(cluster):
    (before,) = cluster.host.processes("korvd-jobs")
    os.kill(before, signal.SIGKILL)
    killed_s = time.time()
    wait_until(lambda: cluster.host.processes("korvd-jobs") not in ([], [before]), "there is a new one")
    wait_until(lambda: cluster.state(cluster.second)["checkedTime"] > killed_s, "it asks the servers")
    cluster.await_state(cluster.second, "online")


def test_clocks_that_disagree_are_named(cluster, fake):
    number = fake.add_to(cluster.host)
    fake.date = email.utils.formatdate(time.time() + _CLOCK_OFF_S, usegmt=True)
    fake.ping_answer = (403, b'{"success":false,"error":{"code":105}}')
    wait_until(lambda: cluster.host.rows("select status, problem from rec_server where id = ?", number) ==
               [(1, "clock")], "the host names the clock")
    assert "set both clocks" in cluster.pavane(cluster.host, "server", "list").stdout
    assert "its clock is more than 300 s from this server's" in cluster.host.log()


@pytest.mark.parametrize("ahead_s", [_CLOCK_OFF_S, -_CLOCK_OFF_S], ids=["ahead", "behind"])
def test_a_server_whose_clock_is_ten_minutes_off_is_refused_and_told_why(cluster, ahead_s):
    number = cluster.ids["server3"]
    name = f"timeless{ahead_s}"
    cluster.third.set_clock(ahead_s)
    try:
        cluster.await_state(cluster.third, "offline", "clock")
        wait_until(lambda: cluster.third.cms("status")["host"]["problem"] == "clock", "the server has noticed as well")
        assert re.search(r"server3 .* its clock is more than 5 minutes off; set both clocks",
                         cluster.pavane(cluster.host, "server", "list").stdout)
        side = "ahead of" if ahead_s > 0 else "behind"
        assert re.search(rf"Refused a paired server whose stamp is (599|600|601) s {side} this server's clock",
                         cluster.host.log())
        other = "behind" if ahead_s > 0 else "ahead of"
        assert re.search(rf"Refused a paired server whose stamp is (599|600|601) s {other} this server's clock",
                         cluster.third.log())
        assert cluster.host.client("admin").create(name, rvId=number) == failure(406)
        # Its own client's request is forwarded and refused; it acts all the same, as after any error of the host's.
        answer = cluster.third.client("admin").create(name)
        assert answer["error"] == {"code": 105, "errors": answer["data"]}
        (own, on_rec), = [ids for (path, _), ids in cluster.third.records().items() if path == f"/volume1/{name}"]
        assert (answer["data"]["id"], on_rec) == (own, 0)
        assert not any(path == f"/volume1/{name}" for path, _ in cluster.host.records())
    finally:
        cluster.third.set_clock(0)
    cluster.await_state(cluster.third, "online", "")


def failure(code):
    params = {"param1": "", "param2": ""}
    return {"success": False, "error": {"code": code, "errors": params}, "data": params}


def test_servers_that_are_silent_delay_nobodys_state(cluster, fake):
    """Asked in turn, these would take longer than a minute."""
    fake.add_to(cluster.host)
    fake.ping_delay_s = _SILENT_S
    cluster.host.rows("insert into rec_server (serial, name, address, pair_secret, pinned_key)"
                      " with recursive n(i) as (select 1 union all select i + 1 from n where i < ?)"
                      " select 'silent' || i, 'silent', 'https://' || ? || ':5443', pair_secret, pinned_key"
                      " from n, rec_server where rec_server.serial = ?", _SILENT_SERVERS, NOBODY, fake.SERIAL)
    try:
        wait_until(lambda: not cluster.host.rows("select 1 from rec_server where name in ('silent', 'fake') and status = 0"
                                                 " or checked_s = 0"), "the host has asked them all", 60)
        oldest_s = 0
        end_s = time.monotonic() + _WATCHED_S
        while time.monotonic() < end_s:
            states = [cluster.state(member) for member in (cluster.second, cluster.third)]
            assert {state["statusName"] for state in states} == {"online"}
            oldest_s = max([oldest_s, *(time.time() - state["checkedTime"] for state in states)])
            time.sleep(0.5)
        assert oldest_s < _OLDEST_S, f"a state was {oldest_s:.0f} s old"
        problems = cluster.host.rows("select name, problem, count(*) from rec_server where name in ('silent', 'fake')"
                                     " group by 1, 2 order by 1")
        assert problems == [("fake", "no_answer", 1), ("silent", "unreachable", _SILENT_SERVERS)]
    finally:
        cluster.host.rows("delete from rec_server where name = 'silent'")


def test_a_server_that_has_forgotten_the_pairing_is_unpaired(cluster, fake):
    number = fake.add_to(cluster.host)
    fake.ping_answer = (403, b'{"success":false,"error":{"code":105}}')
    wait_until(lambda: cluster.host.rows("select status from rec_server where id = ?", number) == [(2,)],
               "the host knows")


def test_a_server_of_another_version_is_told_apart(cluster, fake):
    number = fake.add_to(cluster.host)
    fake.version = "0.0.1"
    wait_until(lambda: cluster.host.rows("select status, version from rec_server where id = ?", number) ==
               [(3, "0.0.1")], "the host knows")
    assert cluster.host.client("admin").create("other", rvId=number)["error"]["code"] == 406
    assert fake.requests == []


def test_nothing_is_sent_to_a_server_that_is_offline(cluster):
    number = cluster.ids["server3"]
    cluster.third.cut_off()
    try:
        cluster.await_state(cluster.third, "offline")
        begin = time.monotonic()
        reply = cluster.host.client("admin").create("unsent", rvId=number)
        assert reply["error"]["code"] == 406
        assert time.monotonic() - begin < 2, "it did not even try"
        assert "One of enabled rv is unreachable." in cluster.host.log()
        assert ("/volume1/unsent", number) not in cluster.host.records()
        assert "no connection to it" in cluster.pavane(cluster.host, "server", "list").stdout
        checked = cluster.pavane(cluster.host, "server", "check", check=False)
        assert checked.returncode == 1
        assert f"server {number} gives no answer; it was not checked" in checked.stdout
    finally:
        cluster.third.reconnect()
    cluster.await_state(cluster.third, "online")
    assert not cluster.third.has_folder("/volume1/unsent")


def test_a_server_that_is_cut_off_works_alone(cluster):
    """Its person is at its own console: the request comes from the server itself."""
    cluster.third.cut_off()
    try:
        reply = create_inside(cluster.third, "island")
        assert reply["success"], reply
    finally:
        cluster.third.reconnect()
    assert "Failed to send command to host." in cluster.third.log()
    assert ("/volume1/island", 0) in cluster.third.records()
    cluster.await_state(cluster.third, "online")


_CREATE = """
import json, sys, urllib.request
url, account, password, name = json.loads(sys.stdin.readline())
def post(headers, **request):
    body = json.dumps({"version": 1, **request}).encode()
    answer = urllib.request.urlopen(urllib.request.Request(f"{url}/webapi", body, headers), timeout=60)
    return answer.headers, json.loads(answer.read())
headers, login = post({}, api="KORV.Core.Session", method="login", account=account, passwd=password)
headers = {"Cookie": headers["Set-Cookie"].split(";")[0], "X-Korv-Csrf": login["data"]["csrf"]}
print(json.dumps(post(headers, api="KORV.Pavane.Share", method="CreateRecShare", shareName=name, volume="/volume1")[1]))
"""


def create_inside(member, name):
    """Creates a share by a client on the server's own machine."""
    words = json.dumps([member.url, "admin", member.password(), name])
    said = member.inside("nsenter", "-t", str(member.korvd), "-n", "/usr/bin/python3", "-c", _CREATE, input=words)
    return json.loads(said)


def test_a_changed_key_is_refused_until_it_is_paired_again(cluster):
    number = cluster.ids["server3"]
    for name in ("peer.key", "peer.crt"):
        os.unlink(f"{cluster.third.state}/state/{name}")
    cluster.third.restart_korvd()
    cluster.await_state(cluster.third, "offline", "key_changed")
    assert "it shows another key than when it was paired, so nothing is sent to it" in cluster.host.log()
    assert cluster.host.client("admin").create("keyless", rvId=number)["error"]["code"] == 406
    assert cluster.pair(cluster.third)["id"] == number
    assert cluster.host.client("admin").create("keyed", rvId=number)["success"]


def test_a_lost_certificate_is_made_anew_of_the_same_key(cluster):
    key = cluster.third.read("state/peer.key")
    os.unlink(f"{cluster.third.state}/state/peer.crt")
    cluster.third.restart_korvd()
    assert cluster.third.read("state/peer.key") == key
    cluster.await_state(cluster.third, "online", "")
    assert cluster.host.client("admin").create("certified", rvId=cluster.ids["server3"])["success"]


def test_a_host_whose_key_changed_gets_nothing_from_its_servers(cluster):
    for name in ("peer.key", "peer.crt"):
        os.unlink(f"{cluster.host.state}/state/{name}")
    cluster.host.restart_korvd()
    wait_until(lambda: cluster.second.cms("status")["host"]["problem"] == "key_changed", "the recording server knows")
    for member in (cluster.second, cluster.third):
        added = cluster.pair(member)
        assert (added["problem"], added["wayBack"]) == ("", "")


def test_a_removed_server_stands_alone(cluster):
    number = cluster.ids["server3"]
    assert cluster.host.client("admin").create("leaving", rvId=number)["success"]
    serial, secret = cluster.third.pairing()
    assert cluster.pavane(cluster.host, "server", "remove", str(number)).stdout == ""
    assert cluster.third.cms("status")["role"] == "none"
    assert send_as_peer(cluster.host, serial, secret, SHARE_API, "ListRecShare")["error"]["code"] == 105
    assert not any(owner == number for _, owner in cluster.host.records())
    assert ("/volume1/leaving", 0) in cluster.third.records()
    answer = cluster.host.client("admin").create("nobody", rvId=number)
    assert answer["error"]["code"] == 400
    cluster.pair(cluster.third)
    assert cluster.ids["server3"] != number
    assert cluster.pavane(cluster.host, "server", "check", "--repair").returncode == 0
    assert ("/volume1/leaving", cluster.ids["server3"]) in cluster.host.records()


def test_a_server_that_is_gone_can_be_removed(cluster):
    number = cluster.ids["server2"]
    cluster.second.cut_off()
    try:
        assert "could not be told" in cluster.pavane(cluster.host, "server", "remove", str(number)).stdout
    finally:
        cluster.second.reconnect()
    wait_until(lambda: cluster.second.rows("select value from setting where name = 'rec_server_status'") == [("2",)],
               "the server has learnt that it is unpaired")
    reply = cluster.second.client("admin").create("single")
    assert reply["success"], reply
    cluster.log_in(cluster.second)
    cluster.pavane(cluster.second, "server", "leave")
    assert cluster.second.cms("status")["role"] == "none"
