# SPDX-License-Identifier: Apache-2.0
"""Layout of the files of a table, written from "Table files" in docs/formats.md.

Classes here only read fields out of bytes; what the fields must be is judged in *_rules.py. None of
them reads beyond the bytes it was given: a caller asks `room` first, or checks the counts.
"""

import struct
from dataclasses import dataclass

import intf_id

NONE = 0xFFFFFFFF
OCCUPIED = 1
LOOKASIDE = 2
MASK32 = 0xFFFFFFFF
ALL_ONES64 = 0xFFFFFFFFFFFFFFFF

_U32 = struct.Struct("<I")
_U64 = struct.Struct("<Q")
_SLOT = struct.Struct("<IIII")
_ENTRY = struct.Struct("<QI")


def util_hash(data):
    """The checksum of bytes."""
    h = 0x811C9DC5
    for byte in data:
        h = ((h ^ byte) * 0x01000193) & MASK32
    h = ((h ^ (h >> 16)) * 0x85EBCA6B) & MASK32
    h = ((h ^ (h >> 13)) * 0xC2B2AE35) & MASK32
    return h ^ (h >> 16)


@dataclass(frozen=True)
class KeyType:
    """How keys are placed, ordered and printed. `order` maps the key's bytes to what compares."""
    size: int
    hash: callable
    order: callable
    text: callable


def _big(key):
    return int.from_bytes(key, "big")


def _little(key):
    return int.from_bytes(key, "little")


KEY_TYPES = {
    "intf": KeyType(8, lambda k: intf_id.hash_of(_big(k)), bytes, lambda k: intf_id.name_of(_big(k))),
    "vlan": KeyType(2, _little, _little, lambda k: str(_little(k))),
}


@dataclass(frozen=True)
class ValueType:
    """`counts` is the offset of tx, rx and rxOther in the value."""
    key: str
    size: int
    counts: int


VALUE_TYPES = {
    "Ringward::Status::CounterIntf": ValueType("intf", 20, 8),
    "Ringward::Status::CounterVlan": ValueType("vlan", 16, 4),
}


class File:
    """Bytes of one file with the name under which findings report it."""

    def __init__(self, name, data):
        self.name = name
        self.data = data

    @property
    def size(self):
        return len(self.data)

    def u32(self, offset):
        return _U32.unpack_from(self.data, offset)[0]

    def u64(self, offset):
        return _U64.unpack_from(self.data, offset)[0]


class SlotFile(File):
    FIXED = 176
    MAGIC = b"QUILLSLT"
    VERSION = 4

    def __init__(self, data):
        super().__init__("slots", data)
        if self.size < self.FIXED:
            return
        self.fenix = self.u32(12)
        self.value_type = data[16:80]
        self.class_type = data[80:144]
        self.value_size = self.u32(144)
        self.slot_size = self.u32(148)
        self.max_slots = self.u32(152)
        self.hash = self.u32(156)
        self.occupied = self.u32(160)
        self.free_head = self.u32(164)
        self.num_version = self.u32(168)
        self.num_slots = self.u32(172)
        self.header_size = self.FIXED + self.slot_size

    def checksum(self):
        parts = (self.value_type, self.class_type, self.data[144:148], self.data[148:152],
                 self.data[152:156])
        return sum(util_hash(part) for part in parts) & MASK32

    def offset(self, slot):
        return self.header_size + slot * self.slot_size

    def slot(self, slot):
        """(version, next, conquerSlot, flags)."""
        return _SLOT.unpack_from(self.data, self.offset(slot))

    def next(self, slot):
        return self.u32(self.offset(slot) + 4)

    def conquer_slot(self, slot):
        return self.u32(self.offset(slot) + 8)

    def flags(self, slot):
        return self.u32(self.offset(slot) + 12)

    def value(self, slot):
        start = self.offset(slot) + 16
        return self.data[start:start + self.value_size]

    def lookaside_value(self):
        return self.data[192:192 + self.value_size]


class BucketFile(File):
    FIXED = 24
    MAGIC = b"QUILLBKT"
    VERSION = 1

    def __init__(self, data):
        super().__init__("buckets", data)
        if self.size < self.FIXED:
            return
        self.fenix = self.u32(12)
        self.num_buckets = self.u32(16)
        self.owner_pid = self.u32(20)

    @staticmethod
    def offset(bucket):
        return 24 + 8 * bucket

    def first(self, bucket):
        return self.u32(self.offset(bucket) + 4)


class QueueFile(File):
    FIXED = 56
    MAGIC = b"QUILLCQR"
    VERSION = 6

    def __init__(self, name, data):
        super().__init__(name, data)
        if self.size < self.FIXED:
            return
        self.fenix = self.u32(12)
        self.min_seq = self.u64(16)
        self.num_readers = self.u32(24)
        self.reserved = self.u32(28)
        self.generation = self.u32(32)
        self.current = self.u32(36)
        self.notifications_version = self.u32(40)
        self.notifications = self.u32(44)
        self.current_pos = self.u32(48)

    @staticmethod
    def offset(position):
        return 52 + 12 * position

    def entry(self, position):
        """(sequence, slot)."""
        return _ENTRY.unpack_from(self.data, self.offset(position))
