# SPDX-License-Identifier: Apache-2.0
"""Writers that die: each place between two stores is either at rest or a state with a name."""

import copy
import os
import unittest

from harness import TableTest, eth, key, vlan
from model_writer import NONE, VLAN, Died, ModelWriter, checksum


class EveryStoreTest(TableTest):
    """Runs one change again and again, dying at a later store each time."""

    def states(self, writer, change):
        """Sequence of the states seen, each once per unbroken run; "" is at rest."""
        whole = copy.deepcopy(writer)
        change(whole)
        seen = []
        stores = whole.stores - writer.stores
        for left in range(stores + 1):
            # A move is hundreds of stores alike: of those in its middle, every 17th.
            if 40 < left < stores - 30 and left % 17:
                continue
            victim = copy.deepcopy(writer)
            victim.stores_left = left
            try:
                change(victim)
            except Died:
                pass
            facts = self.assert_sound(victim, "--allow-open", "--dump")
            state = " or ".join(facts["states"])
            self.assertEqual(self.check(victim)["sound"], state == "", "strictly, after %d" % left)
            if not seen or seen[-1] != state:
                seen.append(state)
        return seen

    def test_insert(self):
        writer = ModelWriter()
        writer.put(eth(1))
        self.assertEqual(self.states(writer, lambda w: w.put(eth(2), 7)),
                         ["", "between-lists", "", "publishing-entry", ""])

    def test_insert_into_a_chain(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in (0, 1018):
            writer.put(vlan(number))
        self.assertEqual(self.states(writer, lambda w: w.put(vlan(509), 7)),
                         ["", "between-lists", "", "publishing-entry", ""])

    def test_change(self):
        writer = ModelWriter()
        writer.put(eth(1), 5)
        self.assertEqual(self.states(writer, lambda w: w.put(eth(1), 6)),
                         ["", "storing-value", "", "marking-tombstone", "publishing-entry", ""])

    def test_remove(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in (0, 509, 1018):
            writer.put(vlan(number))
        queue = ["marking-tombstone", "publishing-entry", ""]
        for number in (0, 509):
            self.assertEqual(self.states(writer, lambda w, n=number: w.remove(vlan(n))),
                             ["", "between-lists", "freeing-slot", "counting-removal", "", *queue])
        # The last of its chain: the free list runs from it to nowhere.
        self.assertEqual(self.states(writer, lambda w: w.remove(vlan(1018))),
                         ["", "between-lists", "freeing-slot", "counting-removal", "", *queue])

    def test_remove_with_an_empty_free_list(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in range(121):
            writer.put(vlan(number))
        self.assertEqual(writer.get("slots", 164), NONE)
        self.assertEqual(self.states(writer, lambda w: w.remove(vlan(7))),
                         ["", "between-lists", "counting-removal", "", "marking-tombstone",
                          "publishing-entry", ""])

    def test_remove_of_a_chain_head_with_an_empty_free_list(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in (*range(120), 509):
            writer.put(vlan(number))
        self.assertEqual(writer.get("slots", 164), NONE)
        self.assertEqual(self.states(writer, lambda w: w.remove(vlan(0))),
                         ["", "between-lists", "freeing-slot", "counting-removal", "",
                          "marking-tombstone", "publishing-entry", ""])

    def test_remove_with_one_free_slot(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in range(120):
            writer.put(vlan(number))
        self.assertEqual(self.states(writer, lambda w: w.remove(vlan(7))),
                         ["", "between-lists", "between-lists or freeing-slot", "counting-removal",
                          "", "marking-tombstone", "publishing-entry", ""])

    def test_insert_that_grows_the_table(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in range(121):
            writer.put(vlan(number))
        self.assertEqual(self.states(writer, lambda w: w.put(vlan(200))),
                         ["", "growing-slots", "", "between-lists", "", "publishing-entry", ""])

    def test_move_without_readers(self):
        writer = ModelWriter()
        for number in range(336):
            writer.put(key(number))
        self.assertEqual(self.states(writer, lambda w: w.put(key(5), 1))[2:],
                         ["", "moving-queue", "", "publishing-entry", ""])

    def test_move_behind_a_slow_reader(self):
        writer = ModelWriter()
        for number in range(330):
            writer.put(key(number))
        for number in (3, 50, 51, 52, 300, 329):
            writer.put(key(number))
        writer.lowest = 40
        self.assertEqual(self.states(writer, lambda w: w.put(key(60), 1))[2:],
                         ["", "moving-queue", "", "marking-tombstone", "publishing-entry", ""])

    def test_move_back_to_the_first_table(self):
        writer = ModelWriter()
        writer.lowest = 1
        for step in range(800):
            writer.put(key(step % 100))
        while writer.get(writer.table(), 48) < writer.get(writer.table(), 44):
            writer.put(key(1))
        generation = writer.get("conquer.1", 32)
        self.assertGreater(generation, 0)
        self.assertEqual(self.states(writer, lambda w: w.put(key(60), 1))[2:],
                         ["", "moving-queue", "", "marking-tombstone", "publishing-entry", ""])

    def test_move_whose_cut_takes_everything(self):
        writer = ModelWriter()
        writer.put(key(1))
        writer.put(key(2))
        # One entry that minSeq, which stands in a gap, is just below.
        for _ in range(334):
            writer.put(key(3))
        for position in range(335):
            writer.poke("conquer.1", 52 + 12 * position + 8, NONE)
        for slot in range(2):
            writer.poke("slots", writer.slot(slot) + 8, NONE)
        writer.poke("conquer.1", 52 + 12 * 335, 338, 8)
        writer.sequence, writer.lowest = 338, 337
        self.assertEqual(self.states(writer, lambda w: w.put(key(4), 1))[2:],
                         ["", "moving-queue", "moved-all", "publishing-entry", ""])


class NotOneOfTheStatesTest(TableTest):
    """What looks like a state but is not one stays damage under --allow-open."""

    def open_damage(self, writer):
        self.assertFalse(self.check(writer, "--allow-open")["sound"])

    def test_two_slots_on_no_list(self):
        writer = ModelWriter()
        writer.take()
        self.assert_sound(writer, "--allow-open")
        writer.take()
        self.open_damage(writer)

    def test_two_states_of_the_lists_at_once(self):
        def orphan(w):
            w.poke("slots", 164, w.get("slots", w.slot(w.get("slots", 164)) + 4))

        def flag(w):
            w.poke("slots", w.slot(1) + 12, w.get("slots", w.slot(1) + 12) | 2)
            w.files["slots"][192:208] = w.files["slots"][w.slot(1) + 16:w.slot(1) + 32]

        def count(w):
            w.poke("slots", 160, w.get("slots", 160) + 1)

        def onto_chain(w):
            w.poke("slots", w.slot(120) + 4, 0)

        for first in (orphan, flag, count, onto_chain):
            for second in (orphan, flag, count, onto_chain):
                # A slot between the lists may be counted; each of the others stands alone.
                sound = first is second and first in (orphan, flag, count)
                sound |= {first, second} == {orphan, count}
                writer = ModelWriter(VLAN, max_slots=0)
                for number in (0, 1, 2):
                    writer.put(vlan(number))
                first(writer)
                if second is not first:
                    second(writer)
                with self.subTest(first=first.__name__, second=second.__name__):
                    self.assertEqual(self.check(writer, "--allow-open")["sound"], sound)

    def freeing(self, links):
        """A table whose slot 0 is being freed; `links` are the next fields of the old free list."""
        writer = ModelWriter(VLAN, max_slots=0)
        for number in range(117):
            writer.put(vlan(number))
        writer.stores_left = 3
        with self.assertRaises(Died):
            writer.remove(vlan(0))
        for slot, following in enumerate(links, 117):
            writer.poke("slots", writer.slot(slot) + 4, following)
        return self.check(writer, "--allow-open")["sound"]

    def test_old_free_list_of_a_slot_being_freed(self):
        self.assertTrue(self.freeing((118, 119, 120, NONE)))
        self.assertTrue(self.freeing((NONE, 117, 118, 119)))
        self.assertFalse(self.freeing((118, 119, 120, 117)), "a cycle")
        self.assertFalse(self.freeing((118, 119, 120, 118)), "a cycle behind its head")
        self.assertFalse(self.freeing((118, NONE, 120, NONE)), "two lists")
        self.assertFalse(self.freeing((118, 119, 120, 5)), "onto a chain")
        self.assertFalse(self.freeing((118, 119, 120, 121)), "beyond the slots")

    def test_entry_that_is_not_at_the_position(self):
        writer = ModelWriter()
        for number in (1, 2):
            writer.put(eth(number))
        writer.poke("conquer.1", 48, 0)
        writer.poke("slots", writer.slot(0) + 8, NONE)
        self.open_damage(writer)
        writer.poke("conquer.1", 48, 1)
        writer.poke("slots", writer.slot(0) + 8, 0)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["publishing-entry"])

    def test_position_of_anything_but_a_tombstone(self):
        writer = ModelWriter()
        for number in (1, 2, 2):
            writer.put(eth(number))
        field = writer.slot(50) + 8
        for position, sound in ((0, False), (1, True), (2, False), (3, False), (5, False)):
            writer.poke("slots", field, position)
            self.assertEqual(self.check(writer, "--allow-open")["sound"], sound, position)
        writer.poke("slots", field, 1)
        writer.poke("slots", writer.slot(51) + 8, 1)
        self.open_damage(writer)

    def test_entry_that_names_another_slot(self):
        writer = ModelWriter()
        writer.put(eth(1))
        writer.poke("conquer.1", 48, 0)
        writer.poke("conquer.1", 60, 7)
        self.open_damage(writer)

    def test_empty_table_that_nothing_was_moved_to(self):
        writer = ModelWriter()
        writer.poke("conquer.1", 16, 1, 8)
        self.open_damage(writer)
        writer.poke("conquer.1", 32, 2)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["moved-all"])
        writer.poke("slots", writer.slot(3) + 8, 2)
        self.open_damage(writer)

    def test_entry_beyond_the_queue(self):
        writer = ModelWriter()
        for number in range(336):
            writer.put(key(number))
        writer.poke("slots", writer.slot(400) + 8, 336)
        self.open_damage(writer)

    def test_slot_on_no_list_that_is_occupied_but_not_counted(self):
        writer = ModelWriter()
        writer.take()
        writer.poke("slots", writer.slot(0) + 12, 5)
        self.assert_sound(writer, "--allow-open")
        writer.poke("slots", 160, 0)
        self.open_damage(writer)

    def test_slot_on_no_list_with_a_link_beyond_the_slots(self):
        writer = ModelWriter()
        writer.take()
        for following, sound in ((96, True), (NONE, True), (97, False), (NONE - 1, False)):
            writer.poke("slots", writer.slot(0) + 4, following)
            self.assertEqual(self.check(writer, "--allow-open")["sound"], sound)

    def test_value_being_stored_under_an_unknown_key_type(self):
        writer = ModelWriter(dict(VLAN, type=b"Some::Value"))
        writer.put(vlan(1))
        writer.poke("slots", writer.slot(0) + 12, 7)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["storing-value"])
        self.assertFalse(self.check(writer, "--allow-open", "--key-type", "vlan")["sound"])

    def test_slot_being_freed_under_an_unknown_key_type(self):
        writer = ModelWriter(dict(VLAN, type=b"Some::Value"), max_slots=0)
        for number in (0, 509):
            writer.put(vlan(number))
        writer.stores_left = 3
        with self.assertRaises(Died):
            writer.remove(vlan(0))
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["freeing-slot"])

    def test_lookaside_slot_with_another_key(self):
        writer = ModelWriter()
        writer.put(eth(1))
        writer.put(eth(1))
        writer.poke("slots", writer.slot(0) + 12, 11)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["storing-value"])
        writer.poke("slots", 199, 99, 1)
        self.open_damage(writer)

    def test_lookaside_flag_on_two_slots(self):
        writer = ModelWriter()
        for number in (1, 2, 2):
            writer.put(eth(number))
            writer.poke("slots", writer.slot(min(number, 2) - 1) + 12, 7)
        self.open_damage(writer)

    def test_occupied_slots_two_too_high(self):
        writer = ModelWriter()
        writer.poke("slots", 160, 1)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["counting-removal"])
        writer.poke("slots", 160, 2)
        self.open_damage(writer)

    def test_new_slots_that_are_not_fresh(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in range(121):
            writer.put(vlan(number))
        writer.grow()
        writer.poke("slots", 164, NONE)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["growing-slots"])
        writer.poke("slots", writer.slot(150) + 12, 4)
        self.open_damage(writer)

    def test_free_list_that_runs_onto_another_chain(self):
        writer = ModelWriter(VLAN, max_slots=0)
        for number in (0, 509, 1):
            writer.put(vlan(number))
        victim = copy.deepcopy(writer)
        victim.stores_left = 3  # the link, the flags, freeSlots
        with self.assertRaises(Died):
            victim.remove(vlan(0))
        self.assertEqual(self.assert_sound(victim, "--allow-open")["states"], ["freeing-slot"])
        victim.poke("slots", victim.slot(0) + 4, 2)
        self.open_damage(victim)

    def test_entry_that_is_not_above_the_last(self):
        writer = ModelWriter()
        writer.put(eth(1))
        writer.poke("conquer.1", 48, 0)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["publishing-entry"])
        writer.poke("conquer.1", 52, 0, 8)
        self.open_damage(writer)

    def test_move_of_a_table_that_is_not_full(self):
        writer = ModelWriter()
        for number in (1, 2, 3):
            writer.put(eth(number))
        writer.poke("slots", writer.slot(0) + 8, NONE)
        self.open_damage(writer)

    def test_move_that_cut_behind_what_it_copied(self):
        writer = ModelWriter()
        for number in range(336):
            writer.put(key(number))
        writer.poke("slots", writer.slot(0) + 8, NONE)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["moving-queue"])
        writer.poke("slots", writer.slot(7) + 8, NONE)
        self.open_damage(writer)

    def test_state_of_the_lists_beside_one_of_the_queue(self):
        writer = ModelWriter()
        for number in range(336):
            writer.put(key(number))
        writer.poke("slots", 160, writer.get("slots", 160) + 1)
        writer.poke("slots", writer.slot(0) + 8, NONE)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"],
                         ["counting-removal", "moving-queue"])
        other = ModelWriter()
        other.put(eth(1))
        other.poke("slots", 160, 2)
        other.poke("conquer.1", 48, 0)
        self.open_damage(other)

    def test_damage_of_the_lists_beside_a_state_of_the_queue(self):
        writer = ModelWriter()
        writer.put(eth(1))
        writer.poke("conquer.1", 48, 0)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["publishing-entry"])
        writer.poke("slots", writer.slot(96) + 4, 0)
        self.assert_damage(writer, "slots", 216, "slots: offset 216: slot 0 is on the free list and "
                           "on a chain, allowed: one of them", "--allow-open")

    def test_damage_beside_a_state(self):
        writer = ModelWriter()
        writer.take()
        writer.poke("buckets", 28, 97)
        self.assert_damage(writer, "buckets", 28, "buckets: offset 28: next slot of bucket 0 is 97, "
                           "allowed: none or below 97", "--allow-open")


class FilesTest(TableTest):
    """Attaches and cleanups that did not finish."""

    NAMES = ("slots", "buckets", "conquer.1", "conquer.2")

    def save(self, ids, fenix):
        """One file per id; None is a missing one. Checksums do not cover ids."""
        writer = ModelWriter()
        writer.text["fenix"] = b"quill-fenix 1 %08x\n" % (fenix or 0)
        for name, number in zip(self.NAMES, ids):
            if number is not None:
                writer.poke(name, 12, number)
        writer.save(self.directory)
        for name, number in zip(self.NAMES, ids):
            if number is None:
                os.unlink(self.path(name))
        if fenix is None:
            os.unlink(self.path("fenix"))

    def state_of(self, ids, fenix):
        self.save(ids, fenix)
        self.assertFalse(self.check()["sound"], "strictly")
        facts = self.check(None, "--allow-open")
        return facts["states"] if facts["sound"] else "damaged"

    def test_files_that_come_into_being(self):
        self.assertEqual(self.state_of((5, None, None, None), None), ["formatting"])
        self.assertEqual(self.state_of((0, None, None, None), None), ["formatting"])
        self.assertEqual(self.state_of((5, 5, None, None), None), ["formatting"])
        self.assertEqual(self.state_of((5, 5, 5, None), None), ["formatting"])
        self.assertEqual(self.state_of((5, 5, 5, 0), None), ["formatting"])

    def test_file_that_has_no_header_yet(self):
        self.save((5, 5, None, None), None)
        with open(self.path("conquer.1"), "wb"):
            pass
        self.assertEqual(self.assert_sound(None, "--allow-open")["states"], ["formatting"])

    def test_files_that_are_formatted_anew(self):
        self.assertEqual(self.state_of((6, 5, 5, 5), 5), ["formatting"])
        self.assertEqual(self.state_of((6, 6, 0, 5), 5), ["formatting"])
        self.assertEqual(self.state_of((6, 6, 6, 5), 5), ["formatting"])
        self.assertEqual(self.state_of((1, 1, 1, 0xFFFFFFFF), 0xFFFFFFFF), ["formatting"])

    def test_slots_that_are_cut_before_they_are_formatted_anew(self):
        writer = ModelWriter()
        for number in range(98):
            writer.put(key(number))
        del writer.files["slots"][4096:]
        self.assert_damage(writer, "slots", 172, "slots: offset 172: file size is 4096, allowed: at "
                           "least 8176 for 199 slots")
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["formatting"])
        del writer.files["slots"][4095:]
        self.assertFalse(self.check(writer, "--allow-open")["sound"])
        writer.files["slots"] += bytes(2)
        self.assertFalse(self.check(writer, "--allow-open")["sound"])

    def test_cut_of_slots_needs_its_old_header(self):
        writer = ModelWriter()
        writer.poke("slots", 172, 98)
        self.assertEqual(self.assert_sound(writer, "--allow-open")["states"], ["formatting"])
        writer.poke("slots", 12, 5)
        self.assertFalse(self.check(writer, "--allow-open")["sound"])
        for size in (0, 40, 3920, NONE):
            writer = ModelWriter()
            writer.poke("slots", 172, 98)
            writer.poke("slots", 148, size)
            self.assertEqual(self.check(writer, "--allow-open")["sound"], size == 40)

    def test_files_that_are_done_before_fenix(self):
        self.assertEqual(self.state_of((5, 5, 5, 5), None), ["storing-fenix"])
        self.assertEqual(self.state_of((6, 6, 6, 6), 5), ["storing-fenix"])
        self.assertEqual(self.state_of((1, 1, 1, 1), 0xFFFFFFFF), ["storing-fenix"])

    def test_files_before_fenix_are_checked(self):
        self.save((6, 6, 6, 6), 5)
        with open(self.path("slots"), "r+b") as file:
            file.write(b"X")
        self.assertFalse(self.check(None, "--allow-open")["sound"])

    def test_last_file_that_has_nothing_but_its_id(self):
        self.save((6, 6, 6, 6), 5)
        with open(self.path("conquer.2"), "r+b") as file:
            file.write(bytes(8))
        self.assertEqual(self.assert_sound(None, "--allow-open")["states"], ["formatting"])

    def test_files_that_go(self):
        self.assertEqual(self.state_of((5, 5, None, 5), None), ["cleaning-up"])
        self.assertEqual(self.state_of((5, None, None, None), None), ["formatting"])
        self.assertEqual(self.state_of((None, None, None, None), None), ["cleaning-up"])

    def test_mixtures_that_no_writer_makes(self):
        for ids, fenix in (((5, 6, 5, 5), 5), ((5, 5, 5, 6), 5), ((7, 7, 7, 7), 5),
                           ((6, 5, 6, 5), 5), ((6, 6, 6, 4), 5), ((None, 5, 5, 5), None),
                           ((5, None, 5, 5), None), ((5, 6, None, None), None),
                           ((5, 5, 5, None), 5), ((6, 6, 6, 6), 0)):
            with self.subTest(ids=ids, fenix=fenix):
                self.assertEqual(self.state_of(ids, fenix), "damaged")


class ModelTest(unittest.TestCase):
    def test_the_checksum_does_not_cover_the_id(self):
        self.assertEqual(ModelWriter(fenix=5).get("slots", 156), ModelWriter().get("slots", 156))
        self.assertNotEqual(checksum(b"\5"), checksum(b"\6"))


if __name__ == "__main__":
    unittest.main()
