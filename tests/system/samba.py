"""A real Samba server on loopback, and the helpers by which a node mounts CIFS where the kernel has none."""

import json
import os
import shutil
import signal
import socket
import subprocess

from node import ROOT, free_port, wait_until

ACCOUNT = "daemon"  # an account that every machine has
PASSWORD = "s3 ,c#r=et\"'"


class Samba:
    """Serves //ADDRESS/data; its folder lives as long as the node's."""

    def __init__(self, folder, address="127.0.0.1"):
        self.address = address
        self.folder = os.path.join(folder, "samba")
        self.data = os.path.join(self.folder, "data")
        self.port = free_port()
        self.process = None
        for name in ("private", "lock", "state", "cache", "pid", "ncalrpc", "data"):
            os.makedirs(os.path.join(self.folder, name))
        os.chmod(self.data, 0o777)
        folders = "".join(f"{key} = {self.folder}/{name}\n" for key, name in (
            ("private dir", "private"), ("lock directory", "lock"), ("state directory", "state"),
            ("cache directory", "cache"), ("pid directory", "pid"), ("ncalrpc dir", "ncalrpc"), ("log file", "log")))
        with open(self.configuration, "w", encoding="utf-8") as file:
            file.write(f"[global]\nsmb ports = {self.port}\n{folders}interfaces = {address}/24\nbind interfaces only = yes\n"
                       f"load printers = no\ndisable spoolss = yes\n"
                       f"[data]\npath = {self.data}\nread only = no\nforce user = root\n")
        subprocess.run(["smbpasswd", "-c", self.configuration, "-s", "-a", ACCOUNT], check=True, text=True,
                       input=f"{PASSWORD}\n{PASSWORD}\n", stdout=subprocess.DEVNULL)

    @property
    def configuration(self):
        return os.path.join(self.folder, "smb.conf")

    def start(self):
        self.process = subprocess.Popen(["smbd", "-F", "-s", self.configuration, "--no-process-group"],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        wait_until(self.is_listening, "smbd listens")

    def is_listening(self):
        with socket.socket() as probe:
            return probe.connect_ex((self.address, self.port)) == 0

    def pause(self):
        """All of it stops, so that packets are taken and never answered."""
        os.killpg(self.process.pid, signal.SIGSTOP)

    def resume(self):
        os.killpg(self.process.pid, signal.SIGCONT)

    def kill(self):
        """smbd and its children, one for each client, are one session."""
        if self.process:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
            self.process = None


def put_helpers_in_place(node, exports=None):
    """The helpers stand before the machine's own; `exports` is what mount.nfs is to find, see there."""
    helpers = os.path.join(node.folder, "sbin")
    shutil.copytree(os.path.join(ROOT, "tests/helpers/sbin"), helpers, dirs_exist_ok=True)
    with open(os.path.join(helpers, "mount.nfs.exports"), "w", encoding="utf-8") as file:
        json.dump(exports or {}, file)
    node.lay_over_sbin(helpers)
