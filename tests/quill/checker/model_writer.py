# SPDX-License-Identifier: Apache-2.0
"""A second, simple writer of tables, for the tests of the checker: "Writing a table" in
docs/formats.md store by store, over plain byte arrays.

It shares nothing with the checker, whose faults it would otherwise repeat. `stores_left` makes it
die (Died) in place of the store after so many; the files are then what a killed writer leaves.
"""

import math
import os
import struct

NONE = 0xFFFFFFFF
INTF = {"type": b"Ringward::Status::CounterIntf", "value": 20, "slot": 40, "header": 216,
        "key": 8}
VLAN = {"type": b"Ringward::Status::CounterVlan", "value": 16, "slot": 32, "header": 208,
        "key": 2}


class Died(Exception):
    pass


def checksum(data):
    h = 2166136261
    for byte in data:
        h = (h ^ byte) * 16777619 % 2**32
    h = (h ^ h >> 16) * 0x85EBCA6B % 2**32
    h = (h ^ h >> 13) * 0xC2B2AE35 % 2**32
    return h ^ h >> 16


def _single(number):
    """Rounded to single precision."""
    return struct.unpack("<f", struct.pack("<f", number))[0]


class ModelWriter:
    def __init__(self, kind=INTF, max_slots=1024, fenix=0x04D20000, page=4096, class_type=b"Test"):
        self.kind, self.max_slots, self.page, self.fenix = kind, max_slots, page, fenix
        self.stores_left = None
        self.stores = 0
        self.sequence = 0
        self.lowest = None  # lowest sequence that a reader has reported
        size = 24 + 16 * max_slots
        self.num_buckets = 2 * max_slots + (self._page_up(size) - size) // 8
        self.files = {}
        self.text = {"fenix": b"quill-fenix 1 %08x\n" % fenix, "last-owner": b"1234 test\n",
                     "lock": b""}
        self._format(class_type)

    # Plain access.

    def get(self, file, offset, size=4):
        return int.from_bytes(self.files[file][offset:offset + size], "little")

    def poke(self, file, offset, value, size=4):
        """Changes bytes behind the writer's back: damage."""
        self.files[file][offset:offset + size] = value.to_bytes(size, "little")

    def store(self, file, offset, data):
        if isinstance(data, int):
            data = struct.pack("<I", data)
        if self.stores_left is not None:
            if self.stores_left == 0:
                raise Died
            self.stores_left -= 1
        self.stores += 1
        self.files[file][offset:offset + len(data)] = data

    def word(self, file, offset, value):
        version = (self.get(file, offset) + 1) % 2**32
        self.store(file, offset, struct.pack("<II", version, value))

    def slot(self, index):
        return self.kind["header"] + index * self.kind["slot"]

    def table(self):
        return "conquer.2" if self.get("conquer.1", 36) else "conquer.1"

    def save(self, directory):
        os.makedirs(directory, exist_ok=True)
        for name, data in {**self.files, **self.text}.items():
            with open(os.path.join(directory, name), "wb") as file:
                file.write(data)

    # Formatting.

    def _page_up(self, size):
        return (size + self.page - 1) // self.page * self.page

    def _format(self, class_type):
        kind = self.kind
        count = (self.page - kind["header"]) // kind["slot"]
        fixed = [kind["type"].ljust(64, b"\0"), class_type.ljust(64, b"\0")]
        fixed += [struct.pack("<I", n) for n in (kind["value"], kind["slot"], self.max_slots)]
        head = struct.pack("<8sII", b"QUILLSLT", 4, self.fenix) + b"".join(fixed)
        head += struct.pack("<IIIII", sum(map(checksum, fixed)) % 2**32, 0, 0, 0, count)
        self.files["slots"] = bytearray(head + self._fresh() * (count + 1))
        for i in range(count):
            self.word("slots", self.slot(i), i + 1 if i + 1 < count else NONE)
        self.files["buckets"] = bytearray(
            struct.pack("<8sIIII", b"QUILLBKT", 1, self.fenix, self.num_buckets, 1234) +
            struct.pack("<II", 0, NONE) * self.num_buckets)
        entries = (self.page - 56) // 12
        for name in ("conquer.1", "conquer.2"):
            self.files[name] = bytearray(
                struct.pack("<8sIIQIIIIIII", b"QUILLCQR", 6, self.fenix, 0, 0, 0, 0, 0, 1, entries,
                            0) + bytes(12 * entries + 4))

    def _fresh(self):
        return struct.pack("<IIII", 0, NONE, NONE, 0) + bytes(self.kind["slot"] - 16)

    # Keys.

    def hash(self, key):
        if self.kind["key"] == 2:
            return self.order(key)
        x = int.from_bytes(key, "big")
        for factor in (0xFF51AFD7ED558CCD, 0xC4CEB9FE1A85EC53):
            x = (x ^ x >> 33) * factor % 2**64
        return (x ^ x >> 33) >> 32

    def key_at(self, index):
        at = self.slot(index) + 16
        return bytes(self.files["slots"][at:at + self.kind["key"]])

    def order(self, key):
        return int.from_bytes(key, "little" if self.kind["key"] == 2 else "big")

    def find(self, key):
        """(file and offset of the word that leads to the slot or its place, slot or None)."""
        at = ("buckets", 24 + 8 * (self.hash(key) % self.num_buckets))
        while True:
            index = self.get(at[0], at[1] + 4)
            if index == NONE or self.order(key) < self.order(self.key_at(index)):
                return at, None
            if key == self.key_at(index):
                return at, index
            at = ("slots", self.slot(index))

    # Changes.

    def put(self, key, *counts):
        counts = list(counts) + [0] * (3 - len(counts))
        value = key.ljust(self.kind["value"] - 12, b"\0") + struct.pack("<III", *counts)
        at, index = self.find(key)
        new = index is None
        if new:
            index = self.take()
            self.word("slots", self.slot(index), self.get(at[0], at[1] + 4))
        self._store_value(index, value)
        if new:
            self.word(*at, index)
        self.notify(index)

    def _store_value(self, index, value):
        flags = self.slot(index) + 12
        if self.get("slots", flags) & 1:
            self._copy(192, value)
        self.store("slots", flags, self.get("slots", flags) + 2)
        self._copy(self.slot(index) + 16, value)
        self.store("slots", flags, self.get("slots", flags) + 2 | 1)

    def _copy(self, offset, value):
        for i in range(0, len(value), 4):
            self.store("slots", offset + i, value[i:i + 4])

    def take(self):
        if self.get("slots", 164) == NONE:
            self.grow()
        index = self.get("slots", 164)
        self.store("slots", 164, self.get("slots", self.slot(index) + 4))
        self.store("slots", 160, self.get("slots", 160) + 1)
        return index

    def remove(self, key):
        at, index = self.find(key)
        slot = self.slot(index)
        self.word(*at, self.get("slots", slot + 4))
        self.store("slots", slot + 12, self.get("slots", slot + 12) & ~1)
        old = self.get("slots", 164)
        self.store("slots", 164, index)
        self.word("slots", slot, old)
        self.store("slots", 160, self.get("slots", 160) - 1)
        self.notify(index)

    def grow(self):
        old = self.get("slots", 172)
        if old < self.max_slots:
            count = min(2 * old, self.max_slots)
        else:
            count = math.ceil(_single(old * _single(1.1)))
        used = self.slot(count)
        count += (self._page_up(used) - used) // self.kind["slot"]
        self.files["slots"] += bytes(self.slot(count) - len(self.files["slots"]))
        for i in range(old, count):
            self.store("slots", self.slot(i), self._fresh())
        for i in range(count - 1, old - 1, -1):
            self.word("slots", self.slot(i), i + 1 if i + 1 < count else NONE)
        self.word("slots", 168, count)
        self.store("slots", 164, old)

    def notify(self, index):
        if self.get(self.table(), 48) >= self.get(self.table(), 44):
            self.move()
        table, field = self.table(), self.slot(index) + 8
        if self.get("slots", field) != NONE:
            self.store(table, 52 + 12 * self.get("slots", field) + 8, NONE)
        position = self.get(table, 48)
        self.sequence += 1
        self.store(table, 52 + 12 * position, struct.pack("<Q", self.sequence))
        self.store(table, 52 + 12 * position + 8, index)
        self.store("slots", field, position)
        self.store(table, 48, position + 1)

    # The queue.

    def entry(self, table, position):
        return struct.unpack_from("<QI", self.files[table], 52 + 12 * position)

    def cut(self, source, count, min_seq):
        at = [self.entry(source, p)[0] for p in range(count)]
        if min_seq == 0 or at[0] > min_seq:
            return 0
        if at[0] == min_seq:
            return 1
        if at[-1] == min_seq:
            return count - 1
        if at[-1] < min_seq:
            return 1
        low, high = 0, count - 1
        while True:
            middle = (low + high) // 2
            if at[middle] == min_seq:
                return middle + 1
            if at[middle] < min_seq:
                low = moved = middle + 1
            else:
                high = moved = middle - 1
            if at[low] > min_seq or at[high] < min_seq:
                return moved + 1

    def move(self):
        source = self.table()
        target = "conquer.1" if source == "conquer.2" else "conquer.2"
        min_seq, lowest = self.get("conquer.1", 16, 8), self.lowest
        if lowest is None or min_seq < lowest:
            min_seq = self.sequence if lowest is None else lowest
        count = self.get(source, 48)
        n = self.cut(source, count, min_seq)
        entries = [self.entry(source, p) for p in range(count)]
        for _, slot in entries[:n]:
            if slot != NONE:
                self.store("slots", self.slot(slot) + 8, NONE)
        live = [e for e in entries[n:] if e[1] != NONE]
        if self.get(target, 44) < 2 * len(live):
            capacity = 2 * len(live)
            used = 56 + 12 * capacity
            capacity += (self._page_up(used) - used) // 12
            self.files[target] += bytes(56 + 12 * capacity - len(self.files[target]))
            self.word(target, 40, capacity)
        self.store(target, 48, 0)
        for position, (sequence, slot) in enumerate(live):
            self.store(target, 52 + 12 * position, struct.pack("<QI", sequence, slot))
            self.store("slots", self.slot(slot) + 8, position)
            self.store(target, 48, position + 1)
        self.store("conquer.1", 16, struct.pack("<Q", min_seq))
        self.word("conquer.1", 32, int(target == "conquer.2"))
