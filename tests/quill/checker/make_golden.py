#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""make_golden.py DIRECTORY: the files of two tables after a fixed history, made without the store.

tests/quill/GoldenFileTest.cc makes the same history with the store and compares byte for byte. The
history goes through inserts in colliding and other order, updates, removals, growth of the slots,
compactions and growth of a queue file.
"""

import os
import sys

from model_writer import INTF, VLAN, ModelWriter

FENIX = 0x04D20000


def history(writer, key):
    for i in range(130):
        writer.put(key(i * 7 % 130 + 1), i, i + 1, i + 2)
    for i in range(0, 130, 3):
        writer.remove(key(i + 1))
    for i in range(500):
        writer.put(key(i * 11 % 130 + 1), i, 0, 0xFFFFFFFF)
    for i in range(0, 130, 5):
        writer.remove(key(i + 1))


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    for name, kind, key in (("intf", INTF, lambda n: n.to_bytes(8, "big")),
                            ("vlan", VLAN, lambda n: n.to_bytes(2, "little"))):
        writer = ModelWriter(kind, max_slots=100, fenix=FENIX, class_type=b"Golden")
        history(writer, key)
        for file in ("slots", "buckets", "conquer.1", "conquer.2"):
            os.makedirs(os.path.join(sys.argv[1], name), exist_ok=True)
            with open(os.path.join(sys.argv[1], name, file), "wb") as out:
                out.write(writer.files[file])


if __name__ == "__main__":
    main()
