// SPDX-License-Identifier: Apache-2.0
//
// What a table's writer and readers count about themselves. Plain values, each owned by one object
// and counted on its thread; the order of the words is fixed, for tools that print them by
// position.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Quill {

namespace Writer {

struct Counters {
  std::uint64_t slotsAllocated = 0;
  std::uint64_t slotsRemoved = 0;
  std::uint64_t slotRemaps = 0;
  std::uint64_t tombstones = 0;
  std::uint64_t notificationsSent = 0;
  std::uint64_t compactions = 0;
  std::uint64_t prunes = 0;
  std::uint64_t lastSequence = 0;
  std::uint64_t conquerGrows = 0;
  std::uint64_t conquerRemaps = 0;
  std::uint64_t kicks = 0;             // wake-ups sent to sleeping readers; as of the question
  std::uint64_t readersConnected = 0;  // as of the question
  std::uint64_t directWrites = 0;
  std::uint64_t directCommits = 0;
  std::uint64_t reserved = 0;
};
static_assert(sizeof(Counters) == 15 * 8);

}  // namespace Writer

namespace Reader {

// The two 64-bit counts lie at a word that need not be aligned to 8 bytes.
struct [[gnu::packed, gnu::aligned(4)]] Counters {
  std::uint32_t occupied = 0;        // entries now in the local shadow; the only one that falls
  std::uint32_t lookasideReads = 0;  // values taken from the look-aside slot
  std::uint32_t shadowGrows = 0;
  std::uint32_t shadowShrinks = 0;
  std::uint32_t slotResizes = 0;  // slots file mapped to a new size
  std::uint32_t readRetries = 0;  // walks begun again because a link changed
  std::uint32_t remaps = 0;       // a new mapping moved the base, slots or queue
  std::uint32_t patches = 0;      // chain pointers of a shadow re-based
  std::uint32_t syncerYields = 0;
  std::uint64_t syncedSequence = 0;  // up to which a synchronisation reached
  std::uint32_t queueSwaps = 0;
  std::uint32_t searchSteps = 0;
  std::uint32_t emptyQueueVisits = 0;
  std::uint32_t queueEndVisits = 0;
  std::uint32_t reserved15 = 0;
  std::uint32_t tombstonesSkipped = 0;
  std::uint32_t notificationsConsumed = 0;
  std::uint32_t conquerYields = 0;
  std::uint32_t connections = 0;
  std::uint64_t lastConsumedSequence = 0;
  std::uint32_t conquerResizes = 0;  // queue table mapped to a new size
  std::uint32_t reserved23 = 0;
  std::uint32_t staleKeyReads = 0;
  std::uint32_t nextHintMisses = 0;
  std::uint32_t shadowWrites = 0;
  std::uint32_t resyncs = 0;
  std::uint32_t slotMoves = 0;
  std::uint32_t mounterNotifies = 0;  // as of the question
  std::uint32_t remountTimeouts = 0;  // as of the question
};
static_assert(sizeof(Counters) == 31 * 4);
static_assert(offsetof(Counters, syncedSequence) == 9 * 4);
static_assert(offsetof(Counters, lastConsumedSequence) == 20 * 4);
static_assert(offsetof(Counters, remountTimeouts) == 30 * 4);
static_assert(std::is_trivially_copyable_v<Counters>);

}  // namespace Reader

}  // namespace Quill
