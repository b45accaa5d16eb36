"""The built module meets its platform at the seam and nowhere else.

SEAM_MODULE, SEAM_FAKE, SEAM_PLATFORM (paths separated by ":") and SEAM_HEADERS name the built files and the
folder of the contract.
"""

import json
import os
import pathlib
import subprocess
import sys

import pytest

import declarations
import elf

MODULE = os.environ["SEAM_MODULE"]
FAKE = os.environ["SEAM_FAKE"]
PLATFORM = os.environ["SEAM_PLATFORM"].split(":")
HEADERS = os.environ["SEAM_HEADERS"]

RELAYED = {"CreateRecShare", "DelRecShare", "EditRecShare", "CreateRemoteRecShare"}
METHODS = ["List", "ListRecShare", "CreateRecShare", "DelRecShare", "EditRecShare", "ListUsingCam",
           "CheckStorageMigrating", "ListMountedFolder", "ReconnetRemoteMount", "CreateRemoteRecShare",
           "DecryptByFile", "ListShareUsage"]


def platform_symbols():
    """What the module needs and no other library than the platform's own could give."""
    platform = {os.path.realpath(path) for path in PLATFORM}
    foreign = set()
    for library in elf.needed_files(MODULE):
        if os.path.realpath(library) not in platform:
            foreign |= elf.defined(library)
    needed = elf.undefined(MODULE)
    # A weak symbol may stay open: that is how the start-up code asks for optional hooks.
    return {name for name, kind in needed.items() if name not in foreign and kind != "w"}


@pytest.fixture(name="needed", scope="module")
def fixture_needed():
    needed = elf.demangle(platform_symbols())
    assert needed, "a module that needs nothing of its platform was not read rightly"
    return needed


def test_the_module_exports_exactly_its_interface():
    assert elf.defined(MODULE) == {"GetAPITable", "Process", "ProcessRelay", "gTable"}


def test_every_symbol_it_needs_is_declared_in_the_contract(needed):
    headers = declarations.Headers(HEADERS)
    assert [symbol for symbol in needed.values() if not headers.declare(symbol)] == []


def test_every_symbol_it_needs_is_in_the_recording_fake(needed):
    fake = elf.defined(FAKE, dynamic=False)
    assert [symbol for name, symbol in needed.items() if name not in fake] == []


def test_every_symbol_it_needs_is_in_the_open_platform(needed):
    platform = set().union(*(elf.defined(path) for path in PLATFORM))
    assert [symbol for name, symbol in needed.items() if name not in platform] == []


def test_a_declaration_is_told_from_a_mere_mention():
    headers = declarations.Headers(HEADERS)
    assert headers.declare("KORV::APIRequest::GetParam(int) const")
    assert headers.declare("char const* Enum2String<LOG_LEVEL>(LOG_LEVEL)")
    assert headers.declare("g_pDbgLogCfg")
    assert not headers.declare("KORV::APIRequest::GetNothing(int)")
    assert not headers.declare("KORV::Nothing::GetParam(int)")
    assert not headers.declare("g_pDbg")


def load():
    """Runs load_module.py; a module built with a sanitizer needs its runtime first in the process."""
    environment = dict(os.environ)
    runtimes = [path for path in elf.needed_files(MODULE) if "/libasan.so" in path]
    if runtimes:
        environment["LD_PRELOAD"] = runtimes[0]
        environment["ASAN_OPTIONS"] = "detect_leaks=0"
    script = pathlib.Path(__file__).with_name("load_module.py")
    done = subprocess.run([sys.executable, str(script), MODULE], env=environment, capture_output=True, text=True,
                          check=False)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def test_it_loads_with_every_symbol_at_once_and_shows_its_table():
    loaded = load()
    assert loaded["table is gTable"]
    assert loaded["rows"] == [
        ["KORV.Pavane.Share", 1, method, "ProcessRelay" if method in RELAYED else "Process"] for method in METHODS]


def test_the_virtual_functions_of_the_handler_stand_in_their_order():
    addresses = elf.addresses(MODULE)
    words = elf.relative_relocations(MODULE)
    names = {}
    for name, address in addresses.items():
        names.setdefault(address, set()).add(name)
    # The offset to the top and the type come before the functions.
    first = addresses["_ZTV12ShareHandler"] + 16
    slots = [names[words[first + 8 * place]] for place in range(4)]
    assert "_ZN12ShareHandlerD1Ev" in slots[0]
    assert "_ZN12ShareHandlerD0Ev" in slots[1]
    assert any("IsCamAvailiable" in name for name in slots[2])
    assert any("GetRedirectPrivData" in name for name in slots[3])
