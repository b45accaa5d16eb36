"""Steps that the tests of a share's life have in common."""

import contextlib
import hashlib
import os
import sqlite3
import subprocess

from node import SHARE_API, wait_until

NAS = "KORV.Core.Share"
JOBS = "KORV.Core.Job"
PASSWORD = "s3cret \"$\" ü"


def rows(node, database, statement):
    with contextlib.closing(sqlite3.connect(f"file:{node.state}/state/{database}?mode=ro", uri=True)) as connection:
        return connection.execute(statement).fetchall()


def is_there(node, path):
    return node.inside("test", "-e", path, check=False).returncode == 0


def make(admin, name, volume="/volume1", **parameters):
    """A new recording share as the list shows it."""
    answer = admin.create(name, volume, **parameters)
    assert answer["success"], answer
    return find(admin, name)


def find(admin, name):
    """The listed recording share of that name, or None."""
    shares = admin.list(blIncldMigrating=True, blIncldEncUnmount=True, blIncldRemoteAbnormal=True)
    found = [share for share in shares if share["shareName"] == name]
    assert len(found) < 2
    return found[0] if found else None


def fill(node, path, files=30, size_kb=200):
    """Puts files with random content into a folder; gives what checksums() will say."""
    for number in range(files):
        folder = f"{path}/cam{number % 3}/2026 {number % 5} ä"
        node.inside("mkdir", "-p", folder)
        node.inside("dd", f"of={folder}/{number}.mp4", "bs=1k", "status=none", input=os.urandom(size_kb * 1024),
                    text=False)
    node.inside("ln", "-s", "../../etc", f"{path}/link")
    return checksums(node, path)


def checksums(node, path):
    """A digest over names, modes, owners and contents below a folder."""
    listing = node.inside("sh", "-c", 'cd "$1" && find . -mindepth 1 -printf "%y %m %u %p %l\\n" | sort && '
                          'find . -type f -print0 | sort -z | xargs -0 -r sha256sum', "sh", path)
    return hashlib.sha256(listing.encode()).hexdigest() + f" of {len(listing.splitlines())} lines"


def edit(admin, share, **changes):
    parameters = {"shareId": share["shareId"], "shareName": share["shareName"], "description": share["description"],
                  "blHideShare": share["blHidden"], "blRecLimit": share["enableRecLimit"],
                  "recLimitGB": share["recLimitGB"]}
    return admin.call(SHARE_API, "EditRecShare", **{**parameters, **changes})


def delete(admin, *shares, keep=False):
    items = [{"shareId": share["shareId"], "shareRvId": 0, "sharePath": share["sharePath"]} for share in shares]
    return admin.call(SHARE_API, "DelRecShare", blKeepOskShare=keep, delShareList=items)


def nas(admin, name):
    """The shared folder as the NAS knows it, or None."""
    answer = admin.call(NAS, "get", name=name)
    return answer["data"] if answer["success"] else None


def wait_for_job(admin, job_id, deadline_s=120):
    """The job once it is over."""
    def over():
        job = next(job for job in admin.call(JOBS, "list")["data"]["jobs"] if job["id"] == job_id)
        return job if job["finish"] else None
    return wait_until(over, f"job {job_id} is over", deadline_s)


def latest_job(admin):
    return admin.call(JOBS, "list")["data"]["jobs"][0]["id"]


def wait_for_freed(node, volume):
    """Until the space of deleted shares is free again: nothing hidden is left but empty folders."""
    wait_until(lambda: not rows(node, "korv.db", "select * from share_removal"), "removed shares are freed")
    left = node.inside("sh", "-c", f"ls -d {volume}/.korv-* 2>/dev/null; ls -A {volume}/.korv/* 2>/dev/null | "
                       "grep -v '/.korv/' | grep .", check=False)
    assert left.stdout == "", left.stdout


def remove_all_shares(node):
    """Neither a record nor a shared folder is left, nor anything of them on the volumes."""
    client = node.client("admin")
    records = client.list(blIncldMigrating=True, blIncldEncUnmount=True, blIncldRemoteAbnormal=True)
    assert delete(client, *records, keep=True)["success"]
    names = [share["name"] for share in client.call(NAS, "list")["data"]["shares"]]
    assert client.call(NAS, "delete", name=names)["success"], names
    for volume in ("/volume1", "/volume2"):
        wait_for_freed(node, volume)


@contextlib.contextmanager
def opened(node, path):
    """A process of the node that has the file open."""
    with subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", "sh", "-c", 'exec 3<"$1"; echo open; read end',
                           "sh", path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
        try:
            assert process.stdout.readline() == "open\n"
            yield
        finally:
            process.stdin.close()
            process.wait(20)
