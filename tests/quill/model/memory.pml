/* SPDX-License-Identifier: Apache-2.0
 *
 * The memory of the models: what a reader may load of what one writer has stored. docs/ordering-proofs.md
 * says why this is all that C++ permits for one writer and readers that store nothing.
 *
 * Every store is a message in one list, in the writer's program order. A reader has
 *   seen      the last message that happened before what it does next, by its acquires;
 *   floor[L]  the last message of place L that it has loaded itself, 0 if `seen` covers it.
 * A load answers any message of its place that is not older than both. An acquire that answers a release raises
 * `seen` to it; a relaxed one, or the answer of a relaxed store, raises only floor[L]. So a relaxed store
 * may be seen before stores that stand ahead of it, and what follows a relaxed load may be older than
 * what that load answered: each order of the code that matters has a scenario in which it is missed.
 *
 * A reader that never loads a message is one whose writer died before that store. So the writer may run to its
 * end, or as far as a reader's answer lets it, before the reader begins: nothing is lost by it.
 *
 * Before the inclusion: PLACES, the number of places, and MESSAGES, the most messages there can be.
 */
/* What is asserted: a violation tells the property by its number. */
#define TORN 1
#define ORDER 2
#define STAYS 3
#define DAMAGE 4
#define ENDS 5
#define NEWS 6
#define TOLD 7
#define HOLDS(property, condition) assert((condition) || property == 0)

#define RELAXED 0
#define RELEASE 1
#define ACQUIRE 1

byte value[MESSAGES];   /* message i < PLACES: what place i held at the beginning */
byte newer[MESSAGES];   /* the next message of the same place, 0 if there is none; 128: relaxed */
byte messages = PLACES;

/* Of the writer. */
byte newest[PLACES];

/* Of the reader. */
byte seen = PLACES - 1;
byte floor[PLACES];

byte m_i, m_j;

#define NEWER(i) (newer[i] & 127)
#define CUR(place) value[newest[place]]

inline STORE(place, what, order) {
  assert(messages < MESSAGES && messages < 128);
  value[messages] = what;
  newer[messages] = (order == RELEASE -> 0 : 128);
  newer[newest[place]] = newer[newest[place]] + messages;
  newest[place] = messages;
  messages++
}

/* Forgets how the memory came to be what it is: `what` is left is where the readers begin. */
inline SETTLE() {
  m_i = 0;
  do
  :: m_i < PLACES -> m_j = newest[m_i]; value[m_i] = value[m_j]; newest[m_i] = m_i; m_i++
  :: else -> break
  od;
  /* Messages of places were above PLACES: none of them has been overwritten. */
  m_i = 0;
  do
  :: m_i < MESSAGES -> newer[m_i] = 0;
     if :: m_i >= PLACES -> value[m_i] = 0 :: else fi; m_i++
  :: else -> break
  od;
  messages = PLACES; m_i = 0; m_j = 0
}

/* What a synchronisation outside of the table gives: everything up to now happened before. */
inline SYNCHRONISE(upTo) {
  seen = upTo;
  m_i = 0;
  do
  :: m_i < PLACES -> if :: floor[m_i] <= seen -> floor[m_i] = 0 :: else fi; m_i++
  :: else -> break
  od;
  m_i = 0
}

inline LOAD(place, order, out) {
  atomic {
    d_step {
      m_i = place;
      do
      :: NEWER(m_i) != 0 && NEWER(m_i) <= seen -> m_i = NEWER(m_i)
      :: else -> break
      od;
      if :: floor[place] > m_i -> m_i = floor[place] :: else fi
    }
    do
    :: break
    :: NEWER(m_i) != 0 -> m_i = NEWER(m_i)
    od;
    skip;
    d_step {
      out = value[m_i];
      if :: m_i > seen -> floor[place] = m_i :: else fi;
      if
      :: order == ACQUIRE && newer[m_i] < 128 && m_i > seen ->
         m_j = m_i;
         SYNCHRONISE(m_j)
      :: else
      fi;
      m_i = 0; m_j = 0
    }
  }
}
