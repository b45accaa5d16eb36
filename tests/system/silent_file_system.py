"""A FUSE file system whose folders are there but whose size is never told, like a server that hangs.

    silent_file_system.py MOUNT_POINT     mounts it, prints "mounted" and serves until it is killed
"""

import ctypes
import os
import struct
import sys

_LIBC = ctypes.CDLL(None, use_errno=True)
_IN_HEADER = struct.Struct("<IIQQIIII")  # length, opcode, unique, node, uid, gid, pid, padding
_OUT_HEADER = struct.Struct("<IiQ")
_ATTRIBUTES = struct.Struct("<QQQQQQIIIIIIIIII")
_ENTRY = struct.Struct("<QQQQII")
_INIT = struct.Struct("<IIIIHHIIHHI28x")

_LOOKUP, _FORGET, _GETATTR, _STATFS, _INIT_REQUEST, _OPENDIR, _INTERRUPT = 1, 2, 3, 17, 26, 27, 36
_ENOSYS = 38
_FOLDER = 0o040777


def attributes(node):
    return _ATTRIBUTES.pack(node, 0, 0, 0, 0, 0, 0, 0, 0, _FOLDER, 2, 0, 0, 0, 512, 0)


def answer_to(opcode, node):
    """The body of the answer; an error number, or None for no answer at all."""
    if opcode == _INIT_REQUEST:
        return _INIT.pack(7, 31, 0, 0, 0, 0, 4096, 0, 0, 0, 0)
    if opcode == _LOOKUP:
        return _ENTRY.pack(node + 1, 0, 0, 0, 0, 0) + attributes(node + 1)
    if opcode == _GETATTR:
        return struct.pack("<QII", 0, 0, 0) + attributes(node)
    return None if opcode in (_STATFS, _FORGET, _INTERRUPT) else _ENOSYS


def serve(device):
    while True:
        request = os.read(device, 1 << 18)
        _, opcode, unique, node = _IN_HEADER.unpack_from(request)[:4]
        answer = answer_to(opcode, node)
        if isinstance(answer, int):
            os.write(device, _OUT_HEADER.pack(_OUT_HEADER.size, -answer, unique))
        elif answer is not None:
            os.write(device, _OUT_HEADER.pack(_OUT_HEADER.size + len(answer), 0, unique) + answer)


def main(path):
    device = os.open("/dev/fuse", os.O_RDWR)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other"
    if _LIBC.mount(b"silent", path.encode(), b"fuse.silent", 0, options.encode()) != 0:
        raise OSError(ctypes.get_errno(), "cannot mount a FUSE file system")
    print("mounted", flush=True)
    serve(device)


if __name__ == "__main__":
    main(sys.argv[1])
