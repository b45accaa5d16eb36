"""Who is offered an external disk whose file system keeps no access lists, as FAT and HFS+ don't."""

import contextlib
import os
import subprocess

import pytest

from candidates import candidates
from external_disk import Disk, device_manager

_APP_PRIVILEGE = {"user": "viewer", "app": "KORV.KRX.Pavane"}


class SquashDisk(Disk):
    """A disk that can only be read, by its root's owner, group and others as `mode` says."""

    def __init__(self, node, source, mode, group):
        self.source = source
        source.mkdir()
        os.chown(source, 0, group)
        source.chmod(mode)
        super().__init__(node, file_system="squashfs")

    def make_file_system(self, size_mb=64):
        subprocess.run(["mksquashfs", str(self.source), self.image, "-quiet", "-no-progress", "-noappend"], check=True,
                       stdout=subprocess.DEVNULL)


@contextlib.contextmanager
def attached(node, *arguments):
    disk = SquashDisk(node, *arguments)
    try:
        disk.mount()
        yield disk
    finally:
        disk.pull()
        os.unlink(disk.image)


@pytest.fixture(name="viewer")
def fixture_viewer(node, admin):
    assert admin.call("KORV.Core.AppPriv", "grant", **_APP_PRIVILEGE)["success"]
    yield node.client("viewer")
    assert admin.call("KORV.Core.AppPriv", "revoke", **_APP_PRIVILEGE)["success"]


def test_a_disk_without_access_lists_is_offered_as_its_mode_says(node, admin, viewer, tmp_path):
    administrators = int(node.inside("getent", "group", "administrators").split(":")[2])
    with device_manager(node), attached(node, tmp_path / "open", 0o755, 0) as everybodys, \
            attached(node, tmp_path / "closed", 0o750, administrators) as theirs:
        assert sorted(candidates(admin, 2)) == sorted([everybodys.share, theirs.share])
        assert list(candidates(viewer, 2)) == [everybodys.share]
        assert candidates(admin, 1) == candidates(viewer, 1) == {}  # nobody writes there
        assert candidates(admin, 2)[everybodys.share]["freesize"] == 0
        assert node.unexpected_lines() == []
