"""What `pavane share edit --encrypt` makes of jobs, with a server that answers as it is told to."""

import http.server
import json
import os
import subprocess
import threading

import pytest

from node import BUILD

_SHARE = {"shareId": 1, "shareRvId": 0, "shareName": "rec", "description": "", "blHidden": False,
          "enableRecLimit": False, "recLimitGB": 100, "encType": 0, "mountType": 0}
_NO_SPACE = 3306


def job(number, state, error=0):
    return {"id": str(number), "kind": "encrypt", "share": "rec", "state": state, "error": error, "percent": 0,
            "finish": state not in ("waiting", "progressing"), "cancelling": False}


class Answers(http.server.BaseHTTPRequestHandler):
    """Job lists one after the other, the last one again and again; all else is always the same."""

    def do_POST(self):  # pylint: disable=invalid-name
        request = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        jobs = self.server.job_lists
        if request["method"] == "list":
            data = {"jobs": jobs.pop(0) if len(jobs) > 1 else jobs[0]}
        else:
            data = {"login": {"csrf": "c"}, "ListRecShare": {"sharelist": [_SHARE]},
                    "get": {"encryption": 0}}.get(request["method"])
        body = json.dumps({"success": True, "data": data}).encode()
        self.send_response(200)
        self.send_header("Set-Cookie", "korv_session=s; HttpOnly")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        """Says nothing."""


@pytest.fixture
def encrypt(tmp_path):
    """Encrypts a share whose server answers those job lists; gives the exit status and what was said."""
    def run(*job_lists):
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Answers) as server:
            server.job_lists = list(job_lists)
            threading.Thread(target=server.serve_forever, daemon=True).start()
            environment = dict(os.environ, PAVANE_URL=f"http://127.0.0.1:{server.server_port}", HOME=str(tmp_path))
            environment.pop("XDG_CONFIG_HOME", None)
            password = tmp_path / "password"
            password.write_text("secret\n", encoding="utf-8")
            for words in (["login", "admin", "--password-stdin"],
                          ["share", "edit", "1", "--encrypt", "--password-file", str(password)]):
                done = subprocess.run([os.path.join(BUILD, "bin/pavane"), *words], env=environment, input="secret\n",
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60,
                                      check=False)
            server.shutdown()
            return done.returncode, done.stdout
    return run


def test_a_job_that_failed_before_anybody_looked_is_a_failure(encrypt):
    old = job(1, "finished")
    status, said = encrypt([old], [job(2, "failed", _NO_SPACE), old])
    assert status == 1 and "encrypting rec failed: There is no space left" in said, said


def test_an_old_job_is_not_taken_for_a_new_one(encrypt):
    assert encrypt([job(1, "failed", _NO_SPACE)]) == (0, "recording share 1 is changed\n")


def test_each_state_is_told_once(encrypt):
    goes_on, waits = job(1, "progressing"), job(1, "waiting", _NO_SPACE)
    assert encrypt([], [goes_on], [goes_on], [waits], [waits], [goes_on], [job(1, "finished")]) == (
        0, "recording share 1 is changed\n"
           "encrypting rec goes on\n"
           "encrypting rec waits for free space on its volume\n"
           "encrypting rec goes on\n"
           "encrypting rec is finished\n")
