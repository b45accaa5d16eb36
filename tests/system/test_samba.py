"""A real smbd serves what the generated include file says."""

import contextlib
import os
import signal
import subprocess

import pytest

from life import NAS, PASSWORD, is_there, wait_for_job
from node import free_port, wait_until

_CONFIGURATION = """[global]
    workgroup = TEST
    server role = standalone server
    smb ports = {port}
    interfaces = 127.0.0.1/8
    bind interfaces only = yes
    disable netbios = yes
    load printers = no
    map to guest = never
    log file = /var/log/samba/smbd.log
    include = /srv/pavane/samba/shares.conf
"""


class Smbd:
    """smbd in the node's namespace; all it writes lies in memory."""

    def __init__(self, node):
        self.node = node
        self.port = free_port()
        configuration = os.path.join(node.folder, "samba")
        os.mkdir(configuration)
        with open(os.path.join(configuration, "smb.conf"), "w", encoding="utf-8") as file:
            file.write(_CONFIGURATION.format(port=self.port))
        for folder in ("/var/lib/samba", "/var/cache/samba", "/var/log/samba"):
            node.inside("mount", "-t", "tmpfs", "tmpfs", folder)
        node.inside("mkdir", "/var/lib/samba/private")
        node.inside("mount", "--bind", configuration, "/etc/samba")
        self.passwords = dict(line.split() for line in node.read("accounts.txt").splitlines())
        for account, password in self.passwords.items():
            node.inside("smbpasswd", "-s", "-a", account, input=f"{password}\n{password}\n")
        self.process = subprocess.Popen(
            ["nsenter", "-t", str(node.korvd), "-m", "--", "setpriv", "--pdeathsig", "TERM", "smbd", "--foreground",
             "--no-process-group"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)  # smbd ends its whole process group
        wait_until(lambda: self.client("admin", "-L", "127.0.0.1").returncode == 0, "smbd answers")

    def stop(self):
        self.process.terminate()
        self.process.wait(20)
        # Its helpers are daemons of their own; they are known by the namespace they live in.
        home = os.readlink(f"/proc/{self.node.korvd}/ns/mnt")
        for pid in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):
                if (os.readlink(f"/proc/{pid}/ns/mnt") == home
                        and os.readlink(f"/proc/{pid}/exe").startswith("/usr/libexec/samba/")):
                    os.kill(int(pid), signal.SIGTERM)

    def login(self, account):
        """A private file with the account's password."""
        path = os.path.join(self.node.folder, f"login.{account}")
        with open(path, "w", encoding="utf-8", opener=lambda name, flags: os.open(name, flags, 0o600)) as file:
            file.write(f"username = {account}\npassword = {self.passwords[account]}\n")
        return path

    def client(self, account, *arguments):
        """What smbclient says as that account."""
        return self.node.inside("smbclient", "-p", str(self.port), "-A", self.login(account), *arguments, check=False)

    @contextlib.contextmanager
    def session(self, account, share):
        """Stays connected; gives what sends it a line."""
        with subprocess.Popen(["nsenter", "-t", str(self.node.korvd), "-m", "--", "smbclient", "-p", str(self.port), "-A",
                               self.login(account), f"//127.0.0.1/{share}"], stdin=subprocess.PIPE, text=True,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
            def say(line):
                process.stdin.write(line + "\n")
                process.stdin.flush()
            yield say
            process.stdin.close()
            process.wait(20)

    def browsed(self):
        listing = self.client("admin", "-g", "-L", "127.0.0.1")
        assert listing.returncode == 0, listing.stdout + listing.stderr
        return {line.split("|")[1] for line in listing.stdout.splitlines() if line.startswith("Disk|")}


@pytest.fixture(scope="module")
def smbd(shared_node):
    server = Smbd(shared_node)
    yield server
    server.stop()


def test_a_visible_share_is_browsed_and_a_hidden_one_is_not(node, admin, smbd):
    assert admin.create("shown", blHideShare=False, description="front = door; # [x]")["success"]
    assert admin.create("unseen", blHideShare=True)["success"]
    browsed = wait_until(lambda: (found := smbd.browsed()) and "shown" in found and found, "smbd knows the share")
    assert "unseen" not in browsed
    assert smbd.client("admin", "//127.0.0.1/unseen", "-c", "ls").returncode == 0


def test_rights_over_the_network_are_those_of_the_folder(node, admin, smbd):
    assert admin.create("network", "/volume2", blHideShare=False)["success"]
    wait_until(lambda: "network" in smbd.browsed(), "smbd knows the share")
    written = smbd.client("admin", "//127.0.0.1/network", "-c", "mkdir clips")
    assert written.returncode == 0, written.stdout
    assert node.inside("stat", "-c", "%U", "/volume2/network/clips").strip() == "admin"
    refused = smbd.client("viewer", "//127.0.0.1/network", "-c", "mkdir mine")
    assert "NT_STATUS_ACCESS_DENIED" in refused.stdout
    assert node.inside("ls", "/volume2/network").split() == ["clips"]


def test_a_name_that_means_something_to_samba_harms_no_other_share(node, admin, smbd):
    for name in ("global", "printers", "a]b", "%U", "homes2"):
        assert admin.create(name, blHideShare=False)["success"], name
    assert admin.create("plain", blHideShare=False)["success"]
    wait_until(lambda: "plain" in smbd.browsed(), "smbd knows the share")
    assert node.inside("testparm", "-s", "--suppress-prompt", check=False).returncode == 0


def test_nothing_gets_lost_that_a_connected_client_writes_while_a_share_is_encrypted(node, admin, smbd):
    """smbd keeps working in the folder that it knows, whatever its name is by then."""
    assert admin.create("moved", blHideShare=False)["success"]
    wait_until(lambda: "moved" in smbd.browsed(), "smbd knows the share")
    with smbd.session("admin", "moved") as say:
        say("put /etc/passwd before")
        wait_until(lambda: is_there(node, "/volume1/moved/before"), "the client is connected")
        answer = admin.call(NAS, "set", name="moved", shareinfo={"encryption": True, "enc_passwd": PASSWORD})
        assert answer["success"], answer
        assert wait_for_job(admin, answer["data"]["task_id"])["state"] == "finished"
        say("put /etc/passwd after")
        assert smbd.client("admin", "//127.0.0.1/moved", "-c", "put /etc/passwd anew").returncode == 0
    assert "gocryptfs" in node.inside("findmnt", "-no", "FSTYPE", "/volume1/moved")
    names = node.inside("ls", "/volume1/moved").split()
    assert {"before", "anew"} <= set(names) <= {"before", "anew", "after"}
    assert node.inside("find", "/volume1/.korv/move", "-mindepth", "1") == ""
