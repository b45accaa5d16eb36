"""Who is offered an external disk."""

import contextlib
import os
import subprocess

import pytest

from candidates import candidates
from external_disk import Disk, attached, device_manager


class SquashDisk(Disk):
    """A disk without access lists, as those with FAT and HFS+ are, and for reading only: by its root's owner, group and
    others as `mode` says."""

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
def squash_disk(node, *arguments):
    disk = SquashDisk(node, *arguments)
    try:
        disk.mount()
        yield disk
    finally:
        disk.pull()
        os.unlink(disk.image)


def test_a_disk_without_access_lists_is_offered_as_its_mode_says(node, admin, viewer, tmp_path):
    administrators = int(node.inside("getent", "group", "administrators").split(":")[2])
    with device_manager(node), squash_disk(node, tmp_path / "open", 0o755, 0) as everybodys, \
            squash_disk(node, tmp_path / "closed", 0o750, administrators) as theirs:
        assert sorted(candidates(admin, 2)) == sorted([everybodys.share, theirs.share])
        assert list(candidates(viewer, 2)) == [everybodys.share]
        assert candidates(admin, 1) == candidates(viewer, 1) == {}  # nobody writes there
        assert candidates(admin, 2)[everybodys.share]["freesize"] == 0
        assert node.unexpected_lines() == []


@pytest.fixture(name="disk", params=["usb", "esata"])
def fixture_disk(node, request):
    """A mounted disk of each kind by turns."""
    with device_manager(node), attached(node, kind=request.param) as disk:
        disk.mount()
        yield disk


def offered(client, share, /, **parameters):
    """The masks with which the disk is offered."""
    return [mask for mask in (1, 2, 3) if share in candidates(client, mask, **parameters)]


@pytest.mark.parametrize("mode, masks", [("500", [2, 3]), ("300", [1, 3]), ("700", [1, 2, 3])])
def test_a_disk_of_one_account_is_offered_to_nobody_else(node, admin, viewer, disk, mode, masks):
    clients = {"admin": admin, "viewer": viewer}
    for owner, client in clients.items():
        node.inside("chown", owner, disk.place)
        node.inside("chmod", mode, disk.place)
        assert offered(client, disk.share) == masks
        assert all(offered(other, disk.share) == [] for other in clients.values() if other is not client)


@pytest.mark.parametrize("parameters", [{"client": "NVR"}, {"isRedirectCgi": True}], ids=str)
def test_what_counts_as_admins_request_is_offered_admins_disks(node, viewer, disk, parameters):
    node.inside("chown", "admin", disk.place)
    node.inside("chmod", "500", disk.place)
    assert offered(viewer, disk.share, **parameters) == [2, 3]
    assert offered(viewer, disk.share) == []
