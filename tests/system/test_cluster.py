"""A host and two recording servers that work: pairing, requests that reach across, records that agree on both sides."""

import concurrent.futures
import json
import os
import re
import signal

import pytest

from cluster import CMS_API, Cluster, enter_own_network, failure, send_as_peer
from node import SHARE_API, wait_until

_CLIENTS = 8
_DEADLINE_S = 90


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    # One peer worker each: the least with which relays in both directions must get through.
    with Cluster("--peer-answer-s", "20", settings="workers: {public: 2, peer: 1}\n") as running:
        running.log_in(running.host)
        for member in (running.second, running.third):
            added = running.pair(member)
            assert (added["statusName"], added["problem"], added["wayBack"]) == ("online", "", "")
        yield running


def expect_pair_of_records(cluster, member, path, on_host):
    """Both sides know the share, and the host knows the server's id of it. Returns the server's id."""
    there = member.records()[(path, 0)][0]
    number, on_rec = cluster.host.records()[(path, cluster.ids[member.name])]
    assert on_rec == there
    if on_host is not None:
        assert number == on_host
    return there


def test_pairing_gives_each_side_its_role(cluster):
    assert cluster.host.cms("status")["role"] == "host"
    for member in (cluster.second, cluster.third):
        status = member.cms("status")
        assert status["role"] == "rec_server"
        assert status["host"]["serial"] == cluster.host.cms("status")["serial"]
        assert status["host"]["address"] == cluster.host.peer_url
        state = cluster.state(member)
        assert (state["serial"], state["address"], state["enabled"]) == (status["serial"], member.peer_url, True)
    table = cluster.pavane(cluster.host, "server", "list").stdout
    assert re.search(r"server2 +https://10\.88\.0\.2:5443 +yes +online", table), table


def test_secrets_stay_in_the_database(cluster):
    secret = cluster.second.pairing()[1]
    assert re.fullmatch("[0-9a-f]{64}", secret)
    for member in cluster.members:
        assert os.stat(f"{member.state}/state").st_mode & 0o077 == 0
        assert os.stat(f"{member.state}/state/pavane.db").st_mode & 0o777 == 0o600
        assert os.stat(f"{member.state}/state/peer.key").st_mode & 0o777 == 0o600
        for log in ("korvd.log", "pavane.log", "nginx-error.log", "nginx-access.log"):
            text = member.log(log)
            assert secret not in text
            assert cluster.second.password() not in text


def test_the_host_makes_a_share_of_its_own(cluster):
    answer = cluster.host.client("admin").create("own")
    assert answer["success"], answer
    assert cluster.host.records()[("/volume1/own", 0)][0] == answer["data"]["id"]
    assert not any(path == "/volume1/own" for member in (cluster.second, cluster.third)
                   for path, _ in member.records())


def test_the_host_has_a_share_made_on_a_recording_server(cluster):
    answer = cluster.host.client("admin").create("far", volume="/volume2", rvId=cluster.ids["server2"],
                                                 description="from the host", blRecLimit=True, recLimitGB=7)
    assert answer["success"], answer
    assert answer["data"]["fsType"] == 2
    expect_pair_of_records(cluster, cluster.second, "/volume2/far", answer["data"]["id"])
    assert cluster.second.has_folder("/volume2/far")
    assert not cluster.host.has_folder("/volume2/far")
    assert not cluster.third.has_folder("/volume2/far")
    kept = "description, rec_limit_gb, enable_rec_limit, hidden, fs_type, total_size_mb"
    query = f"select {kept} from recording_share where path = '/volume2/far'"
    assert cluster.host.rows(query) == cluster.second.rows(query)


def test_a_recording_server_has_its_share_recorded_by_the_host(cluster):
    answer = cluster.second.client("admin").create("forwarded", actFromHost=True)
    assert answer["success"], answer
    expect_pair_of_records(cluster, cluster.second, "/volume1/forwarded", answer["data"]["id"])
    assert cluster.second.has_folder("/volume1/forwarded")
    assert not cluster.host.has_folder("/volume1/forwarded")


def test_a_plain_request_to_a_recording_server_acts_on_both(cluster):
    answer = cluster.second.client("admin").create("both")
    assert answer["success"], answer
    host_id = cluster.host.records()[("/volume1/both", 0)][0]
    assert cluster.second.records()[("/volume1/both", 0)] == (answer["data"]["id"], host_id)
    assert cluster.host.has_folder("/volume1/both")
    assert cluster.second.has_folder("/volume1/both")


def test_an_error_of_the_recording_server_is_the_answer(cluster):
    client = cluster.host.client("admin")
    assert client.create("twice", rvId=cluster.ids["server3"])["success"]
    assert client.create("twice", rvId=cluster.ids["server3"]) == failure(443)
    assert len([path for path, _ in cluster.host.records() if path == "/volume1/twice"]) == 1


def test_the_host_lists_the_shares_of_all(cluster):
    client = cluster.host.client("admin")
    assert client.create("listed2", rvId=cluster.ids["server2"])["success"]
    assert client.create("listed3", rvId=cluster.ids["server3"])["success"]
    listed = {(share["sharePath"], share["shareRvId"]) for share in client.list()}
    assert {("/volume1/listed2", cluster.ids["server2"]), ("/volume1/listed3", cluster.ids["server3"])} <= listed
    only = client.list(rvId=cluster.ids["server3"])
    assert {share["shareRvId"] for share in only} == {cluster.ids["server3"]}
    own = {(share["sharePath"], share["shareRvId"]) for share in cluster.third.client("admin").list()}
    assert ("/volume1/listed3", 0) in own
    assert ("/volume1/listed2", 0) not in own


def test_a_server_under_failover_is_left_out_of_the_list(cluster):
    number = cluster.ids["server3"]
    client = cluster.host.client("admin")
    assert client.create("standing", rvId=number)["success"]
    cluster.pavane(cluster.host, "server", "failover", str(number), "--taken-over")
    try:
        wait_until(lambda: not client.list(rvId=number), "its shares are left out")
    finally:
        cluster.pavane(cluster.host, "server", "failover", str(number), "--not-taken-over")
    wait_until(lambda: client.list(rvId=number), "its shares are listed again")


def test_a_disabled_server_may_not_relay(cluster):
    serial, secret = cluster.third.pairing()
    number = cluster.ids["server3"]
    cluster.pavane(cluster.host, "server", "disable", str(number))
    try:
        answer = send_as_peer(cluster.host, serial, secret, SHARE_API, "CreateRecShare", relayedCmd=True,
                              shareName="refused", volume="/volume1")
        assert answer == failure(405)
        # The server itself takes the refusal as a sign to act alone.
        answer = cluster.third.client("admin").create("alone")
        assert answer["success"], answer
    finally:
        cluster.pavane(cluster.host, "server", "enable", str(number))
    assert ("/volume1/alone", 0) in cluster.third.records()
    assert not any(path in ("/volume1/alone", "/volume1/refused") for path, _ in cluster.host.records())


def test_a_disabled_server_is_still_asked_but_relays_nothing(cluster):
    """Disabling stops relays; who is not to be trusted any more is removed."""
    serial, secret = cluster.third.pairing()
    number = cluster.ids["server3"]
    cluster.pavane(cluster.host, "server", "disable", str(number))
    try:
        answer = send_as_peer(cluster.host, serial, secret, SHARE_API, "DelRecShare", delShareList=[], relayedCmd=True)
        assert answer == failure(405)
        assert send_as_peer(cluster.host, serial, secret, CMS_API, "ping")["success"]
        assert cluster.state(cluster.third)["statusName"] == "online", "it is still asked for its state"
    finally:
        cluster.pavane(cluster.host, "server", "enable", str(number))


def test_a_servers_key_speaks_for_that_server_only(cluster):
    serial, secret = cluster.third.pairing()
    other, _ = cluster.second.pairing()
    records = cluster.host.records()
    kept = cluster.host.client("admin").create("kept")["data"]["id"]
    share = [{"shareId": kept, "shareRvId": 0, "sharePath": "/volume1/kept"}]

    def code(name, method, **parameters):
        answer = send_as_peer(cluster.host, name, secret, SHARE_API, method, **parameters)
        return 0 if answer["success"] else answer["error"]["code"]

    for name in (serial, other, "", "nobody's"):
        for method, parameters in (("ListRecShare", {}), ("CreateRecShare", {"shareName": "x", "volume": "/volume1"}),
                                   ("DelRecShare", {"delShareList": share})):
            assert code(name, method, **parameters) == 105
    for name in (other, "", "nobody's"):
        assert code(name, "DelRecShare", delShareList=share, relayedCmd=True) == 105
        assert send_as_peer(cluster.host, name, secret, CMS_API, "ping")["error"]["code"] == 105
    assert cluster.host.has_folder("/volume1/kept")
    assert set(cluster.host.records()) == {*records, ("/volume1/kept", 0)}


def test_a_stranger_may_not_be_paired_twice(cluster):
    """A recording server has one host; another's wish is refused, and so is a wrong password."""
    arguments = ["server", "add", cluster.second.peer_url, "--account", "admin", "--trust"]
    cluster.log_in(cluster.third)
    refused = cluster.pavane(cluster.third, *arguments, "--password-file", cluster.password_file(cluster.second),
                             check=False)
    assert refused.returncode == 1
    assert "error 460" in refused.stderr
    refused = cluster.pavane(cluster.host, *arguments, "--password-file", cluster.password_file(cluster.third),
                             check=False)
    assert "error 463" in refused.stderr
    refused = cluster.pavane(cluster.host, *arguments[:-1], "--fingerprint", cluster.host.cms("status")["fingerprint"],
                             "--password-file", cluster.password_file(cluster.second), check=False)
    assert "error 462" in refused.stderr
    cluster.await_state(cluster.second, "online")


def test_relays_in_both_directions_get_through(cluster):
    """Every public worker of both servers waits for the other; the peer workers answer."""
    from_host = cluster.host.client("admin")
    from_server = cluster.second.client("admin")
    with concurrent.futures.ThreadPoolExecutor(2 * _CLIENTS) as pool:
        answers = [pool.submit(from_host.create, f"down{n}", rvId=cluster.ids["server2"]) for n in range(_CLIENTS)]
        answers += [pool.submit(from_server.create, f"up{n}", actFromHost=True) for n in range(_CLIENTS)]
        for answer in concurrent.futures.as_completed(answers, _DEADLINE_S):
            assert answer.result()["success"], answer.result()
    for n in range(_CLIENTS):
        expect_pair_of_records(cluster, cluster.second, f"/volume1/down{n}", None)
        expect_pair_of_records(cluster, cluster.second, f"/volume1/up{n}", None)


def both_ways(cluster, names, down, up):
    """All at once: `down` is called for the host's ids of the shares down..., `up` for the server's ids of the shares up...,
    each by a client of its own."""
    at_host, there = cluster.host.records(), cluster.second.records()
    number = cluster.ids["server2"]
    with concurrent.futures.ThreadPoolExecutor(2 * _CLIENTS) as pool:
        answers = [pool.submit(down, n, at_host[(f"/volume1/{names[0]}{n}", number)][0]) for n in range(_CLIENTS)]
        answers += [pool.submit(up, n, there[(f"/volume1/{names[1]}{n}", 0)][0]) for n in range(_CLIENTS)]
        for answer in concurrent.futures.as_completed(answers, _DEADLINE_S):
            assert answer.result()["success"], answer.result()


def test_edits_and_deletions_in_both_directions_get_through(cluster):
    """The same for what acts on both sides; the shares are those of the test before."""
    from_host = cluster.host.client("admin")
    from_server = cluster.second.client("admin")
    number = cluster.ids["server2"]
    both_ways(cluster, ("down", "up"),
              lambda n, share: from_host.call(SHARE_API, "EditRecShare", rvId=number, shareId=share, shareName=f"below{n}",
                                              description=f"down {n}"),
              lambda n, share: from_server.call(SHARE_API, "EditRecShare", shareId=share, shareName=f"above{n}",
                                                description=f"up {n}"))
    for n in range(_CLIENTS):
        for name, text in ((f"below{n}", f"down {n}"), (f"above{n}", f"up {n}")):
            expect_pair_of_records(cluster, cluster.second, f"/volume1/{name}", None)
            query = "select description from recording_share where path = ?"
            assert cluster.host.rows(query, f"/volume1/{name}") == [(text,)]
            assert cluster.second.rows(query, f"/volume1/{name}") == [(text,)]
            assert cluster.second.has_folder(f"/volume1/{name}")

    def item(share, owner, path):
        return {"delShareList": [{"shareId": share, "shareRvId": owner, "sharePath": path}]}

    both_ways(cluster, ("below", "above"),
              lambda n, share: from_host.call(SHARE_API, "DelRecShare", **item(share, number, f"/volume1/below{n}")),
              lambda n, share: from_server.call(SHARE_API, "DelRecShare", **item(share, 0, f"/volume1/above{n}")))
    for member in (cluster.host, cluster.second):
        assert not [path for path, _ in member.records() if "below" in path or "above" in path]
    assert not any(cluster.second.has_folder(f"/volume1/{name}{n}") for name in ("below", "above") for n in range(_CLIENTS))


def test_the_commands_name_the_server_that_owns_a_share(cluster):
    number = str(cluster.ids["server2"])

    def pavane(*words, check=True):
        return cluster.pavane(cluster.host, "share", *words, check=check)

    pavane("create", "spoken", "--volume", "/volume1", "--server", number)
    pavane("create", "spoken", "--volume", "/volume1")
    share = str(cluster.host.records()[("/volume1/spoken", int(number))][0])
    listed = json.loads(cluster.pavane(cluster.host, "--json", "share", "list", "--server", "0").stdout)
    assert "/volume1/spoken" in {each["sharePath"] for each in listed["sharelist"]}
    assert {each["shareRvId"] for each in listed["sharelist"]} == {0} and listed["total"] == len(listed["sharelist"])
    for words in (("edit", share, "--description", "no"), ("limit", share, "9"), ("delete", share, "--yes"),
                  ("cameras", share), ("migrating", share)):
        refused = pavane(*words, "--server", "0", check=False)
        assert refused.returncode != 0 and f"no recording share {share} of this server" in refused.stderr, words
        refused = pavane(*words, "--server", str(cluster.ids["server3"]), check=False)
        assert f"of recording server {cluster.ids['server3']}" in refused.stderr, words
    pavane("edit", share, "--server", number, "--name", "said", "--description", "by name")
    pavane("limit", share, "9", "--server", number)
    assert cluster.second.rows("select name, description, rec_limit_gb, enable_rec_limit from recording_share where path = ?",
                               "/volume1/said") == [("said", "by name", 9, 1)]
    cluster.second.rows("insert into camera (owner_rv_id, name, recording_path, rec_storage_status)"
                        " values (0, 'lift', '/volume1/said/lift', 0)")
    (camera,) = cluster.second.rows("select id from camera where name = 'lift'")[0]
    cluster.second.client("admin").call("KORV.Pavane.Camera", "migrate_start", id=camera)
    refused = pavane("migrating", share, "--server", number, check=False)
    assert "error 449" in refused.stderr
    cluster.second.client("admin").call("KORV.Pavane.Camera", "migrate_stop", id=camera)
    assert f"no camera is moving recordings out of share {share}" in pavane("migrating", share, "--server", number).stdout
    cluster.second.rows("delete from camera")
    pavane("cameras", share, "--server", number)
    pavane("delete", share, "--server", number, "--yes")
    assert not cluster.second.has_folder("/volume1/said")
    assert cluster.host.has_folder("/volume1/spoken"), "the host's own of that name stays"


def test_what_only_the_server_itself_can_do_is_said(cluster):
    number = str(cluster.ids["server2"])
    for command in ("lock", "unlock", "export-key"):
        refused = cluster.pavane(cluster.host, "share", command, "vault", "--server", number, check=False)
        assert refused.returncode != 0
        assert re.search(f"only works on the server that has the folder: run it against recording server {number} itself",
                         refused.stderr), refused.stderr
        assert not os.path.exists("vault.key")
    refused = cluster.pavane(cluster.host, "share", "lock", "vault", "--server", "0", check=False)
    assert "error 3303" in refused.stderr, "the host looked for a folder of its own"


def differences(cluster, *options):
    done = cluster.pavane(cluster.host, "--json", "server", "check", str(cluster.ids["server2"]), *options, check=False)
    return done.returncode, json.loads(done.stdout)["differences"]


def test_what_a_killed_host_left_is_named_and_repaired(cluster):
    assert differences(cluster)[1] == [] or differences(cluster, "--repair")[0] == 0
    client = cluster.host.client("admin")
    peers = cluster.second.processes("korvd-peer")
    for pid in peers:
        os.kill(pid, signal.SIGSTOP)
    try:
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            relayed = pool.submit(client.create, "orphan", rvId=cluster.ids["server2"])
            wait_until(lambda: has_waiting_request(cluster), "the request waits at the recording server")
            for pid in cluster.host.processes("korvd-public"):
                os.kill(pid, signal.SIGKILL)
            assert relayed.result(30) == {"success": False, "error": {"code": 111}}
    finally:
        for pid in peers:
            os.kill(pid, signal.SIGCONT)
    wait_until(lambda: ("/volume1/orphan", 0) in cluster.second.records(), "the recording server has made it")
    assert ("/volume1/orphan", cluster.ids["server2"]) not in cluster.host.records()
    status, found = differences(cluster)
    assert status == 1
    assert [(entry["kind"], entry["sharePath"]) for entry in found] == [("missing", "/volume1/orphan")]
    assert "the host has no record of this share" in cluster.pavane(cluster.host, "server", "check", check=False).stdout
    assert differences(cluster, "--repair")[0] == 0
    expect_pair_of_records(cluster, cluster.second, "/volume1/orphan", None)
    assert differences(cluster) == (0, [])


def has_waiting_request(cluster):
    """True while the recording server's socket for peers holds a connection that nobody has taken."""
    queued = cluster.second.inside("nsenter", "-t", str(cluster.second.korvd), "-n", "ss", "-xl")
    return any(line.split()[2] != "0" for line in queued.splitlines() if "peer.sock" in line)


def test_each_kind_of_difference_is_named(cluster):
    client = cluster.host.client("admin")
    for name in ("changed", "gone"):
        assert client.create(name, rvId=cluster.ids["server2"])["success"]
    cluster.second.rows("update recording_share set description = 'new', rec_limit_gb = 5 where path like '%/changed'")
    cluster.second.rows("delete from recording_share where path like '%/gone'")
    status, found = differences(cluster)
    assert status == 1
    assert sorted((entry["kind"], entry["sharePath"], entry["fields"]) for entry in found) == [
        ("differs", "/volume1/changed", ["description", "recLimitGB"]), ("stale", "/volume1/gone", [])]
    assert differences(cluster, "--repair")[0] == 0
    assert differences(cluster) == (0, [])
    assert ("/volume1/gone", cluster.ids["server2"]) not in cluster.host.records()


def test_a_repair_that_fails_says_so(cluster):
    name = f"server {cluster.ids['server2']}"
    assert cluster.host.client("admin").create("stuck", rvId=cluster.ids["server2"])["success"]
    cluster.second.rows("update recording_share set description = 'new' where path like '%/stuck'")
    cluster.host.rows("create trigger no_change before update on recording_share begin select raise(abort, 'no'); end")
    try:
        for options in ((), ("--json",)):
            done = cluster.pavane(cluster.host, *options, "server", "check", "--repair", check=False)
            assert done.returncode == 1
            assert options or f"{name}: the host's records could not be repaired" in done.stdout, done.stdout
    finally:
        cluster.host.rows("drop trigger no_change")
    done = cluster.pavane(cluster.host, "server", "check", "--repair")
    assert f"{name}: the host's records are repaired" in done.stdout
    assert differences(cluster) == (0, [])
