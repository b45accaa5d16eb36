"""Relays to 1, 10 and 100 recording servers beside a plain libcurl loop, and what other clients of the host notice of them."""

import contextlib
import json
import os
import sqlite3
import subprocess
import sys
import tempfile
import threading

from list import Client, fill, node, row
from load import Load

_SERVERS = 100
_CLIENTS = 64
_SHARES = 100
_CAMERAS = 1_000
_CONFIGURATION = """
state_dir: {folder}/state
run_dir: {folder}/run
log_dir: {folder}/log
service_user: root
volumes: [/volume1]
"""


def measure_alone(build, folder):
    """The module in a process of its own, without nginx."""
    for name in ("state", "run", "log"):
        os.makedirs(f"{folder}/{name}", 0o700)
    with open(f"{folder}/pavane.yaml", "w", encoding="utf-8") as file:
        file.write(_CONFIGURATION.format(folder=folder))
    subprocess.run([f"{build}/bin/bench_relay", "measure", f"{build}/lib/share.so"], check=True,
                   env=os.environ | {"KORV_CONFIG": f"{folder}/pavane.yaml"})


@contextlib.contextmanager
def fake_servers(build, version):
    """Gives the ports of recording servers that only answer."""
    with subprocess.Popen([f"{build}/bin/bench_relay", "serve", str(_SERVERS), version], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as process:
        try:
            yield [int(port) for port in process.stdout.readline().split()]
        finally:
            process.stdin.close()
            process.wait()


def make_host(database, ports):
    with contextlib.closing(sqlite3.connect(database, timeout=30)) as connection, connection:
        connection.executemany("insert or replace into setting (name, value) values (?, ?)",
                               (("cms_enabled", "1"), ("cms_role", "host")))
        connection.executemany("insert into rec_server (serial, address, status, pair_secret) values (?, ?, 0, ?)",
                               ((f"serial{port}", f"http://127.0.0.1:{port}", "0" * 64) for port in ports))


class Relays:
    """A client that has the host create a share on each server, and delete all of them at once, over and over."""

    def __init__(self, client, database):
        self.client = client
        with contextlib.closing(sqlite3.connect(database, timeout=30)) as connection:
            self.ids = [number for (number,) in connection.execute("select id from rec_server order by id")]
        self.sent = 0
        self.ends = threading.Event()
        self.failure = ""
        self.thread = threading.Thread(target=self.run)

    def call(self, method, **parameters):
        answer = json.loads(self.client.send("KORV.Pavane.Share", method, **parameters)[0])
        if not answer["success"]:
            raise RuntimeError(f"{method} was answered with {answer['error']['code']}")
        self.sent += 1
        return answer.get("data")

    def run(self):
        try:
            while not self.ends.is_set():
                made = [(self.call("CreateRecShare", shareName="relayed", volume="/volume1", rvId=owner)["id"], owner)
                        for owner in self.ids if not self.ends.is_set()]
                self.call("DelRecShare", delShareList=[{"shareId": share, "shareRvId": owner, "sharePath": "/volume1/relayed"}
                                                       for share, owner in made])
        except (RuntimeError, OSError) as error:
            self.failure = str(error)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ends.set()
        self.thread.join()
        if self.failure:
            raise RuntimeError(self.failure)


def measure_clients(root, build, folder, seconds):
    with fake_servers(build, version_of(root)) as ports, node(root, build, folder) as url:
        database = f"{folder}/node/state/pavane.db"
        client = Client(url, folder)
        fill(database, _SHARES, _CAMERAS)
        make_host(database, ports)
        with open(f"{folder}/node/run/korvd.pid", encoding="utf-8") as file:
            korvd = int(file.read())
        load = Load(f"{url}/webapi", "POST", client.body("KORV.Pavane.Share", "ListRecShare"), client.headers)
        print(f"{'':38} {'clients':>7} {'requests/s':>10} {'p50 ms':>9} {'p99 ms':>9} {'worker ms/rq':>12} {'peak MB':>9}")
        row(f"ListRecShare, {_SHARES} shares", _CLIENTS, load.run(_CLIENTS, seconds, korvd))
        with Relays(client, database) as relays:
            result = load.run(_CLIENTS, seconds, korvd)
        row(f"  while a client has {_SERVERS} servers change", _CLIENTS, result)
        print(f"relayed requests meanwhile: {relays.sent / seconds:.1f} a second")


def version_of(root):
    """The version that the servers must have to count as online."""
    with open(f"{root}/CMakeLists.txt", encoding="utf-8") as file:
        return file.read().partition("project(")[2].partition("VERSION ")[2].split()[0]


def main():
    root, build = sys.argv[1:3]
    seconds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    with tempfile.TemporaryDirectory(prefix="pavane-bench.") as folder:
        measure_alone(build, f"{folder}/alone")
        measure_clients(root, build, folder, seconds)


if __name__ == "__main__":
    main()
