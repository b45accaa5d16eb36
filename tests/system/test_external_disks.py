"""External disks among the candidates: they come, are used and are pulled."""

import contextlib
import os
import signal
import subprocess
import threading
import time

import pytest

from candidates import CommandLine, candidates
from external_disk import STATE_FILE, attached, device_manager
from node import SHARE_API, wait_until

_SYSTEM_FILE = "/etc/korvinfo.conf"
_UNUSABLE = "Unable to get share name of external device"


@pytest.fixture(scope="module", autouse=True)
def fixture_device_manager(shared_node):
    with device_manager(shared_node):
        yield


@pytest.fixture(name="disk")
def fixture_disk(node):
    """A USB disk that is mounted; everybody may read what is on it."""
    with attached(node) as disk:
        disk.mount()
        yield disk


@contextlib.contextmanager
def traced(node, disk, fault):
    """The workers' questions for the size of what is mounted from `disk` fare as `fault` says."""
    workers = [option for pid in node.workers() for option in ("-p", str(pid))]
    with subprocess.Popen(["strace", "-qq", *workers, "-o", "/dev/null", "-P", disk.place, "-e", "trace=statfs", "-e",
                           f"inject=statfs:{fault}"], stderr=subprocess.DEVNULL) as tracer:
        wait_until(lambda: all(is_traced(pid) for pid in node.workers()), "the workers are traced")
        try:
            yield
        finally:
            tracer.terminate()
            tracer.wait(20)


def is_traced(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        return "TracerPid:\t0\n" not in file.read()


def state_of(node, disk):
    lines = dict(line.split("=") for line in node.inside("cat", STATE_FILE).splitlines())
    return lines[disk.name].strip('"')


def set_state(node, disk, state):
    node.inside("sh", "-c", f"echo '{disk.name}={state}' > {STATE_FILE}")


def test_an_attached_disk_appears_and_disappears(node, admin, viewer):
    assert candidates(admin, 3) == {}
    with attached(node) as disk:
        node.allow(_UNUSABLE)
        assert candidates(admin, 3) == {}  # not mounted yet
        disk.mount()
        total, free = disk.size_mb()
        element = {"value": disk.share, "freesize": free, "display": f"{disk.share}({total - free}/{total} MB)"}
        assert 40 < free < total < 64
        # Nobody but root may write there; everybody may read.
        assert candidates(admin, 2) == candidates(viewer, 2) == {disk.share: element}
        assert candidates(admin, 1) == candidates(viewer, 1) == {}
        assert candidates(admin, 3, blLocalOnly=True) == {}
        assert state_of(node, disk) == "done"
    assert candidates(admin, 3) == candidates(viewer, 3) == {}
    assert node.inside("cat", STATE_FILE) == ""


def test_a_disk_of_more_than_a_gigabyte_is_shown_in_gigabytes(node, admin):
    with attached(node, size_mb=1100) as disk:
        disk.mount()
        total, free = disk.size_mb()
        assert total > 1024
        assert candidates(admin, 2)[disk.share]["display"] == \
            f"{disk.share}({(total - free) / 1024:.2f}/{total / 1024:.2f} GB)"


def test_disks_of_both_kinds_are_offered_usb_first(node, admin, disk):
    with attached(node, kind="esata") as other:
        other.mount()
        assert list(candidates(admin, 2)) == [disk.share, other.share]
        assert other.share.startswith("satashare")


def test_what_people_write_counts(node, viewer, disk):
    node.inside("chmod", "777", disk.place)
    before = candidates(viewer, 1)[disk.share]["freesize"]
    node.inside("dd", "if=/dev/urandom", f"of={disk.place}/recording", "bs=1M", "count=10", "conv=fsync")
    assert candidates(viewer, 1)[disk.share]["freesize"] == before - 10


def test_the_command_line_shows_disks(node, disk, tmp_path):
    rows = CommandLine(node, "admin", tmp_path).run("candidates", "--right", "read").splitlines()
    total, free = disk.size_mb()
    assert rows[1].split() == [f"{disk.share}({total - free}/{total}", "MB)", "external", "disk", str(free), "MB"]
    assert len(CommandLine(node, "admin", tmp_path).run("candidates", "--right", "read", "--local").splitlines()) == 1


def test_a_disk_that_failed_is_not_offered_until_it_comes_back(node, admin, disk):
    assert disk.share in candidates(admin, 2)
    set_state(node, disk, "fail")
    assert candidates(admin, 2) == candidates(admin, 2) == {}
    disk.pull()
    assert candidates(admin, 2) == {}
    assert node.inside("cat", STATE_FILE) == ""


def test_another_disk_in_the_place_of_one_that_failed_is_offered(node, admin, disk):
    assert disk.share in candidates(admin, 2)
    set_state(node, disk, "fail")
    assert candidates(admin, 2) == {}
    disk.swap()
    disk.mount()
    assert list(candidates(admin, 2)) == [disk.share]
    assert state_of(node, disk) == "done"


@pytest.mark.parametrize("program", ["mkfs.ext4", "fsck.ext4"])
def test_a_disk_at_work_is_not_offered(node, admin, disk, program):
    """What counts is the command line of whatever runs."""
    state = "formatting" if program == "mkfs.ext4" else "fsck"
    with subprocess.Popen(["sh", "-c", "read wait", disk.device], executable="/bin/sh", stdin=subprocess.PIPE) as other:
        assert disk.share in candidates(admin, 2)
        other.stdin.close()
        other.wait()
    with subprocess.Popen([program, "-c", "read wait", disk.device], executable="/bin/sh",
                          stdin=subprocess.PIPE) as work:
        try:
            assert candidates(admin, 2) == {}
            assert state_of(node, disk) == state
        finally:
            work.stdin.close()
            work.wait()
    assert disk.share in candidates(admin, 2)


def test_states_that_somebody_else_wrote_do_not_count(node, admin, disk):
    set_state(node, disk, "fail")
    node.inside("chown", "viewer", STATE_FILE)
    assert disk.share in candidates(admin, 2)
    assert state_of(node, disk) == "done"
    assert node.inside("stat", "-c", "%U %a", STATE_FILE) == "root 644\n"
    set_state(node, disk, "fail")
    node.inside("chown", "Pavane", STATE_FILE)
    assert candidates(admin, 2) == {}


def as_viewer(node, *command):
    node.inside("setpriv", "--reuid", "viewer", "--regid", "viewer", "--init-groups", *command)


def test_a_folder_in_the_place_of_the_states_is_moved_aside_with_what_is_in_it(node, admin, disk):
    node.inside("rm", "-f", STATE_FILE)
    as_viewer(node, "mkdir", STATE_FILE)
    as_viewer(node, "touch", f"{STATE_FILE}/mine")
    assert list(candidates(admin, 2)) == [disk.share]
    assert state_of(node, disk) == "done"
    (line,) = node.unexpected_lines()
    said, aside = line.removesuffix(" now").rsplit(" and is ", 1)
    assert said.endswith(f"a folder lay in the place of {STATE_FILE}")
    assert node.inside("stat", "-c", "%U", aside, f"{aside}/mine") == "viewer\nviewer\n"


def test_a_link_in_the_place_of_the_states_is_replaced_and_not_followed(node, admin, disk):
    node.inside("rm", "-f", STATE_FILE)
    node.inside("tee", "/srv/target", input=f"{disk.name}=fail\n")
    as_viewer(node, "ln", "-s", "/srv/target", STATE_FILE)
    assert list(candidates(admin, 2)) == [disk.share]
    assert node.inside("stat", "-c", "%F %U %a", STATE_FILE) == "regular file root 644\n"
    assert node.inside("cat", "/srv/target") == f"{disk.name}=fail\n"
    node.inside("rm", "/srv/target")


def test_nobodys_process_can_be_called_at_work_on_a_disk(node, admin, disk):
    with subprocess.Popen(["mkfs.ext4", "-c", "read wait", disk.device], executable="/bin/sh", stdin=subprocess.PIPE,
                          user=65534, group=65534, extra_groups=[]) as pretender:
        try:
            assert list(candidates(admin, 2)) == [disk.share]
        finally:
            pretender.stdin.close()
            pretender.wait()


def test_a_disk_that_is_pulled_while_it_is_mounted_is_not_offered(node, admin, disk):
    """What is mounted from it stays in the list of mounts."""
    assert list(candidates(admin, 2)) == [disk.share]
    with open(disk.image, "r+b") as file:
        file.truncate(0)
    node.inside("losetup", "--set-capacity", disk.device)
    assert disk.place in node.inside("cat", "/proc/self/mounts")
    assert candidates(admin, 2) == {}
    assert node.inside("cat", STATE_FILE) == ""


def test_a_disk_may_be_pulled_while_it_is_listed(node, admin, disk):
    node.allow(f"{_UNUSABLE}|Failed to get usb disk")
    answers = []
    stopped = threading.Event()

    def ask():
        client = node.client("admin")
        while not stopped.is_set():
            answers.append(client.call(SHARE_API, "List", sharePriv=2))

    asking = [threading.Thread(target=ask) for _ in range(3)]
    for each in asking:
        each.start()
    try:
        wait_until(lambda: len(answers) > 20, "some lists were read")
        disk.pull()
        count = len(answers)
        wait_until(lambda: len(answers) > count + 20, "more lists were read")
    finally:
        stopped.set()
        for each in asking:
            each.join()
    assert all(answer["success"] for answer in answers)
    assert answers[0]["data"]["total"] == 1
    assert answers[-1]["data"]["total"] == 0
    assert candidates(admin, 2) == {}


def test_a_disk_that_cannot_tell_its_size_is_offered_without_one(node, admin, disk):
    with traced(node, disk, "error=ENODEV"):
        assert candidates(admin, 2) == {
            disk.share: {"value": disk.share, "freesize": 0, "display": f"{disk.share}(0/0 MB)"}}


def test_a_disk_that_vanishes_before_its_size_is_read_is_not_offered(node, admin, disk):
    with traced(node, disk, "delay_enter=2000000"):
        answers = []
        asking = threading.Thread(target=lambda: answers.append(admin.call(SHARE_API, "List", sharePriv=2)))
        asking.start()
        wait_until(lambda: any(is_waiting(pid, disk) for pid in node.workers()), "a worker asks for the size")
        disk.pull()
        asking.join()
    assert answers == [{"success": True, "data": {"sharelist": [], "total": 0}}]


def is_waiting(pid, disk):
    """A worker whose call for the size is held up: its argument is the disk's place."""
    with contextlib.suppress(OSError, ValueError), open(f"/proc/{pid}/syscall", encoding="utf-8") as file:
        number, address = file.read().split()[:2]
        if int(number) == 137:
            with open(f"/proc/{pid}/mem", "rb") as memory:
                memory.seek(int(address, 16))
                return memory.read(len(disk.place)) == os.fsencode(disk.place)
    return False


@pytest.fixture(name="ntfs_disk")
def fixture_ntfs_disk(node):
    with attached(node, file_system="ntfs") as disk:
        disk.mount()
        try:
            yield disk
        finally:
            node.inside("rm", "-f", _SYSTEM_FILE)


def test_ntfs_is_offered_where_the_machine_says_it_can_write_it(node, admin, viewer, ntfs_disk):
    assert candidates(admin, 3) == {}
    node.inside("tee", _SYSTEM_FILE, input='supportntfswrite="no"\n')
    assert candidates(admin, 3) == {}
    node.inside("tee", _SYSTEM_FILE, input='supportntfswrite="yes"\n')
    total, free = ntfs_disk.size_mb()
    element = {"value": ntfs_disk.share, "freesize": free, "display": f"{ntfs_disk.share}({total - free}/{total} MB)"}
    assert candidates(admin, 1) == candidates(viewer, 1) == {ntfs_disk.share: element}


def test_a_disk_that_hangs_holds_nobody_up_and_the_log_says_so(node, admin, ntfs_disk):
    node.inside("tee", _SYSTEM_FILE, input='supportntfswrite="yes"\n')
    assert candidates(admin, 1) != {}
    server = ntfs_disk.server()
    os.kill(server, signal.SIGSTOP)
    try:
        start = time.monotonic()
        assert candidates(admin, 1) == {}
        assert time.monotonic() - start < 10
        (line,) = node.unexpected_lines()
        assert line.endswith(f"external disk {ntfs_disk.device}: {ntfs_disk.place} doesn't answer")
    finally:
        os.kill(server, signal.SIGCONT)


def test_another_disk_in_the_place_of_one_that_hung_is_asked_at_once(node, admin, ntfs_disk):
    node.inside("tee", _SYSTEM_FILE, input='supportntfswrite="yes"\n')
    server = ntfs_disk.server()
    os.kill(server, signal.SIGSTOP)
    try:
        clients = [node.client("admin") for _ in node.workers()]
        asking = [threading.Thread(target=candidates, args=(client, 1)) for client in clients]
        for each in asking:
            each.start()
        for each in asking:
            each.join()
        met = {line.partition("[")[2].partition("]")[0] for line in node.unexpected_lines()}
        assert met == {str(pid) for pid in node.workers()}
    finally:
        os.kill(server, signal.SIGCONT)
    ntfs_disk.swap()
    ntfs_disk.mount()
    for _ in range(20):
        assert list(candidates(admin, 1)) == [ntfs_disk.share]


@contextlib.contextmanager
def hanging_disk(node):
    """An ext4 disk whose image lies on another; gives it and a function that makes every read from it hang."""
    with attached(node, kind="host", size_mb=128, file_system="ntfs") as host:
        host.mount()
        server = host.server()
        with attached(node, size_mb=32, folder=host.place) as disk:
            def hang():
                forget(node, disk)
                os.kill(server, signal.SIGSTOP)

            try:
                yield disk, hang
            finally:
                os.kill(server, signal.SIGCONT)


def forget(node, disk):
    """Nothing of the disk or its image stays in memory."""
    node.inside("dd", f"of={disk.inner_image}", "oflag=nocache", "conv=notrunc,fdatasync", "count=0")
    node.inside("dd", f"if={disk.inner_image}", "iflag=nocache", "count=0")


def test_a_disk_that_hangs_before_it_is_mounted_holds_nobody_up(node, admin, disk):
    with hanging_disk(node) as (other, hang):
        hang()
        start = time.monotonic()
        assert list(candidates(admin, 2)) == [disk.share]
        assert time.monotonic() - start < 10
        (line,) = node.unexpected_lines()
        assert line.endswith(f"external disk {other.device} doesn't answer")


def test_a_mounted_disk_that_hangs_is_left_out_whatever_its_file_system(node, admin, disk):
    with hanging_disk(node) as (other, hang):
        # In so small an inode there is no room for rights, which are read with the first question for them.
        node.inside("mkfs.ext4", "-q", "-F", "-I", "128", other.device)
        other.mount()
        node.inside("setfacl", "-m", "u:viewer:rwx", other.place)
        node.inside("umount", other.place)
        node.inside("mount", other.device, other.place)
        hang()
        start = time.monotonic()
        assert list(candidates(admin, 2)) == [disk.share]
        assert time.monotonic() - start < 10
        (line,) = node.unexpected_lines()
        assert line.endswith(f"external disk {other.device}: {other.place} doesn't answer")
