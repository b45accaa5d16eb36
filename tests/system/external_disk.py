"""Loop devices that a device manager of the node's own presents as external disks."""

import contextlib
import os
import secrets
import subprocess

from candidates import MB
from node import wait_until

# Disks of this run only: other nodes on this machine have loop devices too.
_MARK = f"disk-{secrets.token_hex(8)}"
_RULES = f"""
SUBSYSTEM=="block", ATTR{{loop/backing_file}}=="*{_MARK}-usb*", ENV{{ID_BUS}}="usb", ENV{{ID_TYPE}}="disk"
SUBSYSTEM=="block", ATTR{{loop/backing_file}}=="*{_MARK}-esata*", ENV{{KORV_EXTERNAL_DISK}}="esata"
SUBSYSTEM=="block", ATTR{{loop/backing_file}}=="*{_MARK}-host*", ENV{{KORV_EXTERNAL_DISK}}="no"
"""
# The device manager changes owners and makes links below /dev, which all of the machine shares: it gets one of its own.
_START = """
mount -t tmpfs -o mode=755 tmpfs /dev && mknod -m 666 /dev/null c 1 3 &&
for n in $(seq 0 63); do mknod -m 600 /dev/loop$n b 7 $n || exit 1; done
mount -t tmpfs tmpfs /usr/lib/udev/rules.d && exec /usr/lib/systemd/systemd-udevd --children-max=2
"""
STATE_FILE = "/tmp/usbdiskapplying"


@contextlib.contextmanager
def device_manager(node, rules=_RULES):
    """Runs one for the node alone, with a /tmp of the node's own, where the states of disks are noted."""
    node.inside("mkdir", "-p", "/run/udev")
    node.inside("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", "/run/udev")
    node.inside("mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/tmp")
    node.inside("mkdir", "/run/udev/rules.d")
    node.inside("tee", "/run/udev/rules.d/10-usb.rules", input=rules)
    with subprocess.Popen(["nsenter", "-t", str(node.korvd), "-m", "--", "unshare", "--mount", "sh", "-c", _START],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as manager:
        try:
            wait_until(lambda: node.inside("test", "-S", "/run/udev/control", check=False).returncode == 0,
                       "the device manager runs")
            yield
        finally:
            manager.terminate()
            manager.wait(20)
            node.inside("umount", "/tmp")
            node.inside("umount", "-l", "/run/udev")


class Disk:
    """One attached disk; mounted at `place` when asked to."""

    def __init__(self, node, kind="usb", size_mb=64, file_system="ext4", folder="/srv/pavane"):
        """`folder` of the node is where its image lies."""
        self.node = node
        self.file_system = file_system
        token = secrets.token_hex(4)
        name = f"{_MARK}-{kind}-{token}.img"
        self.inner_image = f"{folder}/{name}"
        self.image = f"/proc/{node.korvd}/root{self.inner_image}"
        self.make_file_system(size_mb)
        self.device = node.inside("losetup", "--find", "--nooverlap", "--show", self.inner_image).strip()
        number = int(self.device.removeprefix("/dev/loop"))
        self.share = f"{'usb' if kind == 'usb' else 'sata'}share{number + 1}"
        self.name = self.device.removeprefix("/dev/")
        self.place = f"/srv/{_MARK}.{token}"
        self.attached = True
        wait_until(lambda: node.inside("test", "-s", f"/run/udev/data/b7:{number}", check=False).returncode == 0,
                   "the device manager knows the disk")

    def make_file_system(self, size_mb=64):
        with open(self.image, "wb") as file:
            file.truncate(size_mb * MB)
        options = {"ext4": ["-q"], "ntfs": ["-Q", "-F", "-q"]}[self.file_system]
        subprocess.run([f"mkfs.{self.file_system}", *options, self.image], check=True, stdout=subprocess.DEVNULL)

    def mount(self, mode="755"):
        self.node.inside("mkdir", "-p", self.place)
        self.node.inside("mount", self.device, self.place)
        if self.file_system == "ext4":  # others admit everybody
            self.node.inside("chmod", mode, self.place)

    def server(self):
        """The process that serves its files, where the kernel doesn't."""
        for pid in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", encoding="utf-8") as file:
                if self.place in file.read().split("\0")[1:]:
                    return int(pid)
        raise AssertionError("no process serves the disk's files")

    def pull(self):
        """Takes it away at once, whoever uses it."""
        if self.attached:
            self.attached = False
            self.node.inside("umount", "-l", self.place, check=False)
            self.node.inside("losetup", "-d", self.device)

    def swap(self):
        """Takes it away and puts another one in its place."""
        self.node.inside("umount", self.place)
        os.unlink(self.image)
        self.make_file_system()
        self.node.inside("sh", "-c", f"losetup -d {self.device} && "
                                     f"losetup {self.device} {self.inner_image}")

    def size_mb(self):
        """Its size and what ordinary users have of it, rounded up as it is shown."""
        block, blocks, free = map(int, self.node.inside("stat", "-f", "-c", "%S %b %a", self.place).split())
        return -(-block * blocks // MB), -(-block * free // MB)


@contextlib.contextmanager
def attached(node, **options):
    disk = Disk(node, **options)
    try:
        yield disk
    finally:
        disk.pull()
        os.unlink(disk.image)
