"""A volume that goes away while a share on it is being encrypted."""

import pytest

from life import JOBS, NAS, PASSWORD, checksums, delete, fill, find, make, nas, rows, wait_for_job
from node import Node, wait_until

_EXPECTED = ("connect\\(\\) to|korvd (serves|ends)|RecShare of RV 0 is empty|job [0-9]+|was not (changed|removed)|"
             "kept for later|Failed to edit share|Failed to execute")


@pytest.fixture
def own_node():
    with Node() as node:
        node.allow(_EXPECTED)
        yield node
        assert node.unexpected_lines() == []


@pytest.mark.parametrize("percent", [10, 60])
def test_a_move_whose_volume_goes_away_loses_nothing(own_node, percent):
    node, admin = own_node, own_node.client("admin")
    make(admin, "rec")
    content = fill(node, "/volume1/rec", 60, 700)
    answer = admin.call(NAS, "set", name="rec", shareinfo={"encryption": True, "enc_passwd": PASSWORD})
    job = answer["data"]["task_id"]
    wait_until(lambda: rows(node, "korv.db", f"select 1 from job where id = {job} and percent >= {percent}"),
               "the move is so far")
    node.inside("umount", "-l", "/volume1")
    try:
        wait_until(lambda: rows(node, "korv.db", f"select 1 from job where id = {job} and state != 'progressing'"),
                   "the move has noticed", 60)
        assert admin.call(NAS, "set", name="rec", shareinfo={"name": "other"})["success"] is False
        assert admin.call(NAS, "delete", name="rec")["success"] is False
    finally:
        node.inside("mount", "-o", "loop,nosuid,nodev", f"{node.state}/volume1.img", "/volume1")
    done = wait_for_job(admin, job)
    assert done["state"] in ("finished", "failed"), done
    assert nas(admin, "rec")["encryption"] == (2 if done["state"] == "finished" else 0)
    assert checksums(node, "/volume1/rec") == content
    if done["state"] == "failed":
        assert node.inside("sh", "-c", "find /volume1/.korv -mindepth 2") == ""
        answer = admin.call(NAS, "set", name="rec", shareinfo={"encryption": True, "enc_passwd": PASSWORD})
        assert wait_for_job(admin, answer["data"]["task_id"])["state"] == "finished"
        assert checksums(node, "/volume1/rec") == content
    assert delete(admin, find(admin, "rec"))["success"]
    assert nas(admin, "rec") is None
    assert all(each["finish"] for each in admin.call(JOBS, "list")["data"]["jobs"])
