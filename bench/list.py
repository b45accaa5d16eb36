"""ListRecShare at three sizes, beside nginx alone and a worker that answers a ready text of the same size."""

import contextlib
import json
import os
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import urllib.request

from load import Load

_SIZES = ((100, 1_000), (1_000, 10_000), (10_000, 100_000))
_CLIENTS = (1, 8)
_NODE_SETTINGS = """
console_dir: {folder}/static
workers: {{public: 4, recycle_after: 100000000}}
nginx: {{requests_per_second: 1000000}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@contextlib.contextmanager
def node(root, build, folder, settings=_NODE_SETTINGS):
    """A private node with the benchmark's module; gives its address."""
    os.makedirs(f"{folder}/static")
    os.chmod(folder, 0o755)
    with open(f"{folder}/extra.yaml", "w", encoding="utf-8") as file:
        file.write(settings.format(folder=folder))
    process = subprocess.Popen(
        [f"{root}/script/node", "--state", f"{folder}/node", "--build", build, "--port", str(free_port()),
         "--module", f"{build}/lib/bench_ready.so", "--settings", f"{folder}/extra.yaml"],
        stdout=subprocess.PIPE, text=True)
    try:
        ready = process.stdout.readline().split()
        if ready[:1] != ["ready"]:
            raise RuntimeError("the node did not come up")
        yield ready[1]
    finally:
        process.send_signal(signal.SIGTERM)
        process.wait()


class Client:
    """A session of an account."""

    def __init__(self, url, folder, account="admin"):
        self.url = url
        self.headers = {"Content-Type": "application/json"}
        with open(f"{folder}/node/accounts.txt", encoding="utf-8") as file:
            password = dict(line.split() for line in file)[account]
        answer, cookie = self.send("KORV.Core.Session", "login", account=account, passwd=password)
        self.headers["Cookie"] = cookie.split(";")[0]
        self.headers["X-Korv-Csrf"] = json.loads(answer)["data"]["csrf"]

    @staticmethod
    def body(api, method, **parameters):
        return json.dumps({"api": api, "version": 1, "method": method, **parameters})

    def send(self, api, method, **parameters):
        """The answer's bytes and the cookie it sets."""
        request = urllib.request.Request(f"{self.url}/webapi", self.body(api, method, **parameters).encode(),
                                         self.headers)
        with urllib.request.urlopen(request, timeout=120) as answer:
            return answer.read(), answer.headers.get("Set-Cookie", "")


def fill(database, shares, cameras):
    """Puts so many shares and cameras, spread evenly over them, into the application database."""
    with contextlib.closing(sqlite3.connect(database, timeout=30)) as connection, connection:
        connection.execute("delete from recording_share")
        connection.execute("delete from camera")
        connection.executemany(
            "insert into recording_share (id_on_rec, owner_rv_id, name, path, volume, description, hidden, enc_type,"
            " fs_type, mount_type, mount_source, mount_status, auto_mount, migrating, rec_limit_gb, enable_rec_limit,"
            " total_size_mb) values (0, 0, ?, ?, 'volume1', 'Entrance and yard', 0, 0, 1, 0, '', 0, 0, 0, 100, 0,"
            " 4000000)",
            ((f"rec{i}", f"/volume1/rec{i}") for i in range(shares)))
        connection.executemany(
            "insert into camera (owner_rv_id, name, recording_path, rec_storage_status) values (0, ?, ?, 0)",
            ((f"camera {i}", f"/volume1/rec{i % shares}/camera{i}") for i in range(cameras)))


def check(answer, shares, cameras):
    """The figures are worth nothing when the answer is wrong."""
    data = json.loads(answer)["data"]
    if data["total"] != shares or sum(share["camCnt"] for share in data["sharelist"]) != cameras:
        raise RuntimeError("ListRecShare answered something else")


def row(what, clients, result):
    print(f"{what:38} {clients:7} {result['per_s']:10.1f} {result['p50_ms']:9.2f} {result['p99_ms']:9.2f} "
          f"{result['cpu_ms']:12.3f} {result['peak_mb']:9.1f}", flush=True)


def measure(url, client, folder, seconds):
    with open(f"{folder}/node/run/korvd.pid", encoding="utf-8") as file:
        korvd = int(file.read())
    print(f"{'':38} {'clients':>7} {'requests/s':>10} {'p50 ms':>9} {'p99 ms':>9} {'worker ms/rq':>12} {'peak MB':>9}")
    cpu_per_share = []
    for shares, cameras in _SIZES:
        fill(f"{folder}/node/state/pavane.db", shares, cameras)
        answer, _ = client.send("KORV.Pavane.Share", "ListRecShare")
        check(answer, shares, cameras)
        with open(f"{folder}/static/answer.json", "wb") as file:
            file.write(answer)
        os.chmod(f"{folder}/static/answer.json", 0o644)
        os.chmod(f"{folder}/static", 0o755)
        loads = (
            (f"{shares:,} shares, {cameras:,} cameras",
             Load(f"{url}/webapi", "POST", client.body("KORV.Pavane.Share", "ListRecShare"), client.headers)),
            (f"  ready text of {len(answer):,} bytes",
             Load(f"{url}/webapi", "POST", client.body("KORV.Bench.Ready", "get", bytes=len(answer)), client.headers)),
            ("  static file of that size", Load(f"{url}/answer.json")),
        )
        for what, load in loads:
            for clients in _CLIENTS:
                result = load.run(clients, seconds, korvd)
                row(what, clients, result)
                if load is loads[0][1] and clients == 1:
                    cpu_per_share.append(result["cpu_ms"] / shares)
    print(f"worker CPU per share, last size over first: {cpu_per_share[-1] / cpu_per_share[0]:.2f}")


def main():
    root, build = sys.argv[1:3]
    seconds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    with tempfile.TemporaryDirectory(prefix="pavane-bench.") as folder, node(root, build, folder) as url:
        measure(url, Client(url, folder), folder, seconds)


if __name__ == "__main__":
    main()
