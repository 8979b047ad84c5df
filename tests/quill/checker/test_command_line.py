# SPDX-License-Identifier: Apache-2.0
"""The program: exit status, output, and files full of nonsense."""

import copy
import json
import os
import random
import unittest

from harness import TableTest, eth, key, run, vlan
from model_writer import NONE, VLAN, ModelWriter


class ExitStatusTest(TableTest):
    def test_sound_table(self):
        writer = ModelWriter()
        writer.put(eth(0))
        writer.save(self.directory)
        self.assertEqual(run("--page-size", "4096", self.directory),
                         (0, "sound, at rest, entries: 1\n", ""))

    def test_damaged_table(self):
        writer = ModelWriter()
        writer.poke("slots", 160, 1)
        writer.save(self.directory)
        self.assertEqual(run("--page-size", "4096", self.directory),
                         (4, "", "slots: offset 160: occupiedSlots is 1, allowed: 0, the slots on "
                          "chains\n"))

    def test_dead_writer(self):
        writer = ModelWriter()
        writer.poke("slots", 160, 1)
        writer.save(self.directory)
        self.assertEqual(run("--page-size", "4096", "--allow-open", self.directory),
                         (0, "sound, a writer died here: counting-removal, entries: 0\n", ""))

    def test_dead_writer_amid_the_files(self):
        os.mkdir(self.directory)
        self.assertEqual(run("--allow-open", self.directory),
                         (0, "sound, a writer died here: cleaning-up, contents not checked\n", ""))
        self.assertEqual(run(self.directory)[0], 4)

    def test_many_findings_are_counted(self):
        writer = ModelWriter()
        writer.poke("slots", 164, NONE)
        writer.save(self.directory)
        status, _, err = run("--page-size", "4096", self.directory)
        self.assertEqual(status, 4)
        self.assertEqual(len(err.splitlines()), 21)
        self.assertEqual(err.splitlines()[-1], "and 77 more")

    def test_missing_directory_is_a_usage_error(self):
        path = self.path("nowhere")
        self.assertEqual(run(path), (1, "", "table_check.py: %s is not a directory\n" % path))

    def test_wrong_options_are_usage_errors(self):
        os.mkdir(self.directory)
        for options in ((), ("--none", self.directory), (self.directory, self.directory),
                        ("--page-size", "4095", self.directory),
                        ("--page-size", "x", self.directory),
                        ("--page-size", "256", self.directory),
                        ("--max-bytes", "0", self.directory),
                        ("--max-bytes", "4294967296", self.directory),
                        ("--key-type", "mac", self.directory)):
            status, out, err = run(*options)
            self.assertEqual((status, out), (1, ""), options)
            self.assertIn("usage: table_check.py", err)

    def test_errors_of_options_name_value_and_range(self):
        for text in ("4095", "256", "2097152", "-4096", "x"):
            self.assertIn("page size %s, allowed: a power of 2 from 512 to 1048576" % text,
                          run("--page-size=" + text, ".")[2])
        for text in ("0", "4294967296", "1e9", "9" * 5000):
            self.assertIn("limit %s, allowed: 1 to 4294967295" % text,
                          run("--max-bytes=" + text, ".")[2])

    def test_smallest_and_largest_options_are_taken(self):
        os.mkdir(self.directory)
        for options in (("--page-size", "512"), ("--page-size", "1048576"), ("--max-bytes", "1"),
                        ("--max-bytes", "4294967295")):
            self.assertEqual(run(*options, self.directory)[0], 4)


class OutputTest(TableTest):
    def test_json_of_a_sound_table(self):
        writer = ModelWriter()
        writer.put(eth(0), 9)
        writer.save(self.directory)
        status, out, err = run("--json", "--page-size", "4096", self.directory)
        facts = json.loads(out)
        self.assertEqual((status, err), (0, ""))
        self.assertEqual((facts["sound"], facts["entryCount"], facts["numSlots"]), (True, 1, 97))
        self.assertNotIn("entries", facts)
        facts = json.loads(run("--dump", "--page-size", "4096", self.directory)[1])
        self.assertEqual([e["tx"] for e in facts["entries"]], [9])

    def test_json_of_damage_has_its_parts(self):
        writer = ModelWriter()
        writer.poke("buckets", 28, 97)
        writer.save(self.directory)
        status, out, _ = run("--dump", "--page-size", "4096", self.directory)
        facts = json.loads(out)
        self.assertEqual((status, facts["sound"], facts["entries"]), (4, False, None))
        self.assertEqual(facts["damage"], [
            {"file": "buckets", "offset": 28, "what": "next slot of bucket 0", "value": 97,
             "allowed": "none or below 97",
             "text": "buckets: offset 28: next slot of bucket 0 is 97, allowed: none or below 97"}])

    def test_value_being_stored_is_dumped_as_a_reader_gets_it(self):
        writer = ModelWriter()
        writer.put(eth(0), 1)
        writer.put(eth(0), 2)
        writer.poke("slots", writer.slot(0) + 12, 7)
        writer.poke("slots", writer.slot(0) + 24, 77)
        entries = self.assert_sound(writer, "--allow-open", "--dump")["entries"]
        self.assertEqual([e["tx"] for e in entries], [2])


class NonsenseTest(TableTest):
    """No bytes end the checker otherwise than with its verdict; and it stays quick, being linear."""

    def judge(self, writer):
        for options in ((), ("--allow-open", "--dump")):
            facts = self.check(writer, *options)
            self.assertEqual(facts["sound"], not facts["damage"])
            json.dumps(facts)

    def test_any_word_may_be_wrong(self):
        intf, vlans = ModelWriter(), ModelWriter(VLAN, max_slots=0)
        for number in range(30):
            intf.put(key(number % 20), number)
            vlans.put(vlan(number % 7 * 509), number)
        vlans.remove(vlan(0))
        for seed in range(800):
            with self.subTest(seed=seed):
                choice = random.Random(seed)
                writer = copy.deepcopy(choice.choice((intf, vlans)))
                for _ in range(choice.choice((1, 2, 8))):
                    file = choice.choice(sorted(writer.files))
                    reach = choice.choice((60, 220, len(writer.files[file])))
                    offset = choice.randrange(0, min(reach, len(writer.files[file]) - 4), 4)
                    value = choice.choice((0, 1, 2, 3, 97, NONE, NONE - 1, choice.randrange(200),
                                           choice.randrange(2**32)))
                    writer.poke(file, offset, value)
                self.judge(writer)

    def test_any_file_may_end_anywhere(self):
        for seed in range(300):
            with self.subTest(seed=seed):
                choice = random.Random(seed)
                writer = ModelWriter()
                writer.put(eth(1))
                file = choice.choice(sorted(writer.files))
                del writer.files[file][choice.choice((choice.randrange(300),
                                                      choice.randrange(4096))):]
                self.judge(writer)

    def test_files_may_hold_anything(self):
        for seed in range(300):
            with self.subTest(seed=seed):
                choice = random.Random(seed)
                writer = ModelWriter()
                for file in writer.files:
                    start = choice.choice((0, 8, 12, 16))
                    writer.files[file][start:] = choice.randbytes(choice.randrange(2000))
                for text in writer.text:
                    writer.text[text] = choice.randbytes(choice.randrange(40))
                self.judge(writer)

    def test_names_may_be_anything(self):
        writer = ModelWriter(dict(VLAN, type=b"\xff\xfe\n\"" * 5), class_type=b"\x80")
        writer.text["last-owner"] = b"1 \xff\xff\n"
        writer.text["corruption-detected"] = b"\xff\0"
        writer.save(self.directory)
        with open(os.path.join(os.fsencode(self.directory), b"\xff\n"), "wb"):
            pass
        status, out, _ = run("--dump", "--page-size", "4096", self.directory)
        self.assertEqual(status, 0)
        self.assertEqual(json.loads(out)["lastOwner"]["name"], "\\xff\\xff")


if __name__ == "__main__":
    unittest.main()
