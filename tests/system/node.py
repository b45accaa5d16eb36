"""A real node of its own for tests: korvd, nginx, volumes and accounts in private namespaces."""

import contextlib
import json
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import requests

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
BUILD = os.environ.get("PAVANE_BUILD", os.path.join(ROOT, "build/test"))
# The runtime takes a thread's block of thread-local data at an unlucky address for one with a header of old C libraries, and
# the leak check at the process's end then reads at whatever that header says, and crashes. Static blocks are still looked at.
ASAN_OPTIONS = "detect_leaks=1:intercept_tls_get_addr=0"
_READY_DEADLINE_S = 120
_POLL_S = 0.05
_LOGS = ("log/korvd.log", "log/pavane.log", "log/nginx-error.log", "stderr")
SHARE_API = "KORV.Pavane.Share"


def wait_until(condition, what, deadline_s=30):
    """Polls `condition` until it gives something true, which is returned."""
    end = time.monotonic() + deadline_s
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(_POLL_S)
    raise AssertionError(f"waited {deadline_s} s in vain until {what}")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Client:
    """Speaks the wire; logged in or not."""

    def __init__(self, url):
        self.url = url
        self.session = requests.Session()

    def login(self, account, password):
        answer = self.call("KORV.Core.Session", "login", account=account, passwd=password)
        assert answer["success"], answer
        self.session.headers["X-Korv-Csrf"] = answer["data"]["csrf"]
        return self

    def post(self, body, **options):
        """The response to a raw body."""
        return self.session.post(f"{self.url}/webapi", data=body, timeout=60, **options)

    def call(self, api, method, version=1, **parameters):
        """The answer, an object, of one web API request."""
        return self.post(json.dumps({"api": api, "version": version, "method": method, **parameters})).json()

    def create(self, name, volume="/volume1", **parameters):
        return self.call(SHARE_API, "CreateRecShare", shareName=name, volume=volume, **parameters)

    def list(self, **parameters):
        """The listed recording shares."""
        answer = self.call(SHARE_API, "ListRecShare", **parameters)
        assert answer["success"], answer
        assert answer["data"]["total"] == len(answer["data"]["sharelist"])
        return answer["data"]["sharelist"]


class Node:
    """One node; its state folder lives as long as the object's context."""

    def __init__(self, *options, settings=""):
        self.folder = tempfile.mkdtemp(prefix="pavane-test.")  # closed to the service user, as a clone below /root is
        self.state = os.path.join(self.folder, "node")
        self.port = free_port()
        self.url = f"http://127.0.0.1:{self.port}"
        self.options = list(options)
        self.process = None
        self.allowed = []
        self.seen = {}
        if settings:
            path = os.path.join(self.folder, "settings.yaml")
            with open(path, "w", encoding="utf-8") as file:
                file.write(settings)
            self.options += ["--settings", path]

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()
        shutil.rmtree(self.folder)

    def start(self):
        # A sanitizer's report must not end a worker silently: it goes to standard error, which is a log of the test.
        environment = dict(os.environ, UBSAN_OPTIONS="print_stacktrace=1", ASAN_OPTIONS=ASAN_OPTIONS)
        with open(os.path.join(self.folder, "stderr"), "ab") as errors:
            self.process = subprocess.Popen(
                [os.path.join(ROOT, "script/node"), "--state", self.state, "--build", BUILD, "--port",
                 str(self.port), "--volume-mb", "256", *self.options],
                stdout=subprocess.PIPE, stderr=errors, text=True, env=environment)
        said = select.select([self.process.stdout], [], [], _READY_DEADLINE_S)[0] and self.process.stdout.readline()
        if said != f"ready {self.url}\n":
            raise AssertionError(f"the node did not start but said {said!r}: {self.read('../stderr')}")

    def stop(self):
        if self.process is None:
            return
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(60)
        finally:
            self.process.kill()
            self.process.stdout.close()
            self.process = None

    def is_healthy(self):
        with contextlib.suppress(requests.RequestException):
            return requests.get(f"{self.url}/healthz", timeout=5).status_code == 200
        return False

    def read(self, name):
        """A file below the state folder as text."""
        with open(os.path.join(self.state, name), encoding="utf-8", errors="replace") as file:
            return file.read()

    def client(self, account=None):
        """A client, logged in when an account is named."""
        client = Client(self.url)
        if account:
            passwords = dict(line.split() for line in self.read("accounts.txt").splitlines())
            client.login(account, passwords[account])
        return client

    @property
    def korvd(self):
        return int(self.read("run/korvd.pid"))

    def workers(self):
        """Process ids of the public workers."""
        found = []
        for entry in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError), open(f"/proc/{entry}/stat", encoding="utf-8", errors="replace") as file:
                head, _, tail = file.read().rpartition(")")
                if int(tail.split()[1]) == self.korvd and head.endswith("(korvd-public"):
                    found.append(int(entry))
        return found

    def inside(self, *command, check=True, text=True, **options):
        """Runs a program in the node's mount namespace and gives what it says."""
        result = subprocess.run(["nsenter", "-t", str(self.korvd), "-m", "--", *command], capture_output=True,
                                text=text, check=False, timeout=120, **options)
        if check and result.returncode != 0:
            raise AssertionError(f"{command} ended with {result.returncode}: {result.stderr}")
        return result.stdout if check else result

    def lay_over_sbin(self, programs):
        """The programs in a folder stand before the machine's own, for this node alone."""
        self.inside("mount", "-t", "overlay", "overlay", "-o", f"ro,lowerdir={programs}:/usr/sbin", "/usr/sbin")

    def allow(self, pattern):
        """Log lines that match are expected from now on."""
        self.allowed.append(re.compile(pattern))

    def unexpected_lines(self):
        """The log lines since the last call that nobody allowed."""
        wrong = []
        for name in _LOGS:
            path = os.path.join(self.folder if name == "stderr" else self.state, name)
            if not os.path.exists(path):
                continue
            with open(path, encoding="utf-8", errors="replace") as file:
                file.seek(self.seen.get(name, 0))
                lines = file.read()
                self.seen[name] = file.tell()
            wrong += [f"{name}: {line}" for line in lines.splitlines()
                      if line.strip() and not any(pattern.search(line) for pattern in self.allowed)]
        return wrong
