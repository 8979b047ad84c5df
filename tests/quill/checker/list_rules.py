# SPDX-License-Identifier: Apache-2.0
"""Chains and the free list: every slot on exactly one of them.

A walk marks each slot that it visits and stops at one marked before, so that the work is bounded by
the number of slots whatever the links say. What a writer that died may leave behind is kept as a
fact, for open_states.py to name; everything else is a finding at once.
"""

from table_format import LOOKASIDE, NONE, OCCUPIED

_UNLISTED, _CHAIN, _FREE = 0, 1, 2


class Lists:
    """What the walks found.

    entries: (bucket, slot) in order of iteration. free: slots of the free list in its order.
    lookaside: slots on chains with LOOKASIDE. free_onto_chain: the slot of the free list whose next
    is on a chain, or the chain's slot itself for freeSlots; None normally. unlisted: slots on
    neither list.
    """

    def __init__(self, slots, buckets, key_type, findings):
        self.slots = slots
        self.buckets = buckets
        self.key_type = key_type
        self.entries = []
        self.free = []
        self.lookaside = []
        self.free_onto_chain = None
        self.longest_chain = 0
        self._mark = bytearray(slots.num_slots)
        for bucket in range(buckets.num_buckets):
            self._walk_chain(bucket, findings)
        self._walk_free(findings)
        self.unlisted = [s for s in range(slots.num_slots) if self._mark[s] == _UNLISTED]
        self._check_values(findings)

    @property
    def surplus(self):
        """By how much occupiedSlots exceeds the number of slots on chains."""
        return self.slots.occupied - len(self.entries)

    def key(self, slot):
        return self.slots.value(slot)[:self.key_type.size]

    def bucket_of(self, slot):
        return self.key_type.hash(self.key(slot)) % self.buckets.num_buckets

    def order(self, slot):
        return self.key_type.order(self.key(slot))

    def clean(self):
        return (self.surplus == 0 and not self.unlisted and not self.lookaside and
                self.free_onto_chain is None)

    def report(self, findings):
        """Turns the facts that do not hold at rest into findings."""
        slots = self.slots
        for slot in self.lookaside:
            findings.add("slots", slots.offset(slot) + 12, "flags of slot %d" % slot,
                         "0x%08x" % slots.flags(slot), "LOOKASIDE (bit 1) clear")
        if self.free_onto_chain is not None:
            slot = self.free_onto_chain
            findings.add("slots", slots.offset(slot), "slot %d" % slot,
                         "on the free list and on a chain", "one of them")
        findings.check(self.surplus == 0, "slots", 160, "occupiedSlots", slots.occupied,
                       "%d, the slots on chains" % len(self.entries))
        for slot in self.unlisted:
            findings.add("slots", slots.offset(slot), "slot %d" % slot,
                         "neither on a chain nor on the free list", "one of them")

    def _walk_chain(self, bucket, findings):
        slots, slot, length = self.slots, self.buckets.first(bucket), 0
        file, offset, before = "buckets", self.buckets.offset(bucket) + 4, None
        while slot != NONE:
            where = "next slot of bucket %d" % bucket
            if not findings.check(slot < slots.num_slots, file, offset, where, slot,
                                  "none or below %d" % slots.num_slots):
                return
            if not findings.check(self._mark[slot] == _UNLISTED, file, offset, where, slot,
                                  "a slot that no chain has visited"):
                return
            self._mark[slot] = _CHAIN
            self.entries.append((bucket, slot))
            length += 1
            flags = slots.flags(slot)
            findings.check(flags & OCCUPIED, "slots", slots.offset(slot) + 12,
                           "flags of slot %d on the chain of bucket %d" % (slot, bucket),
                           "0x%08x" % flags, "OCCUPIED (bit 0) set")
            if flags & LOOKASIDE:
                self.lookaside.append(slot)
            if self.key_type:
                self._check_key(bucket, slot, before, findings)
            file, offset, before = "slots", slots.offset(slot) + 4, slot
            slot = slots.next(slot)
        self.longest_chain = max(self.longest_chain, length)

    def _check_key(self, bucket, slot, before, findings):
        offset, key = self.slots.offset(slot) + 16, self.key(slot).hex()
        findings.check(self.bucket_of(slot) == bucket, "slots", offset, "key of slot %d" % slot, key,
                       "a key of bucket %d, not of %d" % (bucket, self.bucket_of(slot)))
        if before is not None:
            findings.check(self.order(before) < self.order(slot), "slots", offset,
                           "key of slot %d" % slot, key,
                           "greater than %s before it" % self.key(before).hex())

    def _walk_free(self, findings):
        slots, slot, offset = self.slots, self.slots.free_head, 164
        while slot != NONE:
            if not findings.check(slot < slots.num_slots, "slots", offset, "next free slot", slot,
                                  "none or below %d" % slots.num_slots):
                return
            if self._mark[slot] == _CHAIN:
                self.free_onto_chain = slot
                return
            if not findings.check(self._mark[slot] == _UNLISTED, "slots", offset, "next free slot",
                                  slot, "a slot that is not on the free list already"):
                return
            self._mark[slot] = _FREE
            self.free.append(slot)
            flags = slots.flags(slot)
            findings.check(not flags & (OCCUPIED | LOOKASIDE), "slots", slots.offset(slot) + 12,
                           "flags of free slot %d" % slot, "0x%08x" % flags,
                           "OCCUPIED and LOOKASIDE (bits 0 and 1) clear")
            offset = slots.offset(slot) + 4
            slot = slots.next(slot)

    def _check_values(self, findings):
        """What the key's type allows beyond its bytes."""
        if self.key_type is None or self.key_type.size != 2:
            return
        padded = self.slots.value_type.startswith(b"Ringward::Status::CounterVlan\0")
        for _, slot in self.entries:
            offset, value = self.slots.offset(slot) + 16, self.slots.value(slot)
            number = int.from_bytes(value[:2], "little")
            findings.check(number <= 4094, "slots", offset, "VLAN of slot %d" % slot, number,
                           "0 to 4094")
            if padded:
                findings.check(not any(value[2:4]), "slots", offset + 2,
                               "bytes behind the key of slot %d" % slot, value[2:4].hex(), "0000")
