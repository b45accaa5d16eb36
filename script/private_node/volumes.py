"""The two volumes of a private node: loop-backed file systems, or plain folders where there are no loop devices."""

import os
import subprocess
import time

VOLUMES = {"/volume1": "ext4", "/volume2": "btrfs"}

_MEBIBYTE = 1024 * 1024
_OPTIONS = "loop,nosuid,nodev"  # mount(8) sets the loop device up so that it goes with the mount
_RELEASE_DEADLINE_S = 10


class VolumeError(Exception):
    """A volume cannot be made or is in use."""


def _run(command):
    return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)


def _make_image(image, file_system, size_mb):
    """Makes the image under another name first: an image that was cut short must not look like a volume."""
    unfinished = image + ".new"
    with open(unfinished, "wb") as file:
        file.truncate(size_mb * _MEBIBYTE)
    os.chmod(unfinished, 0o600)
    done = _run([f"mkfs.{file_system}", "-q", unfinished])
    if done.returncode != 0:
        os.unlink(unfinished)
        raise VolumeError(f"mkfs.{file_system}: {done.stderr.strip()}")
    os.rename(unfinished, image)


def _await_release(image):
    """A node that was killed may still be unmounting; two loop devices over one image would destroy it."""
    deadline = time.monotonic() + _RELEASE_DEADLINE_S
    while subprocess.run(["losetup", "-j", image], capture_output=True, text=True, check=False).stdout.strip():
        if time.monotonic() > deadline:
            raise VolumeError(f"{image} is still in use by a loop device")
        time.sleep(0.05)


def _mount_point(path):
    if not os.path.isdir(path):
        os.mkdir(path, mode=0o755)


def _mount_image(image, path, file_system, size_mb):
    """None when the image is mounted at `path`, else why this machine can't; makes the image at the first start."""
    is_new = not os.path.exists(image)
    if is_new:
        _make_image(image, file_system, size_mb)
    _await_release(image)
    done = _run(["mount", "-t", file_system, "-o", _OPTIONS, image, path])
    if done.returncode == 0:
        return None
    if not is_new:  # it holds data; an empty folder in its place would hide them
        raise VolumeError(f"{image}: {done.stderr.strip()}")
    os.unlink(image)
    return done.stderr.strip()


def mount_volumes(folder, size_mb):
    """Mounts every volume for this mount namespace; `folder` keeps their data. Returns what the start must say."""
    notes = []
    for path, file_system in VOLUMES.items():
        _mount_point(path)
        image = os.path.join(folder, os.path.basename(path) + ".img")
        plain = os.path.join(folder, os.path.basename(path))
        if not os.path.isdir(plain):  # once a plain folder, always one: its data must stay in sight
            problem = _mount_image(image, path, file_system, size_mb)
            if problem is None:
                continue
            notes.append(f"no {file_system} image can be mounted here ({problem})")
            os.mkdir(plain, mode=0o755)
        subprocess.run(["mount", "--bind", plain, path], check=True)
        notes.append(f"{path} is the plain folder {plain}: no {file_system} features, no size of its own")
    return notes


def unmount_encrypted():
    """Locks the encrypted shares: each is served by a process of its own, which lives as long as the mount."""
    with open("/proc/self/mounts", encoding="utf-8", errors="surrogateescape") as mounts:
        fields = [line.split() for line in mounts]
    for field in reversed(fields):
        if field[2] == "fuse.gocryptfs":
            path = field[1].encode("utf-8", "surrogateescape").decode("unicode_escape").encode("latin-1")
            _run(["umount", "-l", path])


def unmount_volumes():
    """Writes the volumes out; one that a foreign process still uses goes with that process."""
    for path in VOLUMES:
        _run(["sync", "-f", path])
        _run(["umount", "-l", path])
