// SPDX-License-Identifier: Apache-2.0
//
// Quill::SlotReaderTable: a reader's view of the file `slots`: it maps the file, follows its growth
// and reads one slot so that the copy is what the writer once stored, whatever the writer does
// meanwhile and wherever it stopped.
//
// An object belongs to one thread of the reading process. It stores nothing in the file, takes no
// lock and never waits for the writer.
//
// Invariants:
//  1. An index from the file is compared with what is mapped before an address is formed from it.
//  2. A value that was read goes with the flags that were answered: no byte of another write.
//  3. What stands behind a mapping that the file no longer fills is not believed (truncated()).
#pragma once

#include <cstdint>
#include <string>

#include "quill/Counters.h"
#include "quill/SlotTable.h"

namespace Quill {

template <class KEY, class VALUE>
class SlotReaderTable final : public SlotTable<VALUE> {
 public:
  using typename SlotTable<VALUE>::Header;
  using typename SlotTable<VALUE>::HeaderCopy;

  // The slots that are mapped.
  class Slots {
   public:
    Slots() = default;
    Slots(const Slot<VALUE>* base, std::uint32_t numSlots, std::uint32_t mappedBytes) noexcept;

    // Raises CorruptionDetectedException for an index above the highest.
    const Slot<VALUE>& operator[](std::uint32_t index) const {
      if (index >= reachable_) [[unlikely]]
        outOfRange(index);
      return base_[index];
    }
    // Brings a slot that is about to be read into the cache. Any index will do.
    // Inlined by force: GCC takes a function that does nothing but prefetch for one without
    // effects, and leaves out the calls of it.
    [[gnu::always_inline]] void prefetch(std::uint32_t index) const noexcept {
      if (index >= reachable_) return;
      const auto* const slot = reinterpret_cast<const char*>(&base_[index]);
      __builtin_prefetch(slot);
      // Most slots lie across two lines of the cache.
      __builtin_prefetch(slot + sizeof(Slot<VALUE>) - 1);
    }
    const Slot<VALUE>* base() const noexcept { return base_; }
    std::uint32_t highest() const noexcept { return highest_; }
    // Slots that base() may be asked for.
    std::uint32_t reachable() const noexcept { return reachable_; }

   private:
    [[noreturn]] void outOfRange(std::uint32_t index) const;

    const Slot<VALUE>* base_ = nullptr;
    std::uint32_t highest_ = 0;
    std::uint32_t reachable_ = 0;  // slots that lie in the mapping: 0 where highest_ cannot say so
  };

  SlotReaderTable(Sable::Platform::DebugHandler& handler, const RootPath& root,
                  Reader::Counters& counters);

  // Maps the file as long as it is. False if there is none or it cannot be mapped. Nothing in it
  // has been checked then; see validate().
  bool attach();
  // False with the first thing that is wrong in `message`.
  bool validate(std::uint32_t fenix, std::string& message) const;
  void detach() override;
  // Slots mapped.
  std::uint32_t capacity() const override { return numSlots_.value; }

  // True if the table has grown and all of it is mapped now; addresses into it are void then. One
  // 32-bit compare when nothing happened. Raises CorruptionDetectedException if the header
  // contradicts what was, or the file; Sable::MemoryResourceException.
  bool doResize() { return grown() && remap(); }
  // Whether doResize() has something to do.
  bool grown() const noexcept {
    // Relaxed: only decides whether to look closer.
    return this->header_ != nullptr &&
           this->header_->numSlots.version(Mem::relaxed) != numSlots_.version;
  }
  // Raises CorruptionDetectedException if the file became shorter than its mapping.
  void checkTruncated() const {
    if (this->mem_.truncated()) [[unlikely]]
      raiseTruncated();
  }

  // Raises CorruptionDetectedException for an index that is not mapped, as those below do. No
  // resize step.
  const Slot<VALUE>& slot(std::uint32_t index) const { return slots_[index]; }
  // Reads the beginning of a slot's value, as long as T, and answers the flags that it goes with.
  // T is VALUE or KEY.
  template <class T>
  std::uint32_t read(const Slot<VALUE>& slot, T& own) const noexcept;
  // One attempt at a slot that is occupied and that nobody is writing. False: `own` is anything.
  template <class T>
  bool readSettled(const Slot<VALUE>& slot, T& own) const noexcept;
  // True if the slot is occupied and holds an equal value.
  bool compareValue(std::uint32_t index, const VALUE& value) const;

  const Slots& slots() const noexcept { return slots_; }

 private:
  bool remap();
  [[noreturn]] void raiseTruncated() const;

  Reader::Counters* counters_;
  Slots slots_;
  Mem::VerU32 numSlots_;  // the header's word as last mapped
};

}  // namespace Quill

#include "quill/SlotReaderTable-inl.h"
