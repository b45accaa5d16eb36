"""The configuration file of a private node."""

import json
import os
import re

from private_node import accounts
from private_node.volumes import VOLUMES

# Where a node's state folder and its build appear inside its mount namespace. Fixed, short paths: the service user
# reaches them wherever the folders really are (below /root, say), and socket paths stay within their limit.
INSIDE = "/srv/pavane"
INSIDE_BUILD = "/srv/build"


def _open_private(path, flags):
    """The connection string of a database may hold a password."""
    return os.open(path, flags, 0o600)


def write(options):
    """Writes pavane.yaml into the state folder; the paths in it are those seen from inside the node."""
    further = [re.sub(f"^{re.escape(options.build)}/", f"{INSIDE_BUILD}/", module) for module in options.module]
    modules = [f"{INSIDE_BUILD}/lib/share.so", f"{INSIDE_BUILD}/lib/pavane_api.so", *further]
    lines = [
        f"state_dir: {INSIDE}/state",
        f"run_dir: {INSIDE}/run",
        f"log_dir: {INSIDE}/log",
        f"service_user: {accounts.SERVICE_USER}",
        f"volumes: [{', '.join(VOLUMES)}]",
        f"database: {json.dumps(options.database)}",
        f"samba_include: {INSIDE}/samba/shares.conf",
        "modules:",
        *(f"  - {module}" for module in modules),
        f"listen: {options.address}:{options.port}",
    ]
    if options.peer_port:
        lines.append(f"peer: {{listen: '{options.address}:{options.peer_port}', "
                     f"answer_timeout_s: {options.peer_answer_s}}}")
    if options.settings:
        with open(options.settings, encoding="utf-8") as file:
            lines.append(file.read())
    path = os.path.join(options.state, "pavane.yaml")
    with open(path, "w", encoding="utf-8", opener=_open_private) as file:
        file.write("\n".join(lines) + "\n")
