# SPDX-License-Identifier: Apache-2.0
"""Names the state in which a writer died: "Where a writer may die" in docs/formats.md.

Each function answers whether what was found is exactly one state and nothing beside it. More than
one may hold for the same bytes, since some states look alike.
"""

from table_format import LOOKASIDE, NONE, OCCUPIED
from table_files import MAPPED


def _between_lists(lists):
    if len(lists.unlisted) != 1 or lists.lookaside or lists.free_onto_chain is not None:
        return False
    slot = lists.unlisted[0]
    after = lists.slots.next(slot)
    if after != NONE and after >= lists.slots.num_slots:
        return False
    if lists.slots.flags(slot) & OCCUPIED:
        return lists.surplus == 1
    return lists.surplus in (0, 1)


def _storing_value(lists):
    if (len(lists.lookaside) != 1 or lists.unlisted or lists.surplus != 0 or
            lists.free_onto_chain is not None):
        return False
    if lists.key_type is None:
        return True
    spare = lists.slots.lookaside_value()[:lists.key_type.size]
    return spare == lists.key(lists.lookaside[0])


def _old_free_list(lists):
    """Whether the slots on no list are one list of free slots, whose head nothing names."""
    slots, unlisted = lists.slots, set(lists.unlisted)
    heads = unlisted - {slots.next(s) for s in unlisted}
    if len(heads) != 1:
        return False
    slot, length = heads.pop(), 0
    while slot in unlisted and length < len(unlisted):
        if slots.flags(slot) & (OCCUPIED | LOOKASIDE):
            return False
        length += 1
        slot = slots.next(slot)
    return slot == NONE and length == len(unlisted)


def _freeing_slot(lists):
    if lists.surplus != 1 or lists.lookaside or len(lists.free) != 1:
        return False
    slot = lists.free[0]
    after = lists.free_onto_chain
    if after is None:
        return bool(lists.unlisted) and _old_free_list(lists)
    if lists.key_type and (lists.bucket_of(slot) != lists.bucket_of(after) or
                           not lists.order(slot) < lists.order(after)):
        return False
    return not lists.unlisted or _old_free_list(lists)


def _counting_removal(lists):
    return (lists.surplus == 1 and not lists.unlisted and not lists.lookaside and
            lists.free_onto_chain is None)


def _growing_slots(lists):
    slots, count = lists.slots, len(lists.unlisted)
    if (not count or slots.free_head != NONE or lists.surplus != 0 or lists.lookaside or
            lists.unlisted[0] != slots.num_slots - count):
        return False
    for slot in lists.unlisted:
        after = slot + 1 if slot + 1 < slots.num_slots else NONE
        if slots.slot(slot) != (1, after, NONE, 0) or any(slots.value(slot)):
            return False
    return True


def _marking_tombstone(queue):
    if len(queue.bad_slots) != 1 or queue.bad_entries or queue.pruned_past:
        return False
    _, position = queue.bad_slots[0]
    return position < queue.table.current_pos and queue.table.entry(position)[1] == NONE


def _publishing_entry(queue):
    if len(queue.bad_slots) != 1 or queue.bad_entries:
        return False
    slot, position = queue.bad_slots[0]
    table = queue.table
    if position != table.current_pos or position >= table.notifications:
        return False
    sequence, named = table.entry(position)
    return named == slot and sequence > max(queue.last_seq, queue.head.min_seq)


def _moving_queue(queue):
    """Front to back: cut, copied, not yet copied."""
    if queue.table.current_pos != queue.table.notifications or queue.pruned_past:
        return False
    copied = 0
    explained = set()
    still_at_source = False
    for position, sequence, slot in queue.live:
        at = queue.slots.conquer_slot(slot)
        if at == NONE and copied == 0:
            continue
        copy_fits = copied < queue.other.notifications
        if (at == copied and not still_at_source and copy_fits and
                queue.other.entry(copied) == (sequence, slot)):
            explained.add(slot)
        elif at == position:
            still_at_source = True
        else:
            return False
        copied += 1
    return all(slot in explained for slot, _ in queue.bad_slots)


def _moved_all(queue):
    return (queue.pruned_past and queue.head.generation != 0 and not queue.bad_slots and
            not queue.bad_entries)


_LIST_STATES = {
    "between-lists": _between_lists,
    "storing-value": _storing_value,
    "freeing-slot": _freeing_slot,
    "counting-removal": _counting_removal,
    "growing-slots": _growing_slots,
}
_QUEUE_STATES = {
    "marking-tombstone": _marking_tombstone,
    "publishing-entry": _publishing_entry,
    "moving-queue": _moving_queue,
    "moved-all": _moved_all,
}


def name_states(lists, queue):
    """Names of states that explain all facts; empty if none does or nothing needs one."""
    of_lists = [n for n, holds in _LIST_STATES.items() if not lists.clean() and holds(lists)]
    of_queue = [n for n, holds in _QUEUE_STATES.items() if not queue.clean() and holds(queue)]
    if not lists.clean() and not of_lists or not queue.clean() and not of_queue:
        return []
    if of_lists and of_queue:
        # Only a move that failed leaves its traces behind while other work goes on.
        of_queue = [n for n in of_queue if n == "moving-queue"]
        return of_lists + of_queue if of_queue else []
    return of_lists + of_queue


def next_id(fenix):
    """The id that a writer takes when it gives the content up; 0 is no id."""
    return fenix % 0xFFFFFFFF + 1


def _id(file):
    """Id of a mapped file; None if it is missing or too short to have one."""
    return file.fenix if file is not None and file.size >= file.FIXED else None


def name_file_state(table):
    """State of an attach or a cleanup that did not finish, judged by ids alone; None for none.

    "storing-fenix" leaves the four files to be checked like any others.
    """
    ids = [_id(f) for f in table.mapped]
    missing = [f is None for f in table.mapped]
    old = table.fenix
    following = next_id(old)
    if all(i and i == ids[0] for i in ids):
        if old == 0 and not table.has_fenix_file or old != 0 and ids[0] == following:
            return "storing-fenix"
        return None
    if old == 0 and not table.has_fenix_file:
        removed = [missing[MAPPED.index(n)] for n in ("conquer.1", "conquer.2", "buckets", "slots")]
        present = {i for i in ids if i}
        if removed == sorted(removed, reverse=True) and removed[0] and len(present) <= 1:
            # The two look alike as soon as both tables of the queue are gone.
            return "formatting" if removed[1] and not removed[3] else "cleaning-up"
        return "formatting" if _formats(ids, missing, None) else None
    return "formatting" if old != 0 and _formats(ids, missing, old) else None


def slots_are_cut(table, page):
    """Whether `slots` has been cut to the size of a new file, with all of its old header: what the
    first step of formatting a table anew leaves. A file that lost its end there looks the same."""
    slots = table.slots
    if not table.fenix or _id(slots) != table.fenix:
        return False
    if not 0 < slots.slot_size < page - slots.header_size:
        return False
    count = (page - slots.header_size) // slots.slot_size
    return slots.size == slots.offset(count) and slots.num_slots > count


def _formats(ids, missing, old):
    """Whether the files, in order, are done (new id), then at most one in work, then untouched."""
    new = ids[0] if old is None else next_id(old)
    done = 0
    while done < len(ids) and ids[done] and ids[done] == new:
        done += 1
    rest = list(zip(ids, missing))[done:]
    # The file in work may not have an id yet.
    if rest and not rest[0][1] and rest[0][0] in (None, 0):
        rest = rest[1:]
        done += 1
    return done > 0 and all(gone if old is None else i == old for i, gone in rest)
