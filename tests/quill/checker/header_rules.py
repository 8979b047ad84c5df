# SPDX-License-Identifier: Apache-2.0
"""What each header must say by itself, and the sizes of the files against their counts.

After a header without findings every slot below numSlots, every head below numBuckets and every
entry below notifications lies inside its file.
"""

from table_format import KEY_TYPES, NONE, VALUE_TYPES


def _round_up(size, page):
    return -(-size // page) * page


def _text_of(field):
    return field.rstrip(b"\0").decode("utf-8", "backslashreplace")


def _start(file, findings):
    """Size, magic, version and id: what all headers begin with."""
    if not findings.check(file.size >= file.FIXED, file.name, 0, "file size", file.size,
                          "at least %d" % file.FIXED):
        return False
    good = findings.check(file.data[:8] == file.MAGIC, file.name, 0, "magic", repr(file.data[:8]),
                          repr(file.MAGIC))
    good &= findings.check(file.u32(8) == file.VERSION, file.name, 8, "version", file.u32(8),
                           str(file.VERSION))
    good &= findings.check(file.fenix != 0, file.name, 12, "fenix", file.fenix, "1 to 4294967295")
    return good


def _fills_page(file, used, unit, page, offset, what, count, findings):
    """Growth leaves less than one unit unused on the last page."""
    rest = _round_up(used, page) - used
    findings.check(rest < unit, file.name, offset, what, count,
                   "%d, which fill the last page of %d bytes" % (count + rest // unit, page))


def _name(file, offset, what, field, findings):
    end = field.find(b"\0")
    if findings.check(end >= 0, file.name, offset + 63, what, repr(field), "at most 63 bytes"):
        findings.check(not field[end:].strip(b"\0"), file.name, offset + end, what, repr(field),
                       "zero bytes behind the name")


def check_slots(slots, page, findings):
    """Whether numSlots slots can be read: later findings do not change that."""
    if not _start(slots, findings):
        return False
    name = slots.name
    _name(slots, 16, "valueType", slots.value_type, findings)
    findings.check(slots.value_type[:1] != b"\0", name, 16, "valueType", "''", "1 to 63 bytes")
    _name(slots, 80, "classType", slots.class_type, findings)
    findings.check(slots.checksum() == slots.hash, name, 156, "hash", "0x%08x" % slots.hash,
                   "0x%08x" % slots.checksum())
    known = VALUE_TYPES.get(_text_of(slots.value_type))
    if known:
        good = findings.check(slots.value_size == known.size, name, 144, "valueSize",
                              slots.value_size, str(known.size))
    else:
        good = findings.check(slots.value_size > 0, name, 144, "valueSize", 0, "1 or more")
    wanted = -(-(16 + slots.value_size) // 8) * 8
    good &= findings.check(slots.slot_size == wanted, name, 148, "slotSize", slots.slot_size,
                           str(wanted))
    if not good:
        return False
    size = slots.header_size + slots.num_slots * slots.slot_size
    findings.check(slots.num_slots > 0, name, 172, "numSlots", 0, "1 or more")
    if not findings.check(slots.size >= size, name, 172, "file size", slots.size,
                          "at least %d for %d slots" % (size, slots.num_slots)):
        return False
    _fills_page(slots, size, slots.slot_size, page, 172, "numSlots", slots.num_slots, findings)
    findings.check(slots.occupied <= slots.num_slots, name, 160, "occupiedSlots", slots.occupied,
                   "0 to %d" % slots.num_slots)
    return findings.check(slots.free_head == NONE or slots.free_head < slots.num_slots, name, 164,
                          "freeSlots", slots.free_head, "none or below %d" % slots.num_slots)


def check_buckets(buckets, findings):
    if not _start(buckets, findings):
        return False
    size = buckets.offset(buckets.num_buckets)
    findings.check(buckets.owner_pid != 0, buckets.name, 20, "owner pid", 0, "1 or more")
    good = findings.check(buckets.num_buckets > 0, buckets.name, 16, "numBuckets", 0, "1 or more")
    good &= findings.check(buckets.size == size, buckets.name, 16, "file size", buckets.size,
                           "%d for %d buckets" % (size, buckets.num_buckets))
    return good


def check_bucket_count(slots, buckets, page, findings):
    """numBuckets follows from maxSlots, which stands in the other file."""
    used = 24 + 16 * slots.max_slots
    wanted = 2 * slots.max_slots + (_round_up(used, page) - used) // 8
    return findings.check(buckets.num_buckets == wanted, buckets.name, 16, "numBuckets",
                          buckets.num_buckets,
                          "%d for maxSlots %d and pages of %d bytes" % (wanted, slots.max_slots, page))


def check_queue(queue, page, findings):
    if not _start(queue, findings):
        return False
    size = 56 + 12 * queue.notifications
    name = queue.name
    findings.check(queue.reserved == 0, name, 28, "reserved bytes", queue.reserved, "0")
    findings.check(queue.notifications_version > 0, name, 40, "version of notifications", 0,
                   "1 or more")
    good = findings.check(queue.notifications > 0, name, 44, "notifications", 0, "1 or more")
    if not findings.check(queue.size >= size, name, 44, "file size", queue.size,
                          "at least %d for %d notifications" % (size, queue.notifications)):
        return False
    _fills_page(queue, size, 12, page, 44, "notifications", queue.notifications, findings)
    good &= findings.check(queue.current_pos <= queue.notifications, name, 48, "currentPos",
                           queue.current_pos, "0 to %d" % queue.notifications)
    if name == "conquer.1":
        good &= findings.check(queue.current < 2, name, 36, "currentTable", queue.current, "0 or 1")
        findings.check(queue.current == queue.generation & 1, name, 36, "currentTable",
                       queue.current, "%d in generation %d" % (queue.generation & 1,
                                                               queue.generation))
    else:
        for offset, what, value in ((16, "minSeq", queue.min_seq),
                                    (24, "numReaders", queue.num_readers),
                                    (32, "version of currentTable", queue.generation),
                                    (36, "currentTable", queue.current)):
            findings.check(value == 0, name, offset, what, value, "0 in conquer.2")
    return good


def key_type_of(slots, chosen):
    """The KeyType of the table's value type, else the one chosen for it, else None."""
    known = VALUE_TYPES.get(_text_of(slots.value_type))
    name = known.key if known else chosen
    key_type = KEY_TYPES.get(name)
    return key_type if key_type and key_type.size <= slots.value_size else None
