"""The whole way of a share with PostgreSQL as the application database."""

import glob
import os
import shutil
import subprocess
import tempfile

import pytest

from node import Node, wait_until

_ACCOUNT = "postgres"


def program(name):
    return os.path.join(max(glob.glob("/usr/lib/postgresql/*/bin")), name)


def as_server(*command, **options):
    """A program as the account that PostgreSQL runs as: it refuses to run as root."""
    return ["setpriv", "--pdeathsig", "INT", "--reuid", _ACCOUNT, "--regid", _ACCOUNT, "--init-groups", "--", *command]


class Cluster:
    """A server of its own, reached through a socket in its folder only."""

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="pavane-postgresql.")
        shutil.chown(self.folder, _ACCOUNT, _ACCOUNT)
        os.chmod(self.folder, 0o755)
        data = os.path.join(self.folder, "data")
        subprocess.run(as_server(program("initdb"), "-D", data, "-A", "trust", "-E", "UTF8", "--locale=C.UTF-8",
                                 "--no-sync"), check=True, stdout=subprocess.DEVNULL)
        with open(os.path.join(self.folder, "log"), "w", encoding="utf-8") as log:
            self.process = subprocess.Popen(
                as_server(program("postgres"), "-D", data, "-c", "listen_addresses=", "-c",
                          f"unix_socket_directories={self.folder}", "-c", "fsync=off"), stdout=log, stderr=log)
        wait_until(lambda: subprocess.run([program("pg_isready"), "-q", "-h", self.folder], check=False).returncode == 0,
                   "PostgreSQL answers")
        self.connection = f"host={self.folder} user={_ACCOUNT} dbname=postgres"

    def query(self, statement):
        done = subprocess.run(["psql", "-AtX", "-v", "ON_ERROR_STOP=1", self.connection, "-c", statement],
                              check=True, capture_output=True, text=True)
        return done.stdout.splitlines()

    def stop(self):
        self.process.terminate()
        self.process.wait(30)
        shutil.rmtree(self.folder)


@pytest.fixture(scope="module")
def cluster():
    server = Cluster()
    yield server
    server.stop()


@pytest.fixture(scope="module")
def shared_node(cluster):
    with Node("--database", cluster.connection) as node:
        yield node


def test_a_share_is_made_listed_and_kept(node, admin, cluster):
    created = admin.create("rec", description="it's \"quoted\"; -- 日本", blRecLimit=True, recLimitGB=7)
    assert created["success"], created
    cameras = [{"name": f"camera {number}", "recordingPath": f"/volume1/rec/{number}"} for number in range(50)]
    assert admin.call("KORV.Pavane.Camera", "import", cameras=cameras)["data"] == {"imported": 50}
    assert cluster.query("select name, path, rec_limit_gb from recording_share") == ["rec|/volume1/rec|7"]

    node.stop()
    node.start()
    node.allow("korvd (serves|ends)|connect\\(\\) to unix:.*GET /healthz")
    again = node.client("admin")
    (share,) = again.list()
    assert (share["shareName"], share["camCnt"], share["recLimitGB"]) == ("rec", 50, 7)
    assert share["description"] == "it's \"quoted\"; -- 日本"
    assert share["quota"] == created["data"]["totalSize"] / 1024
    (event,) = again.call("KORV.Pavane.Event", "list")["data"]["events"]
    assert event["args"] == ["rec"]


def test_a_name_refused_by_the_volume_leaves_no_row(node, admin, cluster):
    node.allow("Failed to create share with error|Failed to execute function after relay")
    before = cluster.query("select count(*) from recording_share")
    assert not admin.create("a/b")["success"]
    assert cluster.query("select count(*) from recording_share") == before
