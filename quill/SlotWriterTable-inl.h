// SPDX-License-Identifier: Apache-2.0
//
// Bodies of SlotWriterTable.h.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <utility>

#include "quill/SlotWriterTable.h"
#include "quill/Text.h"

namespace Quill {

template <class VALUE>
void SlotWriterTable<VALUE>::Slots::outOfRange(std::uint32_t index) const {
  raise<CorruptionDetectedException>("SlotWriter::Slots::operator[] out-of-range index: ", index,
                                     " max:", count_ == 0 ? 0 : count_ - 1);
}

template <class VALUE>
SlotWriterTable<VALUE>::SlotWriterTable(Sable::Platform::DebugHandler& handler,
                                        const RootPath& root, bool localMem, std::uint32_t maxSlots,
                                        Writer::Counters& counters, std::string classTypeName)
    : Base(handler, root, localMem),
      maxSlots_(maxSlots),
      counters_(&counters),
      classTypeName_(std::move(classTypeName)) {}

template <class VALUE>
std::uint32_t SlotWriterTable<VALUE>::firstCount(std::uint32_t pageSize) noexcept {
  if (pageSize <= Base::kHeaderSize + Base::kSlotSize) return 1;
  return (pageSize - Base::kHeaderSize) / Base::kSlotSize;
}

template <class VALUE>
std::uint64_t SlotWriterTable<VALUE>::grownCount(std::uint32_t numSlots, std::uint32_t maxSlots,
                                                 std::uint32_t pageSize) noexcept {
  const auto now = static_cast<float>(numSlots);
  std::uint64_t count;
  if (numSlots < maxSlots) {
    count = std::min<std::uint64_t>(static_cast<std::uint64_t>(std::ceil(2.0F * now)), maxSlots);
  } else {
    count = static_cast<std::uint64_t>(std::ceil(now * 1.1F));
  }
  // All of the last page.
  const std::uint64_t bytes = Base::fileSize(count);
  const std::uint64_t rounded = (bytes + pageSize - 1) / pageSize * pageSize;
  return count + (rounded - bytes) / Base::kSlotSize;
}

template <class VALUE>
bool SlotWriterTable<VALUE>::attach(std::uint32_t fenix) {
  detach();
  const std::uint32_t existing = this->mem_.knownSize();
  const std::uint32_t count = firstCount(Mem::pageSize_);
  const auto firstSize = static_cast<std::uint32_t>(Base::fileSize(count));
  const std::uint32_t size = existing != 0 ? existing : firstSize;
  this->header_ = static_cast<Header*>(this->mem_.attach(size, Mem::Mode::readWrite));
  if (this->header_ == nullptr) {
    const int error = errno;
    raise<Sable::InvalidInitializeException>("SlotWriter::attach() cannot attach to shmem ",
                                             this->mem_.getFilename(), " size:", size, ": ",
                                             std::strerror(error));
  }
  if (existing != 0 && this->header_->fenix.load(Mem::relaxed) == fenix) {
    slotsFromHeader();
    this->trace(7, [&](std::ostream& os) {
      os << "SlotWriter::attach() to existing " << this->mem_.getFilename();
    });
    return false;
  }
  if (existing != 0 && existing != firstSize) {
    this->trace(7, [&](std::ostream& os) {
      os << "SlotWriter::attach() resize from " << existing << " to " << firstSize << " bytes";
    });
    auto* const resized = static_cast<Header*>(this->mem_.resize(firstSize));
    if (resized == nullptr) {
      raise<Sable::MemoryResourceException>(
          "SlotWriter::attach() failed to resize shared memory to size ", firstSize, ".");
    }
    this->header_ = resized;
  }
  Header::format(this->header_, count, maxSlots_, fenix, classTypeName_);
  slotsFromHeader();
  this->header_->freeSlots.store(addFreeSlots(0, count), Mem::release);
  if (existing == 0) {
    if (!this->mem_.localMem()) {
      this->trace(7, [&](std::ostream& os) {
        os << "SlotWriter::attach() to new file " << this->mem_.getFilename();
      });
    }
    return false;
  }
  this->trace(7, [&](std::ostream& os) {
    os << "SlotWriter::attach() re-formatted " << this->mem_.getFilename();
  });
  return true;
}

template <class VALUE>
void SlotWriterTable<VALUE>::slotsFromHeader() noexcept {
  numSlots_ = this->header_->numSlots.load(Mem::relaxed).value;
  slots_.base_ = this->header_->slots();
  slots_.count_ = numSlots_;
}

template <class VALUE>
void SlotWriterTable<VALUE>::detach() {
  numSlots_ = 0;
  slots_ = Slots();
  this->mem_.detach();
  this->header_ = nullptr;
}

template <class VALUE>
std::uint32_t SlotWriterTable<VALUE>::occupiedSlots() const noexcept {
  return this->header_ == nullptr ? 0 : this->header_->occupiedSlots.load(Mem::relaxed);
}

template <class VALUE>
std::uint32_t SlotWriterTable<VALUE>::soundSize() const {
  return this->mem_.soundSize();
}

template <class VALUE>
std::uint32_t SlotWriterTable<VALUE>::alloc() {
  if (!hasFree() && !grow()) [[unlikely]] {
    raise<TableFullException>("SlotWriter::alloc() Quill table full (occupancy:", occupiedSlots(),
                              " tableSize:", maxSlots_, ") ", this->root_->rootPath());
  }
  const std::uint32_t index = this->header_->freeSlots.load(Mem::relaxed);
  const std::uint32_t next = slots_[index].ref.load(Mem::relaxed).value;
  this->header_->freeSlots.store(next, Mem::release);
  this->header_->occupiedSlots.store(occupiedSlots() + 1, Mem::release);
  ++counters_->slotsAllocated;
  return index;
}

template <class VALUE>
void SlotWriterTable<VALUE>::free(std::uint32_t index) {
  SlotRef& link = slots_[index].ref;
  const std::uint32_t before = this->header_->freeSlots.load(Mem::relaxed);
  this->header_->freeSlots.store(index, Mem::release);
  // [O6] The version rises with the move to the free list, so that a reader that followed the chain
  // into this slot sees that the link it stands on is not the one it read.
  link.store(link.load(Mem::relaxed).next(before), Mem::release);
  this->header_->occupiedSlots.store(occupiedSlots() - 1, Mem::release);
}

template <class VALUE>
bool SlotWriterTable<VALUE>::grow() {
  const std::uint32_t before = numSlots_;
  const std::uint64_t after = grownCount(before, maxSlots_, Mem::pageSize_);
  this->trace(7, [&](std::ostream& os) {
    os << "SlotWriter::grow() " << this->root_->rootPath() << " from " << before << " slots to "
       << after;
  });
  if (after > maxSlots_) {
    this->trace(7, [&](std::ostream& os) {
      os << "SlotWriter::grow() overflowing by " << after - maxSlots_ << " slots";
    });
  }
  const std::uint64_t bytes = Base::fileSize(after);
  auto* const resized = static_cast<Header*>(
      bytes > UINT32_MAX ? nullptr : this->mem_.resize(static_cast<std::uint32_t>(bytes)));
  if (resized == nullptr) {
    // A mapping that lost pages cannot be moved, whatever memory there is.
    if (this->mem_.truncated()) {
      raise<CorruptionDetectedException>("SlotWriter: ", this->mem_.getFilename(),
                                         " became shorter than its mapping");
    }
    raise<Sable::MemoryResourceException>(
        "SlotWriter::grow() failed to resize shared memory to size ", bytes,
        " - the system may be out of memory.");
  }
  if (resized != this->header_) {
    ++counters_->slotRemaps;
    this->trace(7, [&](std::ostream& os) {
      os << "SlotWriter::grow() remap base address changed from " << this->header_ << " to "
         << resized;
    });
    this->header_ = resized;
  }
  const auto count = static_cast<std::uint32_t>(after);
  slots_.base_ = this->header_->slots();
  slots_.count_ = count;
  for (std::uint32_t i = before; i < count; ++i) Base::freshSlot(slots_[i]);
  const std::uint32_t head = addFreeSlots(before, count);
  // [O7] The new slots are whole and linked before the count that admits them. Pairs with the
  // acquire of numSlots in SlotReaderTable::doResize() and in the copy of the header.
  SlotRef& numSlots = this->header_->numSlots;
  numSlots.store(numSlots.load(Mem::relaxed).next(count), Mem::release);
  this->header_->freeSlots.store(head, Mem::release);
  numSlots_ = count;
  return true;
}

template <class VALUE>
std::uint32_t SlotWriterTable<VALUE>::addFreeSlots(std::uint32_t first, std::uint32_t end) {
  if (first >= end) {
    raise<Sable::RuntimeException>(
        "SlotWriterTable::addFreeSlots() bad index range, start: ", first, " end: ", end);
  }
  if (this->header_->freeSlots.load(Mem::relaxed) != kNoSlot) {
    raise<Sable::RuntimeException>("SlotWriterTable::addFreeSlots() free-list is not empty");
  }
  std::uint32_t next = kNoSlot;
  for (std::uint32_t i = end; i-- > first;) {
    SlotRef& link = slots_[i].ref;
    link.store(link.load(Mem::relaxed).next(next), Mem::release);
    next = i;
  }
  return first;
}

}  // namespace Quill
