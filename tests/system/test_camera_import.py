"""What `pavane camera import` takes, what it refuses before it sends anything, and what it says when it fails midway."""

import contextlib
import http.server
import json
import os
import re
import sqlite3
import subprocess
import threading

import pytest

from candidates import CommandLine
from node import BUILD

_MOST = (1 << 31) - 1
_NOBODY = "http://127.0.0.1:9"  # what is wrong with a file is told without a server


class _Recorder(http.server.BaseHTTPRequestHandler):
    """Takes the first import and closes the connection at the second."""

    def do_POST(self):  # pylint: disable=invalid-name
        cameras = json.loads(self.rfile.read(int(self.headers["Content-Length"])))["cameras"]
        self.server.taken.append(len(cameras))
        if len(self.server.taken) > 1:
            return
        answer = json.dumps({"success": True, "data": {"imported": len(cameras)}}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *_):  # pylint: disable=arguments-differ
        pass


@contextlib.contextmanager
def dying_recorder():
    with http.server.HTTPServer(("127.0.0.1", 0), _Recorder) as server:
        server.taken = []
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        try:
            yield server
        finally:
            server.shutdown()
            thread.join()


def import_file(tmp_path, content, url=_NOBODY):
    """How the import of a file with that content ends: its status and what it says on standard error."""
    file = tmp_path / "cameras"
    file.write_bytes(content if isinstance(content, bytes) else content.encode())
    return run("camera", "import", str(file), url=url, home=tmp_path)


def run(*arguments, url, home, **options):
    environment = dict(os.environ, PAVANE_URL=url, HOME=str(home), LC_ALL="C.UTF-8")
    environment.pop("XDG_CONFIG_HOME", None)
    done = subprocess.run([os.path.join(BUILD, "bin/pavane"), *arguments], env=environment, stderr=subprocess.PIPE,
                          stdout=options.pop("stdout", subprocess.DEVNULL), text=True, timeout=60, check=False, **options)
    return done.returncode, done.stderr


def test_an_empty_file_is_called_so_and_an_unreadable_one_with_the_reason(tmp_path):
    assert import_file(tmp_path, "") == (2, "pavane: the file is empty\n")
    assert run("camera", "import", "-", url=_NOBODY, home=tmp_path, input="") == (2, "pavane: the file is empty\n")
    missing, folder = str(tmp_path / "none"), str(tmp_path)
    assert run("camera", "import", missing, url=_NOBODY, home=tmp_path) == (
        2, f"pavane: cannot read {missing}: No such file or directory\n")
    assert run("camera", "import", folder, url=_NOBODY, home=tmp_path) == (
        2, f"pavane: cannot read {folder}: Is a directory\n")


def test_json_that_is_nested_too_deeply_is_refused_as_a_file(tmp_path):
    assert import_file(tmp_path, "[" * 5000 + "]" * 5000) == (2, "pavane: not valid JSON: it is nested too deeply\n")
    nested = '[{"name": "Gate", "ip": ' + "[" * 900 + "]" * 900 + "}]"
    assert import_file(tmp_path, nested) == (2, "pavane: not valid JSON: it is nested too deeply\n")


def test_a_camera_that_no_request_can_hold_is_named_before_any_is_sent(tmp_path):
    status, said = import_file(tmp_path, f"name,recording_path\nGate,/volume1/rec/gate\n{'x' * 2000000},/volume1/rec/x\n")
    assert (status, said) == (2, "pavane: line 3: the camera is too long for a request of 921600 bytes\n")


@pytest.mark.parametrize("content, told", [
    ("name,recording_path\nGate,/volume1/rec/a\nYard,/volume1/rec/b\nGate,/volume1/rec/c\n",
     "line 4: the camera 'Gate' of server 0 stands in line 2 already"),
    ('[{"name": "Gate", "ownerRvId": 3}, {"name": "Gate"}, {"name": "Gate", "ownerRvId": 3}]',
     "camera 3: the camera 'Gate' of server 3 stands in camera 1 already"),
], ids=["csv", "json"])
def test_a_camera_that_stands_there_twice_is_refused(tmp_path, content, told):
    assert import_file(tmp_path, content) == (2, f"pavane: {told}\n")


def test_when_the_connection_is_lost_midway_the_cameras_before_are_counted(tmp_path):
    cameras = 12000
    rows = "".join(f"Camera {i:05},/volume1/rec/{i:05}-{'x' * 64}\n" for i in range(cameras))
    with dying_recorder() as server:
        status, said = import_file(tmp_path, "name,recording_path\n" + rows, f"http://127.0.0.1:{server.server_port}")
        first, second = server.taken
    assert status == 1 and 0 < first < cameras
    counted, cause = said.splitlines()
    assert counted == (f"pavane: the first {first} cameras were imported; whether the {second} after them were is "
                       "not known")
    assert cause.startswith("pavane: the server can't be reached: ")


@pytest.fixture(name="pavane")
def fixture_pavane(node, tmp_path):
    pavane = CommandLine(node, "admin", tmp_path)
    yield pavane
    with contextlib.closing(sqlite3.connect(f"{node.state}/state/pavane.db", timeout=20)) as database, database:
        database.execute("delete from camera")


def test_a_misspelt_key_is_named_with_its_camera(pavane):
    told = pavane.run("camera", "import", "-", status=1,
                      input='[{"name": "Gate"}, {"name": "Yard", "recording_path": "/volume1/rec/yard"}]')
    assert "error 401" in told
    assert "param1: camera 2: recording_path\n" in told and "param2: is no key of a camera\n" in told
    assert json.loads(pavane.run("camera", "list", "--json"))["total"] == 0
    told = pavane.run("camera", "import", "-", status=1, input=f'[{{"name": "Gate", "occupiedMB": {_MOST + 1}}}]')
    assert "param1: camera 1: occupiedMB\n" in told and f"param2: must be a whole number from 0 to {_MOST}\n" in told


def test_a_printed_list_can_be_imported_again_also_with_a_byte_order_mark(pavane):
    pavane.run("camera", "import", "-", input=(
        "\ufeff" '[{"name": "Gate", "recordingPath": "/volume1/rec/gate", "ip": "192.0.2.7", "occupiedMB": 3000,'
        f' "rotatedBySpace": true, "rotationBySpaceMB": {_MOST}, "recStorageStatus": 1, "ownerRvId": 4}}]'))
    before = pavane.run("camera", "list", "--json")
    assert pavane.run("camera", "import", "-", input="\ufeff" + before) == "1 camera imported\n"
    assert pavane.run("camera", "list", "--json") == before


def test_the_list_shows_what_was_imported(pavane):
    pavane.run("camera", "import", "-", input=json.dumps([
        {"name": "Gate", "recordingPath": "/volume1/rec/gate", "ip": "192.0.2.7", "occupiedMB": 3072,
         "rotatedBySpace": True, "rotationBySpaceMB": 2048},
        {"name": "Old", "recordingPath": "/volume1/rec/old"},
        {"name": "Yard", "recordingPath": "/volume1/rec/yard", "recStorageStatus": 1}]))
    moving = str(json.loads(pavane.run("camera", "list", "--json"))["cameras"][1]["id"])
    pavane.run("camera", "migrate", "start", moving)
    try:
        rows = pavane.run("camera", "list").splitlines()
    finally:
        pavane.run("camera", "migrate", "stop", moving)
    assert [re.sub(r"^ *\S+  ", "", row) for row in rows] == [
        "NAME  SERVER  FOLDER             ADDRESS    OCCUPIED  KEEPS FREE  STATE",
        "Gate       0  /volume1/rec/gate  192.0.2.7    3.0 GB      2.0 GB",
        "Old        0  /volume1/rec/old                  0 MB           -  migrates from /volume1/rec/old",
        "Yard       0  /volume1/rec/yard                 0 MB           -  not in use"]


def test_output_that_cannot_be_written_is_told_with_the_reason(pavane):
    pavane.run("camera", "import", "-", input=json.dumps([{"name": f"Camera {i}"} for i in range(500)]))
    for command in (["camera", "list"], ["camera", "list", "--json"], ["--help"]):
        with open("/dev/full", "w", encoding="utf-8") as full:
            done = subprocess.run([os.path.join(BUILD, "bin/pavane"), *command], env=pavane.environment, stdout=full,
                                  stderr=subprocess.PIPE, text=True, timeout=60, check=False)
        assert (done.returncode, done.stderr) == (
            1, "pavane: cannot write the output: No space left on device\n"), command
