"""A host and its recording servers, each a real node with a network of its own, for the tests of central management."""

import base64
import contextlib
import ctypes
import hashlib
import hmac
import http.server
import json
import os
import secrets
import shutil
import signal
import sqlite3
import ssl
import subprocess
import tempfile
import threading
import time

import requests

from node import ASAN_OPTIONS, BUILD, ROOT, Node, wait_until

CMS_API = "KORV.Pavane.CMS"
NETWORK = "10.88.0"
OUTSIDE = f"{NETWORK}.254"  # the test's own address
NOBODY = f"{NETWORK}.200"   # an address that nobody has
_BRIDGE = "pvtest"
_PEER_PORT = 5443
_READY_DEADLINE_S = 300
_CLONE_NEWNET = 0x40000000

# What both sides of a share have to agree about.
RECORD_FIELDS = ("name, path, volume, description, hidden, enc_type, fs_type, mount_type, mount_source, auto_mount, "
                 "migrating, rec_limit_gb, enable_rec_limit, total_size_mb")


def enter_own_network():
    """From here on this process and what it starts see a network without anything of the machine's."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(_CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "cannot make a network namespace")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


class Member(Node):
    """One node of a cluster; the cluster starts and stops it."""

    def __init__(self, folder, name, number):  # pylint: disable=super-init-not-called
        self.folder = folder
        self.name = name
        self.state = os.path.join(folder, name)
        self.address = f"{NETWORK}.{number}"
        self.url = f"http://{self.address}:5080"
        self.peer_url = f"https://{self.address}:{_PEER_PORT}"
        self.link = f"{_BRIDGE}n{number}"
        self.allowed = []
        self.seen = {}

    def password(self, account="admin"):
        return dict(line.split() for line in self.read("accounts.txt").splitlines())[account]

    def log(self, name="pavane.log"):
        """A log as text; one that nobody has written to is not there yet."""
        return self.read(f"log/{name}") if os.path.exists(f"{self.state}/log/{name}") else ""

    def rows(self, statement, *values):
        """What a query of the application database gives."""
        with contextlib.closing(sqlite3.connect(f"{self.state}/state/pavane.db", timeout=20)) as database, database:
            return database.execute(statement, values).fetchall()

    def cms(self, method, **parameters):
        """The data of a method of central management, called as the administrator."""
        answer = self.client("admin").call(CMS_API, method, **parameters)
        assert answer["success"], answer
        return answer["data"] if "data" in answer else None

    def records(self):
        """The records of recording shares: path and owner to id and id on the owner."""
        return {(path, owner): (number, on_rec) for number, on_rec, owner, path in
                self.rows("select id, id_on_rec, owner_rv_id, path from recording_share")}

    def has_folder(self, path):
        return self.inside("test", "-d", path, check=False).returncode == 0

    def processes(self, name):
        """Process ids of korvd's children of this name (15 characters are what the kernel keeps)."""
        found = []
        for entry in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError), open(f"/proc/{entry}/stat", encoding="utf-8", errors="replace") as file:
                head, _, tail = file.read().rpartition(")")
                if int(tail.split()[1]) == self.korvd and head.partition("(")[2] == name:
                    found.append(int(entry))
        return found

    def restart_korvd(self):
        """The node starts it anew; returns once that one answers."""
        before = self.korvd
        os.kill(before, signal.SIGTERM)

        def is_back():
            with contextlib.suppress(OSError, ValueError):  # its id file goes and comes
                return self.korvd != before and self.is_healthy()
            return False

        wait_until(is_back, f"{self.name} is back", 90)

    def set_clock(self, ahead_s):
        """Its clock is from now on so far ahead of the machine's."""
        with open(f"{self.state}/clock_offset", "w", encoding="utf-8") as file:
            file.write(f"{ahead_s}\n")
        self.restart_korvd()

    def cut_off(self):
        subprocess.run(["ip", "link", "set", self.link, "down"], check=True)

    def reconnect(self):
        subprocess.run(["ip", "link", "set", self.link, "up"], check=True)

    def pairing(self):
        """Serial and secret of this recording server's pairing, as it keeps them."""
        return self.rows("select own_serial, pair_secret from cms_host")[0]


def clock_environment(folder):
    """What lets each node have a clock of its own."""
    library = f"{folder}/clock_offset.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-Wall", "-Werror", "-o", library,
                    os.path.join(ROOT, "tests/helpers/clock_offset.c")], check=True)
    return {"LD_PRELOAD": library, "CLOCK_OFFSET_FILE": "/srv/pavane/clock_offset",
            "ASAN_OPTIONS": f"{ASAN_OPTIONS}:verify_asan_link_order=0"}


def stamp(age_s=0):
    return f"{int(time.time()) - age_s}.{secrets.token_hex(8)}"


def pair_key(secret, at):
    return hmac.new(secret.encode(), at.encode(), hashlib.sha256).hexdigest()


def record(member, path, owner):
    """A record as (its id, its id on the owner, all other fields), or None."""
    rows = member.rows(f"select id, id_on_rec, {RECORD_FIELDS} from recording_share"
                       " where path = ? and owner_rv_id = ?", path, owner)
    return (rows[0][0], rows[0][1], rows[0][2:]) if rows else None


def failure(code):
    """A whole answer of a method that failed and has nothing to add."""
    params = {"param1": "", "param2": ""}
    return {"success": False, "error": {"code": code, "errors": params}, "data": params}


def send_as_peer(member, serial, secret, api, method, at=None, key=None, **parameters):
    """What `member` answers to a request that a paired server would send."""
    at = at or stamp()
    request = {"api": api, "version": 1, "method": method, "client": "REC_SERVER", "recSerialNum": serial,
               "cookie": pair_key(secret, at) if key is None else key, **parameters}
    return requests.post(f"{member.peer_url}/peer", data=json.dumps(request), cookies={"timestamp": at}, verify=False,
                         timeout=60).json()


class Cluster:
    """The nodes, running as long as the object's context."""

    def __init__(self, *options, settings="", own_clocks=False):
        """`own_clocks`: Member.set_clock works."""
        self.folder = tempfile.mkdtemp(prefix="pavane-test.")
        os.chmod(self.folder, 0o755)
        self.host, self.second, self.third = (Member(self.folder, name, number) for number, name in
                                              ((1, "host"), (2, "server2"), (3, "server3")))
        self.members = (self.host, self.second, self.third)
        self.options = list(options)
        self.bridge = _BRIDGE
        self.environment = clock_environment(self.folder) if own_clocks else {}
        self.process = None
        self.ids = {}
        if settings:
            path = os.path.join(self.folder, "settings.yaml")
            with open(path, "w", encoding="utf-8") as file:
                file.write(settings)
            self.options += ["--settings", path]

    def __enter__(self):
        environment = {**os.environ, "UBSAN_OPTIONS": "print_stacktrace=1", "ASAN_OPTIONS": ASAN_OPTIONS,
                       **self.environment}
        with open(f"{self.folder}/stderr", "ab") as errors:
            self.process = subprocess.Popen(
                [os.path.join(ROOT, "script/cluster"), "--state", self.folder, "--build", BUILD, "--bridge", _BRIDGE,
                 "--network", NETWORK, "--volume-mb", "256", *self.options],
                stdout=subprocess.PIPE, stderr=errors, text=True, env=environment)
        try:
            wait_until(lambda: self.process.poll() is not None or all(member.is_healthy() for member in self.members),
                       "all nodes are ready", _READY_DEADLINE_S)
            assert self.process.poll() is None, self.errors()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(120)
        finally:
            self.process.kill()
            self.process.stdout.close()
            errors = self.errors()
            shutil.rmtree(self.folder)
        assert "Sanitizer" not in errors and "runtime error" not in errors, errors

    def errors(self):
        with open(f"{self.folder}/stderr", encoding="utf-8", errors="replace") as file:
            return file.read()

    def pavane(self, member, *arguments, check=True):
        """Runs the command line against a node, in the session of its administrator."""
        environment = dict(os.environ, PAVANE_URL=member.url, HOME=self.folder, XDG_STATE_HOME=self.folder,
                           XDG_RUNTIME_DIR=self.folder, ASAN_OPTIONS="detect_leaks=0")
        done = subprocess.run([os.path.join(BUILD, "bin/pavane"), *arguments], capture_output=True, text=True,
                              env=environment, timeout=120, check=False)
        if check:
            assert done.returncode == 0, done.stdout + done.stderr
        return done

    def log_in(self, member):
        self.pavane(member, "login", "admin", "--password-file", self.password_file(member))

    def password_file(self, member):
        path = f"{self.folder}/{member.name}.password"
        with open(path, "w", encoding="utf-8", opener=lambda name, flags: os.open(name, flags, 0o600)) as file:
            file.write(member.password() + "\n")
        return path

    def pair(self, member):
        """Pairs a recording server with the host by the command line."""
        fingerprint = member.cms("status")["fingerprint"]
        done = self.pavane(self.host, "--json", "server", "add", member.peer_url, "--account", "admin", "--fingerprint",
                           fingerprint, "--password-file", self.password_file(member))
        self.ids[member.name] = json.loads(done.stdout)["id"]
        return json.loads(done.stdout)

    def state(self, member):
        """What the host knows of a recording server."""
        servers = self.host.cms("list")["servers"]
        return next(server for server in servers if server["id"] == self.ids[member.name])

    def await_state(self, member, status, problem=None):
        """Waits for a state that was found out from now on: one from before a change may still say the same."""
        begin = int(time.time())

        def is_so():
            state = self.state(member)
            return (state["statusName"] == status and (problem is None or state["problem"] == problem) and
                    state["checkedTime"] > begin and (status != "online" or state["seenTime"] > begin))

        return wait_until(is_so, f"{member.name} is {status} {problem or ''}; it is {self.state(member)}", 60)


class FakePeer:
    """A TLS server with a key of its own that is a good recording server, but for the answers that a test sets."""

    SERIAL = "fa4e0000fa4e0000"

    def __init__(self, folder):
        self.secret = secrets.token_hex(32)
        self.answer = None       # bytes of an answer to anything but a ping
        self.ping_answer = None  # the same for a ping, with its HTTP status
        self.delay_s = 0
        self.ping_delay_s = 0
        self.date = None         # instead of the right one
        self.requests = []
        self.connections = 0
        certificate = f"{folder}/fake.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-keyout", certificate, "-out", f"{folder}/fake.crt", "-days", "2", "-subj", "/CN=fake"],
                       check=True, capture_output=True)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(f"{folder}/fake.crt", certificate)
        self.fingerprint = self.fingerprint_of(f"{folder}/fake.crt")
        self.server = http.server.ThreadingHTTPServer((OUTSIDE, 0), self.handler())
        self.server.daemon_threads = True
        self.server.socket = context.wrap_socket(self.server.socket, server_side=True)
        self.address = f"https://{OUTSIDE}:{self.server.server_port}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    @staticmethod
    def fingerprint_of(certificate):
        public = subprocess.run(["openssl", "x509", "-in", certificate, "-noout", "-pubkey"], check=True,
                                capture_output=True).stdout
        der = subprocess.run(["openssl", "pkey", "-pubin", "-outform", "der"], input=public, check=True,
                             capture_output=True).stdout
        return "sha256//" + base64.b64encode(hashlib.sha256(der).digest()).decode()

    def handler(self):
        """The request handler's class, which closes over this object."""
        fake = self

        class Handler(http.server.BaseHTTPRequestHandler):
            """One connection."""

            protocol_version = "HTTP/1.1"

            def setup(self):
                super().setup()
                fake.connections += 1

            def do_POST(self):  # pylint: disable=invalid-name
                body = self.rfile.read(int(self.headers["Content-Length"]))
                method = json.loads(body)["method"]
                status, answer = 200, fake.answer
                if method == "ping":
                    time.sleep(fake.ping_delay_s)
                    status, answer = fake.ping_answer or (200, fake.good_ping())
                else:
                    fake.requests.append(method)
                    time.sleep(fake.delay_s)
                with contextlib.suppress(OSError):
                    self.send_response(status)
                    self.send_header("Content-Length", str(len(answer)))
                    self.end_headers()
                    self.wfile.write(answer)

            def date_time_string(self, timestamp=None):
                return fake.date or super().date_time_string(timestamp)

            def log_message(self, format, *args):  # pylint: disable=redefined-builtin
                pass

        return Handler

    def good_ping(self):
        return json.dumps({"success": True, "data": {"serial": self.SERIAL, "name": "fake", "version": self.version}}
                          ).encode()

    version = ""

    def add_to(self, host):
        """Makes the host believe that it has paired this server; returns the id."""
        self.version = host.cms("status")["version"]
        host.rows("insert into rec_server (serial, name, address, pair_secret, pinned_key) values (?, 'fake', ?, ?, ?)",
                  self.SERIAL, self.address, self.secret, self.fingerprint)
        number = host.rows("select id from rec_server where serial = ?", self.SERIAL)[0][0]
        wait_until(lambda: host.rows("select status from rec_server where id = ?", number) == [(0,)],
                   "the host takes the fake for online")
        return number

    def close(self):
        self.server.shutdown()
        self.server.server_close()
