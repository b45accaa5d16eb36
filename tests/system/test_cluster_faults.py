"""What the servers of a cluster say and do when a server, its key, its clock or the network fails."""

import email.utils
import json
import os
import re
import signal
import time

import pytest

from cluster import CMS_API, NOBODY, Cluster, FakePeer, enter_own_network, failure, pair_key, send_as_peer, stamp
from node import SHARE_API, wait_until

_ANSWER_S = 5
_CLOCK_OFF_S = 600
_REQUESTS = 20
_SILENT_S = 60
_BUSY_S = 8
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


@pytest.mark.parametrize("answer", [b"", b"oops", b"[1]", b'{"success": true', b'{"a": "' + b"x" * 10_000_000 + b'"}',
                                    b'{"success": true, "data": {"id": "7"}}',
                                    b'{"success": true, "data": {"id": 7, "blMigrating": "no"}}'],
                         ids=["empty", "no JSON", "no object", "half", "10 MB", "id as text", "flag as text"])
def test_an_answer_that_is_none_is_a_failed_send(cluster, fake, answer):
    fake.answer = answer
    number = fake.add_to(cluster.host)
    before = records(*cluster.members)
    reply = cluster.host.client("admin").create("fake", rvId=number)
    assert reply == failure(406)
    assert f"Failed to send cmd to rv[{number}]." in cluster.host.log()
    assert fake.requests == ["CreateRecShare"]
    assert records(*cluster.members) == before


@pytest.mark.parametrize("usage", [b'{"name": "a"}', b'["a"]'], ids=["no list", "list of texts"])
def test_a_list_that_is_none_is_a_failed_question(cluster, fake, usage):
    fake.answer = b'{"success": true, "data": {"usage": ' + usage + b"}}"
    number = fake.add_to(cluster.host)
    assert cluster.host.client("admin").call(SHARE_API, "ListShareUsage") == failure(400)
    assert f"Failed to send webapi to slave [{number}]" in cluster.host.log()


def test_an_answer_after_the_deadline_is_a_failed_send(cluster, fake):
    fake.answer = json.dumps({"success": True, "data": {"id": 1}}).encode()
    fake.delay_s = _ANSWER_S + 10
    number = fake.add_to(cluster.host)
    before = records(*cluster.members)
    begin = time.monotonic()
    reply = cluster.host.client("admin").create("late", rvId=number)
    assert reply == failure(406)
    assert _ANSWER_S - 1 <= time.monotonic() - begin < _ANSWER_S + 8
    assert records(*cluster.members) == before


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


def records(*members):
    """All that the members record of shares, to be compared with later."""
    return [member.rows("select * from recording_share order by id") for member in members]


def test_a_server_whose_workers_for_peers_are_all_busy_stays_online(cluster):
    number = cluster.ids["server2"]
    client = cluster.host.client("admin")
    assert client.create("busy", rvId=number)["success"]
    peers = cluster.second.processes("korvd-peer")
    for pid in peers:
        os.kill(pid, signal.SIGSTOP)
    begin = time.monotonic()
    try:
        state = cluster.state(cluster.second)
        while time.monotonic() < begin + _BUSY_S or state["checkedTime"] == state["seenTime"]:
            assert state["statusName"] == "online"
            assert time.monotonic() < begin + _SILENT_S, "the host goes on asking"
            time.sleep(0.2)
            state = cluster.state(cluster.second)
        assert (state["statusName"], state["problem"]) == ("online", ""), state["seenTime"] - time.time()
        assert [share["sharePath"] for share in client.list(rvId=number) if share["sharePath"] == "/volume1/busy"]
    finally:
        for pid in peers:
            os.kill(pid, signal.SIGCONT)
    stopped = time.time()
    wait_until(lambda: cluster.state(cluster.second)["seenTime"] >= stopped, "it answers again")
    assert cluster.state(cluster.second)["statusName"] == "online"


def test_a_long_job_delays_no_state(cluster):
    """The process that rotates recordings is busy with a disk that does not answer."""
    (rotation,) = cluster.host.processes("korvd-longjobs")
    os.kill(rotation, signal.SIGSTOP)
    try:
        begin = time.time()
        wait_until(lambda: cluster.state(cluster.second)["checkedTime"] > begin + 2 * _ANSWER_S, "its state is fresh")
    finally:
        os.kill(rotation, signal.SIGCONT)


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
                                                 " or checked_s = 0"), "the host has asked them all", 120)
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
    before = records(*cluster.members)
    assert cluster.host.client("admin").create("other", rvId=number) == failure(406)
    assert fake.requests == []
    assert records(*cluster.members) == before


def test_nothing_is_sent_to_a_server_that_is_offline(cluster):
    number = cluster.ids["server3"]
    client = cluster.host.client("admin")
    assert client.create("hidden", rvId=number)["success"]
    before = records(*cluster.members)
    cluster.third.cut_off()
    try:
        cluster.await_state(cluster.third, "offline")
        assert client.list(rvId=number) == [], "its shares are left out of the list"
        begin = time.monotonic()
        reply = client.create("unsent", rvId=number)
        assert reply == failure(406)
        assert time.monotonic() - begin < 2, "it did not even try"
        assert "One of enabled rv is unreachable." in cluster.host.log()
        assert records(*cluster.members) == before
        assert "no connection to it" in cluster.pavane(cluster.host, "server", "list").stdout
        checked = cluster.pavane(cluster.host, "server", "check", check=False)
        assert checked.returncode == 1
        assert f"server {number} gives no answer; it was not checked" in checked.stdout
    finally:
        cluster.third.reconnect()
    cluster.await_state(cluster.third, "online")
    assert not cluster.third.has_folder("/volume1/unsent")
    wait_until(lambda: [share["sharePath"] for share in client.list(rvId=number) if share["sharePath"] == "/volume1/hidden"],
               "its shares are listed again")


def test_nothing_is_sent_to_the_first_of_two_when_the_second_is_offline(cluster):
    client = cluster.host.client("admin")
    wanted = []
    for member in (cluster.second, cluster.third):
        made = client.create("double", rvId=cluster.ids[member.name])
        wanted.append({"shareId": made["data"]["id"], "shareRvId": cluster.ids[member.name], "sharePath": "/volume1/double"})
    before = records(*cluster.members)
    cluster.third.cut_off()
    try:
        cluster.await_state(cluster.third, "offline")
        assert client.call(SHARE_API, "DelRecShare", delShareList=wanted) == failure(406)
        assert records(*cluster.members) == before
        assert cluster.second.has_folder("/volume1/double")
    finally:
        cluster.third.reconnect()
    cluster.await_state(cluster.third, "online")
    assert client.call(SHARE_API, "DelRecShare", delShareList=wanted) == {"success": True}
    for member in (cluster.second, cluster.third):
        assert not member.has_folder("/volume1/double")


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


def test_what_a_server_changes_while_it_is_cut_off_is_named_and_repaired(cluster):
    number = cluster.ids["server3"]
    client = cluster.host.client("admin")
    cluster.pavane(cluster.host, "server", "check", "--repair")
    for name in ("ferry", "wreck"):
        assert client.create(name, rvId=number)["success"]
    own = {path: ids[0] for (path, owner), ids in cluster.third.records().items() if owner == 0}
    cluster.third.cut_off()
    try:
        before = records(cluster.host)
        assert act_inside(cluster.third, method="EditRecShare", shareId=own["/volume1/ferry"], shareName="boat",
                          description="afloat", recLimitGB=9) == {"success": True}
        assert act_inside(cluster.third, method="DelRecShare", delShareList=[
            {"shareId": own["/volume1/wreck"], "shareRvId": 0, "sharePath": "/volume1/wreck"}]) == {"success": True}
        assert records(cluster.host) == before
    finally:
        cluster.third.reconnect()
    cluster.await_state(cluster.third, "online")
    found = [(entry["kind"], entry["sharePath"], entry["fields"]) for entry in
             cluster.host.cms("check", id=number)["differences"]]
    assert found == [("differs", "/volume1/boat", ["name", "path", "description", "recLimitGB"]),
                     ("stale", "/volume1/wreck", [])]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    assert cluster.host.cms("check", id=number)["differences"] == []
    assert cluster.host.records()["/volume1/boat", number][1] == cluster.third.records()["/volume1/boat", 0][0]
    assert not any(path in ("/volume1/ferry", "/volume1/wreck") for path, _ in cluster.host.records())
    assert cluster.third.has_folder("/volume1/boat")
    assert not cluster.third.has_folder("/volume1/wreck") and not cluster.third.has_folder("/volume1/ferry")


_ACT = """
import json, sys, urllib.request
url, account, password, wanted = json.loads(sys.stdin.readline())
def post(headers, **request):
    body = json.dumps({"version": 1, **request}).encode()
    answer = urllib.request.urlopen(urllib.request.Request(f"{url}/webapi", body, headers), timeout=60)
    return answer.headers, json.loads(answer.read())
headers, login = post({}, api="KORV.Core.Session", method="login", account=account, passwd=password)
headers = {"Cookie": headers["Set-Cookie"].split(";")[0], "X-Korv-Csrf": login["data"]["csrf"]}
print(json.dumps(post(headers, **wanted)[1]))
"""


def act_inside(member, **request):
    """The answer to a request by a client on the server's own machine."""
    words = json.dumps([member.url, "admin", member.password(), {"api": SHARE_API, **request}])
    said = member.inside("nsenter", "-t", str(member.korvd), "-n", "/usr/bin/python3", "-c", _ACT, input=words)
    return json.loads(said)


def create_inside(member, name):
    return act_inside(member, method="CreateRecShare", shareName=name, volume="/volume1")


def test_a_changed_key_is_refused_until_it_is_paired_again(cluster):
    number = cluster.ids["server3"]
    for name in ("peer.key", "peer.crt"):
        os.unlink(f"{cluster.third.state}/state/{name}")
    cluster.third.restart_korvd()
    cluster.await_state(cluster.third, "offline", "key_changed")
    assert "it shows another key than when it was paired, so nothing is sent to it" in cluster.host.log()
    before = records(*cluster.members)
    assert cluster.host.client("admin").create("keyless", rvId=number) == failure(406)
    assert records(*cluster.members) == before
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
    before = records(*cluster.members)
    assert cluster.host.client("admin").create("nobody", rvId=number) == failure(400)
    assert records(*cluster.members) == before
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
