// SPDX-License-Identifier: Apache-2.0
//
// Bodies of SlotReaderTable.h.
#pragma once

#include <algorithm>

#include "quill/Exceptions.h"
#include "quill/SlotReaderTable.h"
#include "quill/Text.h"

namespace Quill {

template <class KEY, class VALUE>
SlotReaderTable<KEY, VALUE>::Slots::Slots(const Slot<VALUE>* base, std::uint32_t numSlots,
                                          std::uint32_t mappedBytes) noexcept
    : base_(base), highest_(numSlots == 0 ? 0 : numSlots - 1) {
  constexpr std::uint32_t kHeader = SlotTable<VALUE>::kHeaderSize;
  const std::uint32_t room =
      mappedBytes < kHeader ? 0 : (mappedBytes - kHeader) / SlotTable<VALUE>::kSlotSize;
  reachable_ = std::min(numSlots, room);
}

template <class KEY, class VALUE>
void SlotReaderTable<KEY, VALUE>::Slots::outOfRange(std::uint32_t index) const {
  raise<CorruptionDetectedException>("SlotReader::Slots::operator[] out-of-range index:", index,
                                     " max:", highest_);
}

template <class KEY, class VALUE>
SlotReaderTable<KEY, VALUE>::SlotReaderTable(Sable::Platform::DebugHandler& handler,
                                             const RootPath& root, Reader::Counters& counters)
    : SlotTable<VALUE>(handler, root, false), counters_(&counters) {}

template <class KEY, class VALUE>
bool SlotReaderTable<KEY, VALUE>::attach() {
  detach();
  const std::uint32_t size = this->mem_.memSize();
  if (size == 0) {
    this->trace(7, [](std::ostream& os) { os << "SlotReader::attach() no shared memory region"; });
    return false;
  }
  this->header_ = static_cast<Header*>(this->mem_.attach(size, Mem::Mode::readOnly));
  if (this->header_ == nullptr) {
    this->trace(7, [&](std::ostream& os) {
      os << "SlotReader::attach() cannot attach to shmem size:" << size;
    });
    return false;
  }
  // A file too short for a header has no slots, and validate() says what is wrong with it.
  if (size < SlotTable<VALUE>::kHeaderSize) return true;
  const HeaderCopy copy(*this->header_);
  numSlots_ = copy.numSlots;
  if (SlotTable<VALUE>::fileSize(numSlots_.value) > size) {
    // The table grew since its size was asked for, or its header is wrong, which validate() tells
    // from the size of the file. What is mapped counts, and the first doResize() maps the rest.
    numSlots_ = {numSlots_.version - 1,
                 (size - SlotTable<VALUE>::kHeaderSize) / SlotTable<VALUE>::kSlotSize};
  }
  slots_ = Slots(this->header_->slots(), numSlots_.value, size);
  return true;
}

template <class KEY, class VALUE>
bool SlotReaderTable<KEY, VALUE>::validate(std::uint32_t fenix, std::string& message) const {
  const std::uint32_t size = this->mem_.size();
  if (this->header_ == nullptr || size < SlotTable<VALUE>::kHeaderSize) {
    return HeaderCopy().validate(size, fenix, message);
  }
  return HeaderCopy(*this->header_).validate(this->mem_.memSize(), fenix, message);
}

template <class KEY, class VALUE>
void SlotReaderTable<KEY, VALUE>::detach() {
  this->mem_.detach();
  this->header_ = nullptr;
  numSlots_ = {};
  slots_ = {};
}

template <class KEY, class VALUE>
bool SlotReaderTable<KEY, VALUE>::remap() {
  const HeaderCopy copy(*this->header_);
  this->trace(7, [&](std::ostream& os) {
    os << "SlotReader::doResize() " << this->root_->rootPath() << " from " << numSlots_.value
       << " slots to " << copy.numSlots.value;
  });
  if (numSlots_.value > copy.numSlots.value) {
    raise<CorruptionDetectedException>(
        "SlotReader::doResize() header corruption, shrinking from: ", numSlots_.value,
        "to: ", copy.numSlots.value, " not supported.");
  }
  const std::uint64_t wanted = SlotTable<VALUE>::fileSize(copy.numSlots.value);
  if (const std::uint32_t real = this->mem_.memSize(); real < wanted) {
    raise<CorruptionDetectedException>("SlotReader::doResize() requesting to map ",
                                       this->mem_.getFilename(), " ", copy.numSlots.value,
                                       " slots. Requested file resize to ", wanted,
                                       " but real file size is ", real);
  }
  const void* const before = this->header_;
  // No longer than the file, so it fits 32 bits.
  void* const base = this->mem_.resize(static_cast<std::uint32_t>(wanted));
  if (base == nullptr) {
    raise<Sable::MemoryResourceException>(
        "SlotReader::doResize() failed to resize shared memory to size ", wanted,
        " - the system may be out of memory.");
  }
  if (base != before) {
    this->trace(7, [&](std::ostream& os) {
      os << "SlotReader::doResize() changed base address mapping from " << before << " to " << base;
    });
    ++counters_->remaps;
  }
  ++counters_->slotResizes;
  this->header_ = static_cast<Header*>(base);
  numSlots_ = copy.numSlots;
  slots_ = Slots(this->header_->slots(), numSlots_.value, this->mem_.size());
  this->trace(7, [](std::ostream& os) { os << "SlotReader::doResize() successful"; });
  return true;
}

template <class KEY, class VALUE>
void SlotReaderTable<KEY, VALUE>::raiseTruncated() const {
  raise<CorruptionDetectedException>("SlotReader: ", this->mem_.getFilename(),
                                     " became shorter than its mapping");
}

template <class KEY, class VALUE>
template <class T>
[[gnu::always_inline]] inline std::uint32_t SlotReaderTable<KEY, VALUE>::read(
    const Slot<VALUE>& slot, T& own) const noexcept {
  static_assert(std::is_same_v<T, VALUE> || std::is_same_v<T, KEY>);
  for (;;) {
    // [O2] Acquire: with LOOKASIDE up the whole new value is seen in `lookaside`, without it the
    // whole last value in the slot. Pairs with the releases of flags in the writer's store of a
    // value.
    const std::uint32_t flags = slot.flags.load(Mem::acquire);
    // [O4] Each word with acquire: a word of a later write shows the flags that were stored before
    // it, so that the test below fails. Pairs with the releases of the words in the writer's store
    // of a value, into the slot or into `lookaside`.
    if ((flags & kLookaside) != 0) [[unlikely]] {
      ++counters_->lookasideReads;
      this->header_->lookaside.value.copyOut(&own, sizeof(T));
    } else {
      slot.value.copyOut(&own, sizeof(T));
    }
    // Relaxed: behind the acquires of [O4] it is at least as new as what they saw. The count in the
    // word never returns to an earlier state within a read.
    if (slot.flags.load(Mem::relaxed) == flags) [[likely]]
      return flags;
  }
}

template <class KEY, class VALUE>
template <class T>
[[gnu::always_inline]] inline bool SlotReaderTable<KEY, VALUE>::readSettled(const Slot<VALUE>& slot,
                                                                            T& own) const noexcept {
  static_assert(std::is_same_v<T, VALUE> || std::is_same_v<T, KEY>);
  // [O2], [O4] As in read().
  const std::uint32_t flags = slot.flags.load(Mem::acquire);
  slot.value.copyOut(&own, sizeof(T));
  return (flags & (kOccupied | kLookaside)) == kOccupied && slot.flags.load(Mem::relaxed) == flags;
}

template <class KEY, class VALUE>
bool SlotReaderTable<KEY, VALUE>::compareValue(std::uint32_t index, const VALUE& value) const {
  VALUE own;
  const bool occupied = (read(slots_[index], own) & kOccupied) != 0;
  checkTruncated();
  return occupied && own == value;
}

}  // namespace Quill
