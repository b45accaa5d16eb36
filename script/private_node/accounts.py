"""The node's account files: the machine's own accounts and, added to them, the demo accounts."""

import os
import secrets
import shutil
import string
import subprocess

SERVICE_USER = "Pavane"
ADMINISTRATORS = "administrators"
PEOPLE = ("admin", "viewer")  # those with a password

_PASSWORD_LENGTH = 20

# The ids are fixed, since files on the volumes keep them from one start to the next.
_SERVICE_ID = 7100
_ADMINISTRATORS_ID = 7101
_PEOPLE_IDS = {"admin": 7110, "viewer": 7111}

_NO_LOGIN = "/nonexistent:/usr/sbin/nologin"


class AccountError(Exception):
    """The machine's own accounts leave no room for the demo accounts."""


def _write_private(path, text, mode):
    descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode)
    with os.fdopen(descriptor, "w", encoding="utf-8") as file:
        os.fchmod(file.fileno(), mode)
        file.write(text)


def read_passwords(path):
    """The passwords by account, from a file with one `account password` a line."""
    with open(path, encoding="utf-8") as file:
        return dict(line.split() for line in file if line.strip())


def make_passwords(path):
    """Reads the file, or makes it with random passwords at the first start."""
    if not os.path.exists(path):
        alphabet = string.ascii_letters + string.digits
        made = {name: "".join(secrets.choice(alphabet) for _ in range(_PASSWORD_LENGTH)) for name in PEOPLE}
        _write_private(path, "".join(f"{name} {password}\n" for name, password in made.items()), 0o600)
    return read_passwords(path)


def _hash(password):
    """The shadow entry of a password, which goes through standard input: arguments are everybody's to read."""
    done = subprocess.run(["openssl", "passwd", "-6", "-stdin"], input=password, capture_output=True, text=True,
                          check=True)
    return done.stdout.strip()


def _added_lines(passwords):
    """The lines that each file gets, by file."""
    lines = {
        "passwd": [f"{SERVICE_USER}:x:{_SERVICE_ID}:{_SERVICE_ID}:recorder:{_NO_LOGIN}"],
        "group": [f"{SERVICE_USER}:x:{_SERVICE_ID}:", f"{ADMINISTRATORS}:x:{_ADMINISTRATORS_ID}:admin"],
        "shadow": [f"{SERVICE_USER}:!:19000::::::"],
        "gshadow": [f"{SERVICE_USER}:!::", f"{ADMINISTRATORS}:!::admin"],
    }
    for name, number in _PEOPLE_IDS.items():
        lines["passwd"].append(f"{name}:x:{number}:{number}:demo account:{_NO_LOGIN}")
        lines["group"].append(f"{name}:x:{number}:")
        lines["gshadow"].append(f"{name}:!::")
        lines["shadow"].append(f"{name}:{_hash(passwords[name])}:19000:0:99999:7:::")
    return lines


def _machine_lines(file_name, added_names):
    """The machine's own lines, less accounts that carry one of our names (their place is taken)."""
    path = f"/etc/{file_name}"
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as file:
        return [line for line in file.read().splitlines() if line.split(":", 1)[0] not in added_names]


def _refuse_taken_ids(file_name, own, added):
    """A user or group of the machine that holds one of our ids would own what ours own."""
    ours = {line.split(":")[2] for line in added}
    for line in own:
        fields = line.split(":")
        if len(fields) > 2 and fields[2] in ours:
            raise AccountError(f"/etc/{file_name}: '{fields[0]}' has the id {fields[2]}, which the node needs")


def _write_files(folder, passwords):
    """Fills `folder` with what the node's /etc has beyond the machine's."""
    for file_name, added in _added_lines(passwords).items():
        own = _machine_lines(file_name, {line.split(":", 1)[0] for line in added})
        if file_name in ("passwd", "group"):
            _refuse_taken_ids(file_name, own, added)
        mode = 0o600 if file_name.endswith("shadow") else 0o644
        _write_private(os.path.join(folder, file_name), "\n".join(own + added) + "\n", mode)
    pam = os.path.join(folder, "pam.d")
    os.mkdir(pam)
    # Without `nodelay` a wrong password would block a worker for two seconds.
    _write_private(os.path.join(pam, "korv"),
                   "auth required pam_unix.so nodelay\naccount required pam_unix.so\n", 0o644)


def _mounts_below_etc():
    """What is mounted at single files of /etc, as containers do."""
    with open("/proc/self/mountinfo", encoding="utf-8") as file:
        return [place for place in (line.split()[4] for line in file) if place.startswith("/etc/")]


def lay_over_etc(folder, passwords):
    """Lays the account files, made anew from the machine's at each start, over /etc; only for this mount namespace.

    An overlay of the folder, since a file that is mounted upon alone gets bare again as soon as anybody on the machine
    replaces it, say by adding an account. The layer is in memory: copies of shadow don't belong on the disk.
    """
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder, mode=0o700)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m,mode=700", "tmpfs", folder], check=True)
    for name in ("upper", "work", "machine"):
        os.mkdir(os.path.join(folder, name), mode=0o755)
    _write_files(os.path.join(folder, "upper"), passwords)
    below = _mounts_below_etc()
    subprocess.run(["mount", "--rbind", "/etc", os.path.join(folder, "machine")], check=True)
    # Relative names, since the folder's may have a comma or colon in it.
    subprocess.run(["mount", "-t", "overlay", "-o", "lowerdir=machine,upperdir=upper,workdir=work", "overlay", "/etc"],
                   cwd=folder, check=True)
    for place in below:
        subprocess.run(["mount", "--bind", os.path.join(folder, "machine", os.path.relpath(place, "/etc")), place],
                       check=True)
