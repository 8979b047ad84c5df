# SPDX-License-Identifier: Apache-2.0
"""Each thing that can be wrong, made wrong once: the finding names file, offset, value and range."""

import os
import unittest

from harness import TableTest, eth, key, vlan
from model_writer import INTF, NONE, VLAN, ModelWriter


class HeaderDamageTest(TableTest):
    def setUp(self):
        super().setUp()
        self.writer = ModelWriter()

    def damaged(self, file, offset, value, text, size=4, at=None):
        self.writer.poke(file, offset, value, size)
        self.assert_damage(self.writer, file, offset if at is None else at, text)

    def test_magic(self):
        for file, good, bad in (("slots", "QUILLSLT", "XUILLSLT"), ("buckets", "QUILLBKT", "XUILLBKT"),
                                ("conquer.1", "QUILLCQR", "XUILLCQR"),
                                ("conquer.2", "QUILLCQR", "XUILLCQR")):
            self.damaged(file, 0, ord("X"), "%s: offset 0: magic is b'%s', allowed: b'%s'" %
                         (file, bad, good), size=1)

    def test_version(self):
        for file, good in (("slots", 4), ("buckets", 1), ("conquer.1", 6), ("conquer.2", 6)):
            self.damaged(file, 8, 99, "%s: offset 8: version is 99, allowed: %d" % (file, good))

    def test_id_of_another_generation(self):
        for file in ("slots", "buckets", "conquer.1", "conquer.2"):
            self.damaged(file, 12, 0xABC, "%s: offset 12: fenix is 0x00000abc, allowed: 0x04d20000"
                         " as in fenix" % file)

    def test_id_of_zero(self):
        self.damaged("buckets", 12, 0, "buckets: offset 12: fenix is 0, allowed: 1 to 4294967295")

    def test_names(self):
        writer = ModelWriter(class_type=b"x" * 64)
        self.assert_damage(writer, "slots", 143, "slots: offset 143: classType is %r, allowed: at "
                           "most 63 bytes" % (b"x" * 64))
        self.assert_sound(ModelWriter(class_type=b"x" * 63))
        writer = ModelWriter(class_type=b"x\0y")
        self.assert_damage(writer, "slots", 81, "slots: offset 81: classType is %r, allowed: zero "
                           "bytes behind the name" % b"x\0y".ljust(64, b"\0"))
        writer = ModelWriter(dict(INTF, type=b""))
        self.assert_damage(writer, "slots", 16,
                           "slots: offset 16: valueType is '', allowed: 1 to 63 bytes")

    def test_checksum(self):
        self.damaged("slots", 152, 1025, "slots: offset 156: hash is 0x%08x, allowed: 0x%08x" %
                     (self.writer.get("slots", 156), checksum_with(1025)), at=156)

    def test_sizes_of_value_and_slot(self):
        self.damaged("slots", 148, 48, "slots: offset 148: slotSize is 48, allowed: 40")
        self.damaged("slots", 148, 0, "slots: offset 148: slotSize is 0, allowed: 40")
        self.damaged("slots", 144, 16, "slots: offset 144: valueSize is 16, allowed: 20")

    def test_value_of_no_bytes(self):
        writer = ModelWriter(dict(INTF, type=b"Some::Value", value=0, slot=16, header=192))
        self.assert_damage(writer, "slots", 144,
                           "slots: offset 144: valueSize is 0, allowed: 1 or more")

    def test_more_slots_than_the_file_holds(self):
        self.damaged("slots", 172, 98, "slots: offset 172: file size is 4096, allowed: at least "
                     "4136 for 98 slots")

    def test_slots_that_leave_room_on_the_page(self):
        self.damaged("slots", 172, 96, "slots: offset 172: numSlots is 96, allowed: 97, which fill "
                     "the last page of 4096 bytes")

    def test_no_slots(self):
        self.damaged("slots", 172, 0, "slots: offset 172: numSlots is 0, allowed: 1 or more")

    def test_more_slots_occupied_than_there_are(self):
        self.damaged("slots", 160, 98, "slots: offset 160: occupiedSlots is 98, allowed: 0 to 97")

    def test_free_list_beyond_the_slots(self):
        self.damaged("slots", 164, 97, "slots: offset 164: freeSlots is 97, allowed: none or below "
                     "97")

    def test_number_of_buckets(self):
        self.damaged("buckets", 16, 2556, "buckets: offset 16: file size is 20480, allowed: 20472 "
                     "for 2556 buckets")
        del self.writer.files["buckets"][-8:]
        self.assert_damage(self.writer, "buckets", 16, "buckets: offset 16: numBuckets is 2556, "
                           "allowed: 2557 for maxSlots 1024 and pages of 4096 bytes")

    def test_no_buckets(self):
        del self.writer.files["buckets"][24:]
        self.damaged("buckets", 16, 0, "buckets: offset 16: numBuckets is 0, allowed: 1 or more")

    def test_no_owner_of_buckets(self):
        self.damaged("buckets", 20, 0, "buckets: offset 20: owner pid is 0, allowed: 1 or more")

    def test_reserved_bytes_of_the_queue(self):
        self.damaged("conquer.1", 28, 7, "conquer.1: offset 28: reserved bytes is 7, allowed: 0")

    def test_current_table(self):
        self.damaged("conquer.1", 36, 2, "conquer.1: offset 36: currentTable is 2, allowed: 0 or 1")
        self.damaged("conquer.1", 36, 1, "conquer.1: offset 36: currentTable is 1, allowed: 0 in "
                     "generation 0")

    def test_fields_that_count_in_the_first_table_only(self):
        for offset, what in ((16, "minSeq"), (24, "numReaders"), (32, "version of currentTable"),
                             (36, "currentTable")):
            self.damaged("conquer.2", offset, 1, "conquer.2: offset %d: %s is 1, allowed: 0 in "
                         "conquer.2" % (offset, what))

    def test_capacity_of_the_queue(self):
        self.damaged("conquer.2", 44, 337, "conquer.2: offset 44: file size is 4088, allowed: at "
                     "least 4100 for 337 notifications")
        self.damaged("conquer.2", 44, 335, "conquer.2: offset 44: notifications is 335, allowed: "
                     "336, which fill the last page of 4096 bytes")
        self.damaged("conquer.2", 44, 0, "conquer.2: offset 44: notifications is 0, allowed: 1 or "
                     "more")

    def test_version_of_the_capacity(self):
        self.damaged("conquer.1", 40, 0, "conquer.1: offset 40: version of notifications is 0, "
                     "allowed: 1 or more")

    def test_position_beyond_the_queue(self):
        for file in ("conquer.1", "conquer.2"):
            self.damaged(file, 48, 337, "%s: offset 48: currentPos is 337, allowed: 0 to 336" % file)

    def test_file_without_a_whole_header(self):
        for file, size in (("slots", 176), ("buckets", 24), ("conquer.1", 56), ("conquer.2", 56)):
            writer = ModelWriter()
            del writer.files[file][size - 1:]
            self.assert_damage(writer, file, 0, "%s: offset 0: file size is %d, allowed: at least %d"
                               % (file, size - 1, size))


class SmallFileDamageTest(TableTest):
    def test_missing_file(self):
        for name in ("slots", "buckets", "conquer.1", "conquer.2", "fenix"):
            ModelWriter().save(self.directory)
            os.unlink(self.path(name))
            self.assert_damage(None, name, 0, "%s: offset 0: file is missing, allowed: present" %
                               name)

    def test_file_that_is_no_file(self):
        for name, make in (("slots", os.mkdir), ("fenix", os.mkfifo)):
            ModelWriter().save(self.directory)
            os.unlink(self.path(name))
            make(self.path(name))
            kind = {"slots": "0o40000", "fenix": "0o10000"}[name]
            self.assert_damage(None, name, 0, "%s: offset 0: file type is %s, allowed: a regular "
                               "file" % (name, kind))
            (os.rmdir if name == "slots" else os.unlink)(self.path(name))

    def test_kick_that_is_no_socket(self):
        writer = ModelWriter()
        writer.text["kick"] = b""
        self.assert_damage(writer, "kick", 0,
                           "kick: offset 0: file type is 0o100000, allowed: a socket")

    def test_text_of_fenix(self):
        for text in (b"", b"quill-fenix 1 04d20000", b"quill-fenix 1 04D20000\n",
                     b"quill-fenix 2 04d20000\n", b"quill-fenix 1 4d20000\n"):
            writer = ModelWriter()
            writer.text["fenix"] = text
            self.assert_damage(writer, "fenix", 0, "fenix: offset 0: text is %r, allowed: "
                               '"quill-fenix 1 ", 8 lower-case hexadecimal digits, line feed' % text)

    def test_text_of_last_owner(self):
        for text in (b"", b"1234\n", b"0 x\n", b"1234 x", b"x 1234\n", b"1 a\nb\n"):
            writer = ModelWriter()
            writer.text["last-owner"] = text
            self.assert_damage(writer, "last-owner", 0, "last-owner: offset 0: text is %r, allowed: "
                               "process id, blank, program name, line feed" % text)

    def test_lock_that_is_not_empty(self):
        writer = ModelWriter()
        writer.text["lock"] = b"xy"
        self.assert_damage(writer, "lock", 0, "lock: offset 0: file size is 2, allowed: 0")

    def test_complaint_that_is_too_long(self):
        writer = ModelWriter()
        writer.text["corruption-detected"] = b"x" * 4096
        self.assert_sound(writer)
        writer.text["corruption-detected"] = b"x" * 4097
        self.assert_damage(writer, "corruption-detected", 0, "corruption-detected: offset 0: file "
                           "size is 4097, allowed: at most 4096")

    def test_file_above_the_limit_is_not_read(self):
        self.assert_damage(ModelWriter(), "slots", 0, "slots: offset 0: file size is 4096, allowed: "
                           "at most 4095", "--max-bytes", "4095")


class ListDamageTest(TableTest):
    """VLANs 0, 509 and 1018 in slots 0 to 2 on the chain of bucket 0; slot 3 heads the free list."""

    def setUp(self):
        super().setUp()
        self.writer = ModelWriter(VLAN, max_slots=0)
        for number in (0, 509, 1018):
            self.writer.put(vlan(number))

    def damaged(self, file, offset, value, text, at=None, size=4):
        self.writer.poke(file, offset, value, size)
        return self.assert_damage(self.writer, file, offset if at is None else at, text)

    def test_head_beyond_the_slots(self):
        self.damaged("buckets", 36, 121, "buckets: offset 36: next slot of bucket 1 is 121, "
                     "allowed: none or below 121")

    def test_link_beyond_the_slots(self):
        self.damaged("slots", 276, 200, "slots: offset 276: next slot of bucket 0 is 200, allowed: "
                     "none or below 121")

    def test_cycle(self):
        self.damaged("slots", 276, 0, "slots: offset 276: next slot of bucket 0 is 0, allowed: a "
                     "slot that no chain has visited")

    def test_two_chains_that_meet(self):
        self.damaged("buckets", 36, 2, "buckets: offset 36: next slot of bucket 1 is 2, allowed: a "
                     "slot that no chain has visited")

    def test_key_of_another_bucket(self):
        self.damaged("slots", 256, 1, "slots: offset 256: key of slot 1 is 0100, allowed: a key of "
                     "bucket 0, not of 1", size=2)

    def test_key_out_of_order(self):
        self.damaged("slots", 288, 509, "slots: offset 288: key of slot 2 is fd01, allowed: greater "
                     "than fd01 before it", size=2)

    def test_vlan_out_of_range(self):
        self.damaged("slots", 288, 509 * 9, "slots: offset 288: VLAN of slot 2 is 4581, allowed: 0 "
                     "to 4094", size=2)

    def test_largest_vlan_is_sound(self):
        self.writer.put(vlan(4094))
        self.assert_sound(self.writer)
        self.writer.put(vlan(4095))
        self.assert_damage(self.writer, "slots", 352,
                           "slots: offset 352: VLAN of slot 4 is 4095, allowed: 0 to 4094")

    def test_bytes_behind_a_vlan(self):
        self.damaged("slots", 290, 0x100, "slots: offset 290: bytes behind the key of slot 2 is "
                     "0001, allowed: 0000", size=2)

    def test_slot_on_a_chain_that_is_not_occupied(self):
        self.damaged("slots", 252, 4, "slots: offset 252: flags of slot 1 on the chain of bucket 0 "
                     "is 0x00000004, allowed: OCCUPIED (bit 0) set")

    def test_lookaside_flag(self):
        self.damaged("slots", 252, 7, "slots: offset 252: flags of slot 1 is 0x00000007, allowed: "
                     "LOOKASIDE (bit 1) clear")

    def test_free_slot_that_is_occupied(self):
        self.damaged("slots", 316, 1, "slots: offset 316: flags of free slot 3 is 0x00000001, "
                     "allowed: OCCUPIED and LOOKASIDE (bits 0 and 1) clear")

    def test_free_list_beyond_the_slots(self):
        self.damaged("slots", 308, 121, "slots: offset 308: next free slot is 121, allowed: none or "
                     "below 121")

    def test_free_list_with_a_cycle(self):
        self.damaged("slots", 340, 3, "slots: offset 340: next free slot is 3, allowed: a slot that "
                     "is not on the free list already")

    def test_free_list_that_runs_onto_a_chain(self):
        self.damaged("slots", 308, 2, "slots: offset 272: slot 2 is on the free list and on a chain,"
                     " allowed: one of them", at=272)

    def test_slot_on_no_list(self):
        self.damaged("slots", 164, 4, "slots: offset 304: slot 3 is neither on a chain nor on the "
                     "free list, allowed: one of them", at=304)

    def test_number_of_occupied_slots(self):
        for value in (2, 4):
            self.damaged("slots", 160, value, "slots: offset 160: occupiedSlots is %d, allowed: 3, "
                         "the slots on chains" % value)


class QueueDamageTest(TableTest):
    """eth0 to eth2 in slots 0 to 2, with entries 0 to 2; eth2 once more, entry 3."""

    def setUp(self):
        super().setUp()
        self.writer = ModelWriter()
        for number in (0, 1, 2, 2):
            self.writer.put(eth(number))

    def damaged(self, file, offset, value, text, at=None, size=4, among=None):
        self.writer.poke(file, offset, value, size)
        self.assert_damage(self.writer, among or file, offset if at is None else at, text)

    def test_sequence_out_of_order(self):
        for value in (0, 1, 2**64 - 1):
            self.damaged("conquer.1", 64, value, "conquer.1: offset 64: sequence of entry 1 is %d, "
                         "allowed: 2 to 18446744073709551614" % value, size=8)

    def test_first_sequence_of_zero(self):
        self.damaged("conquer.1", 52, 0, "conquer.1: offset 52: sequence of entry 0 is 0, allowed: "
                     "1 to 18446744073709551614", size=8)

    def test_slot_beyond_the_slots(self):
        self.damaged("conquer.1", 60, 97, "conquer.1: offset 60: slot of entry 0 is 97, allowed: "
                     "none or below 97")

    def test_entry_for_a_slot_that_points_elsewhere(self):
        self.damaged("conquer.1", 60, 1, "conquer.1: offset 60: slot of entry 0 is 1, allowed: "
                     "none, or a slot whose conquerSlot is 0")

    def test_entry_whose_slot_has_none(self):
        self.damaged("slots", 224, NONE, "conquer.1: offset 60: slot of entry 0 is 0, allowed: "
                     "none, or a slot whose conquerSlot is 0", at=60, among="conquer.1")

    def test_conquer_slot_of_a_tombstone(self):
        self.damaged("slots", 224, 2, "slots: offset 224: conquerSlot of slot 0 is 2, allowed: none,"
                     " or the position of a live entry for the slot, below 4")

    def test_conquer_slot_beyond_the_position(self):
        for value in (4, 335, 336, NONE - 1):
            self.damaged("slots", 224, value, "slots: offset 224: conquerSlot of slot 0 is %d, "
                         "allowed: none, or the position of a live entry for the slot, below 4" %
                         value)

    def test_conquer_slot_of_a_free_slot(self):
        self.damaged("slots", self.writer.slot(50) + 8, 2, "slots: offset 2224: conquerSlot of slot "
                     "50 is 2, allowed: none, or the position of a live entry for the slot, below 4")

    def test_pruned_past_the_last_sequence(self):
        self.writer.poke("conquer.1", 16, 4, 8)
        self.assert_sound(self.writer)
        self.damaged("conquer.1", 16, 5, "conquer.1: offset 16: minSeq is 5, allowed: 0 to 4, the "
                     "last sequence", size=8)

    def test_pruned_in_an_empty_table(self):
        self.writer = ModelWriter()
        self.damaged("conquer.1", 16, 1, "conquer.1: offset 16: minSeq is 1, allowed: 0 while the "
                     "current table is empty", size=8)

    def test_second_table_is_the_one_walked_when_it_is_current(self):
        writer = ModelWriter()
        for number in range(340):
            writer.put(key(number))
        self.assert_sound(writer)
        writer.poke("conquer.1", 60, 5000)
        self.assert_sound(writer)
        writer.poke("conquer.2", 60, 5000)
        self.assert_damage(writer, "conquer.2", 60, "conquer.2: offset 60: slot of entry 0 is 5000, "
                           "allowed: none or below %d" % writer.get("slots", 172))


def checksum_with(max_slots):
    """The checksum of the same table with another size."""
    return ModelWriter(max_slots=max_slots).get("slots", 156)


if __name__ == "__main__":
    unittest.main()
