"""Planning a deletion of 1, 100 and 10,000 recording shares among 100,000 cameras: statements and time."""

import os
import subprocess
import sys
import tempfile

_CONFIGURATION = """
state_dir: {folder}/state
run_dir: {folder}/run
log_dir: {folder}/log
service_user: root
volumes: [/volume1]
"""


def main():
    _, build = sys.argv[1:3]
    with tempfile.TemporaryDirectory(prefix="pavane-bench.") as folder:
        for name in ("state", "run", "log"):
            os.mkdir(f"{folder}/{name}", 0o700)
        with open(f"{folder}/pavane.yaml", "w", encoding="utf-8") as file:
            file.write(_CONFIGURATION.format(folder=folder))
        subprocess.run([f"{build}/bin/bench_delete_check", f"{build}/lib/share.so"], check=True,
                       env=os.environ | {"KORV_CONFIG": f"{folder}/pavane.yaml"})


if __name__ == "__main__":
    main()
