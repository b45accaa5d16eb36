"""A host that gives up its role while servers are paired with it, and takes it again."""

import pytest

from cluster import CMS_API, Cluster, enter_own_network, send_as_peer
from node import SHARE_API, wait_until


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    with Cluster("--peer-answer-s", "20") as running:
        running.log_in(running.host)
        for member in (running.second, running.third):
            running.pair(member)
        client = running.host.client("admin")
        for owner in (0, running.ids["server2"], running.ids["server3"]):
            assert client.create("before", rvId=owner)["success"]
        yield running


def await_pairing(member, problem):
    """The recording server has found out how its host stands to it."""
    wait_until(lambda: member.cms("status")["host"]["problem"] == problem, f"{member.name} says {problem!r}", 60)


def owners(cluster):
    return sorted(share["shareRvId"] for share in cluster.host.client("admin").list() if
                  share["sharePath"] == "/volume1/before")


def expect_to_work_together(cluster, name):
    for member in (cluster.second, cluster.third):
        await_pairing(member, "")
        cluster.await_state(member, "online", "")
        number = cluster.ids[member.name]
        assert cluster.host.client("admin").create(f"{name}host", rvId=number)["success"]
        assert (f"/volume1/{name}host", 0) in member.records()
        assert member.client("admin").create(f"{name}{member.name}", actFromHost=True)["success"]
        assert (f"/volume1/{name}{member.name}", number) in cluster.host.records()
    assert owners(cluster) == [0, cluster.ids["server2"], cluster.ids["server3"]]


def test_a_host_without_its_role_stands_alone(cluster):
    number = cluster.ids["server2"]
    serial, secret = cluster.second.pairing()
    records = cluster.host.records()
    cluster.pavane(cluster.host, "server", "role-none")
    assert cluster.host.cms("status")["role"] == "none"
    assert "none" in cluster.pavane(cluster.host, "server", "status").stdout

    # Its servers are refused, find that out and work alone.
    assert send_as_peer(cluster.host, serial, secret, CMS_API, "ping")["error"]["code"] == 105
    refused = send_as_peer(cluster.host, serial, secret, SHARE_API, "CreateRecShare", relayedCmd=True, shareName="x",
                           volume="/volume1")
    assert refused["error"]["code"] == 105
    for member in (cluster.second, cluster.third):
        await_pairing(member, "unpaired")
        status = member.cms("status")
        assert (status["role"], status["host"]["address"]) == ("rec_server", cluster.host.peer_url)
        answer = member.client("admin").create("orphan")
        assert answer["success"], answer
        assert ("/volume1/orphan", 0) in member.records()
    assert cluster.host.records() == records

    # The host acts for nobody else any more, but has forgotten nothing.
    client = cluster.host.client("admin")
    assert client.create("alone")["success"]
    assert not cluster.second.has_folder("/volume1/alone")
    assert cluster.pavane(cluster.host, "server", "check", check=False).returncode != 0
    assert {server["id"] for server in cluster.host.cms("list")["servers"]} == {number, cluster.ids["server3"]}


def test_a_host_that_takes_its_role_again_has_its_servers_back(cluster):
    cluster.pavane(cluster.host, "server", "role-host")
    expect_to_work_together(cluster, "again")


def test_servers_can_be_paired_again_after_the_role_was_given_up(cluster):
    before = dict(cluster.ids)
    cluster.pavane(cluster.host, "server", "role-none")
    secrets = [member.pairing() for member in (cluster.second, cluster.third)]
    for member in (cluster.second, cluster.third):
        await_pairing(member, "unpaired")
    # The first pairing gives the host its role back, and with it every pairing that it has not forgotten.
    for member in (cluster.second, cluster.third):
        added = cluster.pair(member)
        assert (added["statusName"], added["wayBack"]) == ("online", "")
    assert cluster.host.cms("status")["role"] == "host"
    assert cluster.ids == before, "each server keeps its id and its records"
    assert [member.pairing() for member in (cluster.second, cluster.third)] != secrets, "and gets a new secret"
    expect_to_work_together(cluster, "new")
