/* SPDX-License-Identifier: Apache-2.0
 *
 * Chains, values, the look-aside slot, the free list and the growth of the slots: one writer that does
 * OPS operations, whichever, and a reader that looks two keys up or walks over all of them, from
 * whichever moment on, in the memory of memory.pml. Rules [O1] to [O7].
 *
 * Four keys in two chains (0 and 2, 1 and 3), one page of SLOTS slots, which grows by two. The value of a
 * key is two words that both tell key and stamp, so that a mixture of two values shows; a key is
 * read from the first word.
 *
 * Properties:
 *   [torn]    a value that is answered is whole and is one of the key that was asked for;
 *   [order]   it is not older than the last write that was complete when the read began, nor than
 *             what an earlier read of the same reader answered;
 *   [stays]   an iteration meets every key that was there all the time (a lookup: by [order]);
 *   [damage]  no damage is reported of a table that is sound;
 *   [ends]    a read begins again only as often as the writer has stored something.
 */
#ifndef OPS
#define OPS 2
#endif
#ifndef SLOTS
#define SLOTS 3
#endif
#define LOOKS_UP 0
#define ITERATES 1
#ifndef READER
#define READER LOOKS_UP
#endif
#ifndef LOOKUPS
#define LOOKUPS 2
#endif
#define MAX_SLOTS 5
#define KEYS 4
#define NONE 7

/* The orders of the code, of which a run lowers one. The line of each says where it stands; the script
 * 20-model looks that it still does. */
#ifndef S_REF
#define S_REF RELEASE       /* quill/QuillWriter-inl.h write: slot->ref.store( */
#endif
#ifndef S_LOOK
#define S_LOOK RELEASE      /* quill/QuillWriter-inl.h storeValue: lookaside.value.copyIn(&value) */
#endif
#ifndef S_UP
#define S_UP RELEASE        /* quill/QuillWriter-inl.h storeValue: slot.flags.store(flags + 2, */
#endif
#ifndef S_VALUE
#define S_VALUE RELEASE     /* quill/QuillWriter-inl.h storeValue: slot.value.copyIn(&value) */
#endif
#ifndef S_DOWN
#define S_DOWN RELEASE      /* quill/QuillWriter-inl.h storeValue: slot.flags.store((flags + 4) | kOccupied, */
#endif
#ifndef S_LINK
#define S_LINK RELEASE      /* quill/QuillWriter-inl.h write: curr->store(before.next(index), */
#endif
#ifndef S_UNLINK
#define S_UNLINK RELEASE    /* quill/QuillWriter-inl.h remove: curr->store(curr->load(Mem::relaxed).next(next.value), */
#endif
#ifndef S_CLEAR
#define S_CLEAR RELEASE     /* quill/QuillWriter-inl.h remove: slot->flags.store(slot->flags.load(Mem::relaxed) & ~kOccupied, */
#endif
#ifndef S_FREE
#define S_FREE RELEASE      /* quill/SlotWriterTable-inl.h free: link.store(link.load(Mem::relaxed).next(before), */
#endif
#ifndef S_BLANK
#define S_BLANK RELEASE     /* quill/QuillWriter-inl.h directWrite: target.copyIn(&fresh) */
#endif
#ifndef S_FILL
#define S_FILL RELEASE      /* quill/QuillBase.h DirectTarget: Mem::Atomics::copyIn() */
#endif
#ifndef S_DREF
#define S_DREF RELEASE      /* quill/QuillWriter-inl.h directCommit: slot.ref.store( */
#endif
#ifndef S_DUP
#define S_DUP RELEASE       /* quill/QuillWriter-inl.h directCommit: slot.flags.store(flags + 2, */
#endif
#ifndef S_DVALUE
#define S_DVALUE RELEASE    /* quill/QuillWriter-inl.h directCommit: slot.value.copyIn(&value) */
#endif
#ifndef S_DDOWN
#define S_DDOWN RELEASE     /* quill/QuillWriter-inl.h directCommit: slot.flags.store(flags + 4, */
#endif
#ifndef S_DNEW
#define S_DNEW RELEASE      /* quill/QuillWriter-inl.h directCommit: slot.flags.store((flags + 4) | kOccupied, */
#endif
#ifndef S_DLINK
#define S_DLINK RELEASE     /* quill/QuillWriter-inl.h directCommit: directRef_->store(before.next(index), */
#endif
#ifndef S_FRESH
#define S_FRESH RELEASE     /* quill/SlotTable-inl.h freshSlot: slot.flags.store(0, */
#endif
#ifndef S_CHAIN
#define S_CHAIN RELEASE     /* quill/SlotWriterTable-inl.h addFreeSlots: link.store(link.load(Mem::relaxed).next(next), */
#endif
#ifndef S_NUM
#define S_NUM RELEASE       /* quill/SlotWriterTable-inl.h grow: numSlots.store(numSlots.load(Mem::relaxed).next(count), */
#endif
#ifndef L_LINK
#define L_LINK ACQUIRE      /* quill/QuillReader-inl.h Position: from->load(Mem::acquire) */
#endif
#ifndef L_FLAGS
#define L_FLAGS ACQUIRE     /* quill/SlotReaderTable-inl.h read: slot.flags.load(Mem::acquire) */
#endif
#ifndef L_LOOK
#define L_LOOK ACQUIRE      /* quill/SlotReaderTable-inl.h read: lookaside.value.copyOut(&own, sizeof(T)) */
#endif
#ifndef L_VALUE
#define L_VALUE ACQUIRE     /* quill/SlotReaderTable-inl.h read: slot.value.copyOut(&own, sizeof(T)) */
#endif
#ifndef L_NUM
#define L_NUM ACQUIRE       /* quill/SlotTable-inl.h HeaderCopy: header.numSlots.load(Mem::acquire) */
#endif

/* Places. */
#define HEAD(b) (b)
#define REF(s) (2 + (s))
#define FLAGS(s) (2 + MAX_SLOTS + (s))
#define VALUE(s, w) (2 + 2 * MAX_SLOTS + 2 * (s) + (w))
#define LOOK(w) (2 + 4 * MAX_SLOTS + (w))
#define NUM (4 + 4 * MAX_SLOTS)
#define FILE_SIZE (5 + 4 * MAX_SLOTS)  /* what the system knows of the file */
#define PLACES (6 + 4 * MAX_SLOTS)
#ifndef MESSAGES
#define MESSAGES (PLACES + 9 * OPS + 14)
#endif

#include "memory.pml"

#define OCCUPIED 1
#define LOOKASIDE 2
#define BUCKET(k) ((k) & 1)
#define WORD(k, stamp) ((k) * 16 + (stamp))
#define KEY(word) ((word) / 16)
#define NEXT(link) ((link) & 7)
#define SAME(a, b) ((a) / 8 == (b) / 8)   /* versions */
#define LINK(before, next) ((((before) / 8 + 1) & 31) * 8 + (next))

/* --- the writer */

byte stamp, freeSlots = NONE, numSlots, now[KEYS];
byte w_curr, w_index, w_before, w_flags, w_i;
bool w_found;

/* What a read may answer: the stamp of each key after so many operations, 0 for none. And how many
 * messages there were then. */
byte contents[(OPS + 1) * KEYS];
byte complete[OPS + 1];

/* QuillWriter-inl.h find() */
inline find(k) {
  w_curr = HEAD(BUCKET(k));
  w_found = false;
  do
  :: NEXT(CUR(w_curr)) == NONE -> break
  :: else ->
     w_index = NEXT(CUR(w_curr));
     if
     :: KEY(CUR(VALUE(w_index, 0))) < k -> w_curr = REF(w_index)
     :: else -> w_found = (KEY(CUR(VALUE(w_index, 0))) == k); break
     fi
  od
}

inline freshSlot(s) {
  STORE(REF(s), NONE, S_FRESH);
  STORE(FLAGS(s), 0, S_FRESH);
  STORE(VALUE(s, 0), 0, S_FRESH);
  STORE(VALUE(s, 1), 0, S_FRESH)
}

/* SlotWriterTable-inl.h grow() */
inline grow() {
  assert(numSlots + 2 <= MAX_SLOTS);
#ifdef SWAP_NUM
  STORE(NUM, LINK(CUR(NUM), 0) + numSlots + 2, S_NUM);
#endif
  STORE(FILE_SIZE, numSlots + 2, RELEASE);
  freshSlot(numSlots);
  freshSlot(numSlots + 1);
  STORE(REF(numSlots + 1), LINK(CUR(REF(numSlots + 1)), NONE), S_CHAIN);
  STORE(REF(numSlots), LINK(CUR(REF(numSlots)), numSlots + 1), S_CHAIN);
#ifndef SWAP_NUM
  STORE(NUM, LINK(CUR(NUM), 0) + numSlots + 2, S_NUM);
#endif
  freeSlots = numSlots;
  numSlots = numSlots + 2
}

/* SlotWriterTable-inl.h alloc() */
inline alloc() {
  if :: freeSlots == NONE -> grow() :: else fi;
  w_index = freeSlots;
  freeSlots = NEXT(CUR(REF(w_index)))
}

inline twoWords(place, k, what, order) {
  STORE(place, WORD(k, what), order);
  STORE(place + 1, WORD(k, what), order)
}

/* QuillWriter-inl.h storeValue() */
inline storeValue(k) {
  w_flags = CUR(FLAGS(w_index));
#ifdef SWAP_UP
  STORE(FLAGS(w_index), w_flags + 2, S_UP);
#endif
  if :: w_flags & OCCUPIED -> twoWords(LOOK(0), k, stamp, S_LOOK) :: else fi;
#ifndef SWAP_UP
#ifndef SWAP_VALUE_UP
  STORE(FLAGS(w_index), w_flags + 2, S_UP);
#endif
#endif
#ifdef SWAP_DOWN
  STORE(FLAGS(w_index), (w_flags + 4) | OCCUPIED, S_DOWN);
#endif
  twoWords(VALUE(w_index, 0), k, stamp, S_VALUE);
#ifdef SWAP_VALUE_UP
  STORE(FLAGS(w_index), w_flags + 2, S_UP);
#endif
#ifndef SWAP_DOWN
  STORE(FLAGS(w_index), (w_flags + 4) | OCCUPIED, S_DOWN);
#endif
}

/* QuillWriter-inl.h write() */
inline write(k) {
  stamp++;
  find(k);
  if
  :: w_found -> storeValue(k)
  :: else ->
     alloc();
     w_before = CUR(w_curr);
#ifdef SWAP_LINK
     STORE(w_curr, LINK(w_before, w_index), S_LINK);
#endif
     STORE(REF(w_index), LINK(CUR(REF(w_index)), NEXT(w_before)), S_REF);
     storeValue(k);
#ifndef SWAP_LINK
     STORE(w_curr, LINK(w_before, w_index), S_LINK);
#endif
  fi;
  now[k] = stamp
}

/* QuillWriter-inl.h remove() */
inline remove(k) {
  find(k);
  if
  :: w_found ->
     w_before = CUR(REF(w_index));
#ifdef SWAP_UNLINK
     STORE(FLAGS(w_index), CUR(FLAGS(w_index)) & 254, S_CLEAR);
#endif
     STORE(w_curr, LINK(CUR(w_curr), NEXT(w_before)), S_UNLINK);
#ifndef SWAP_UNLINK
#ifndef SWAP_CLEAR
     STORE(FLAGS(w_index), CUR(FLAGS(w_index)) & 254, S_CLEAR);
#endif
#endif
     STORE(REF(w_index), LINK(w_before, freeSlots), S_FREE);
#ifdef SWAP_CLEAR
     STORE(FLAGS(w_index), CUR(FLAGS(w_index)) & 254, S_CLEAR);
#endif
     freeSlots = w_index
  :: else
  fi;
  now[k] = 0
}

/* QuillWriter-inl.h directWrite(), what the caller stores, directCommit() */
inline direct(k) {
  stamp++;
  find(k);
  if :: !w_found -> alloc() :: else fi;
  w_flags = CUR(FLAGS(w_index));
  if
  :: w_flags & OCCUPIED ->
     twoWords(LOOK(0), k, 0, S_BLANK);
     twoWords(LOOK(0), k, stamp, S_FILL)
  :: else ->
     twoWords(VALUE(w_index, 0), k, 0, S_BLANK);
     twoWords(VALUE(w_index, 0), k, stamp, S_FILL)
  fi;
  w_before = CUR(w_curr);
#ifdef SWAP_DLINK
  if :: !w_found -> STORE(w_curr, LINK(w_before, w_index), S_DLINK) :: else fi;
#endif
  if :: !w_found -> STORE(REF(w_index), LINK(CUR(REF(w_index)), NEXT(w_before)), S_DREF) :: else fi;
  if
  :: w_flags & OCCUPIED ->
#ifndef SWAP_DUP
     STORE(FLAGS(w_index), w_flags + 2, S_DUP);
#endif
     twoWords(VALUE(w_index, 0), k, stamp, S_DVALUE);
#ifdef SWAP_DUP
     STORE(FLAGS(w_index), w_flags + 2, S_DUP);
#endif
     STORE(FLAGS(w_index), w_flags + 4, S_DDOWN)
  :: else -> STORE(FLAGS(w_index), (w_flags + 4) | OCCUPIED, S_DNEW)
  fi;
#ifndef SWAP_DLINK
  if :: !w_found -> STORE(w_curr, LINK(w_before, w_index), S_DLINK) :: else fi;
#endif
  now[k] = stamp
}

/* --- the reader */

byte held;           /* the numSlots word as last mapped: SlotReaderTable::numSlots_ */
byte mapped;
byte oldest;         /* the operation of which a read must at least know */
byte hintSlot, bucket, key;
byte r_link, r_word, r_slot, r_flags, r_again, r_w0, r_w1, r_next, r_nextWord, r_steps, r_i;
byte passes;
byte a_stamp;        /* what was answered */
bool again, ok;

/* SlotReaderTable-inl.h read(), of a value or of the key alone. A slot that is not mapped is damage: `ok`
 * false. */
inline readSlot(s, whole) {
  if
  :: s >= mapped -> ok = false
  :: else ->
     do
     :: LOAD(FLAGS(s), L_FLAGS, r_flags);
        if
        :: r_flags & LOOKASIDE ->
           LOAD(LOOK(0), L_LOOK, r_w0);
           if :: whole -> LOAD(LOOK(1), L_LOOK, r_w1) :: else fi
        :: else ->
           LOAD(VALUE(s, 0), L_VALUE, r_w0);
           if :: whole -> LOAD(VALUE(s, 1), L_VALUE, r_w1) :: else fi
        fi;
        LOAD(FLAGS(s), RELAXED, r_again);
        if
        :: r_again == r_flags -> r_again = 0; break
        :: else -> passes++; HOLDS(ENDS, passes < MESSAGES)
        fi
     od
  fi
}

/* QuillReader-inl.h Position::changed() */
inline lookAgain() {
  LOAD(r_link, RELAXED, r_again);
  again = !SAME(r_again, r_word);
  r_again = 0
}

/* QuillReader-inl.h walk(): up to the first key that is not below `from`. r_slot NONE at the end of the
 * chain, else the slot, its value in r_w0 and r_w1. `ok` false: damage. */
inline walk(b, from) {
  do
  :: ok = true;
     again = false;
     r_steps = 0;
     r_link = HEAD(b);
     LOAD(r_link, L_LINK, r_word);
     do
     :: NEXT(r_word) == NONE -> r_slot = NONE; break
     :: else ->
        r_slot = NEXT(r_word);
        r_steps++;
        if :: r_steps > mapped -> ok = false; break :: else fi;
        readSlot(r_slot, true);
        if :: !ok -> break :: else fi;
        if
        :: !(r_flags & OCCUPIED) -> lookAgain(); ok = again; break
        :: else
        fi;
        if
        :: KEY(r_w0) >= from -> lookAgain(); break
        :: else
        fi;
        LOAD(REF(r_slot), L_LINK, r_nextWord);
        lookAgain();
        if :: again -> break :: else fi;
        r_link = REF(r_slot);
        r_word = r_nextWord
     od;
     if
     :: again -> passes++; HOLDS(ENDS, passes < MESSAGES)
     :: else -> break
     fi
  od;
  r_link = 0; r_word = 0; r_nextWord = 0; r_steps = 0; r_flags = 0; again = false
}

/* QuillReader-inl.h settle(), SlotReaderTable-inl.h remap(): `again` true if what was read is not believed. */
inline settle() {
  LOAD(NUM, RELAXED, r_again);
  if
  :: SAME(r_again, held) ->
     again = false;
     HOLDS(DAMAGE, ok)
  :: else ->
     do
     :: LOAD(NUM, L_NUM, r_word);
        LOAD(NUM, RELAXED, r_again);
        if :: SAME(r_again, r_word) -> break :: else fi
     od;
     LOAD(FILE_SIZE, RELAXED, r_again);
     HOLDS(DAMAGE, r_again >= NEXT(r_word) && NEXT(r_word) >= mapped);
     held = r_word;
     mapped = NEXT(r_word);
     again = true;
     passes++; HOLDS(ENDS, passes < MESSAGES)
  fi;
  r_again = 0; r_word = 0
}

/* `k` was answered with a_stamp. */
inline believe(k) {
  d_step {
    do
    :: oldest <= OPS && contents[oldest * KEYS + k] != a_stamp -> oldest++
    :: else -> break
    od;
    HOLDS(ORDER, oldest <= OPS);
    a_stamp = 0
  }
}

/* QuillReader-inl.h lookup(), find() */
inline lookup(k) {
  do
  :: walk(BUCKET(k), k);
     settle();
     if :: !again -> break :: else fi
  od;
  again = false; passes = 0;
  if
  :: r_slot != NONE && KEY(r_w0) == k ->
     HOLDS(TORN, r_w0 == r_w1);
     a_stamp = r_w0 & 15
  :: else -> a_stamp = 0
  fi;
  r_slot = 0; r_w0 = 0; r_w1 = 0;
  believe(k)
}

/* The key `k` was met in an iteration. */
byte met;
inline meet() {
  d_step {
    HOLDS(TORN, r_w0 == r_w1);
    w_found = false;
    r_i = oldest;
    do
    :: r_i > OPS -> break
    :: else ->
       if :: contents[r_i * KEYS + KEY(r_w0)] == (r_w0 & 15) -> w_found = true :: else fi;
       r_i++
    od;
    HOLDS(ORDER, w_found);
    w_found = false; r_i = 0;
    met = met | (1 << KEY(r_w0))
  }
}

/* QuillReader-inl.h doFirst(): from bucket `b`, a variable, on. */
inline doFirst(b) {
  ok = true;
  do
  :: b > 1 -> r_slot = NONE; break
  :: else ->
     LOAD(HEAD(b), L_LINK, r_word);
     if
     :: NEXT(r_word) == NONE -> b++
     :: else ->
        r_slot = NEXT(r_word);
        r_link = HEAD(b);
        readSlot(r_slot, true);
        if :: !ok -> break :: else fi;
        lookAgain();
        if
        :: again -> again = false; passes++; HOLDS(ENDS, passes < MESSAGES)
        :: else ->
           ok = (r_flags & OCCUPIED) && BUCKET(KEY(r_w0)) == b;
           break
        fi
     fi
  od;
  r_link = 0; r_word = 0; r_flags = 0
}

/* QuillReader-inl.h hintedNext(): `taken` false if the hint does not hold. */
bool taken;
inline hintedNext(k) {
  taken = false;
  ok = true;
  r_link = REF(hintSlot);
  LOAD(r_link, L_LINK, r_word);
  readSlot(hintSlot, false);
  if
  :: ok && (r_flags & OCCUPIED) && KEY(r_w0) == k ->
     if
     :: NEXT(r_word) == NONE ->
        lookAgain();
        if
        :: !again -> taken = true; bucket = BUCKET(k) + 1; doFirst(bucket)
        :: else
        fi
     :: else ->
        r_slot = NEXT(r_word);
        readSlot(r_slot, true);
        if
        :: ok ->
           lookAgain();
           if
           :: !again ->
              ok = (r_flags & OCCUPIED) && BUCKET(KEY(r_w0)) == BUCKET(k);
              taken = !ok || k < KEY(r_w0)
           :: else
           fi
        :: else -> taken = true
        fi
     fi
  :: else -> taken = !ok
  fi;
  again = false; r_link = 0; r_word = 0; r_flags = 0
}



/* QuillReader-inl.h first(), next(), doNext(), walkToNext(): over all entries. */
inline iterate() {
  met = 0;
  bucket = 0;
  do
  :: bucket = 0;
     doFirst(bucket);
     settle();
     if :: !again -> break :: else fi
  od;
  do
  :: r_slot == NONE -> break
  :: else ->
     passes = 0;
     meet();
     key = KEY(r_w0);
     hintSlot = r_slot;
     do
     :: r_w0 = 0; r_w1 = 0;
        hintedNext(key);
        if
        :: !taken ->
           walk(BUCKET(key), key + 1);
           if
           :: ok && r_slot == NONE -> bucket = BUCKET(key) + 1; doFirst(bucket)
           :: ok && r_slot != NONE -> ok = (BUCKET(KEY(r_w0)) == BUCKET(key))
           :: else
           fi
        :: else
        fi;
        taken = false;
        settle();
        if :: !again -> break :: else fi
     od;
     again = false
  od;
  skip;
  d_step {
    key = 0;
    do
    :: key < KEYS ->
       w_found = true;
       r_i = oldest;
       do
       :: r_i > OPS -> break
       :: else -> if :: contents[r_i * KEYS + key] == 0 -> w_found = false :: else fi; r_i++
       od;
       HOLDS(STAYS, !w_found || (met & (1 << key)));
       key++
    :: else -> break
    od
  }
}


byte op, which, lookups;

inline note() {
  w_i = 0;
  do
  :: w_i < KEYS -> contents[op * KEYS + w_i] = now[w_i]; w_i++
  :: else -> break
  od;
  complete[op] = messages - 1;
  w_i = 0; w_curr = 0; w_index = 0; w_before = 0; w_flags = 0; w_found = false
}

active proctype table() {
  /* A table with whichever keys; each slot on one list. */
  d_step {
    w_i = 0;
    do :: w_i < PLACES -> newest[w_i] = w_i; w_i++ :: else -> break od;
    value[HEAD(0)] = NONE; value[HEAD(1)] = NONE;
    w_i = SLOTS;
    do
    :: w_i > 0 -> w_i--; value[REF(w_i)] = freeSlots; freeSlots = w_i
    :: else -> break
    od;
    numSlots = SLOTS; value[NUM] = SLOTS; value[FILE_SIZE] = SLOTS
  }
  which = 0;
  do
  :: which < KEYS ->
     if
     :: freeSlots != NONE -> d_step { skip; write(which); skip }
     :: true
     fi;
     which++
  :: else -> break
  od;
  skip;
  d_step { SETTLE(); op = 0; note(); held = value[NUM]; mapped = SLOTS }
  do
  :: op < OPS ->
     if
     :: which = 0 :: which = 1 :: which = 2 :: which = 3
     fi;
     if
     :: freeSlots != NONE || numSlots + 2 <= MAX_SLOTS || now[which] != 0 -> d_step { skip; write(which); skip }
     :: now[which] != 0 -> d_step { skip; remove(which); skip }
     :: freeSlots != NONE || numSlots + 2 <= MAX_SLOTS || now[which] != 0 -> d_step { skip; direct(which); skip }
     fi;
     d_step { op++; note() }
  :: else -> break
  od;
  skip;
  /* A reader that knows of so many operations as it begins. */
  d_step { which = 0; stamp = 0; freeSlots = 0; numSlots = 0; w_i = 0;
    do :: w_i < PLACES -> newest[w_i] = 0; w_i++ :: else -> break od;
    w_i = 0;
    do :: w_i < KEYS -> now[w_i] = 0; w_i++ :: else -> break od; w_i = 0 }
  do
  :: oldest < OPS -> oldest++
  :: break
  od;
  skip;
  d_step { SYNCHRONISE(complete[oldest]); op = 0;
    do :: op <= OPS -> complete[op] = 0; op++ :: else -> break od; op = 0 }
#if READER == ITERATES
  atomic { iterate() }
#else
  lookups = 0;
  do
  :: lookups < LOOKUPS ->
     if :: key = 0 :: key = 1 :: key = 2 :: key = 3 fi;
     atomic { lookup(key) };
     lookups++
  :: else -> break
  od
#endif
}
