"""A real NFS server on loopback, and the client by which a node mounts NFS where the kernel has none."""

import os
import shutil
import signal
import socket
import subprocess

from node import BUILD, free_port, wait_until

EXPORT = "/video"


class Ganesha:
    """Serves 127.0.0.1:/video over NFS version 3; its folder lives as long as the node's."""

    def __init__(self, folder):
        self.folder = os.path.join(folder, "nfs")
        self.data = os.path.join(self.folder, "data")
        self.port = free_port()
        self.mount_port = free_port()
        self.mapper = None
        self.process = None
        os.makedirs(self.data)
        os.chmod(self.data, 0o777)
        with open(self.configuration, "w", encoding="utf-8") as file:
            # Nothing is answered from memory: what happens to the folder shows at once.
            file.write(f"""
NFS_CORE_PARAM {{
    Protocols = 3; NFS_Port = {self.port}; MNT_Port = {self.mount_port}; Bind_addr = 127.0.0.1;
    Enable_NLM = false; Enable_RQUOTA = false; Enable_UDP = false; mount_path_pseudo = true;
}}
NFSv4 {{ RecoveryBackend = fs; RecoveryRoot = "{self.folder}"; Graceless = true; }}
EXPORT_DEFAULTS {{ Attr_Expiration_Time = 0; }}
MDCACHE {{ Dir_Chunk = 0; }}
EXPORT {{
    Export_Id = 1; Path = "{self.data}"; Pseudo = "{EXPORT}"; Access_Type = RW; Squash = No_Root_Squash;
    SecType = sys; Protocols = 3; Transports = TCP; FSAL {{ Name = VFS; }}
}}
""")

    @property
    def configuration(self):
        return os.path.join(self.folder, "ganesha.conf")

    @property
    def options(self):
        return f"port={self.port},mountport={self.mount_port}"

    def start(self):
        """The server insists on a port mapper. It gets one that only it can reach: on a socket of a /run of their own,
        without a network. Both are children of this process, so that nobody is left to be reaped."""
        if self.mapper is None:
            self.mapper = subprocess.Popen(
                ["unshare", "--mount", "--net", "--propagation", "private", "sh", "-c",
                 "mount -t tmpfs tmpfs /run && exec rpcbind -f"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            wait_until(lambda: os.path.exists(f"/proc/{self.mapper.pid}/root/run/rpcbind.sock"), "rpcbind listens")
        self.process = subprocess.Popen(
            ["nsenter", "-t", str(self.mapper.pid), "-m", "--", "ganesha.nfsd", "-F", "-L", f"{self.folder}/log", "-f",
             self.configuration, "-p", f"{self.folder}/pid"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(self.is_listening, "the NFS server listens")

    def is_listening(self):
        for port in (self.port, self.mount_port):
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", port)) != 0:
                    return False
        return True

    def pause(self):
        """Connections are taken and never answered."""
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None

    def end(self):
        self.kill()
        if self.mapper:
            self.mapper.kill()
            self.mapper.wait()
            self.mapper = None


def put_client_in_place(node):
    """mount.nfs of the node becomes the client that speaks NFS by itself."""
    helpers = os.path.join(node.folder, "sbin")
    os.makedirs(helpers, exist_ok=True)
    shutil.copy(os.path.join(BUILD, "bin/nfs_mount"), os.path.join(helpers, "mount.nfs"))
    node.lay_over_sbin(helpers)
