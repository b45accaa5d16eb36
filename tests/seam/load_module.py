"""Loads the module as the framework does (every symbol at once) and prints its table as JSON. A process of its
own, since the module brings the whole platform with it."""

import ctypes
import json
import os
import sys

WORDS_PER_ROW = 4
MOST_ROWS = 100


def text(address):
    return ctypes.string_at(address).decode()


def main():
    module = ctypes.CDLL(sys.argv[1], mode=os.RTLD_NOW)
    module.GetAPITable.restype = ctypes.c_void_p
    table = module.GetAPITable()
    entries = {ctypes.cast(getattr(module, name), ctypes.c_void_p).value: name for name in ("Process", "ProcessRelay")}
    words = (ctypes.c_size_t * (WORDS_PER_ROW * MOST_ROWS)).from_address(table)
    rows = []
    while any(words[len(rows) * WORDS_PER_ROW:(len(rows) + 1) * WORDS_PER_ROW]):
        api, version, method, entry = words[len(rows) * WORDS_PER_ROW:(len(rows) + 1) * WORDS_PER_ROW]
        rows.append([text(api), version, text(method), entries.get(entry)])
    exported = ctypes.addressof(ctypes.c_size_t.in_dll(module, "gTable"))
    json.dump({"rows": rows, "table is gTable": exported == table}, sys.stdout)


main()
