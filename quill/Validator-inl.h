// SPDX-License-Identifier: Apache-2.0
//
// Bodies of Validator.h.
#pragma once

#include <algorithm>

#include "quill/Exceptions.h"
#include "quill/SlotTable.h"
#include "quill/Text.h"
#include "quill/Validator.h"

namespace Quill {

template <class Key, class Value>
Validator<Key, Value>::Validator(Sable::Platform::DebugHandler& handler,
                                 QuillWriter<Key, Value>& writer)
    : Debuggable(handler), writer_(&writer) {}

template <class Key, class Value>
template <class... Parts>
bool Validator<Key, Value>::wrong(const Parts&... parts) {
  failure_ = textOf(parts...);
  return false;
}

template <class Key, class Value>
bool Validator<Key, Value>::validate(std::uint32_t fenix) {
  bool sound = false;
  try {
    sound = doValidate(fenix);
  } catch (const CorruptionDetectedException& exception) {
    failure_ = exception.msg();
    trace(7, [&](std::ostream& os) { os << "Validator::validate caught: " << failure_; });
  }
  if (!sound) {
    trace(7, [&](std::ostream& os) {
      os << "Validator::validate() Quill " << writer_->rootPath()
         << " validation failed: " << failure_;
    });
  }
  return sound;
}

template <class Key, class Value>
bool Validator<Key, Value>::doValidate(std::uint32_t fenix) {
  if (!checkHeaders(fenix)) return false;
  // Only now: a header that has been found sound bounds what these take.
  const std::uint32_t bits = (writer_->capacity() + 31) / 32 * 32;
  occupiedBits_.assign(bits, false);
  freeBits_.assign(bits, false);
  conquerUsed_.assign(writer_->conquer_.notifications(), false);
  if (!walkOccupiedSlots() || !walkFreeSlots()) return false;
  if (occupiedCount_ + freeCount_ != writer_->capacity()) {
    return wrong("Validator::doValidate() bad slotCount:", occupiedCount_ + freeCount_,
                 " occupiedSlots:", occupiedCount_, " freeSlots:", freeCount_);
  }
  if (!walkNotifications()) return false;
  writer_->requireFiles();
  return true;
}

template <class Key, class Value>
bool Validator<Key, Value>::checkHeaders(std::uint32_t fenix) {
  if (writer_->slots_.header() == nullptr) return wrong("the table is not attached");
  bool sound = true;
  std::string message;
  const auto first = [&](bool result) {
    if (!result && sound) failure_ = message;
    sound = sound && result;
  };
  first(writer_->buckets_.header()->validate(writer_->buckets_.mem().soundSize(), fenix, message));
  const typename SlotTable<Value>::HeaderCopy slots(*writer_->slots_.header());
  first(slots.validate(writer_->slots_.soundSize(), fenix, message));
  first(writer_->conquer_.validate(fenix, message));
  return sound;
}

template <class Key, class Value>
bool Validator<Key, Value>::walkOccupiedSlots() {
  trace(8, [](std::ostream& os) { os << "Validator::walkOccupiedSlots() starting"; });
  Value value;
  IterHint hint;
  fetchAhead(0);
  for (bool more = writer_->first(0, value, hint); more;) {
    fetchAhead(hint.bucket);
    more = writer_->next(keyOf<Key>(value), value, hint);
  }
  if (const std::uint32_t stored = writer_->members(); stored != occupiedCount_) {
    return wrong("Validator::walkOccupiedSlots() mismatch header->occupiedSlots:", stored,
                 " count:", occupiedCount_);
  }
  return true;
}

template <class Key, class Value>
void Validator<Key, Value>::fetchAhead(std::uint32_t bucket) {
  const auto& buckets = writer_->buckets_;
  const auto& slots = writer_->slots_.slots();
  const std::uint32_t numBuckets = buckets.numBuckets();
  const auto head = [&](std::uint32_t chain) {
    return buckets.getRef(chain)->load(Mem::relaxed).value;
  };
  // Nothing here is believed: the walk reads it all again and judges it.
  for (const std::uint32_t end = std::min(numBuckets, bucket + 2 * kAhead); headsFetched_ < end;) {
    slots.prefetchWhole(head(headsFetched_++));
  }
  for (const std::uint32_t end = std::min(numBuckets, bucket + kAhead); chainsFetched_ < end;) {
    const std::uint32_t index = head(chainsFetched_++);
    if (index >= writer_->capacity()) continue;
    const Slot<Value>& slot = slots[index];
    slots.prefetchWhole(slot.ref.load(Mem::relaxed).value);
    writer_->conquer_.prefetch(slot.conquerSlot.load(Mem::relaxed));
  }
}

template <class Key, class Value>
void Validator<Key, Value>::markOccupied(std::uint32_t slot) {
  if (slot >= occupiedBits_.size() || occupiedBits_[slot]) {
    raise<CorruptionDetectedException>("Validator::markOccupied() duplicate slot: ", slot);
  }
  ++occupiedCount_;
  occupiedBits_[slot] = true;
  const Slot<Value>& marked = writer_->slots_.slots()[slot];
  const std::uint32_t flags = marked.flags.load(Mem::relaxed);
  if ((flags & kOccupied) == 0) {
    raise<CorruptionDetectedException>("Validator::markOccupied() missing OCCUPIED bit: 0x",
                                       std::hex, flags);
  }
  if ((flags & kLookaside) != 0) {
    raise<CorruptionDetectedException>("Validator::markOccupied() stuck LOOKASIDE bit: 0x",
                                       std::hex, flags);
  }
  const std::uint32_t pos = marked.conquerSlot.load(Mem::relaxed);
  if (pos == kNoSlot) return;
  const std::uint32_t size = writer_->conquer_.currentPos();
  if (pos >= size) {
    raise<CorruptionDetectedException>("Validator::markOccupied() slot:", slot,
                                       " bad conquer index:", pos, " size:", size);
  }
  const std::uint32_t named = writer_->conquer_.slotAt(pos);
  if (named != slot) {
    raise<CorruptionDetectedException>("Validator::markOccupied() slot:", slot,
                                       " bad notification:", pos, " slot:", named);
  }
  if (conquerUsed_[pos]) {
    raise<CorruptionDetectedException>("Validator::markOccupied() slot:", named,
                                       " duplicate conquer position:", pos);
  }
  conquerUsed_[pos] = true;
  ++conquerCount_;
}

template <class Key, class Value>
bool Validator<Key, Value>::walkFreeSlots() {
  trace(8, [](std::ostream& os) { os << "Validator::walkFreeSlots() starting"; });
  const auto& header = *writer_->slots_.header();
  const std::uint32_t numSlots = header.numSlots.load(Mem::relaxed).value;
  const std::uint32_t size = writer_->conquer_.currentPos();
  std::uint32_t index = header.freeSlots.load(Mem::relaxed);
  while (index != kNoSlot) {
    if (index > numSlots) {
      return wrong(
          "Validator::walkFreeSlots() corrupted free slot detected with out of bound index: ",
          index);
    }
    if (index < freeBits_.size() && freeBits_[index]) {
      return wrong("Validator::walkFreeSlots() duplicate freeSlot detected: ", index);
    }
    ++freeCount_;
    if (index < freeBits_.size()) freeBits_[index] = true;
    const Slot<Value>& slot = writer_->slots_.slots()[index];
    if (const std::uint32_t pos = slot.conquerSlot.load(Mem::relaxed); pos != kNoSlot) {
      if (pos >= size) {
        return wrong("Validator::walkFreeSlots() slot index:", index,
                     " has out of range conquer slot: ", pos);
      }
      if (const std::uint32_t named = writer_->conquer_.slotAt(pos); named != index) {
        return wrong("Validator::walkFreeSlots() slot index:", index, " has slot:", named,
                     " with wrong conquer slot:", pos);
      }
    }
    if ((slot.flags.load(Mem::relaxed) & kOccupied) != 0) {
      return wrong("Validator::walkFreeSlots() corrupted free slot not marked as empty: ", index);
    }
    index = slot.ref.load(Mem::relaxed).value;
  }
  return true;
}

template <class Key, class Value>
bool Validator<Key, Value>::walkNotifications() {
  const std::uint32_t count = writer_->conquer_.currentPos();
  const auto& slots = writer_->slots_.slots();
  for (std::uint32_t pos = 0; pos < count; ++pos) {
    if (count - pos > kAhead) slots.prefetchWhole(writer_->conquer_.slotAt(pos + kAhead));
    const std::uint32_t slot = writer_->conquer_.slotAt(pos);
    if (slot == kNoSlot) {
      if (conquerUsed_[pos]) {
        return wrong("Validator::doValidate() active tombstone pos:", pos);
      }
      continue;
    }
    const Slot<Value>& named = slots[slot];
    const bool occupied = (named.flags.load(Mem::relaxed) & kOccupied) != 0;
    if (!conquerUsed_[pos] && occupied) {
      return wrong("Validator::doValidate() occupied slot:", slot,
                   " on deleted notification:", pos);
    }
    if (const std::uint32_t stored = named.conquerSlot.load(Mem::relaxed); stored != pos) {
      return wrong("Validator::doValidate() conquer pos:", pos, " has slot:", slot,
                   " with wrong conquerSlot:", stored);
    }
  }
  return true;
}

}  // namespace Quill
