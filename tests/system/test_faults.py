"""Processes that die at the wrong moment, and many clients at once."""

import concurrent.futures
import contextlib
import json
import os
import re
import signal
import sqlite3
import subprocess

import pytest
import requests

from node import SHARE_API, wait_until

# The system calls by which a creation changes anything, as strace names them.
_CHANGES = ("mkdirat,mkdir,openat2,ioctl,fchmod,fchmodat,fchown,fchownat,setxattr,fsetxattr,lsetxattr,pwrite64,write,"
            "fsync,fdatasync,ftruncate,renameat,renameat2,rename,unlinkat,unlink,symlink,symlinkat")
_MOST_STEPS = 400
_PARALLEL = 64


def rows(node, database, statement):
    with sqlite3.connect(f"file:{node.state}/state/{database}?mode=ro", uri=True) as connection:
        return connection.execute(statement).fetchall()


def is_there(node, path):
    return node.inside("test", "-d", path, check=False).returncode == 0


def expect_agreement(node, volume, name):
    """Row, folder and list say the same of a share, whatever happened while it was made, and no journal is open."""
    known = rows(node, "korv.db", f"select name from share where name = '{name}'")
    assert bool(known) == is_there(node, f"{volume}/{name}")
    if known:
        owner = node.inside("stat", "-c", "%U", f"{volume}/{name}").strip()
        assert owner == "root"
    listed = [share["sharePath"] for share in node.client("admin").list()]
    assert len(listed) == len(set(listed))
    if f"{volume}/{name}" in listed:
        assert known
    assert node.inside("find", volume, "-mindepth", "1", "-maxdepth", "1", "-name", ".korv*") == ""
    for journal in ("share_creation", "share_grant"):
        assert rows(node, "korv.db", f"select count(*) from {journal}") == [(0,)]


def expect_rights(node, path):
    rights = node.inside("getfacl", "-cp", path).splitlines()
    for line in ("user:Pavane:rwx", "group:administrators:rwx", "default:user:Pavane:rwx",
                 "default:group:administrators:rwx"):
        assert line in rights, rights


@contextlib.contextmanager
def killed_at(pid, step):
    """Kills `pid` as it enters its `step`-th change from now on."""
    with subprocess.Popen(["strace", "-qq", "-f", "-p", str(pid), "-o", "/dev/null", "-e", f"trace={_CHANGES}", "-e",
                           f"inject={_CHANGES}:signal=SIGKILL:when={step}"], stderr=subprocess.PIPE) as tracer:
        wait_until(lambda: is_traced(pid), "the worker is traced")
        try:
            yield
        finally:
            tracer.terminate()
            tracer.wait(20)


def is_traced(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return re.search(r"^TracerPid:\s+[1-9]", file.read(), re.MULTILINE) is not None


def lone_worker(node):
    """The process id of the only public worker, once it serves."""
    def find():
        workers = node.workers()
        return workers[0] if len(workers) == 1 and node.is_healthy() else None
    return wait_until(find, "there is one worker")


def finish(node, client, volume, name):
    """Repeats the creation until the share is complete; an earlier try may have got some of the way."""
    if name in [share["shareName"] for share in client.list()]:
        return
    exists = bool(rows(node, "korv.db", f"select name from share where name = '{name}'"))
    answer = client.create(name, volume, blAddExistShare=exists)
    assert answer["success"], answer


@pytest.mark.parametrize("volume", ["/volume1", "/volume2"])  # ext4 and Btrfs, where the folder is a subvolume
def test_a_worker_killed_at_any_step_of_a_creation_leaves_an_understandable_state(single_worker_node, volume):
    node = single_worker_node
    node.allow("RecShare of RV 0 is empty|worker [0-9]+ was killed by signal 9|"
               "(recv\\(\\) failed .*|upstream prematurely closed connection) while reading response header")
    client = node.client("admin")
    for step in range(1, _MOST_STEPS):
        name = f"step{step}on{volume[1:]}"
        worker = lone_worker(node)
        with killed_at(worker, step):
            response = client.post(json.dumps({"api": SHARE_API, "version": 1, "method": "CreateRecShare",
                                               "shareName": name, "volume": volume}))
        if response.status_code == 200:
            assert response.json()["success"], response.text
            break
        assert response.status_code == 503
        lone_worker(node)
        expect_agreement(node, volume, name)
        finish(node, client, volume, name)
        expect_agreement(node, volume, name)
        expect_rights(node, f"{volume}/{name}")
    else:
        pytest.fail(f"a creation takes more than {_MOST_STEPS} steps")
    assert step > 10, "the steps were really hit"


def test_a_killed_supervisor_is_answered_503_until_it_is_back(node, admin):
    node.allow("RecShare of RV 0 is empty|korvd ended with -9; starting it again|connect\\(\\) to unix:|"
               "(recv\\(\\) failed .*|upstream prematurely closed connection) while reading response header|"
               "ending the nginx [0-9]+ that an earlier korvd left|korvd serves on")
    os.kill(node.korvd, signal.SIGKILL)
    statuses = set()

    def is_back():
        with contextlib.suppress(requests.RequestException):
            statuses.add(requests.get(f"{node.url}/healthz", timeout=5).status_code)
        return 503 in statuses and node.is_healthy()

    wait_until(is_back, "the node answers again")
    assert statuses <= {200, 503}
    assert admin.list() is not None


def test_of_many_creations_of_one_name_exactly_one_wins(node):
    node.allow("Failed to create share with error|Failed to execute function after relay")
    client = node.client("admin")
    with concurrent.futures.ThreadPoolExecutor(_PARALLEL) as pool:
        answers = list(pool.map(lambda _: client.create("contested"), range(_PARALLEL)))
    assert [answer["success"] for answer in answers].count(True) == 1
    assert {answer["error"]["code"] for answer in answers if not answer["success"]} == {443}
    assert rows(node, "pavane.db", "select count(*) from recording_share where name = 'contested'") == [(1,)]
    expect_rights(node, "/volume1/contested")


def test_many_creations_of_different_names_all_succeed(node):
    client = node.client("admin")
    names = [f"parallel{number}" for number in range(_PARALLEL)]
    with concurrent.futures.ThreadPoolExecutor(_PARALLEL) as pool:
        answers = list(pool.map(lambda name: client.create(name, "/volume2"), names))
    assert all(answer["success"] for answer in answers), answers
    assert set(names) <= {share["shareName"] for share in client.list()}
    for name in names:
        assert is_there(node, f"/volume2/{name}")
