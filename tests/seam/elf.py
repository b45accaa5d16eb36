"""What binutils say about an object: defined and undefined symbols, relocations, needed libraries."""

import re
import subprocess


def _run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def _symbol_lines(path, *options):
    """Yields (address or None, type letter, name without version) for each symbol of the object."""
    for line in _run("nm", *options, str(path)).splitlines():
        found = re.match(r"^([0-9a-f]+)?\s+([A-Za-z])\s+(\S+)$", line)
        if found:
            address = int(found[1], 16) if found[1] else None
            yield address, found[2], found[3].split("@")[0]


def defined(path, dynamic=True):
    """Names that the object defines for others."""
    options = ["-D"] if dynamic else []
    return {name for _, kind, name in _symbol_lines(path, *options, "--defined-only")
            if kind.isupper() or kind in "uvw"}


def undefined(path):
    """Names that the object needs from others: {name: type letter}."""
    return {name: kind for _, kind, name in _symbol_lines(path, "-D", "--undefined-only")}


def addresses(path):
    """All symbols with an address, local ones included: {name: address}."""
    return {name: address for address, _, name in _symbol_lines(path) if address is not None}


def relative_relocations(path):
    """Words that hold an address of the object itself: {place: address}."""
    words = {}
    for line in _run("readelf", "-rW", str(path)).splitlines():
        fields = line.split()
        if len(fields) == 4 and fields[2].endswith("_RELATIVE"):
            words[int(fields[0], 16)] = int(fields[3], 16)
    return words


def needed_files(path):
    """Paths of all libraries that are loaded with the object."""
    return re.findall(r"=>\s+(/\S+)", _run("ldd", str(path)))


def demangle(names):
    """{name: name as in C++}."""
    names = sorted(names)
    text = subprocess.run(["c++filt"], input="\n".join(names), check=True, capture_output=True, text=True).stdout
    return dict(zip(names, text.splitlines()))
