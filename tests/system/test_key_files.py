"""Encrypted shares: locked, and unlocked over the wire by the key file that was exported."""

import contextlib
import http.server
import json
import os
import signal
import subprocess
import threading

import pytest

from node import BUILD, SHARE_API, wait_until

PASSWORD = "s3cret \"$\" ü"


@pytest.fixture
def pavane(node, tmp_path):
    """Runs the command line as the logged-in administrator; gives its exit status and what it said."""
    passwords = dict(line.split() for line in node.read("accounts.txt").splitlines())

    def run(*arguments, password=None):
        done = subprocess.run([os.path.join(BUILD, "bin/pavane"), "--url", node.url, *arguments], input=password,
                              text=True, capture_output=True, cwd=tmp_path, check=False, timeout=60,
                              env=dict(os.environ, HOME=str(tmp_path), XDG_RUNTIME_DIR=str(tmp_path),
                                       XDG_STATE_HOME=str(tmp_path), XDG_CONFIG_HOME=str(tmp_path)))
        return done.returncode, done.stdout + done.stderr

    assert run("login", "admin", "--password-stdin", password=passwords["admin"])[0] == 0
    return run


@contextlib.contextmanager
def server_that_answers(data):
    """A server of somebody else's that answers every request with success."""
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            self.rfile.read(int(self.headers["Content-Length"]))
            body = json.dumps({"success": True, "data": data}).encode()
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    with http.server.HTTPServer(("127.0.0.1", 0), Handler) as server:
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        yield f"http://127.0.0.1:{server.server_port}"
        server.shutdown()
        thread.join()


@pytest.mark.parametrize("name, file", [("vault", "vault.key"), ("../vault", None), (".vault", None), ("", None)])
def test_no_server_chooses_where_a_key_is_written(tmp_path, name, file):
    folder = tmp_path / "here"
    folder.mkdir()
    with server_that_answers({"file_name": "../chosen", "content": "a2V5"}) as url:
        done = subprocess.run([os.path.join(BUILD, "bin/pavane"), "--url", url, "share", "export-key", name, "--password-stdin"],
                              input=PASSWORD, text=True, capture_output=True, cwd=folder, check=False, timeout=60,
                              env=dict(os.environ, HOME=str(folder), XDG_RUNTIME_DIR=str(folder), XDG_STATE_HOME=str(folder),
                                       XDG_CONFIG_HOME=str(folder)))
    assert (done.returncode == 0) == (file is not None), done.stderr
    assert os.listdir(tmp_path) == ["here"]
    assert [each for each in os.listdir(folder) if each.endswith("key")] == ([file] if file else [])


def make_vault(admin, name):
    """An encrypted share, locked."""
    assert admin.create(name, blEncryption=True, encPasswd=PASSWORD)["success"]
    assert admin.call("KORV.Core.Share.Crypto", "lock", name=name)["success"]


def post(admin, content, **parameters):
    request = {"api": SHARE_API, "version": 1, "method": "DecryptByFile", **parameters}
    return admin.session.post(f"{admin.url}/webapi", timeout=60, files={"request": (None, json.dumps(request)),
                                                                         "password_file_tmp": ("key", content)})


def upload(admin, content, **parameters):
    return post(admin, content, **parameters).json()


def test_an_exported_key_unlocks_its_share_only(node, admin, pavane, tmp_path):
    node.allow("could not be locked|Share \\[|KORV")
    make_vault(admin, "vault")
    make_vault(admin, "other")
    assert pavane("share", "unlock", "vault", "--password-stdin", password="wrong")[0] == 1
    assert pavane("share", "unlock", "vault", "--password-stdin", password=PASSWORD)[0] == 0
    node.inside("sh", "-c", "echo kept > /volume1/vault/file")
    status, text = pavane("share", "export-key", "vault", "--password-stdin", password=PASSWORD)
    assert status == 0, text
    key = tmp_path / "vault.key"
    assert os.stat(key).st_mode & 0o777 == 0o600
    assert b"s3cret" not in key.read_bytes() and len(key.read_bytes()) <= 4096
    assert pavane("share", "lock", "vault")[0] == 0
    assert node.inside("test", "-e", "/volume1/vault/file", check=False).returncode != 0

    status, text = pavane("share", "unlock", "other", "--key-file", str(key))
    assert status == 1 and "3330" in text
    status, text = pavane("share", "unlock", "vault", "--key-file", str(key))
    assert status == 0, text
    assert node.inside("cat", "/volume1/vault/file") == "kept\n"
    assert pavane("share", "lock", "vault")[0] == 0


@pytest.mark.parametrize("change", [
    lambda content: b"", lambda content: os.urandom(300), lambda content: content[:-1], lambda content: content + b"x",
    lambda content: os.urandom(9 * 1024 * 1024)], ids=["empty", "random", "truncated", "longer", "9 MB"])
def test_what_is_no_key_file_is_refused(node, admin, pavane, tmp_path, change):
    node.allow("Share \\[vault\\] get failed|buffered to a temporary file")
    if not [share for share in admin.call("KORV.Core.Share", "list")["data"]["shares"] if share["name"] == "vault"]:
        make_vault(admin, "vault")
    name = str(tmp_path / "a.key")
    assert pavane("share", "export-key", "vault", "--out", name, "--password-stdin", password=PASSWORD)[0] == 0
    with open(name, "rb") as file:
        content = file.read()
    answer = upload(admin, change(content), name="vault")
    assert answer["error"] == {"code": 400, "errors": {"param1": "", "param2": ""}}
    assert os.listdir(f"{node.state}/state/uploads") == []


# The limit of 10 MiB is one of the whole request, so that a file of that size is beyond it.
@pytest.mark.parametrize("size, status, error", [
    (10_000_000, 200, {"code": 400, "errors": {"param1": "", "param2": ""}}), (10 << 20, 413, {"code": 101})],
    ids=["10 MB", "10 MiB"])
def test_a_key_file_of_ten_megabytes_is_refused_and_nothing_is_lost(node, admin, pavane, tmp_path, size, status, error):
    node.allow("Share \\[big\\] get failed|buffered to a temporary file|client intended to send too large body")
    if not [share for share in admin.call("KORV.Core.Share", "list")["data"]["shares"] if share["name"] == "big"]:
        make_vault(admin, "big")
        assert pavane("share", "unlock", "big", "--password-stdin", password=PASSWORD)[0] == 0
        node.inside("sh", "-c", "echo kept > /volume1/big/file")
        assert pavane("share", "lock", "big")[0] == 0
    key = tmp_path / "big.key"
    assert pavane("share", "export-key", "big", "--out", str(key), "--password-stdin", password=PASSWORD)[0] == 0
    content = (key.read_bytes() * (size // key.stat().st_size + 1))[:size]  # begins like the real one

    response = post(admin, content, name="big")
    assert (response.status_code, response.json()["error"]) == (status, error)
    assert os.listdir(f"{node.state}/state/uploads") == os.listdir(f"{node.state}/run/nginx/body") == []
    long_file = tmp_path / "long.key"
    long_file.write_bytes(content)
    told, text = pavane("share", "unlock", "big", "--key-file", str(long_file))
    assert told == 1 and f"error {error['code']}" in text, text
    assert "too large" in text or size < 10 << 20
    assert node.inside("test", "-e", "/volume1/big/file", check=False).returncode != 0

    assert upload(admin, key.read_bytes(), name="big")["success"]
    assert node.inside("cat", "/volume1/big/file") == "kept\n"
    assert pavane("share", "lock", "big")[0] == 0


def test_the_key_of_a_share_that_is_gone_opens_nothing(node, admin, pavane, tmp_path):
    node.allow("Share \\[gone\\] doesn't exists")
    make_vault(admin, "gone")
    key = tmp_path / "gone.key"
    assert pavane("share", "export-key", "gone", "--out", str(key), "--password-stdin", password=PASSWORD)[0] == 0
    share = next(share for share in admin.list(blIncldEncUnmount=True) if share["shareName"] == "gone")
    assert pavane("share", "delete", str(share["shareId"]), "--yes")[0] == 0

    def expect_refused():
        answer = upload(admin, key.read_bytes(), name="gone")
        assert answer["error"] == {"code": 3326, "errors": {"param1": "", "param2": ""}}
        told, text = pavane("share", "unlock", "gone", "--key-file", str(key))
        assert told == 1 and "error 3326" in text, text

    expect_refused()
    make_vault(admin, "gone")  # of the same name and password, and yet another one
    expect_refused()
    assert [share["encType"] for share in admin.list(blIncldEncUnmount=True) if share["shareName"] == "gone"] == [1]
    assert os.listdir(f"{node.state}/state/uploads") == []


def test_a_key_file_can_only_be_uploaded(node, admin):
    answer = admin.call(SHARE_API, "DecryptByFile", name="vault", password_file_tmp="/etc/shadow")
    assert not answer["success"] and answer["error"]["code"] == 101


def test_a_key_that_a_dead_worker_was_sent_is_removed(node):
    """Such a file bears the id of its process: here of one that has ended, and of one that goes on."""
    node.allow("was killed by signal 9")
    with subprocess.Popen(["true"]) as dead:
        dead.wait()
    uploads = f"{node.state}/state/uploads"
    left, kept = (f"{uploads}/upload.{pid}.Abc123" for pid in (dead.pid, os.getpid()))
    for path in (left, kept):
        with open(path, "w", encoding="utf-8") as file:
            file.write("key")
    os.kill(node.workers()[0], signal.SIGKILL)
    try:
        wait_until(lambda: not os.path.exists(left), "it is gone")
        assert os.path.exists(kept)
    finally:
        os.remove(kept)
