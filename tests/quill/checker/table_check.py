#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""table_check.py [options] <directory>: checks a table that lies in files.

Written from "Table files" in docs/formats.md alone, and shares no code with the store, so that the
two can be held against each other. It judges a table at rest: while a writer is changing the files,
findings mean nothing. It changes nothing, and no contents of the files can make it fail: the work
is linear in their size, which --max-bytes limits.

Exit status: 0 sound, 1 not used as it should be, 4 damaged. One line on stderr for each finding:
file, offset, value, what is allowed.
"""

import argparse
import json
import os
import sys

import header_rules
import open_states
from findings import Findings
from list_rules import Lists
from queue_rules import Queue
from table_files import MAPPED, Table, UsageError
from table_format import KEY_TYPES, LOOKASIDE, NONE, VALUE_TYPES

EXIT_SOUND, EXIT_USAGE, EXIT_DAMAGED = 0, 1, 4


class Check:
    """One check of one directory: the findings, the states and what is there to report."""

    def __init__(self, arguments):
        self.arguments = arguments
        self.findings = Findings()
        self.states = []
        self.lists = self.queue = None
        self.table = Table(arguments.directory, arguments.max_bytes, self.findings)
        if self._files_belong_together() and self._headers_are_good():
            self._check_contents()

    @property
    def sound(self):
        return not self.findings

    def _files_belong_together(self):
        """False if what the files hold does not matter or is not there."""
        table, findings = self.table, self.findings
        if self.arguments.allow_open:
            state = open_states.name_file_state(table)
            if (state == "storing-fenix" and not self._last_file_is_done() or
                    not state and open_states.slots_are_cut(table, self.arguments.page_size)):
                state = "formatting"
            if state:
                self.states = [state]
                return state == "storing-fenix"
        for name, file in zip(MAPPED, table.mapped):
            findings.check(file is not None, name, 0, "file", "missing", "present")
        findings.check(table.has_fenix_file, "fenix", 0, "file", "missing", "present")
        if table.has_fenix_file:
            findings.check(table.fenix != 0, "fenix", 0, "id", 0, "1 to 4294967295")
            for file in table.mapped:
                if file is not None and file.size >= file.FIXED:
                    findings.check(file.fenix == table.fenix, file.name, 12, "fenix",
                                   "0x%08x" % file.fenix, "0x%08x as in fenix" % table.fenix)
        return all(file is not None for file in table.mapped)

    def _last_file_is_done(self):
        """Whether the file that is formatted last has more of a header than its id."""
        aside = Findings()
        return header_rules.check_queue(self.table.queues[1], self.arguments.page_size, aside)

    def _headers_are_good(self):
        table, findings, page = self.table, self.findings, self.arguments.page_size
        good = header_rules.check_slots(table.slots, page, findings)
        good &= header_rules.check_buckets(table.buckets, findings)
        if good:
            header_rules.check_bucket_count(table.slots, table.buckets, page, findings)
        for queue in table.queues:
            good &= header_rules.check_queue(queue, page, findings)
        return good

    def _check_contents(self):
        table, findings = self.table, self.findings
        key_type = header_rules.key_type_of(table.slots, self.arguments.key_type)
        self.lists = Lists(table.slots, table.buckets, key_type, findings)
        self.queue = Queue(table.slots, table.queues, findings)
        if self.arguments.allow_open and not findings:
            states = open_states.name_states(self.lists, self.queue)
            if states:
                self.states += states
                return
        self.lists.report(findings)
        self.queue.report(findings)


def _file_facts(table):
    """Facts that need no sound file; None for what is not there."""
    def of(file, read):
        return read(file) if file is not None and file.size >= file.FIXED else None

    def name(field):
        return field.rstrip(b"\0").decode("utf-8", "backslashreplace")

    slots, buckets, (one, two) = table.slots, table.buckets, table.queues
    return {
        "directory": table.directory,
        "fenix": table.fenix,
        "fileFenix": {n: of(f, lambda f: f.fenix) for n, f in zip(MAPPED, table.mapped)},
        "fileSize": {n: f and f.size for n, f in zip(MAPPED, table.mapped)},
        "valueType": of(slots, lambda f: name(f.value_type)),
        "classType": of(slots, lambda f: name(f.class_type)),
        "valueSize": of(slots, lambda f: f.value_size),
        "slotSize": of(slots, lambda f: f.slot_size),
        "headerSize": of(slots, lambda f: f.header_size),
        "maxSlots": of(slots, lambda f: f.max_slots),
        "numSlots": of(slots, lambda f: f.num_slots),
        "numSlotsVersion": of(slots, lambda f: f.num_version),
        "occupied": of(slots, lambda f: f.occupied),
        "freeSlots": of(slots, lambda f: f.free_head),
        "numBuckets": of(buckets, lambda f: f.num_buckets),
        "ownerPid": of(buckets, lambda f: f.owner_pid),
        "currentTable": of(one, lambda f: f.current),
        "generation": of(one, lambda f: f.generation),
        "minSeq": of(one, lambda f: f.min_seq),
        "numReaders": of(one, lambda f: f.num_readers),
        "notifications": [of(q, lambda f: f.notifications) for q in (one, two)],
        "notificationsVersion": [of(q, lambda f: f.notifications_version) for q in (one, two)],
        "positions": [of(q, lambda f: f.current_pos) for q in (one, two)],
        "lastOwner": table.owner,
        "lockHolder": table.lock_holder,
        "complaint": table.complaint,
        "otherFiles": table.others,
    }


def _content_facts(check):
    lists, queue, slots = check.lists, check.queue, check.table.slots
    if lists is None:
        return {}
    return {
        "entryCount": len(lists.entries),
        "freeListLength": len(lists.free),
        "longestChain": lists.longest_chain,
        "keysChecked": lists.key_type is not None,
        "currentPos": queue.table.current_pos,
        "liveNotifications": len(queue.live),
        "tombstones": queue.tombstones,
        "firstSequence": queue.first_seq,
        "lastSequence": queue.last_seq,
        "surplusBytes": {
            "slots": slots.size - slots.offset(slots.num_slots),
            **{q.name: q.size - 56 - 12 * q.notifications for q in check.table.queues},
        },
    }


def _entries(check):
    """Every entry, in order of iteration, with its value as a reader gets it."""
    lists, slots = check.lists, check.table.slots
    known = VALUE_TYPES.get(_file_facts(check.table)["valueType"])
    sequences = {slot: sequence for _, sequence, slot in check.queue.live}
    for bucket, slot in lists.entries:
        flags = slots.flags(slot)
        value = slots.lookaside_value() if flags & LOOKASIDE else slots.value(slot)
        entry = {"slot": slot, "bucket": bucket, "flags": flags, "writes": flags >> 2,
                 "conquerSlot": slots.conquer_slot(slot), "sequence": sequences.get(slot),
                 "value": value.hex()}
        if entry["conquerSlot"] == NONE:
            entry["conquerSlot"] = None
        if lists.key_type:
            key = value[:lists.key_type.size]
            entry.update(key=key.hex(), keyText=lists.key_type.text(key))
        if known:
            for i, name in enumerate(("tx", "rx", "rxOther")):
                start = known.counts + 4 * i
                entry[name] = int.from_bytes(value[start:start + 4], "little")
        yield entry


def report(check, dump):
    result = {
        "sound": check.sound,
        "states": check.states,
        "findings": check.findings.count,
        "damage": [{**vars(f), "text": f.text()} for f in check.findings.first],
        **_file_facts(check.table),
        **_content_facts(check),
    }
    if dump:
        result["entries"] = list(_entries(check)) if check.sound and check.lists else None
    return result


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        self.print_usage(sys.stderr)
        self.exit(EXIT_USAGE, "%s: %s\n" % (self.prog, message))


def _page_size(text):
    size = int(text) if text.isdecimal() and len(text) <= 7 else 0
    if not 512 <= size <= 1 << 20 or size & (size - 1):
        raise argparse.ArgumentTypeError("page size %s, allowed: a power of 2 from 512 to 1048576"
                                         % text)
    return size


def _max_bytes(text):
    size = int(text) if text.isdecimal() and len(text) <= 10 else 0
    if not 1 <= size <= 0xFFFFFFFF:
        raise argparse.ArgumentTypeError("limit %s, allowed: 1 to 4294967295" % text)
    return size


def parser():
    result = _Parser(prog="table_check.py", description="Checks a table that lies in files, at rest.")
    result.add_argument("directory", help="the table's directory")
    result.add_argument("--json", action="store_true", help="print all facts as JSON on stdout")
    result.add_argument("--dump", action="store_true", help="print all entries (implies --json)")
    result.add_argument("--allow-open", action="store_true",
                        help="tolerate, and name, the states in which a writer may die")
    result.add_argument("--key-type", choices=sorted(KEY_TYPES),
                        help="how keys are hashed and ordered in a table of an unknown value type; "
                             "without it, its keys are not checked")
    result.add_argument("--page-size", type=_page_size, default=os.sysconf("SC_PAGE_SIZE"),
                        help="of the machine that wrote the table (default: this one's)")
    result.add_argument("--max-bytes", type=_max_bytes, default=256 << 20,
                        help="largest mapped file that is read (default: 256 MiB)")
    return result


def main(argv=None):
    arguments = parser().parse_args(argv)
    try:
        check = Check(arguments)
    except UsageError as error:
        print("table_check.py: %s" % error, file=sys.stderr)
        return EXIT_USAGE
    if arguments.json or arguments.dump:
        print(json.dumps(report(check, arguments.dump), indent=2, sort_keys=True))
    elif check.sound:
        entries = "entries: %d" % len(check.lists.entries) if check.lists else "contents not checked"
        state = "a writer died here: %s" % " or ".join(check.states) if check.states else "at rest"
        print("sound, %s, %s" % (state, entries))
    for finding in check.findings.first:
        print(finding.text(), file=sys.stderr)
    if check.findings.count > len(check.findings.first):
        print("and %d more" % (check.findings.count - len(check.findings.first)), file=sys.stderr)
    return EXIT_SOUND if check.sound else EXIT_DAMAGED


if __name__ == "__main__":
    sys.exit(main())
