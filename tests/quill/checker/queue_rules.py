# SPDX-License-Identifier: Apache-2.0
"""The notification queue, and conquerSlot of every slot against it.

Facts that a writer that died may leave behind are kept for open_states.py; everything else is a
finding at once.
"""

from table_format import ALL_ONES64, NONE


class Queue:
    """What a walk over the current table and over all slots found.

    live: (position, sequence, slot) of live entries below currentPos. bad_slots: (slot, conquerSlot)
    where that is no live entry of the slot. bad_entries: the members of `live` whose slot does not
    point back. pruned_past: the current table is empty although minSeq is not 0.
    """

    def __init__(self, slots, queues, findings):
        self.slots = slots
        self.head = queues[0]
        self.table = queues[self.head.current]
        self.other = queues[1 - self.head.current]
        self.live = []
        self.tombstones = 0
        self.first_seq = self.last_seq = 0
        self._walk(findings)
        self.bad_slots = [(s, p) for s, p in ((s, slots.conquer_slot(s))
                                              for s in range(slots.num_slots))
                          if p != NONE and not self._names(p, s)]
        self.bad_entries = [e for e in self.live if slots.conquer_slot(e[2]) != e[0]]
        self.pruned_past = self.table.current_pos == 0 and self.head.min_seq != 0
        if self.table.current_pos > 0:
            findings.check(self.head.min_seq <= self.last_seq, "conquer.1", 16, "minSeq",
                           self.head.min_seq, "0 to %d, the last sequence" % self.last_seq)

    def clean(self):
        return not self.bad_slots and not self.bad_entries and not self.pruned_past

    def report(self, findings):
        """Turns the facts that do not hold at rest into findings."""
        for slot, position in self.bad_slots:
            findings.add("slots", self.slots.offset(slot) + 8, "conquerSlot of slot %d" % slot,
                         position, "none, or the position of a live entry for the slot, below %d" %
                         self.table.current_pos)
        for position, _, slot in self.bad_entries:
            findings.add(self.table.name, self.table.offset(position) + 8,
                         "slot of entry %d" % position, slot,
                         "none, or a slot whose conquerSlot is %d" % position)
        findings.check(not self.pruned_past, "conquer.1", 16, "minSeq", self.head.min_seq,
                       "0 while the current table is empty")

    def _walk(self, findings):
        table = self.table
        for position in range(table.current_pos):
            sequence, slot = table.entry(position)
            findings.check(self.last_seq < sequence < ALL_ONES64, table.name,
                           table.offset(position), "sequence of entry %d" % position, sequence,
                           "%d to %d" % (self.last_seq + 1, ALL_ONES64 - 1))
            self.first_seq = self.first_seq or sequence
            self.last_seq = max(self.last_seq, sequence)
            if slot == NONE:
                self.tombstones += 1
            elif findings.check(slot < self.slots.num_slots, table.name,
                                table.offset(position) + 8, "slot of entry %d" % position, slot,
                                "none or below %d" % self.slots.num_slots):
                self.live.append((position, sequence, slot))

    def _names(self, position, slot):
        return position < self.table.current_pos and self.table.entry(position)[1] == slot
