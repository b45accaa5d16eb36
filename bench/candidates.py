""""List" for 10, 100 and 1,000 shares and a user in 100 groups, each of which may write into some of them."""

import json
import os
import re
import subprocess
import sys
import tempfile
import time

from list import Client, node
from load import Load, workers

_SIZES = (10, 100, 1_000)
_GROUPS = 100
_FIRST_GROUP_ID = 70_000
_USER = "viewer"
_PARAMETERS = {"sharePriv": 1}
_TRACED_S = 60
_SETTINGS = """
console_dir: {folder}/static
workers: {{public: 1, recycle_after: 100000000}}
nginx: {{requests_per_second: 1000000}}
"""


def inside(korvd, *command, text=""):
    subprocess.run(["nsenter", "-t", str(korvd), "-m", "--", *command], check=True, input=text.encode(),
                   stdout=subprocess.DEVNULL)


def call(client, api, method, **parameters):
    answer = json.loads(client.send(api, method, **parameters)[0])
    if not answer["success"]:
        raise RuntimeError(f"{api} {method}: {answer['error']}")
    return answer.get("data")


def join_groups(korvd):
    lines = "".join(f"bench{i}:x:{_FIRST_GROUP_ID + i}:{_USER}\n" for i in range(_GROUPS))
    inside(korvd, "tee", "-a", "/etc/group", text=lines)


def make_shares(client, begin, end):
    """Every other one on each volume; each is open to one of the groups."""
    for i in range(begin, end):
        name = f"share{i}"
        call(client, "KORV.Core.Share", "create", name=name,
             shareinfo={"name": name, "vol_path": f"/volume{1 + i % 2}"})
        call(client, "KORV.Core.Share.Permission", "set", name=name, user_group_type="local_group",
             permissions=[{"name": f"bench{i % _GROUPS}", "is_writable": True}])


def is_traced(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return "TracerPid:\t0\n" not in file.read()


def system_calls(client, korvd):
    """How many system calls the worker and its children make for one request."""
    with tempfile.NamedTemporaryFile("r", encoding="utf-8") as counts:
        pids = [option for pid in workers(korvd) for option in ("-p", str(pid))]
        tracer = subprocess.Popen(["strace", "-qq", "-f", "-c", "-U", "calls,name", *pids, "-o", counts.name],
                                  stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + _TRACED_S
        while not all(is_traced(pid) for pid in workers(korvd)) and time.monotonic() < deadline:
            time.sleep(0.05)
        call(client, "KORV.Pavane.Share", "List", **_PARAMETERS)
        tracer.terminate()
        tracer.wait()
        text = counts.read()
    return {name: int(count) for count, name in re.findall(r"^\s*(\d+) (\w+)$", text, re.MULTILINE)
            if name != "total"}


def measure(url, admin, client, korvd, seconds):
    print(f"{'':14} {'requests/s':>10} {'p50 ms':>9} {'p99 ms':>9} {'worker ms':>10} {'ms/share':>9} {'calls':>8} "
          f"{'calls/share':>11}")
    made, before = 0, 0
    for shares in _SIZES:
        make_shares(admin, made, shares)
        calls = system_calls(client, korvd)
        data = call(client, "KORV.Pavane.Share", "List", **_PARAMETERS)
        if data["total"] != shares or not all(share["freesize"] > 0 for share in data["sharelist"]):
            raise RuntimeError("List answered something else")
        result = Load(f"{url}/webapi", "POST", client.body("KORV.Pavane.Share", "List", **_PARAMETERS),
                      client.headers).run(1, seconds, korvd)
        total = sum(calls.values())
        print(f"{shares:7,} shares {result['per_s']:10.1f} {result['p50_ms']:9.2f} {result['p99_ms']:9.2f} "
              f"{result['cpu_ms']:10.3f} {result['p50_ms'] / shares:9.4f} {total:8,} "
              f"{(total - before) / (shares - made):11.1f}", flush=True)
        made, before = shares, total
    names = sorted(calls, key=calls.get, reverse=True)[:12]
    print("most often: " + ", ".join(f"{name} {calls[name]:,}" for name in names))


def main():
    root, build = sys.argv[1:3]
    seconds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    with tempfile.TemporaryDirectory(prefix="pavane-bench.") as folder, \
            node(root, build, folder, _SETTINGS) as url:
        with open(f"{folder}/node/run/korvd.pid", encoding="utf-8") as file:
            korvd = int(file.read())
        join_groups(korvd)
        admin = Client(url, folder)
        call(admin, "KORV.Core.AppPriv", "grant", user=_USER, app="KORV.KRX.Pavane")
        measure(url, admin, Client(url, folder, _USER), korvd, seconds)


if __name__ == "__main__":
    os.umask(0o022)
    main()
