// SPDX-License-Identifier: Apache-2.0
//
// Quill::ConquerReader: a reader's end of the notification queue. It finds the place where it
// stopped, walks on in bounded batches and hands each slot that changed to the shadow's store,
// which reads that slot again. A queue entry says only that a slot changed, so one that is missed
// or repeated costs work and no truth.
//
// Belongs to the activity thread, as its shadow does, of which it is a member. Takes no lock and
// never waits for the writer. A batch runs to its end in one call; a listener that it reaches may
// read the shadow, turn notifications off and detach() it, but not destroy it.
//
// Invariants:
//  1. Every decision on what was read in a table is taken after one more look at the generation:
//     what a table gave while the writer rewrote it is thrown away.
//  2. lastSeq_ is the sequence of the last entry that was passed. After a swap the position is
//     found again by it.
//  3. An index is compared with what is mapped before an entry is formed from it.
//  4. Damage is believed only when no growth of the table explains it, and nothing is believed that
//     was read from a file that became shorter than its mapping.
//  5. What begins again does so because a generation or a capacity has changed: a queue without a
//     writer ends every walk.
#pragma once

#include <array>
#include <cstdint>

#include "quill/ConquerNotifications.h"
#include "quill/ConquerTable.h"
#include "quill/Counters.h"
#include "quill/ReaderKickSm.h"

namespace Quill {

template <class KEY, class VALUE, class MAP>
class QuillShadow;

template <class KEY, class VALUE, class MAP>
class ConquerReader : public Conquer, public ReaderKickSm {
 public:
  using Shadow = QuillShadow<KEY, VALUE, MAP>;

  // Records only. Uses of the shadow: store()->doSlot(), yieldTime(), sample(), resync(), and of
  // its map() corruptionDetected() and handleDisconnect().
  ConquerReader(Sable::Platform::DebugHandler& handler, const RootPath& root,
                Reader::Counters& counters, Shadow& shadow);

  // Maps the first page of both files, checks them and tries to connect. False while there is no
  // queue, and for headers that are not valid, which are reported in the table's directory. Raises
  // Sable::RuntimeException without an activity loop.
  bool initialize();
  bool attachConquer(ConquerTableId id);
  // Unmaps both files. The connection stays.
  void detachConquer();

  // The operations from here to latestSequence() raise CorruptionDetectedException, and
  // Sable::MemoryResourceException if a grown table cannot be mapped.

  // True if a position is known, false if the current table is empty, or nothing is mapped.
  bool findPosition();
  // Takes at most one live entry; counts it in `consumed`. False: the end is reached.
  bool doConquer(unsigned& consumed);
  using ReaderKickSm::doConquer;
  // One batch, until the end, the shadow's yieldTime() or stopFlag_. Answers the sequence reached.
  std::uint64_t conquer();
  // True if the current table has grown and all of it is mapped now.
  bool doResize();
  // The sequence of the newest entry of the current table, 0 if there is none.
  std::uint64_t latestSequence();

  // conquer(); corruption is reported to the map first, which detaches the shadow, and then raised.
  std::uint64_t doProcessNotifications() override;
  void handleConnected() override;
  void handleAck() override;
  void handleEnabled() override;
  // The synchronisation is complete: the queue may be followed from lastConsumedSequence on. Takes
  // effect with handleEnabled().
  void enabledIs(bool enabled) noexcept { enabled_ = enabled; }

 private:
  // The writer has switched tables since getTable().
  bool swapped() const noexcept;
  // Makes the next findPosition() look for the position again.
  void forgetPosition() noexcept { --currentTable_.version; }
  // Sets currentPos_ in a table of `count` entries. True: behind the entry lastSeq_ itself.
  bool search(std::uint32_t count);
  // Notes whether entries were pruned that this reader has not passed. `newest` is the sequence of
  // the newest one, loaded after `minSeq`. The writer prunes nothing that a connected reader needs,
  // but until it has taken a reader's first report into account it does not know of that reader.
  void noteMissed(std::uint64_t minSeq, std::uint64_t newest) noexcept;
  // Entries in use in the current table.
  std::uint32_t used() const noexcept;
  const ConquerNotifications& notifications() const noexcept {
    return notifications_[currentTable_.value];
  }
  void checkTruncated() const;
  [[noreturn]] void raiseTruncated(const QuillMem& mem) const;

  Reader::Counters* counters_;
  Shadow* shadow_;
  std::array<ConquerNotifications, 2> notifications_;
  std::uint64_t lastSeq_ = 0;
  std::uint64_t passed_ = 0;      // the highest lastSeq_ before a synchronisation set it back
  bool missed_ = false;           // the next batch begins with a resynchronisation
  std::uint32_t currentPos_ = 0;  // the next entry of the current table
};

}  // namespace Quill

#include "quill/ConquerReader-inl.h"
