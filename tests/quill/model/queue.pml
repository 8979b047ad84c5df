/* SPDX-License-Identifier: Apache-2.0
 *
 * The queue: entries, tombstones, the position, compaction with its cut, the switch of tables, growth, and
 * a shadow that attaches at any moment, copies the table, follows, reports how far it came, is forgotten
 * and takes a second look at what was pruned. In the memory of memory.pml. Rules [O8] to [O10] and [O12].
 *
 * SLOTS slots are written WRITES times, whichever. The value of a slot is the sequence of its last change; that it
 * is read whole is shown by table.pml. Sequences are two halves, stored and loaded one by one.
 * Tables begin with ROOM entries. The writer learns of the reader's reports late or never; a second reader
 * may have reported less.
 *
 * The writer stores only between two batches of the reader: it acts on nothing but the reports, so what it
 * would have stored during a batch can as well stand there before the batch begins, and be loaded late.
 *
 * Properties:
 *   [news]    a shadow that has taken an entry holds at least the value that the entry told of;
 *   [told]    a shadow that has come to the end, with all stores before it, holds every slot's last value,
 *             but for a slot whose news the cut's rule dropped above minSeq (quill/README.md, "The cut
 *             of the queue");
 *   [damage]  no damage is reported of a queue that is sound;
 *   [ends]    a walk begins again only as often as the writer has stored something.
 */
#ifndef WRITES
#define WRITES 5
#endif
#ifndef ROOM
#define ROOM 3
#endif
#ifndef MOST
#define MOST 4         /* entries a table can come to: twice the slots, or ROOM */
#endif
#ifndef SLOTS
#define SLOTS 2
#endif
#define NONE 7
#define NOTHING 255   /* no report */

/* The orders of the code, as in table.pml. */
#ifndef S_VALUE
#define S_VALUE RELEASE     /* quill/QuillWriter-inl.h storeValue: slot.flags.store((flags + 4) | kOccupied, */
#endif
#ifndef S_TOMB
#define S_TOMB RELEASE      /* quill/ConquerWriter-inl.h notify: .slot.store(kNoSlot, */
#endif
#ifndef S_LOW
#define S_LOW RELEASE       /* quill/ConquerTable.h sequenceIs: low.store( */
#endif
#ifndef S_HIGH
#define S_HIGH RELEASE      /* quill/ConquerTable.h sequenceIs: high.store( */
#endif
#ifndef S_ENTRY
#define S_ENTRY RELEASE     /* quill/ConquerWriter-inl.h notify: fresh.slot.store(slot, */
#endif
#ifndef S_POS
#define S_POS RELEASE       /* quill/ConquerWriter-inl.h notify: current_->currentPos.store(pos + 1, */
#endif
#ifndef S_RESET
#define S_RESET RELEASE     /* quill/ConquerWriter-inl.h compact: other_->currentPos.store(0, */
#endif
#ifndef S_COPY
#define S_COPY RELEASE      /* quill/ConquerWriter-inl.h compact: entry.slot.store(slot, */
#endif
#ifndef S_COPYPOS
#define S_COPYPOS RELEASE   /* quill/ConquerWriter-inl.h compact: other_->currentPos.store(++to, */
#endif
#ifndef S_MIN
#define S_MIN RELEASE       /* quill/ConquerWriter-inl.h compact: header.minSeq.store(minSeq, */
#endif
#ifndef S_SWITCH
#define S_SWITCH RELEASE    /* quill/ConquerWriter-inl.h compact: header.currentTable.store(header.currentTable.load(Mem::relaxed).next(target), */
#endif
#ifndef S_ROOM
#define S_ROOM RELEASE      /* quill/ConquerWriter-inl.h grow: notifications.store(before.next( */
#endif
#ifndef L_HIGH
#define L_HIGH ACQUIRE      /* quill/ConquerReader-inl.h sequenceOf: entry.high.load(Mem::acquire) */
#endif
#ifndef L_LOW
#define L_LOW ACQUIRE       /* quill/ConquerReader-inl.h sequenceOf: entry.low.load(Mem::acquire) */
#endif
#ifndef L_ENTRY
#define L_ENTRY ACQUIRE     /* quill/ConquerReader-inl.h slotOf: entry.slot.load(Mem::acquire) */
#endif
#ifndef L_POS
#define L_POS ACQUIRE       /* quill/ConquerReader-inl.h used: current_->currentPos.load(Mem::acquire) */
#endif
#ifndef L_SWITCH
#define L_SWITCH ACQUIRE    /* quill/ConquerTable.cc getTable: headers_[primary]->currentTable.load(Mem::acquire) */
#endif
#ifndef L_MIN
#define L_MIN ACQUIRE       /* quill/ConquerReader-inl.h findPosition: headers_[primary]->minSeq.load(Mem::acquire) */
#endif
#ifndef L_ACK
#define L_ACK ACQUIRE       /* quill/ConquerReader-inl.h handleAck: headers_[primary]->minSeq.load(Mem::acquire) */
#endif
#ifndef L_ROOM
#define L_ROOM ACQUIRE      /* quill/ConquerReader-inl.h doResize: current_->notifications.load(Mem::acquire) */
#endif

/* Places. */
#define TABLE(t) ((t) * (3 + 3 * MOST))
#define NOTIFICATIONS(t) TABLE(t)              /* version * 8 + capacity */
#define POS(t) (TABLE(t) + 1)
#define FILE_SIZE(t) (TABLE(t) + 2)            /* what the system knows of the file */
#define HIGH(t, i) (TABLE(t) + 3 + 3 * (i))
#define LOW(t, i) (TABLE(t) + 4 + 3 * (i))
#define ENTRY(t, i) (TABLE(t) + 5 + 3 * (i))
#define MIN_SEQ (2 * (3 + 3 * MOST))
#define CURRENT (MIN_SEQ + 1)                  /* version * 2 + id */
#define VALUE(s) (MIN_SEQ + 2 + (s))
#define PLACES (MIN_SEQ + 2 + SLOTS)
#ifndef MESSAGES
#define MESSAGES (PLACES + 6 * WRITES + 15 * WRITES / 2)
#endif

#include "memory.pml"

#define VERSION(word) (((word) / 2) & 127)

/* --- the writer */

byte sequence, live;
byte where[SLOTS];          /* conquerSlot */
bool hole[SLOTS];           /* the cut dropped its news above minSeq */
byte reported = NOTHING;    /* lowestSequence() */
byte w_t, w_o, w_pos, w_to, w_min, w_cut, w_lo, w_hi, w_mid, w_loSeq, w_hiSeq, w_midSeq, w_moved;
byte slot, w_low;

#define SEQ(t, i) (CUR(HIGH(t, i)) * 4 + CUR(LOW(t, i)))

/* ConquerWriter-inl.h cut() */
inline cut(t, count, minSeq) {
  w_loSeq = SEQ(t, 0);
  w_hiSeq = SEQ(t, count - 1);
  if
  :: minSeq == 0 || w_loSeq > minSeq -> w_cut = 0
  :: else ->
     if
     :: w_loSeq == minSeq -> w_cut = 1
     :: w_loSeq != minSeq && w_hiSeq == minSeq -> w_cut = count - 1
     :: w_loSeq != minSeq && w_hiSeq < minSeq -> w_cut = 1
     :: w_loSeq != minSeq && w_hiSeq > minSeq ->
        w_lo = 0;
        w_hi = count - 1;
        do
        :: w_mid = (w_lo + w_hi) / 2;
           w_midSeq = SEQ(t, w_mid);
           if
           :: w_midSeq == minSeq -> w_cut = w_mid + 1; break
           :: w_midSeq < minSeq -> w_lo = w_mid + 1; w_loSeq = SEQ(t, w_lo); w_moved = w_lo
           :: w_midSeq > minSeq -> w_hi = w_mid - 1; w_hiSeq = SEQ(t, w_hi); w_moved = w_hi
           fi;
           if :: w_loSeq > minSeq || w_hiSeq < minSeq -> w_cut = w_moved + 1; break :: else fi
        od
     fi
  fi
}

inline sequenceIs(t, i, seq) {
  STORE(LOW(t, i), (seq) & 3, S_LOW);
  STORE(HIGH(t, i), (seq) / 4, S_HIGH)
}

inline storeSwitch() {
  STORE(CURRENT, ((VERSION(CUR(CURRENT)) + 1) & 127) * 2 + w_o, S_SWITCH)
}

/* ConquerWriter-inl.h compact(), with the new minSeq in w_min */
inline compact() {
  w_o = 1 - w_t;
  cut(w_t, CUR(POS(w_t)), w_min);
  w_pos = 0;
  do
  :: w_pos < w_cut ->
     if
     :: CUR(ENTRY(w_t, w_pos)) != NONE ->
        hole[CUR(ENTRY(w_t, w_pos))] = (SEQ(w_t, w_pos) > w_min);
        where[CUR(ENTRY(w_t, w_pos))] = NONE;
        live--
     :: else
     fi;
     w_pos++
  :: else -> break
  od;
  if
  :: (CUR(NOTIFICATIONS(w_o)) & 7) < live * 2 ->
     assert(live * 2 <= MOST);
#ifndef SWAP_ROOM
     STORE(FILE_SIZE(w_o), live * 2, RELEASE);
#endif
     STORE(NOTIFICATIONS(w_o), (CUR(NOTIFICATIONS(w_o)) / 8 + 1) * 8 + live * 2, S_ROOM);
#ifdef SWAP_ROOM
     STORE(FILE_SIZE(w_o), live * 2, RELEASE);
#endif
  :: else
  fi;
#ifdef SWAP_SWITCH
  storeSwitch();
#endif
  STORE(POS(w_o), 0, S_RESET);
  w_to = 0;
  do
  :: w_pos < (CUR(NOTIFICATIONS(w_t)) & 7) ->
     if
     :: CUR(ENTRY(w_t, w_pos)) != NONE ->
#ifdef SWAP_COPYPOS
        STORE(POS(w_o), w_to + 1, S_COPYPOS);
#endif
        w_midSeq = SEQ(w_t, w_pos);
        sequenceIs(w_o, w_to, w_midSeq);
        STORE(ENTRY(w_o, w_to), CUR(ENTRY(w_t, w_pos)), S_COPY);
        where[CUR(ENTRY(w_t, w_pos))] = w_to;
        w_to++;
#ifndef SWAP_COPYPOS
        STORE(POS(w_o), w_to, S_COPYPOS)
#endif
     :: else
     fi;
     w_pos++
  :: else -> break
  od;
#ifndef SWAP_MIN
  STORE(MIN_SEQ, w_min, S_MIN);
#endif
#ifndef SWAP_SWITCH
  storeSwitch();
#endif
#ifdef SWAP_MIN
  STORE(MIN_SEQ, w_min, S_MIN);
#endif
  w_t = w_o
}

/* ConquerWriter-inl.h makeRoom(); QuillWriter-inl.h write(), for the slot alone; ConquerWriter-inl.h notify() */
inline write(s) {
  if :: CUR(POS(w_t)) >= (CUR(NOTIFICATIONS(w_t)) & 7) -> compact() :: else fi;
#ifndef SWAP_NEWS
  STORE(VALUE(s), sequence + 1, S_VALUE);
#endif
  w_pos = CUR(POS(w_t));
  if
  :: where[s] == NONE -> live++
  :: else -> STORE(ENTRY(w_t, where[s]), NONE, S_TOMB)
  fi;
  sequence++;
#ifdef SWAP_POS
  STORE(POS(w_t), w_pos + 1, S_POS);
#endif
  sequenceIs(w_t, w_pos, sequence);
  STORE(ENTRY(w_t, w_pos), s, S_ENTRY);
  where[s] = w_pos;
  hole[s] = false;
#ifndef SWAP_POS
  STORE(POS(w_t), w_pos + 1, S_POS);
#endif
#ifdef SWAP_NEWS
  STORE(VALUE(s), sequence, S_VALUE);
#endif
  w_o = 0; w_pos = 0; w_to = 0; w_min = 0; w_cut = 0; w_lo = 0; w_hi = 0; w_mid = 0;
  w_loSeq = 0; w_hiSeq = 0; w_midSeq = 0; w_moved = 0
}

/* --- the reader */

byte generation = 127, table;                     /* Conquer::currentTable_ */
byte capacity[2];                                 /* ConquerNotifications */
byte mappedVersion[2] = 31;
byte lastSeq, passed, lastConsumed, pos, sent = NOTHING;
byte latest, shadow[SLOTS];
bool missed, bad, go, known, isSwapped, acked, finished;
byte r_word, r_high, r_count, r_low_, r_high_, r_lowSeq, r_highSeq, r_mid, r_midSeq, r_newest, r_min, r_slot, r_i;
byte passes;
#define RESTS 0
#define ATTACHES 1
#define SYNCHRONISES 2
#define FOLLOWS 3
byte doing;

inline forgetPosition() { generation = (generation - 1) & 127 }

/* ConquerReader-inl.h swapped() */
inline swapped() {
  LOAD(CURRENT, RELAXED, r_word);
  isSwapped = (VERSION(r_word) != generation);
  r_word = 0
}

/* ConquerReader-inl.h sequenceOf(), behind the check of ConquerNotifications */
inline sequenceOf(i, out) {
  if
  :: (i) >= capacity[table] -> bad = true
  :: else ->
     LOAD(HIGH(table, i), L_HIGH, r_high);
     LOAD(LOW(table, i), L_LOW, out);
     out = out + r_high * 4;
     r_high = 0
  fi
}

/* ConquerReader-inl.h search() */
inline search(count) {
  r_low_ = 0;
  r_high_ = count - 1;
  sequenceOf(r_low_, r_lowSeq);
  if :: !bad -> sequenceOf(r_high_, r_highSeq) :: else fi;
  do
  :: bad -> break
  :: else ->
     swapped();
     if
     :: isSwapped || r_lowSeq > lastSeq || r_highSeq < lastSeq || r_low_ > r_high_ -> break
     :: else
     fi;
     r_mid = r_low_ + (r_high_ - r_low_) / 2;
     sequenceOf(r_mid, r_midSeq);
     if
     :: bad -> break
     :: !bad && r_midSeq < lastSeq ->
        r_low_ = r_mid + 1;
        sequenceOf(r_low_, r_lowSeq);
        pos = r_low_
     :: !bad && r_midSeq > lastSeq ->
        if
        :: r_mid == 0 -> bad = true
        :: else -> r_high_ = r_mid - 1; sequenceOf(r_high_, r_highSeq); pos = r_mid
        fi
     :: !bad && r_midSeq == lastSeq -> pos = r_mid + 1; break
     fi
  od;
  r_low_ = 0; r_high_ = 0; r_lowSeq = 0; r_highSeq = 0; r_mid = 0; r_midSeq = 0
}

/* ConquerReader-inl.h findPosition(), noteMissed(); ConquerTable.cc getTable() */
inline findPosition() {
  bad = false;
  do
  :: swapped();
     if :: !isSwapped -> known = true; break :: else fi;
     LOAD(CURRENT, L_SWITCH, r_word);
     generation = VERSION(r_word);
     table = r_word & 1;
     r_word = 0;
     pos = 0;
     LOAD(POS(table), L_POS, r_count);
     if
     :: r_count == 0 ->
        swapped();
        if :: !isSwapped -> known = false; break :: else fi
     :: else ->
        search(r_count);
        if
        :: !bad ->
#ifdef SWAP_NEWEST
           sequenceOf(r_count - 1, r_newest);
           LOAD(MIN_SEQ, L_MIN, r_min)
#else
           LOAD(MIN_SEQ, L_MIN, r_min);
           LOAD(POS(table), L_POS, r_count);
           if :: r_count != 0 -> sequenceOf(r_count - 1, r_newest) :: else fi
#endif
        :: else
        fi;
        swapped();
        if
        :: !isSwapped ->
           missed = missed || (!bad && r_min > lastSeq && r_min > passed && r_min <= r_newest);
           known = true;
           break
        :: else -> bad = false
        fi
     fi;
     r_newest = 0; r_min = 0;
     passes++; HOLDS(ENDS, passes < MESSAGES)
  od;
  r_count = 0; r_newest = 0; r_min = 0; r_word = 0; isSwapped = false
}

/* ConquerReader-inl.h doResize(), called because something was damaged: */
inline doResize() {
  LOAD(NOTIFICATIONS(table), RELAXED, r_word);
  HOLDS(DAMAGE, r_word / 8 != mappedVersion[table]);
  LOAD(NOTIFICATIONS(table), L_ROOM, r_word);
  LOAD(FILE_SIZE(table), RELAXED, r_high);
  HOLDS(DAMAGE, r_high >= (r_word & 7));
  mappedVersion[table] = r_word / 8;
  capacity[table] = r_word & 7;
  forgetPosition();
  bad = false;
  passes++; HOLDS(ENDS, passes < MESSAGES);
  r_word = 0; r_high = 0
}

/* ShadowStore::doSlot(): the value by a stable read, which table.pml shows. */
inline doSlot(s) {
  LOAD(VALUE(s), ACQUIRE, shadow[s])
}

/* ConquerReader-inl.h handleEnabled() */
inline handleEnabled() {
  if :: lastSeq > passed -> passed = lastSeq :: else fi;
  missed = false;
  lastSeq = lastConsumed;
  forgetPosition()
}

/* ConquerReader-inl.h latestSequence(), behind findPosition(), which is done again until `doing` says otherwise;
 * then QuillShadow-inl.h doAttach() or resync(), Syncer-inl.h visit(), QuillShadow-inl.h syncComplete() */
inline synchronise() {
  LOAD(POS(table), L_POS, r_count);
  if :: r_count != 0 -> sequenceOf(r_count - 1, latest) :: else fi;
  r_count = 0;
  if
  :: !bad ->
     swapped();
     if
     :: !isSwapped ->
        r_slot = SLOTS;
        if
        :: doing == ATTACHES -> sent = latest; if :: latest == 0 -> r_slot = 0 :: else fi
        :: else
        fi;
        do
        :: r_slot == 0 -> break
        :: else -> r_slot--; doSlot(r_slot)
        od;
        lastConsumed = latest;
        latest = 0;
        handleEnabled();
        doing = (finished -> FOLLOWS : RESTS);
        passes = 0
     :: else -> isSwapped = false
     fi
  :: else
  fi
}

/* ConquerReader-inl.h doConquer(), behind findPosition(); conquer() goes on while `go` holds. */
inline doConquer() {
  go = false;
  if
  :: missed -> doing = SYNCHRONISES
  :: !missed && !known
  :: !missed && known ->
     LOAD(POS(table), L_POS, r_count);
     do
     :: pos < r_count ->
        sequenceOf(pos, r_midSeq);
        if :: bad -> break :: else fi;
        LOAD(ENTRY(table, pos), L_ENTRY, r_slot);
        swapped();
        if :: isSwapped -> go = true; break :: else fi;
        HOLDS(DAMAGE, r_midSeq > lastSeq);
        if
        :: r_slot != NONE ->
           doSlot(r_slot);
           HOLDS(NEWS, shadow[r_slot] >= r_midSeq);
           lastConsumed = r_midSeq;
           lastSeq = r_midSeq;
           pos++;
           go = true;
           break
        :: else ->
           lastSeq = r_midSeq;
           pos++;
           LOAD(POS(table), L_POS, r_count)
        fi
     :: else ->
        swapped();
        if
        :: isSwapped -> go = true
        :: else -> HOLDS(DAMAGE, pos <= r_count)
        fi;
        break
     od
  fi;
  r_count = 0; r_midSeq = 0; r_slot = 0; isSwapped = false
}

/* The writer goes on as far as it can without a compaction, which alone depends on the reports: what it
 * stores may be loaded as late as any. */
#define FULL (CUR(POS(w_t)) >= (CUR(NOTIFICATIONS(w_t)) & 7))
#define mayRead (doing == RESTS && !finished && (sequence == WRITES || FULL))

active proctype queue() {
  d_step {
    r_i = 0;
    do :: r_i < PLACES -> newest[r_i] = r_i; r_i++ :: else -> break od;
    r_i = 0;
    value[NOTIFICATIONS(0)] = 8 + ROOM; value[NOTIFICATIONS(1)] = 8 + ROOM;
    value[FILE_SIZE(0)] = ROOM; value[FILE_SIZE(1)] = ROOM;
    do :: r_i < SLOTS -> where[r_i] = NONE; r_i++ :: else -> break od;
    r_i = 0
  }
  do
  :: doing == RESTS && !finished && sequence < WRITES -> atomic {
     w_min = CUR(MIN_SEQ);
     if
     :: FULL ->
        /* ConquerWriter-inl.h prune(). What has reached the writer: nothing new, or all that was sent. */
        if :: sent != NOTHING && reported != sent -> reported = sent :: true fi;
        if
        :: reported > w_min ->
           w_low = (reported == NOTHING -> sequence : reported);
           do
           :: w_min < w_low -> w_min++     /* another reader may hold it back */
           :: break
           od;
           w_low = 0
        :: else
        fi
     :: else
     fi;
     slot = 0;
     do
     :: slot < SLOTS - 1 -> slot++
     :: break
     od;
     skip;
     d_step { skip; write(slot); slot = 0; skip }
     }
  :: mayRead && sent == NOTHING -> doing = ATTACHES
  :: mayRead && sent != NOTHING -> doing = FOLLOWS
  :: mayRead && !acked && reported != NOTHING ->
     /* ConquerReader-inl.h handleAck() */
     acked = true;
     LOAD(MIN_SEQ, L_ACK, r_word);
     if
     :: r_word > lastConsumed -> doing = SYNCHRONISES
     :: else -> handleEnabled()
     fi;
     r_word = 0
  :: mayRead && sequence == WRITES && sent != NOTHING ->
     finished = true;
     doing = FOLLOWS;
     d_step { skip; m_j = messages - 1; SYNCHRONISE(m_j); m_j = 0; skip }
  /* One state from one entry to the next, without those between: hardly any two of them are the same. */
  :: doing != RESTS -> atomic {
     findPosition();
     if
     :: !bad && doing == FOLLOWS ->
        doConquer();
        passes++; HOLDS(ENDS, passes < MESSAGES);
        if
        :: doing == FOLLOWS && !bad ->
           /* conquer() may yield after any entry, and reports. */
           if
           :: !go && finished -> break
           :: go && finished
           :: !finished -> doing = RESTS; passes = 0
           :: go && !finished
           fi
        :: else
        fi;
        if :: doing == RESTS -> sent = lastSeq :: else fi;
        go = false
     :: !bad && doing != FOLLOWS -> synchronise()
     :: bad
     fi;
     if :: bad -> doResize() :: else fi
     }
  od;
  r_i = 0;
  do
  :: r_i < SLOTS ->
     HOLDS(TOLD, shadow[r_i] == CUR(VALUE(r_i)) || hole[r_i]);
     r_i++
  :: else -> break
  od
}
