// SPDX-License-Identifier: Apache-2.0
//
// Quill::ConquerWriter: the writer's end of the notification queue. It appends, turns what a newer
// change has made pointless into tombstones, and when the current table is full moves what is still
// needed into the other one. Together with WriterKickSm it wakes sleeping readers and learns how
// far the slowest has come.
//
// Belongs to the writer's thread. Never waits for a reader: one that does not keep up costs memory.
//
// Invariants:
//  1. A slot has at most one live entry, in the current table.
//  2. The whole target table is stored before minSeq, and minSeq before the switch to the target.
//  3. An exception leaves the current table as it was.
#pragma once

#include <string>

#include "quill/ConquerTable.h"
#include "quill/Counters.h"
#include "quill/SlotWriterTable.h"
#include "quill/WriterKickSm.h"

namespace Quill {

template <class VALUE>
class ConquerWriter final : public Conquer, public WriterKickSm {
 public:
  ConquerWriter(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem,
                SlotWriterTable<VALUE>& slotTable, Writer::Counters& counters);
  ~ConquerWriter() override = default;

  // True only if it formatted an existing file anew. Raises Sable::RuntimeException,
  // Sable::InvalidInitializeException, Sable::MemoryResourceException.
  bool attachConquer(ConquerTableId id, std::uint32_t fenix);
  // Unmaps both files.
  void detach();
  // Points at the current table, after both files have been attached.
  using Conquer::getTable;

  // Sees to it that the next notify() finds room. Raises Sable::MemoryResourceException if a full
  // table cannot be moved; the current table stands then, and the next call tries again.
  void makeRoom();
  // Records a change of `slot` and wakes who sleeps. Raises CorruptionDetectedException before the
  // queue is changed, and what makeRoom() raises if that was not called before.
  void notify(std::uint32_t slot);

  // Checks both headers and the current table, and takes the sequence and the count of live entries
  // from it. False with the first thing that is wrong in `message`.
  bool validate(std::uint32_t fenix, std::string& message);
  // Raises CorruptionDetectedException if a file is missing or shorter than what is mapped.
  bool validateFile() const;

  unsigned numReaders() const override;
  void updateNumReaders() override;

  // The current table's, for the validator. REQUIRES: attached.
  std::uint32_t notifications() const noexcept;
  std::uint32_t currentPos() const noexcept;
  // The slot in the entry at `pos`. REQUIRES: pos < notifications().
  std::uint32_t slotAt(std::uint32_t pos) const noexcept;
  // Brings the entry that slotAt() reads into the cache. Any place will do. Inlined by force, as
  // SlotWriterTable's.
  [[gnu::always_inline]] void prefetch(std::uint32_t pos) const noexcept {
    if (pos < currentPos()) __builtin_prefetch(&current_->entries()[pos]);
  }
  // A file became shorter than what is mapped.
  bool truncated() const noexcept { return mems_[0].truncated() || mems_[1].truncated(); }

  // Entries at the front of a table of `count` entries that `minSeq` lets go.
  static std::uint32_t cut(const Entry* entries, std::uint32_t count,
                           std::uint64_t minSeq) noexcept;

  // Entries of a new file for pages of `pageSize` bytes, and of one that has to hold twice `live`.
  static std::uint32_t firstCount(std::uint32_t pageSize) noexcept;
  static std::uint64_t grownCount(std::uint32_t live, std::uint32_t pageSize) noexcept;

 private:
  // Entries that a compaction looks ahead, since the slots that they name lie anywhere.
  static constexpr std::uint32_t kPrefetch = 16;

  void format(ConquerTableId id, std::uint32_t fenix, std::uint32_t count);
  void compact();
  void grow(ConquerTableId id);
  void takeBack();
  // The lowest sequence that has to stay, for the header; step one of a compaction.
  std::uint64_t prune();

  SlotWriterTable<VALUE>* slotTable_;
  Writer::Counters* counters_;
  std::uint32_t numNotifications_ = 0;  // live entries
  bool interrupted_ = false;            // the last compaction raised after it had dropped entries
};

}  // namespace Quill

#include "quill/ConquerWriter-inl.h"
