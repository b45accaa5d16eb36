"""A server that dies, or is cut off, in the middle of a change: who has acted, what is answered, and that the check tells."""

import concurrent.futures
import contextlib
import os
import random
import signal
import sqlite3
import subprocess
import threading
import time

import pytest

from cluster import Cluster, enter_own_network, failure
from node import SHARE_API, wait_until

_LOSSES = 3  # one of so many packets is lost
# An edit by a client. What keeps a record in step with its folder changes other columns, and is not held up.
_EDIT = "update of rec_limit_gb"
# What a node's own web server says when nobody answers the request any more.
_FRONT = {"success": False, "error": {"code": 111}}


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    with Cluster("--peer-answer-s", "20", settings="workers: {public: 2, peer: 1}\n") as running:
        running.log_in(running.host)
        running.pair(running.second)
        running.pair(running.third)
        yield running


@pytest.fixture(autouse=True)
def agreement(cluster):
    """Every test begins with records that agree, and leaves nothing that a repair could not mend."""
    yield
    cluster.pavane(cluster.host, "server", "check", "--repair")
    done = cluster.pavane(cluster.host, "server", "check", check=False)
    assert (done.returncode, done.stdout) == (0, "no differences\n")


def differences(cluster):
    return [(entry["kind"], entry["rvId"], entry["sharePath"], entry["fields"])
            for entry in cluster.host.cms("check", id=0)["differences"]]


def create_far(cluster, member, name):
    answer = cluster.host.client("admin").create(name, rvId=cluster.ids[member.name])
    assert answer["success"], answer
    return answer["data"]["id"]


def element(cluster, share_id, member, name):
    number = 0 if member is None else cluster.ids[member.name]
    return {"shareId": share_id, "shareRvId": number, "sharePath": f"/volume1/{name}"}


def own_id(member, name):
    return member.records()[f"/volume1/{name}", 0][0]


def expect_both_to_have(cluster, member, present, absent):
    """The server's folder and the records of both sides say the same."""
    own, _ = member.records()[f"/volume1/{present}", 0]
    _, on_rec = cluster.host.records()[f"/volume1/{present}", cluster.ids[member.name]]
    assert own == on_rec
    assert member.has_folder(f"/volume1/{present}")
    expect_nobody_to_have(cluster, member, absent)


def expect_nobody_to_have(cluster, member, name):
    assert not member.has_folder(f"/volume1/{name}")
    assert not any(path == f"/volume1/{name}" for each in (cluster.host, member) for path, _ in each.records())


@contextlib.contextmanager
def stuck(member, operation):
    """Changes of this kind to a member's records of shares take minutes, with the database locked meanwhile."""
    member.rows("create view forever as with recursive n(i) as (select 1 union all select i + 1 from n limit 20000000000)"
                " select count(*) as c from n")
    member.rows(f"create trigger stick before {operation} on recording_share begin select c from forever; end")
    try:
        yield
    finally:
        # Whoever is stuck was killed; a database that is still locked would fail here.
        member.rows("drop trigger stick")
        member.rows("drop view forever")


def is_stuck(member):
    """Whether somebody keeps the database locked for longer than any good change does."""
    for _ in range(4):
        with contextlib.closing(sqlite3.connect(f"{member.state}/state/pavane.db", timeout=0)) as database:
            try:
                database.execute("begin immediate")
                return False
            except sqlite3.OperationalError:
                time.sleep(0.3)
    return True


def kill_while_stuck(member, operation, workers, act):
    """Calls `act` in a thread, kills the member's workers when its record is being changed, and gives the answer."""
    with concurrent.futures.ThreadPoolExecutor(1) as pool, stuck(member, operation):
        answer = pool.submit(act)
        wait_until(lambda: answer.done() or is_stuck(member), f"{member.name} is changing its record", 40)
        assert not answer.done(), answer.result()
        for pid in member.processes(workers):
            os.kill(pid, signal.SIGKILL)
        return answer.result(60)


def test_a_host_killed_before_it_records_a_creation(cluster):
    client = cluster.host.client("admin")
    number = cluster.ids["server2"]
    answer = kill_while_stuck(cluster.host, "insert", "korvd-public", lambda: client.create("born", rvId=number))
    assert answer == _FRONT
    assert cluster.second.has_folder("/volume1/born")
    assert ("/volume1/born", 0) in cluster.second.records()
    assert differences(cluster) == [("missing", number, "/volume1/born", [])]


def test_a_recording_server_killed_before_it_records_a_creation(cluster):
    client = cluster.host.client("admin")
    number = cluster.ids["server2"]
    answer = kill_while_stuck(cluster.second, "insert", "korvd-peer", lambda: client.create("half", rvId=number))
    assert answer == failure(111), "what the server's own front answers comes through"
    assert cluster.second.has_folder("/volume1/half")
    assert not any(path == "/volume1/half" for member in cluster.members for path, _ in member.records())
    assert differences(cluster) == []
    assert client.create("half", rvId=number) == failure(443)
    assert client.create("half", rvId=number, blAddExistShare=True)["success"]


def test_a_host_killed_before_it_records_an_edit(cluster):
    share = create_far(cluster, cluster.second, "old")
    client = cluster.host.client("admin")
    answer = kill_while_stuck(cluster.host, "update", "korvd-public", lambda: client.call(
        SHARE_API, "EditRecShare", rvId=cluster.ids["server2"], shareId=share, shareName="young", description="d"))
    assert answer == _FRONT
    assert cluster.second.has_folder("/volume1/young")
    assert differences(cluster) == [("differs", cluster.ids["server2"], "/volume1/young", ["name", "path", "description"])]


def edit(client, share, name, number=0):
    return client.call(SHARE_API, "EditRecShare", rvId=number, shareId=share, shareName=name, description="d", recLimitGB=7)


def test_a_server_killed_before_it_records_an_edit_of_its_own_share(cluster):
    """Its folder has the new name, and its record follows."""
    client = cluster.host.client("admin")
    share = client.create("mine")["data"]["id"]
    answer = kill_while_stuck(cluster.host, _EDIT, "korvd-public", lambda: edit(client, share, "ours"))
    assert answer == _FRONT
    assert cluster.host.has_folder("/volume1/ours")
    wait_until(lambda: ("/volume1/ours", 0) in cluster.host.records(), "the record follows its folder")
    assert ("/volume1/mine", 0) not in cluster.host.records()
    assert edit(client, share, "ours") == {"success": True}
    assert cluster.host.rows("select description, rec_limit_gb from recording_share where id = ?", share) == [("d", 7)]


def test_a_recording_server_killed_before_it_records_an_edit(cluster):
    number = cluster.ids["server2"]
    share = create_far(cluster, cluster.second, "asked")
    client = cluster.host.client("admin")
    answer = kill_while_stuck(cluster.second, _EDIT, "korvd-peer", lambda: edit(client, share, "got", number))
    assert answer == failure(111)
    assert cluster.second.has_folder("/volume1/got")
    assert ("/volume1/asked", number) in cluster.host.records(), "the host has not acted"
    assert differences(cluster) == [("differs", number, "/volume1/got", ["name", "path", "description"])]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    expect_both_to_have(cluster, cluster.second, "got", "asked")
    assert edit(client, share, "got", number) == {"success": True}


def test_a_recording_server_killed_before_it_records_its_own_edit(cluster):
    """Its host has recorded it by then."""
    number = cluster.ids["server3"]
    create_far(cluster, cluster.third, "plain")
    client = cluster.third.client("admin")
    share = own_id(cluster.third, "plain")
    answer = kill_while_stuck(cluster.third, _EDIT, "korvd-public", lambda: edit(client, share, "fancy"))
    assert answer == _FRONT
    assert ("/volume1/fancy", number) in cluster.host.records()
    assert differences(cluster) == [("differs", number, "/volume1/fancy", ["recLimitGB"])]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    expect_both_to_have(cluster, cluster.third, "fancy", "plain")


def test_a_host_killed_before_it_records_a_forwarded_edit(cluster):
    """The recording server acts all the same and keeps the host's error."""
    number = cluster.ids["server3"]
    create_far(cluster, cluster.third, "slow")
    client = cluster.third.client("admin")
    share = own_id(cluster.third, "slow")
    answer = kill_while_stuck(cluster.host, "update", "korvd-peer", lambda: edit(client, share, "quick"))
    assert answer == failure(111)
    assert ("/volume1/slow", number) in cluster.host.records()
    assert differences(cluster) == [("differs", number, "/volume1/quick", ["name", "path", "description", "recLimitGB"])]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    expect_both_to_have(cluster, cluster.third, "quick", "slow")


def test_a_host_killed_before_it_forgets_a_forwarded_deletion(cluster):
    number = cluster.ids["server3"]
    create_far(cluster, cluster.third, "waste")
    client = cluster.third.client("admin")
    wanted = element(cluster, own_id(cluster.third, "waste"), None, "waste")
    answer = kill_while_stuck(cluster.host, "delete", "korvd-peer",
                              lambda: client.call(SHARE_API, "DelRecShare", delShareList=[wanted]))
    assert answer == failure(111)
    assert ("/volume1/waste", 0) not in cluster.third.records()
    assert differences(cluster) == [("stale", number, "/volume1/waste", [])]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    expect_nobody_to_have(cluster, cluster.third, "waste")


def test_a_recording_server_killed_before_it_forgets_its_own_deletion(cluster):
    """Its host has forgotten the share by then, and its folder is gone; deleted once more it is gone from both."""
    number = cluster.ids["server3"]
    create_far(cluster, cluster.third, "relic")
    client = cluster.third.client("admin")
    wanted = element(cluster, own_id(cluster.third, "relic"), None, "relic")

    def delete():
        return client.call(SHARE_API, "DelRecShare", delShareList=[wanted])

    assert kill_while_stuck(cluster.third, "delete", "korvd-public", delete) == _FRONT
    assert not cluster.third.has_folder("/volume1/relic")
    assert ("/volume1/relic", 0) in cluster.third.records()
    assert differences(cluster) == [("missing", number, "/volume1/relic", [])]
    cluster.pavane(cluster.host, "server", "check", "--repair")
    assert ("/volume1/relic", number) in cluster.host.records()
    assert delete() == {"success": True}
    expect_nobody_to_have(cluster, cluster.third, "relic")


def test_a_host_killed_before_it_forgets_a_deletion(cluster):
    share = create_far(cluster, cluster.second, "dead")
    client = cluster.host.client("admin")
    answer = kill_while_stuck(cluster.host, "delete", "korvd-public", lambda: client.call(
        SHARE_API, "DelRecShare", delShareList=[element(cluster, share, cluster.second, "dead")]))
    assert answer == _FRONT
    assert not cluster.second.has_folder("/volume1/dead")
    assert differences(cluster) == [("stale", cluster.ids["server2"], "/volume1/dead", [])]


def test_a_recording_server_killed_before_it_forgets_a_deletion(cluster):
    """The folder is gone and both still record it; the same request again ends it."""
    share = create_far(cluster, cluster.second, "ghost")
    client = cluster.host.client("admin")

    def delete():
        return client.call(SHARE_API, "DelRecShare", delShareList=[element(cluster, share, cluster.second, "ghost")])

    assert kill_while_stuck(cluster.second, "delete", "korvd-peer", delete) == failure(111)
    assert not cluster.second.has_folder("/volume1/ghost")
    assert ("/volume1/ghost", 0) in cluster.second.records()
    assert ("/volume1/ghost", cluster.ids["server2"]) in cluster.host.records()
    assert delete() == {"success": True}
    assert not any(path == "/volume1/ghost" for member in cluster.members for path, _ in member.records())


def test_a_recording_server_killed_before_it_takes_a_request(cluster):
    """The request waits at its socket and the next worker serves it."""
    client = cluster.host.client("admin")
    peers = cluster.second.processes("korvd-peer")
    for pid in peers:
        os.kill(pid, signal.SIGSTOP)
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        answer = pool.submit(client.create, "patient", rvId=cluster.ids["server2"])
        wait_until(lambda: has_waiting_request(cluster.second), "the request waits at the recording server")
        for pid in peers:
            os.kill(pid, signal.SIGKILL)
        assert answer.result(60)["success"], answer.result()
    assert differences(cluster) == []


def test_a_recording_server_killed_before_it_records_its_own_creation(cluster):
    """It has asked its host first, which has acted."""
    answer = kill_while_stuck(cluster.third, "insert", "korvd-public",
                              lambda: cluster.third.client("admin").create("lonely"))
    assert answer == _FRONT
    assert ("/volume1/lonely", 0) in cluster.host.records(), "the host made one of its own"
    assert cluster.third.has_folder("/volume1/lonely")
    assert ("/volume1/lonely", 0) not in cluster.third.records()


def test_the_second_of_two_targets_dies_between_check_and_send(cluster):
    client = cluster.host.client("admin")
    shares = {member: create_far(cluster, member, "twin") for member in (cluster.second, cluster.third)}
    peers = cluster.second.processes("korvd-peer")
    for pid in peers:
        os.kill(pid, signal.SIGSTOP)
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        answer = pool.submit(client.call, SHARE_API, "DelRecShare", delShareList=[
            element(cluster, share, member, "twin") for member, share in shares.items()])
        try:
            wait_until(lambda: has_waiting_request(cluster.second), "the first request waits")
            cluster.third.cut_off()
        finally:
            for pid in peers:
                os.kill(pid, signal.SIGCONT)
        try:
            answer = answer.result(60)
            assert undelivered(cluster.host) == [], "what did not get through must not arrive later"
        finally:
            cluster.third.reconnect()
    assert answer == failure(406)
    assert f"Failed to send cmd to rv[{cluster.ids['server3']}]." in cluster.host.log()
    assert ("/volume1/twin", 0) not in cluster.second.records(), "the first has acted"
    assert not cluster.second.has_folder("/volume1/twin")
    assert cluster.third.has_folder("/volume1/twin")
    for member in (cluster.second, cluster.third):
        assert ("/volume1/twin", cluster.ids[member.name]) in cluster.host.records(), "the host keeps both records"
    cluster.await_state(cluster.third, "online")
    assert differences(cluster) == [("stale", cluster.ids["server2"], "/volume1/twin", [])]


def undelivered(member):
    """Connections that the member has given up, but whose data are still on their way."""
    left = member.inside("nsenter", "-t", str(member.korvd), "-n", "ss", "-Htn", "state", "fin-wait-1")
    return left.splitlines()


def has_waiting_request(member):
    """True while the socket for peers holds a connection that nobody has taken."""
    queued = member.inside("nsenter", "-t", str(member.korvd), "-n", "ss", "-xl")
    return any(line.split()[2] != "0" for line in queued.splitlines() if "peer.sock" in line)


@contextlib.contextmanager
def losing_packets(member):
    """The bridge drops what comes and goes in short stretches, about every third packet."""
    ends = threading.Event()

    def set_port(state):
        subprocess.run(["bridge", "link", "set", "dev", member.link, "state", str(state)], check=True)

    def drop():
        dice = random.Random(1)
        while not ends.is_set():
            set_port(0 if dice.randrange(_LOSSES) == 0 else 3)
            ends.wait(0.02)
        set_port(3)

    thread = threading.Thread(target=drop)
    thread.start()
    try:
        yield
    finally:
        ends.set()
        thread.join()


def test_a_network_that_drops_packets_delays_and_breaks_nothing(cluster):
    client = cluster.host.client("admin")
    number = cluster.ids["server3"]
    with losing_packets(cluster.third):
        answers = [client.create(f"lossy{n}", rvId=number) for n in range(6)]
    cluster.await_state(cluster.third, "online")
    assert all(answer["success"] or answer == failure(406) for answer in answers), answers
    assert any(answer["success"] for answer in answers), answers
    for n, answer in enumerate(answers):
        if answer["success"]:
            assert (f"/volume1/lossy{n}", number) in cluster.host.records()
            assert (f"/volume1/lossy{n}", 0) in cluster.third.records()
    found = differences(cluster)
    assert all(kind == "missing" for kind, *_ in found), (found, answers)
