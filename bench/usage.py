""""ListShareUsage" with 100,000 rows of shares with real folders: of one share among many, and of all."""

import contextlib
import json
import os
import sqlite3
import sys
import tempfile

from candidates import inside
from list import Client, node
from load import Load

_ROWS = 100_000
_SHARES = 100
_APPLICATIONS = 26
_SETTINGS = """
console_dir: {folder}/static
workers: {{public: 1, recycle_after: 100000000}}
nginx: {{requests_per_second: 1000000}}
"""


def fill(database):
    with contextlib.closing(sqlite3.connect(database, timeout=30)) as connection, connection:
        connection.executemany(
            "insert into recording_share (id, id_on_rec, owner_rv_id, name, path, volume, description, hidden, enc_type,"
            " fs_type, mount_type, mount_source, mount_status, auto_mount, migrating, rec_limit_gb, enable_rec_limit,"
            " total_size_mb) values (?, 0, 0, ?, ?, 'volume1', '', 0, 0, 1, 0, '', 0, 0, 0, 100, 0, 4000000)",
            ((i, f"rec{i}", f"/volume1/rec{i}") for i in range(1, _SHARES + 1)))
        connection.executemany(
            "insert into shared_folder_storage (name, share_id, application_id) values (?, ?, ?)",
            ((f"folder{i}", i % _SHARES + 1, i % _APPLICATIONS) for i in range(_ROWS)))
        connection.execute("analyze")


def make_folders(korvd):
    folders = [f"/volume1/rec{i}" for i in range(1, _SHARES + 1)]
    inside(korvd, "install", "-d", "-m", "0700", *folders)
    return folders


def grant_recorder(korvd, rights, folders):
    inside(korvd, "setfacl", "-m", f"u:Pavane:{rights}", *folders)


def measure(url, client, korvd, seconds, row):
    """`row`: what is measured, its parameters, how many rows are read and how many of them are told."""
    what, parameters, read, told = row
    answer = json.loads(client.send("KORV.Pavane.Share", "ListShareUsage", **parameters)[0])
    if len(answer["data"]["usage"]) != told:
        raise RuntimeError("ListShareUsage answered something else")
    result = Load(f"{url}/webapi", "POST", client.body("KORV.Pavane.Share", "ListShareUsage", **parameters),
                  client.headers).run(1, seconds, korvd)
    print(f"{what:24} {read:8,} {told:8,} {result['per_s']:10.1f} {result['p50_ms']:9.2f} {result['p99_ms']:9.2f} "
          f"{result['cpu_ms']:10.3f} {result['p50_ms'] * 1000 / read:8.2f} {result['peak_mb']:8.1f}", flush=True)


def main():
    root, build = sys.argv[1:3]
    seconds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    with tempfile.TemporaryDirectory(prefix="pavane-bench.") as folder, \
            node(root, build, folder, _SETTINGS) as url:
        with open(f"{folder}/node/run/korvd.pid", encoding="utf-8") as file:
            korvd = int(file.read())
        fill(f"{folder}/node/state/pavane.db")
        folders = make_folders(korvd)
        grant_recorder(korvd, "rwx", folders)
        client = Client(url, folder)
        print(f"{'':24} {'rows':>8} {'told':>8} {'requests/s':>10} {'p50 ms':>9} {'p99 ms':>9} {'worker ms':>10} "
              f"{'us/row':>8} {'peak MB':>8}")
        share_rows = _ROWS // _SHARES
        measure(url, client, korvd, seconds, ("one share", {"shareId": 7}, share_rows, share_rows))
        measure(url, client, korvd, seconds, ("all, in order", {}, _ROWS, 0))
        grant_recorder(korvd, "r-x", folders)
        measure(url, client, korvd, seconds, ("all, closed to recorder", {}, _ROWS, _ROWS))


if __name__ == "__main__":
    os.umask(0o022)
    main()
