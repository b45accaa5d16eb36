"""Rotation of a share with 1,000,000 small recordings, on the file system of the temporary folder."""

import os
import subprocess
import sys
import tempfile
import time

_FILES = 1_000_000


def main():
    _, build = sys.argv[1:3]
    files = int(sys.argv[3]) if len(sys.argv) > 3 else _FILES
    program = f"{build}/bin/bench_rotate"
    with tempfile.TemporaryDirectory(prefix="pavane-bench.") as folder:
        start = time.monotonic()
        subprocess.run([program, "make", folder, str(files)], check=True)
        print(f"{files:,} recordings made in {time.monotonic() - start:.1f} s", flush=True)
        os.sync()
        subprocess.run([program, "run", folder, str(files)], check=True)


if __name__ == "__main__":
    main()
