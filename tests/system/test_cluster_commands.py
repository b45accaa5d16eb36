"""`pavane server`: what it asks a person before pairing, what it does without one, and failover and role."""

import json
import os
import re

import pytest

from cluster import Cluster, enter_own_network
from node import BUILD
from test_prompt import Terminal

_PATIENCE_S = 30


@pytest.fixture(scope="module")
def cluster():
    enter_own_network()
    with Cluster("--peer-answer-s", "20") as running:
        running.log_in(running.host)
        yield running


def fingerprint(member):
    return member.cms("status")["fingerprint"]


def serials(cluster):
    return [server["serial"] for server in cluster.host.cms("list")["servers"]]


@pytest.fixture
def add(cluster):
    """Starts `pavane server add` for server2 at a terminal, in the session of the host's administrator."""
    environment = dict(os.environ, PAVANE_URL=cluster.host.url, HOME=cluster.folder, XDG_STATE_HOME=cluster.folder,
                       XDG_RUNTIME_DIR=cluster.folder, ASAN_OPTIONS="detect_leaks=0")
    terminal = Terminal(os.path.join(BUILD, "bin/pavane"), "server", "add", cluster.second.peer_url, "--account", "admin",
                        "--password-file", cluster.password_file(cluster.second), environment=environment)
    terminal.wait_for(r"\[yes/no\]")
    yield terminal
    terminal.close()


@pytest.mark.parametrize("answer", ["no", "", "y", "YES"])
def test_a_key_that_is_not_confirmed_is_not_trusted(cluster, add, answer):
    assert fingerprint(cluster.second) in add.text
    add.type(f"{answer}\n")
    assert add.process.wait(_PATIENCE_S) != 0
    add.wait_for("not confirmed; nothing was changed")
    assert serials(cluster) == []
    assert cluster.second.cms("status")["role"] == "none"


def test_without_a_terminal_nobody_is_asked_and_nothing_trusted(cluster):
    done = cluster.pavane(cluster.host, "server", "add", cluster.second.peer_url, "--account", "admin", "--password-file",
                          cluster.password_file(cluster.second), check=False)
    assert done.returncode != 0
    assert fingerprint(cluster.second) in done.stdout
    assert "--fingerprint" in done.stderr and "--trust" in done.stderr
    assert serials(cluster) == []


def test_another_key_than_the_given_one_is_refused(cluster):
    done = cluster.pavane(cluster.host, "server", "add", cluster.second.peer_url, "--account", "admin", "--fingerprint",
                          fingerprint(cluster.third), "--password-file", cluster.password_file(cluster.second), check=False)
    assert done.returncode != 0
    assert "error 462" in done.stderr, done.stderr
    assert serials(cluster) == []


def test_a_key_that_is_confirmed_pairs(cluster, add):
    add.type("yes\n")
    add.wait_for("recording server [0-9]+: server2, online")
    assert add.process.wait(_PATIENCE_S) == 0
    assert serials(cluster) == [cluster.second.cms("status")["serial"]]
    assert cluster.second.cms("status")["role"] == "rec_server"


def test_a_key_may_be_trusted_unseen_by_name(cluster):
    done = cluster.pavane(cluster.host, "server", "add", cluster.third.peer_url, "--account", "admin", "--trust",
                          "--password-file", cluster.password_file(cluster.third))
    assert f"trusting the key {fingerprint(cluster.third)}" in done.stderr
    assert re.match("recording server [0-9]+: server3, online", done.stdout)
    assert serials(cluster)[-1] == cluster.third.cms("status")["serial"]


def test_a_server_is_marked_as_standby_and_not(cluster):
    number = str(cluster.host.cms("list")["servers"][0]["id"])

    def flags():
        server = cluster.host.cms("list")["servers"][0]
        return server["standby"], server["takenOver"]

    cluster.pavane(cluster.host, "server", "failover", number, "--standby")
    assert flags() == (True, False)
    assert re.search("server2 .* standby", cluster.pavane(cluster.host, "server", "list").stdout)
    cluster.pavane(cluster.host, "server", "failover", number, "--taken-over")
    assert flags() == (True, True)
    cluster.pavane(cluster.host, "server", "failover", number, "--no-standby")
    assert flags() == (False, True)
    cluster.pavane(cluster.host, "server", "failover", number, "--not-taken-over")
    assert flags() == (False, False)
    both = cluster.pavane(cluster.host, "server", "failover", number, "--standby", "--no-standby", check=False)
    assert both.returncode != 0
    assert flags() == (False, False)


def test_a_host_without_its_role_calls_no_server_online(cluster):
    cluster.pavane(cluster.host, "server", "role-none")
    servers = json.loads(cluster.pavane(cluster.host, "--json", "server", "list").stdout)["servers"]
    assert {(server["statusName"], server["problem"]) for server in servers} == {("offline", "not_asked")}
    assert "this server is no host and asks nobody" in cluster.pavane(cluster.host, "server", "list").stdout
    cluster.pavane(cluster.host, "server", "role-host")
    cluster.ids = {member.name: number for member, number in
                   zip((cluster.second, cluster.third), [server["id"] for server in servers])}
    for member in (cluster.second, cluster.third):
        cluster.await_state(member, "online", "")
