"""A limit on a share's recordings: the oldest go, and the event log says so."""

import pytest

from candidates import CommandLine
from life import edit, make
from node import Node, wait_until

_FILE_MB = 100
_DAY = "2026-01-{:02}"


@pytest.fixture
def node():
    """A node whose volumes have room for more than the least limit, which is 1 GB."""
    with Node("--volume-mb", "3000") as node:
        node.allow("RecShare of RV 0 is empty")
        yield node
        assert node.unexpected_lines() == []


def record(node, folder, count):
    """Recordings "01" to "<count>" of one day each, the oldest first; only their size is real."""
    node.inside("mkdir", "-p", folder)
    for number in range(1, count + 1):
        path = f"{folder}/{number:02}"
        node.inside("fallocate", "-l", f"{_FILE_MB}M", path)
        node.inside("touch", "-d", _DAY.format(number), path)


def left(node, folder):
    return node.inside("ls", folder).split()


def test_the_oldest_recordings_go_and_the_event_log_tells(node, tmp_path):
    admin = node.client("admin")
    pavane = CommandLine(node, "admin", tmp_path)
    rec, free = make(admin, "rec"), make(admin, "free")
    record(node, "/volume1/rec/gate", 12)
    record(node, "/volume1/free/gate", 12)
    node.inside("ln", "-s", "/volume1/free/gate", "/volume1/rec/other")
    assert edit(admin, rec, blRecLimit=True, recLimitGB=1)["success"]

    wait_until(lambda: len(left(node, "/volume1/rec/gate")) < 12, "recordings are removed")
    wait_until(lambda: "were removed" in pavane.run("event", "list"), "the event log tells")
    kept = [f"{number:02}" for number in range(3, 13)]
    assert left(node, "/volume1/rec/gate") == kept
    events = [line for line in pavane.run("event", "list").splitlines() if "were removed" in line]
    assert len(events) == 1
    assert "SYSTEM" in events[0] and events[0].endswith(
        "The oldest recordings of share rec were removed: 2 files, 200 MB, from 2026-01-01 00:00:00 UTC to "
        "2026-01-02 00:00:00 UTC.")

    # By itself, without anybody's asking, at its next turn after a restart.
    node.inside("fallocate", "-l", f"{_FILE_MB}M", "/volume1/rec/gate/13")
    node.allow("korvd (serves|ends)|public.sock failed|connect")
    node.stop()
    node.start()
    wait_until(lambda: left(node, "/volume1/rec/gate") == kept[1:] + ["13"], "the next one goes")
    assert len(left(node, "/volume1/free/gate")) == 12 and left(node, "/volume1/rec/other") == left(
        node, "/volume1/free/gate")
