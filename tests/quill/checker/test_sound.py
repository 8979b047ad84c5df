# SPDX-License-Identifier: Apache-2.0
"""Sound tables pass, and their facts are reported."""

import fcntl
import os
import random
import socket
import unittest

from harness import TableTest, eth, key, vlan
from model_writer import VLAN, ModelWriter


NONSENSE = 0xDEADBEEF


class SoundTest(TableTest):
    def test_new_table_has_the_sizes_of_the_page(self):
        facts = self.assert_sound(ModelWriter(max_slots=1024))
        self.assertEqual(facts["fileSize"], {"slots": 4096, "buckets": 20480, "conquer.1": 4088,
                                             "conquer.2": 4088})
        self.assertEqual(facts["numSlots"], 97)
        self.assertEqual(facts["freeListLength"], 97)
        self.assertEqual(facts["numBuckets"], 2557)
        self.assertEqual(facts["notifications"], [336, 336])
        self.assertEqual(facts["surplusBytes"], {"slots": 0, "conquer.1": 0, "conquer.2": 0})
        self.assertEqual((facts["entryCount"], facts["currentPos"], facts["lastSequence"]),
                         (0, 0, 0))

    def test_new_table_of_vlans_has_slots_of_32_bytes(self):
        facts = self.assert_sound(ModelWriter(VLAN, max_slots=0))
        self.assertEqual((facts["headerSize"], facts["slotSize"], facts["valueSize"]),
                         (208, 32, 16))
        self.assertEqual((facts["numSlots"], facts["fileSize"]["slots"]), (121, 4080))
        self.assertEqual(facts["numBuckets"], 509)

    def test_names_and_id_are_reported(self):
        facts = self.assert_sound(ModelWriter(class_type=b"Some::Owner", fenix=0x12345678))
        self.assertEqual(facts["valueType"], "Ringward::Status::CounterIntf")
        self.assertEqual(facts["classType"], "Some::Owner")
        self.assertEqual(facts["fenix"], 0x12345678)
        self.assertEqual(facts["lastOwner"], {"pid": 1234, "name": "test"})

    def test_owner_may_give_no_name(self):
        self.assertEqual(self.assert_sound(ModelWriter(class_type=b""))["classType"], "")

    def test_entries_are_dumped_in_order_of_buckets_and_keys(self):
        writer = ModelWriter(VLAN, max_slots=0)  # 509 buckets
        for number in (509, 7, 0, 1018, 7):
            writer.put(vlan(number), number, 1, 2)
        facts = self.assert_sound(writer, "--dump")
        self.assertEqual([(e["bucket"], e["keyText"], e["tx"], e["rx"], e["rxOther"])
                          for e in facts["entries"]],
                         [(0, "0", 0, 1, 2), (0, "509", 509, 1, 2), (0, "1018", 1018, 1, 2),
                          (7, "7", 7, 1, 2)])
        self.assertEqual([(e["slot"], e["writes"], e["conquerSlot"], e["sequence"])
                          for e in facts["entries"]],
                         [(2, 1, 2, 3), (0, 1, 0, 1), (3, 1, 3, 4), (1, 2, 4, 5)])
        self.assertEqual((facts["longestChain"], facts["tombstones"]), (3, 1))

    def test_interfaces_are_dumped_by_name(self):
        writer = ModelWriter()
        writer.put(eth(3), 1, 2, 3)
        writer.put(bytes.fromhex("370b032a0af9529b"))
        entries = self.assert_sound(writer, "--dump")["entries"]
        by_name = {e["keyText"]: e for e in entries}
        self.assertEqual(set(by_name), {"eth3", "intf#370b032a0af9529b"})
        self.assertEqual(by_name["eth3"]["value"], "2080000000000007010000000200000003000000")

    def test_grown_table_fills_its_last_page(self):
        writer = ModelWriter(max_slots=1024)
        for number in range(98):
            writer.put(key(number), number)
        facts = self.assert_sound(writer)
        self.assertEqual((facts["numSlots"], facts["fileSize"]["slots"]), (199, 8176))
        self.assertEqual((facts["entryCount"], facts["freeListLength"]), (98, 101))
        self.assertEqual(facts["numSlotsVersion"], 1)

    def test_table_grows_past_its_configured_size(self):
        writer = ModelWriter(max_slots=97)
        for number in range(98):
            writer.put(key(number))
        self.assertEqual(self.assert_sound(writer)["numSlots"], 199)

    def test_full_queue_without_readers_carries_its_last_entry_over(self):
        writer = ModelWriter()
        for number in range(337):
            writer.put(key(number))
        facts = self.assert_sound(writer)
        self.assertEqual((facts["currentTable"], facts["generation"]), (1, 1))
        self.assertEqual((facts["minSeq"], facts["firstSequence"], facts["lastSequence"]),
                         (336, 336, 337))
        self.assertEqual((facts["currentPos"], facts["liveNotifications"]), (2, 2))

    def test_queue_behind_a_slow_reader_grows(self):
        writer = ModelWriter()
        writer.lowest = 10
        for number in range(337):
            writer.put(key(number))
        facts = self.assert_sound(writer)
        self.assertEqual((facts["minSeq"], facts["firstSequence"]), (10, 11))
        # 326 live ones are moved: 652 entries take two pages, which hold 678.
        self.assertEqual(facts["notifications"], [336, 678])

    def test_notification_of_a_removed_slot_is_sound(self):
        writer = ModelWriter()
        writer.put(eth(0))
        writer.remove(eth(0))
        facts = self.assert_sound(writer)
        self.assertEqual((facts["entryCount"], facts["liveNotifications"]), (0, 1))

    def test_random_changes_stay_sound(self):
        for seed in range(4):
            with self.subTest(seed=seed):
                choice = random.Random(seed)
                writer = ModelWriter(VLAN, max_slots=choice.choice((0, 5, 200)))
                held = {}
                for step in range(1500):
                    number = choice.randrange(300)
                    if choice.random() < 0.35 and number in held:
                        writer.remove(vlan(number))
                        del held[number]
                    else:
                        writer.put(vlan(number), step)
                        held[number] = step
                    if step % 100 == 0:
                        writer.lowest = choice.choice((None, writer.sequence // 2))
                entries = self.assert_sound(writer, "--dump")["entries"]
                self.assertEqual({int(e["keyText"]): e["tx"] for e in entries}, held)

    def test_longer_file_than_needed_is_sound(self):
        writer = ModelWriter()
        writer.files["slots"] += bytes(4080)
        writer.files["conquer.2"] += bytes(4104)
        self.assertEqual(self.assert_sound(writer)["surplusBytes"],
                         {"slots": 4080, "conquer.1": 0, "conquer.2": 4104})

    def test_bytes_without_meaning_may_be_anything(self):
        writer = ModelWriter()
        writer.put(eth(0))
        writer.poke("slots", writer.slot(0) + 36, NONSENSE)
        writer.poke("conquer.1", 4084, NONSENSE)
        writer.poke("conquer.1", 52 + 12 * 5, NONSENSE)
        writer.poke("slots", 192, NONSENSE)
        self.assert_sound(writer)

    def test_complaint_of_a_reader_and_other_files_are_reported(self):
        writer = ModelWriter()
        writer.text["corruption-detected"] = b"bad magic"
        writer.text["fenix.new"] = b""
        facts = self.assert_sound(writer)
        self.assertEqual(facts["complaint"], "bad magic")
        self.assertEqual(facts["otherFiles"], ["fenix.new"])

    def test_holder_of_the_lock_is_reported(self):
        self.assertIsNone(self.assert_sound(ModelWriter())["lockHolder"])
        ready, done = os.pipe(), os.pipe()
        child = os.fork()
        if child == 0:
            try:
                with open(self.path("lock"), "r+b") as lock:
                    fcntl.lockf(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    os.close(done[1])
                    os.write(ready[1], b"x")
                    os.read(done[0], 1)
            finally:
                os._exit(0)
        try:
            os.close(ready[1])
            self.assertEqual(os.read(ready[0], 1), b"x")
            self.assertEqual(self.assert_sound()["lockHolder"], child)
        finally:
            os.close(done[1])
            os.waitpid(child, 0)
            os.close(ready[0])
            os.close(done[0])

    def test_socket_named_kick_is_sound(self):
        ModelWriter().save(self.directory)
        with socket.socket(socket.AF_UNIX) as kick:
            kick.bind(self.path("kick"))
            self.assert_sound()

    def test_unknown_value_type_needs_its_key_type_told(self):
        kind = dict(VLAN, type=b"Some::Value")
        writer = ModelWriter(kind)
        # What stands behind the key of a type that is not known is not judged.
        writer.put(vlan(3))
        writer.poke("slots", writer.slot(0) + 18, 0x7978, 2)
        self.assertFalse(self.assert_sound(writer)["keysChecked"])
        self.assertTrue(self.assert_sound(writer, "--key-type", "vlan")["keysChecked"])

    def test_key_type_that_is_longer_than_the_value_is_not_used(self):
        writer = ModelWriter(dict(VLAN, type=b"Some::Value", value=7, slot=24, header=200))
        self.assertFalse(self.assert_sound(writer, "--key-type", "intf")["keysChecked"])
        writer = ModelWriter(dict(VLAN, type=b"Some::Value", value=8, slot=24, header=200))
        self.assertTrue(self.assert_sound(writer, "--key-type", "intf")["keysChecked"])


if __name__ == "__main__":
    unittest.main()
