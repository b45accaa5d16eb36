"""The encryption of a share as a job, beside `cp -a` of the same files onto a folder encrypted in the same way."""

import contextlib
import json
import os
import socket
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

from list import Client

_SIZES = ((400, 2_000_000), (20_000, 10_000))  # files and bytes of each
_VOLUME_MB = 4096
_PASSWORD = "benchmark"
_POLL_S = 0.01
_VERIFY = 3  # the job's step once all is copied (MoveStep)


@contextlib.contextmanager
def node(root, build, folder):
    """A private node; gives its address and the process id of its daemon."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    process = subprocess.Popen([f"{root}/script/node", "--state", f"{folder}/node", "--build", build, "--port", str(port),
                                "--volume-mb", str(_VOLUME_MB)], stdout=subprocess.PIPE, text=True)
    try:
        ready = process.stdout.readline().split()
        if ready[:1] != ["ready"]:
            raise RuntimeError("the node did not come up")
        with open(f"{folder}/node/run/korvd.pid", encoding="utf-8") as file:
            yield ready[1], file.read().strip()
    finally:
        process.send_signal(signal.SIGTERM)
        process.wait()


def call(client, api, method, **parameters):
    answer = json.loads(client.send(api, method, **parameters)[0])
    if not answer["success"]:
        raise RuntimeError(f"{api} {method}: {answer['error']}")
    return answer.get("data")


def inside(pid, *command):
    subprocess.run(["nsenter", "-t", pid, "-m", "--", *command], check=True)


def create(client, name, encrypted):
    info = {"name": name, "vol_path": "/volume1"}
    if encrypted:
        info.update(encryption=True, enc_passwd=_PASSWORD)
    call(client, "KORV.Core.Share", "create", name=name, shareinfo=info)


def fill(pid, files, size):
    """Random content, so that nothing shares blocks or compresses."""
    script = ("import os,sys\nn,s=int(sys.argv[1]),int(sys.argv[2])\n"
              "for i in range(n):\n d=f'/volume1/plain/cam{i%8}/{i%40}'\n os.makedirs(d,exist_ok=True)\n"
              " open(f'{d}/{i}.mp4','wb').write(os.urandom(s))\n")
    inside(pid, "/usr/bin/python3", "-c", script, str(files), str(size))
    inside(pid, "sync", "-f", "/volume1")


def warm(pid):
    """Both read the source from memory."""
    inside(pid, "sh", "-c", "find /volume1/plain -type f -exec cat {} + > /dev/null")


def time_cp(client, pid):
    create(client, "copy", True)
    warm(pid)
    start = time.monotonic()
    inside(pid, "cp", "-a", "/volume1/plain/.", "/volume1/copy/")
    inside(pid, "sync", "-f", "/volume1")  # where the encrypted files are
    seconds = time.monotonic() - start
    call(client, "KORV.Core.Share", "delete", name="copy")
    return seconds


def time_move(client, pid, database):
    """Seconds from the start of the job until all is copied and on the disk, and until it is over."""
    warm(pid)
    job = call(client, "KORV.Core.Share", "set", name="plain",
               shareinfo={"encryption": True, "enc_passwd": _PASSWORD})["task_id"]
    start, copied = None, None
    with contextlib.closing(sqlite3.connect(f"file:{database}?mode=ro", uri=True, timeout=30)) as connection:
        while True:
            state, step = connection.execute("select state, step from job where id = ?", (job,)).fetchone()
            now = time.monotonic()
            start = now if start is None and state == "progressing" else start
            copied = now if copied is None and step >= _VERIFY else copied
            if state == "finished":
                break
            if state in ("failed", "cancelled"):
                raise RuntimeError(f"the job {state}")
            time.sleep(_POLL_S)
    call(client, "KORV.Core.Share", "delete", name="plain")
    return copied - start, now - start


def wait_for_space(database):
    with contextlib.closing(sqlite3.connect(f"file:{database}?mode=ro", uri=True, timeout=30)) as connection:
        while connection.execute("select count(*) from share_removal").fetchone()[0]:
            time.sleep(1)


def main(root, build, runs):
    print("| files | MB | `cp -a` MB/s | copying MB/s | ratio | with verification MB/s |\n|---|---|---|---|---|---|")
    with tempfile.TemporaryDirectory(prefix="pavane-bench.") as folder, node(root, build, folder) as (url, pid):
        client = Client(url, folder)
        database = f"{folder}/node/state/korv.db"
        for files, size in _SIZES:
            for _ in range(runs):
                create(client, "plain", False)
                fill(pid, files, size)
                megabytes = files * size / 1e6
                cp_s = time_cp(client, pid)
                wait_for_space(database)
                copied_s, whole_s = time_move(client, pid, database)
                wait_for_space(database)
                print(f"| {files:,} | {megabytes:.0f} | {megabytes / cp_s:.0f} | {megabytes / copied_s:.0f} "
                      f"| {cp_s / copied_s:.2f} | {megabytes / whole_s:.0f} |", flush=True)


if __name__ == "__main__":
    os.umask(0o022)
    main(sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) > 3 else 3)
