// SPDX-License-Identifier: Apache-2.0
//
// Quill::SlotWriterTable: the writer's end of the file `slots`: attach, allocation, growth.
//
// Belongs to the writer's thread. Slot addresses are valid until the next alloc() that grows, which
// moves the region: hold an index, or guard the pointer by AutoMemMove.
//
// Invariants:
//  1. All stores are releases, so that they become visible in program order and a writer that dies
//     leaves a prefix of them.
//  2. Slots beyond the old count are complete and on the free list before numSlots says they exist.
#pragma once

#include <string>

#include "quill/Counters.h"
#include "quill/SlotTable.h"

namespace Quill {

template <class VALUE>
class SlotWriterTable final : public SlotTable<VALUE> {
  using Base = SlotTable<VALUE>;
  using Header = typename Base::Header;

 public:
  // The slots by index.
  class Slots {
   public:
    // Raises CorruptionDetectedException for an index that no slot has.
    Slot<VALUE>& operator[](std::uint32_t index) const {
      if (index >= count_) [[unlikely]]
        outOfRange(index);
      return base_[index];
    }
    // Brings the beginning of a slot that is about to be changed into the cache. Any index will do.
    // Inlined by force: GCC takes a function that does nothing but prefetch for one without
    // effects, and leaves out the calls of it.
    [[gnu::always_inline]] void prefetch(std::uint32_t index) const noexcept {
      if (index < count_) __builtin_prefetch(&base_[index], 1);
    }
    // The same for one that is read, to its end: most slots lie across two lines of the cache.
    [[gnu::always_inline]] void prefetchWhole(std::uint32_t index) const noexcept {
      if (index >= count_) return;
      const auto* const slot = reinterpret_cast<const char*>(&base_[index]);
      __builtin_prefetch(slot);
      __builtin_prefetch(slot + sizeof(Slot<VALUE>) - 1);
    }

   private:
    friend class SlotWriterTable;
    [[noreturn]] void outOfRange(std::uint32_t index) const;

    Slot<VALUE>* base_ = nullptr;
    std::uint32_t count_ = 0;  // 0 while detached
  };

  SlotWriterTable(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem,
                  std::uint32_t maxSlots, Writer::Counters& counters, std::string classTypeName);

  // True only if it formatted an existing file anew. Raises Sable::InvalidInitializeException and
  // Sable::MemoryResourceException.
  bool attach(std::uint32_t fenix);
  void detach() override;
  std::uint32_t capacity() const override { return numSlots_; }
  std::uint32_t maxSlots() const noexcept { return maxSlots_; }
  // On chains; 0 while detached.
  std::uint32_t occupiedSlots() const noexcept;

  // Takes a slot off the free list, growing first if it is empty; its link and contents stay as
  // they are. Raises Sable::MemoryResourceException, CorruptionDetectedException.
  std::uint32_t alloc();
  // Whether alloc() can do without growing.
  bool hasFree() const noexcept { return this->header_->freeSlots.load(Mem::relaxed) != kNoSlot; }
  // Puts a slot that no link leads to on the free list, by which it counts as occupied no more.
  void free(std::uint32_t index);
  // Makes the file larger and fills the free list. Raises Sable::MemoryResourceException; the table
  // is then as it was. Does not answer false at present: only memory ends the growth.
  bool grow();
  // Links [first, end) to each other and answers the new head, which the caller stores. Raises
  // Sable::RuntimeException for an empty range and for a free list that is not empty.
  std::uint32_t addFreeSlots(std::uint32_t first, std::uint32_t end);

  const Slots& slots() const noexcept { return slots_; }
  Header* header() noexcept { return this->header_; }
  const Header* header() const noexcept { return this->header_; }
  // For AutoMemMove: where the region's base is kept.
  Header** headerAddress() noexcept { return &this->header_; }
  // Bytes that are mapped and that the file has.
  std::uint32_t soundSize() const;

  // Slots of a new file, and the count after a growth that begins at `numSlots`, for pages of
  // `pageSize` bytes.
  static std::uint32_t firstCount(std::uint32_t pageSize) noexcept;
  static std::uint64_t grownCount(std::uint32_t numSlots, std::uint32_t maxSlots,
                                  std::uint32_t pageSize) noexcept;

 private:
  void slotsFromHeader() noexcept;

  std::uint32_t numSlots_ = 0;
  std::uint32_t maxSlots_;
  Slots slots_;
  Writer::Counters* counters_;
  std::string classTypeName_;
};

}  // namespace Quill

#include "quill/SlotWriterTable-inl.h"
