"""A remote folder that a recording server is to mount for its host, with the deadlines that a node comes with."""

import socket
import time

import pytest

import samba
from cluster import OUTSIDE, Cluster, enter_own_network, failure
from node import SHARE_API

_ATTEMPT_S = 30  # after which an attempt to mount is given up
_HOST_S = 38     # after which the host gives up


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    with Cluster() as running:
        running.log_in(running.host)
        running.pair(running.second)
        samba.put_helpers_in_place(running.second, {"/slow": {"hangs": True}})
        yield running


def test_a_mount_that_takes_too_long_has_its_own_code_at_the_host(cluster):
    number = cluster.ids["server2"]
    client = cluster.host.client("admin")
    assert client.create("far", rvId=number)["success"]
    before = [member.records() for member in (cluster.host, cluster.second)]
    with socket.socket() as listener:
        listener.bind((OUTSIDE, 0))
        listener.listen(8)
        begin = time.monotonic()
        answer = client.call(SHARE_API, "CreateRemoteRecShare", rvId=number, mountType=1, mountPoint="/volume1/far/nas",
                             mountPath="/volume1/far/nas", blNeedMount=True, mountSource=f"{OUTSIDE}:/slow", nfs_version="3",
                             protocol="tcp", adv_opt=f"port={listener.getsockname()[1]}")
        took_s = time.monotonic() - begin
    assert answer == failure(506), answer
    assert _ATTEMPT_S - 1 < took_s < _HOST_S
    assert [member.records() for member in (cluster.host, cluster.second)] == before
    assert cluster.second.inside("ls", "-A", "/volume1/far") == ""
