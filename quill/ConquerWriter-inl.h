// SPDX-License-Identifier: Apache-2.0
//
// Bodies of ConquerWriter.h.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "quill/ConquerWriter.h"
#include "quill/Exceptions.h"
#include "quill/Text.h"

namespace Quill {

template <class VALUE>
ConquerWriter<VALUE>::ConquerWriter(Sable::Platform::DebugHandler& handler, const RootPath& root,
                                    bool localMem, SlotWriterTable<VALUE>& slotTable,
                                    Writer::Counters& counters)
    : Conquer(handler, root, localMem),
      WriterKickSm(handler, root, localMem),
      slotTable_(&slotTable),
      counters_(&counters) {}

template <class VALUE>
std::uint32_t ConquerWriter<VALUE>::firstCount(std::uint32_t pageSize) noexcept {
  return pageSize < kHeaderSize ? 0 : (pageSize - kHeaderSize) / kEntrySize;
}

template <class VALUE>
std::uint64_t ConquerWriter<VALUE>::grownCount(std::uint32_t live,
                                               std::uint32_t pageSize) noexcept {
  const std::uint64_t want = std::uint64_t{live} * 2;
  const std::uint64_t bytes = fileSize(want);
  const std::uint64_t rounded = (bytes + pageSize - 1) / pageSize * pageSize;
  return want + (rounded - bytes) / kEntrySize;
}

template <class VALUE>
bool ConquerWriter<VALUE>::attachConquer(ConquerTableId id, std::uint32_t fenix) {
  QuillMem& mem = mems_[id];
  const std::uint32_t existing = mem.knownSize();
  const std::uint32_t count = firstCount(Mem::pageSize_);
  if (count == 0) {
    raise<Sable::RuntimeException>(
        "ConquerWriter::attachConquer() unable to calculate notifications");
  }
  const auto bytes = static_cast<std::uint32_t>(fileSize(count));
  if (bytes == 0 || bytes > Mem::pageSize_) {
    raise<Sable::RuntimeException>("ConquerWriter::attachConquer() ", mem.getFilename(),
                                   " initial size of ", bytes, " bytes exceeds ", Mem::pageSize_,
                                   " bytes for ", count, " notifications ");
  }
  const std::uint32_t size = existing != 0 ? existing : bytes;
  regionIs(id, mem.attach(size, Mem::Mode::readWrite));
  if (headers_[id] == nullptr) {
    const int error = errno;
    raise<Sable::InvalidInitializeException>(
        "ConquerWriter::attachConquer() cannot attach to shmem ", mem.getFilename(),
        " of size:", size, ": ", std::strerror(error));
  }
  if (existing == 0) {
    format(id, fenix, count);
    if (!mem.localMem()) {
      Conquer::trace(7, [&](std::ostream& os) {
        os << "ConquerWriter::attachConquer() to new file " << mem.getFilename();
      });
    }
    return false;
  }
  if (headers_[id]->fenix.load(Mem::relaxed) == fenix) {
    Conquer::trace(7, [&](std::ostream& os) {
      os << "ConquerWriter::attachConquer() to existing " << mem.getFilename();
    });
    return false;
  }
  if (existing != bytes) {
    Conquer::trace(7, [&](std::ostream& os) {
      os << "ConquerWriter::attachConquer() resize from " << existing << " to " << bytes
         << " bytes";
    });
    void* const resized = mem.resize(bytes);
    if (resized == nullptr) {
      raise<Sable::MemoryResourceException>(
          "ConquerWriter::attachConquer() failed to resize shared memory to size ", bytes, ".");
    }
    regionIs(id, resized);
  }
  format(id, fenix, count);
  sequence_ = 0;
  Conquer::trace(7, [&](std::ostream& os) {
    os << "ConquerWriter::attachConquer() re-formatted " << mem.getFilename();
  });
  return true;
}

template <class VALUE>
void ConquerWriter<VALUE>::format(ConquerTableId id, std::uint32_t fenix, std::uint32_t count) {
  Header& header = *headers_[id];
  header.fenix.store(fenix, Mem::release);
  header.table.notifications.store({1, count}, Mem::release);
  header.magic.store(Detail::magicWord(kMagic), Mem::release);
  header.version.store(kVersion, Mem::release);
  header.minSeq.store(0, Mem::release);
  header.numReaders.store(0, Mem::release);
  header.currentTable.store({0, primary}, Mem::release);
  header.table.currentPos.store(0, Mem::release);
  traceHeader(header);
}

template <class VALUE>
void ConquerWriter<VALUE>::detach() {
  detachRegions();
}

template <class VALUE>
std::uint32_t ConquerWriter<VALUE>::notifications() const noexcept {
  return current_->notifications.load(Mem::relaxed).value;
}

template <class VALUE>
std::uint32_t ConquerWriter<VALUE>::currentPos() const noexcept {
  return current_->currentPos.load(Mem::relaxed);
}

template <class VALUE>
std::uint32_t ConquerWriter<VALUE>::slotAt(std::uint32_t pos) const noexcept {
  return current_->entries()[pos].slot.load(Mem::relaxed);
}

template <class VALUE>
void ConquerWriter<VALUE>::makeRoom() {
  if (currentPos() >= notifications()) compact();
}

template <class VALUE>
void ConquerWriter<VALUE>::notify(std::uint32_t slot) {
  makeRoom();
  const std::uint32_t capacity = notifications();
  Slot<VALUE>& changed = slotTable_->slots()[slot];
  const std::uint32_t pos = currentPos();
  const std::uint32_t tomb = changed.conquerSlot.load(Mem::relaxed);
  if (tomb != kNoSlot) {
    if (tomb >= capacity) {
      raise<CorruptionDetectedException>(
          "ConquerWriter::notify() conquer index out-of-range, tomb:", tomb, " max:", capacity);
    }
    Entry& entry = current_->entries()[tomb];
    if (const std::uint32_t named = entry.slot.load(Mem::relaxed); named != slot) {
      raise<CorruptionDetectedException>(
          "ConquerWriter::notify() conquer slot mismatch, slot:", named, " index:", slot);
    }
  }
  if (pos >= capacity) {
    raise<CorruptionDetectedException>(
        "ConquerWriter::notify() conquer index out-of-range, pos:", pos, " max:", capacity);
  }
  if (tomb == kNoSlot) {
    ++numNotifications_;
  } else {
    current_->entries()[tomb].slot.store(kNoSlot, Mem::release);
    ++counters_->tombstones;
  }
  ++sequence_;
  Entry& fresh = current_->entries()[pos];
  fresh.sequenceIs(sequence_);
  fresh.slot.store(slot, Mem::release);
  ++counters_->notificationsSent;
  changed.conquerSlot.store(pos, Mem::release);
  // [O8] The entry, and the change it tells of, before the position that admits it. Pairs with the
  // acquire of currentPos in ConquerReader.
  current_->currentPos.store(pos + 1, Mem::release);
  counters_->lastSequence = sequence_;
  doKickSleepers();
}

template <class VALUE>
std::uint64_t ConquerWriter<VALUE>::prune() {
  const std::uint64_t minSeq = headers_[primary]->minSeq.load(Mem::relaxed);
  if (waitingForReaders()) {
    Conquer::trace(8, [](std::ostream& os) {
      os << "ConquerWriter::prune() cannot prune, waiting for readers";
    });
    return minSeq;
  }
  std::uint64_t lowest = lowestSequence();
  if (minSeq >= lowest) {
    Conquer::trace(8, [&](std::ostream& os) {
      os << "ConquerWriter::prune() cannot prune, minSeq:" << minSeq
         << " lowestSequence:" << lowest;
    });
    return minSeq;
  }
  if (lowest == kNoSequence) lowest = sequence_;  // nobody is connected
  Conquer::trace(8, [&](std::ostream& os) {
    os << "ConquerWriter::prune() pruning up to minSeq:" << lowest << " (old minSeq:" << minSeq
       << ") current sequence: " << sequence_;
  });
  ++counters_->prunes;
  return lowest;
}

template <class VALUE>
std::uint32_t ConquerWriter<VALUE>::cut(const Entry* entries, std::uint32_t count,
                                        std::uint64_t minSeq) noexcept {
  if (count == 0) return 0;
  const std::uint64_t first = entries[0].sequence();
  const std::uint64_t last = entries[count - 1].sequence();
  if (minSeq == 0 || first > minSeq) return 0;
  if (first == minSeq) return 1;
  if (last == minSeq) return count - 1;  // the last entry stays, for readers to find their place by
  // Does not happen in normal running; drops as little as possible.
  if (last < minSeq) return 1;

  std::uint32_t lo = 0;
  std::uint32_t hi = count - 1;
  std::uint64_t loSeq = first;
  std::uint64_t hiSeq = last;
  while (true) {
    const std::uint32_t mid = lo + (hi - lo) / 2;
    const std::uint64_t midSeq = entries[mid].sequence();
    if (midSeq == minSeq) return mid + 1;
    std::uint32_t moved;
    if (midSeq < minSeq) {
      lo = mid + 1;
      loSeq = entries[lo].sequence();
      moved = lo;
    } else {
      hi = mid - 1;
      hiSeq = entries[hi].sequence();
      moved = hi;
    }
    // minSeq itself is not in the table: an exit on the lower side takes the entry at `lo` along,
    // though it is above minSeq. That is the rule.
    if (loSeq > minSeq || hiSeq < minSeq) return moved + 1;
  }
}

template <class VALUE>
void ConquerWriter<VALUE>::compact() {
  const std::uint64_t minSeq = prune();
  const std::uint32_t capacity = notifications();
  if (interrupted_) takeBack();
  const std::uint32_t dropped = cut(current_->entries(), currentPos(), minSeq);
  const auto& slots = slotTable_->slots();
  for (std::uint32_t pos = 0; pos < dropped; ++pos) {
    if (dropped - pos > kPrefetch) slots.prefetch(slotAt(pos + kPrefetch));
    const std::uint32_t slot = slotAt(pos);
    if (slot == kNoSlot) continue;
    Conquer::trace(
        9, [&](std::ostream& os) { os << "ConquerWriter::compact() pruning slot " << pos; });
    slots[slot].conquerSlot.store(kNoSlot, Mem::release);
    --numNotifications_;
  }
  const auto target = static_cast<ConquerTableId>((currentTable_.value + 1) & 1);
  if (other_->notifications.load(Mem::relaxed).value < std::uint64_t{numNotifications_} * 2) {
    interrupted_ = true;
    grow(target);
    interrupted_ = false;
  }
  other_->currentPos.store(0, Mem::release);
  std::uint32_t to = 0;
  const Entry* const from = current_->entries();
  for (std::uint32_t pos = dropped; pos < capacity; ++pos) {
    if (capacity - pos > kPrefetch) slots.prefetch(from[pos + kPrefetch].slot.load(Mem::relaxed));
    const std::uint32_t slot = from[pos].slot.load(Mem::relaxed);
    if (slot == kNoSlot) continue;
    Conquer::trace(9, [&](std::ostream& os) {
      os << "ConquerWriter::compact() compacting slot " << pos << " to slot " << to;
    });
    // The count of live entries settled the target's size; a file that somebody else writes into
    // may hold more of them.
    if (to >= other_->notifications.load(Mem::relaxed).value) {
      raise<CorruptionDetectedException>("ConquerWriter::compact() more than ", numNotifications_,
                                         " live notifications");
    }
    Entry& entry = other_->entries()[to];
    entry.sequenceIs(from[pos].sequence());
    entry.slot.store(slot, Mem::release);
    slots[slot].conquerSlot.store(to, Mem::release);
    other_->currentPos.store(++to, Mem::release);
  }
  // [O9] The target, then what is gone, then the switch. Pairs with the acquires of minSeq and of
  // currentTable in Conquer::getTable() and ConquerReader.
  Header& header = *headers_[primary];
  header.minSeq.store(minSeq, Mem::release);
  header.currentTable.store(header.currentTable.load(Mem::relaxed).next(target), Mem::release);
  getTable();
  ++counters_->compactions;
}

template <class VALUE>
void ConquerWriter<VALUE>::takeBack() {
  // The compaction before has dropped entries and then found no memory to go on: they are live
  // again in the table that is still current.
  const std::uint32_t count = currentPos();
  for (std::uint32_t pos = 0; pos < count; ++pos) {
    const std::uint32_t slot = slotAt(pos);
    if (slot == kNoSlot) continue;
    Mem::SharedU32& conquerSlot = slotTable_->slots()[slot].conquerSlot;
    if (conquerSlot.load(Mem::relaxed) != kNoSlot) continue;
    conquerSlot.store(pos, Mem::release);
    ++numNotifications_;
  }
  interrupted_ = false;
}

template <class VALUE>
void ConquerWriter<VALUE>::grow(ConquerTableId id) {
  QuillMem& mem = mems_[id];
  SlotRef& word = tables_[id]->notifications;
  const Mem::VerU32 before = word.load(Mem::relaxed);
  const std::uint64_t after = grownCount(numNotifications_, Mem::pageSize_);
  Conquer::trace(7, [&](std::ostream& os) {
    os << "ConquerWriter::grow() " << mem.getFilename() << " from " << before.value << " to "
       << after << " notifications";
  });
  const std::uint64_t bytes = fileSize(after);
  void* const resized =
      bytes > UINT32_MAX ? nullptr : mem.resize(static_cast<std::uint32_t>(bytes));
  if (resized == nullptr) {
    // A mapping that lost pages cannot be moved, whatever memory there is.
    if (mem.truncated()) {
      raise<CorruptionDetectedException>("ConquerWriter: ", mem.getFilename(),
                                         " became shorter than its mapping");
    }
    raise<Sable::MemoryResourceException>(
        "ConquerWriter::grow() failed to resize shared memory to size ", bytes,
        " - the system may be out of memory.");
  }
  if (resized != headers_[id]) {
    Conquer::trace(7, [&](std::ostream& os) {
      os << "ConquerWriter::grow() remap base address changed from " << headers_[id] << " to "
         << resized;
    });
    ++counters_->conquerRemaps;
    regionIs(id, resized);
    getTable();
  }
  // [O10] The file is long enough before the count that says so. Pairs with the acquire of
  // `notifications` in ConquerReader::doResize().
  tables_[id]->notifications.store(before.next(static_cast<std::uint32_t>(after)), Mem::release);
  ++counters_->conquerGrows;
}

template <class VALUE>
bool ConquerWriter<VALUE>::validate(std::uint32_t fenix, std::string& message) {
  for (const ConquerTableId id : {primary, secondary}) {
    const std::uint32_t size = mems_[id].soundSize();
    if (!headers_[id]->validate(size, fenix, message)) {
      Conquer::trace(7, [&](std::ostream& os) {
        os << "ConquerWriter::validate() " << mems_[id].getFilename()
           << " header validation failed";
      });
      return false;
    }
  }
  getTable();
  if (current_ == nullptr || current_ == other_) return false;
  const auto wrong = [&message](const auto&... parts) {
    message = textOf(parts...);
    return false;
  };
  const std::uint32_t count = currentPos();
  if (const std::uint32_t capacity = notifications(); count > capacity) {
    return wrong("ConquerWriter::validate() table->currentPos:", count,
                 " out of range: ", capacity);
  }
  if (count != 0) {
    std::uint64_t previous = 0;
    for (std::uint32_t pos = 0; pos < count; ++pos) {
      const Entry& entry = current_->entries()[pos];
      const std::uint64_t sequence = entry.sequence();
      if (sequence == kNoSequence) {
        return wrong("ConquerWriter::validate() pos:", pos, " sequence:", sequence);
      }
      if (sequence <= previous) {
        return wrong("ConquerWriter::validate() pos:", pos, " prevSeq:", previous,
                     " bad order: ", sequence);
      }
      // Adds to what a former check counted: too high a number makes the next table larger, no
      // more.
      if (entry.slot.load(Mem::relaxed) != kNoSlot) ++numNotifications_;
      previous = sequence;
    }
    sequence_ = previous;
  }
  if (const std::uint64_t minSeq = headers_[primary]->minSeq.load(Mem::relaxed);
      minSeq > sequence_) {
    return wrong("ConquerWriter::validate() minSeq:", minSeq, " sequence:", sequence_);
  }
  counters_->lastSequence = sequence_;
  return true;
}

template <class VALUE>
bool ConquerWriter<VALUE>::validateFile() const {
  for (const ConquerTableId id : {primary, secondary}) {
    if (mems_[id].memSize() >= mems_[id].size()) continue;
    raise<CorruptionDetectedException>(
        "ConquerWriter::validateFile(): ", id == primary ? "conquer.1" : "conquer.2",
        " validation failed");
  }
  return true;
}

template <class VALUE>
unsigned ConquerWriter<VALUE>::numReaders() const {
  return headers_[primary] == nullptr ? 0 : headers_[primary]->numReaders.load(Mem::relaxed);
}

template <class VALUE>
void ConquerWriter<VALUE>::updateNumReaders() {
  if (headers_[primary] == nullptr) return;
  if (!waitingForReaders()) {
    headers_[primary]->numReaders.store(connectedReaders(), Mem::release);
  } else if (connectedReaders() >= numReaders()) {
    stopWaitingForReaders();
  }
}

}  // namespace Quill
