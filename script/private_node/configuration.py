"""The configuration file of a private node."""

import os

from private_node import accounts
from private_node.volumes import VOLUMES

# Where a node's state folder appears inside its mount namespace. A fixed, short path: the service user reaches it
# wherever the folder really is (below /root, say), and socket paths stay within their limit.
INSIDE = "/srv/pavane"


def write(options):
    """Writes pavane.yaml into the state folder; the paths in it are those seen from inside the node."""
    modules = [f"{options.build}/lib/share.so", f"{options.build}/lib/pavane_api.so", *options.module]
    lines = [
        f"state_dir: {INSIDE}/state",
        f"run_dir: {INSIDE}/run",
        f"log_dir: {INSIDE}/log",
        f"service_user: {accounts.SERVICE_USER}",
        f"volumes: [{', '.join(VOLUMES)}]",
        f'database: "{options.database}"',
        f"samba_include: {INSIDE}/state/samba-shares.conf",
        "modules:",
        *(f"  - {module}" for module in modules),
        f"listen: {options.address}:{options.port}",
    ]
    if options.settings:
        with open(options.settings, encoding="utf-8") as file:
            lines.append(file.read())
    with open(os.path.join(options.state, "pavane.yaml"), "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")


def make_folders(folder):
    """Makes what the configuration names; the databases' folder belongs to the service user alone."""
    for name, mode in (("state", 0o700), ("run", 0o755), ("log", 0o755)):
        path = os.path.join(folder, name)
        os.makedirs(path, exist_ok=True)
        os.chmod(path, mode)
    os.chown(os.path.join(folder, "state"), *accounts.service_ids())
