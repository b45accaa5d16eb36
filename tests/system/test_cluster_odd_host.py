"""What a recording server does when its host answers something else than a host would."""

import os
import time

import pytest

from cluster import Cluster, FakePeer, enter_own_network, failure, record


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    with Cluster("--peer-answer-s", "20", settings="workers: {public: 2, peer: 1}\n") as running:
        running.log_in(running.host)
        running.pair(running.third)
        yield running


@pytest.fixture
def odd_host(cluster):
    """server3 believes that a fake is its host."""
    fake = FakePeer(cluster.folder)
    kept = cluster.third.rows("select address, pinned_key from cms_host")[0]
    cluster.third.rows("update cms_host set address = ?, pinned_key = ?", fake.address, fake.fingerprint)
    yield fake
    cluster.third.rows("update cms_host set address = ?, pinned_key = ?", *kept)
    fake.close()


@pytest.mark.parametrize("code", [405, 102])
def test_a_server_acts_alone_when_its_host_will_not_hear(cluster, odd_host, code):
    odd_host.answer = b'{"success":false,"error":{"code":%d}}' % code
    name = f"alone{code}"
    lines = cluster.third.log().count("Failed to send command to host.")
    answer = cluster.third.client("admin").create(name)
    assert answer["success"], answer
    assert odd_host.requests == ["CreateRecShare"]
    assert cluster.third.log().count("Failed to send command to host.") == lines + 1
    number, on_rec, _ = record(cluster.third, f"/volume1/{name}", 0)
    assert (answer["data"]["id"], on_rec) == (number, 0)


@pytest.mark.parametrize("kind, answer", [("empty", b""), ("text", b"oops"), ("list", b"[]"), ("nothing", b"{}"),
                                          ("10MB", b'{"a": "' + b"x" * 10_000_000 + b'"}')],
                         ids=["empty", "no JSON", "no object", "empty object", "10 MB"])
def test_a_server_acts_alone_when_its_host_answers_nothing_of_use(cluster, odd_host, kind, answer):
    odd_host.answer = answer
    name = f"alone-{kind}"
    lines = cluster.third.log().count("Failed to send command to host.")
    reply = cluster.third.client("admin").create(name)
    assert odd_host.requests == ["CreateRecShare"]
    assert cluster.third.log().count("Failed to send command to host.") == lines + 1
    expect_alone(cluster, name, reply)


def test_a_server_acts_alone_when_its_host_takes_longer_than_forty_seconds(cluster, odd_host):
    odd_host.answer = b'{"success":true,"data":{"id":4711}}'
    odd_host.delay_s = 60
    begin = time.monotonic()
    reply = cluster.third.client("admin").create("hasty")
    assert 39 < time.monotonic() - begin < 55
    expect_alone(cluster, "hasty", reply)


def expect_alone(cluster, name, reply):
    """The server has made its share, and knows nothing of the host's."""
    number, on_rec, fields = record(cluster.third, f"/volume1/{name}", 0)
    assert reply == {"success": True, "data": {"id": number, "fsType": fields[6], "totalSize": fields[-1],
                                               "blMigrating": False, "encType": 0}}
    assert on_rec == 0
    assert cluster.third.has_folder(f"/volume1/{name}")


def test_an_error_of_the_host_is_kept_though_the_server_acts(cluster, odd_host):
    odd_host.answer = b'{"success":false,"error":{"code":443,"errors":{"param1":"a","param2":"b"}},"data":{"id":7}}'
    answer = cluster.third.client("admin").create("stubborn")
    number, on_rec, _ = record(cluster.third, "/volume1/stubborn", 0)
    assert answer["error"]["code"] == 443
    assert (answer["data"]["id"], on_rec) == (number, 7)
    assert (answer["data"]["param1"], answer["data"]["param2"]) == ("a", "b")
    assert cluster.third.has_folder("/volume1/stubborn")


def test_a_host_may_stop_its_server(cluster, odd_host):
    odd_host.answer = (b'{"success":false,"error":{"code":443,"errors":{"param1":"","param2":""}},'
                       b'"data":{"stopOnHostError":true,"why":"x"}}')
    answer = cluster.third.client("admin").create("stopped")
    assert answer["error"]["code"] == 443
    assert answer["data"] == {"stopOnHostError": True, "why": "x", "param1": "", "param2": ""}
    assert not cluster.third.has_folder("/volume1/stopped")


def test_a_host_acts_and_answers_for_its_server(cluster, odd_host):
    odd_host.answer = b'{"success":true,"data":{"id":4711}}'
    answer = cluster.third.client("admin").create("answered", actFromHost=True)
    assert answer == {"success": True, "data": {"id": 4711}}
    assert record(cluster.third, "/volume1/answered", 0) is None
    odd_host.answer = b'{"success":false,"error":{"code":442}}'
    answer = cluster.third.client("admin").create("answered", actFromHost=True)
    assert answer == failure(442)
    assert not os.path.exists(f"/proc/{cluster.third.korvd}/root/volume1/answered")
