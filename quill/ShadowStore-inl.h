// SPDX-License-Identifier: Apache-2.0
//
// Bodies of ShadowStore.h.
//
// Of its READER the store uses numBuckets(), capacity(), resize(), getValue(), getKey(), and of the
// slotTable() header() (null while detached) and compareValue(), all as QuillReader has them.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <type_traits>

#include "quill/ShadowStore.h"
#include "quill/Text.h"
#include "runtime/vex/Exception.h"

namespace Quill {

// Stands on the stack while the notifier runs.
template <class KEY, class VALUE, class SLOT, class MAP, class READER>
class ShadowStore<KEY, VALUE, SLOT, MAP, READER>::Notification {
 public:
  explicit Notification(ShadowStore& store) noexcept : store_(store) { ++store_.notifications_; }
  Notification(const Notification&) = delete;
  Notification& operator=(const Notification&) = delete;
  ~Notification() { --store_.notifications_; }

 private:
  ShadowStore& store_;
};

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
ShadowStore<KEY, VALUE, SLOT, MAP, READER>::ShadowStore(Sable::Platform::DebugHandler& handler,
                                                        const RootPath& root, READER& reader,
                                                        Reader::Counters& counters, MAP* map)
    : Debuggable(handler),
      reader_(reader),
      counters_(&counters),
      slotCounters_(handler),
      map_(map),
      bucketsMem_(handler, root, "buckets", true),
      slotsMem_(handler, root, "slots", true) {
  // The slots are moved as bytes, and come into being in fresh memory.
  static_assert(std::is_trivially_copyable_v<SLOT> && std::is_standard_layout_v<SLOT>);
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
ShadowStore<KEY, VALUE, SLOT, MAP, READER>::~ShadowStore() {
  VEX_ASSERT_TEXT(notifications_ == 0, "a shadow store ends inside its own notification");
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::initialize() {
  const unsigned buckets = reader_.numBuckets();
  trace(8, [&](std::ostream& os) { os << "QuillMem::attachAs() " << buckets << " elements"; });
  const std::uint64_t bytes = std::uint64_t{buckets} * sizeof(SLOT*);
  // Fresh memory is zero, and so are null pointers.
  if (buckets == 0 || bytes > std::numeric_limits<unsigned>::max() ||
      bucketsMem_.attach(static_cast<unsigned>(bytes), Mem::Mode::readWrite) == nullptr) {
    trace(7, [&](std::ostream& os) {
      os << "ShadowStore::initialize() bucketsMem_.attachAs() Failed";
    });
    return false;
  }
  numBuckets_ = buckets;
  heads_ = static_cast<SLOT**>(bucketsMem_.base());
  return true;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::flush() {
  ++flushes_;
  for (unsigned i = 0; i < numSlots_; ++i) {
    SLOT& slot = slots_[i];
    if (slot.next == nullptr && slot.link == nullptr) continue;
    trace(9, [&](std::ostream& os) {
      os << "ShadowStore::flush() slotIndex " << i << " key: " << slot.key();
    });
    // A listener that flushes again leaves nothing for the rest of this walk.
    if (remove(slot)) static_cast<void>(notify(slot.key()));
  }
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::notify(KEY key) {
  auto* const notifier = map_->notifier();
  if (notifier == nullptr) return true;
  const unsigned before = flushes_;
  const Notification scope(*this);
  notifier->notify(key);
  return flushes_ == before;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::reach(unsigned slotIndex) {
  if (slotIndex < numSlots_) return true;
  const auto* const header = reader_.slotTable().header();
  // Relaxed: only compared; what lies behind it is reached through the reader's own load.
  const unsigned present = header == nullptr ? 0 : header->numSlots.load(Mem::relaxed).value;
  if (slotIndex >= present) {
    trace(8, [&](std::ostream& os) {
      os << "ShadowStore::doSlot() skip growing of shadow table to accomodate slotIndex:"
         << slotIndex << " because shared memory has shrunk to " << present << " slots";
    });
    return false;
  }
  if (grow(slotIndex)) return true;
  trace(8, [&](std::ostream& os) {
    os << "ShadowStore::doSlot() discarding notification for slotIndex:" << slotIndex;
  });
  return false;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::doSlot(unsigned slotIndex, bool compare) {
  VEX_ASSERT_TEXT(notifications_ == 0, "a shadow store is fed inside its own notification");
  if (!reach(slotIndex)) return;
  SLOT& slot = slots_[slotIndex];
  const KEY oldKey = slot.key();
  // Not straight into the slot: if the reader raises, the slot must still have the key under which
  // it is on its chain, so that flush() can notify it.
  Content fresh{};
  bool occupied = true;
  bool updated = true;
  if constexpr (SLOT::kHoldsValue) {
    if (compare && reader_.slotTable().compareValue(slotIndex, slot.content)) {
      updated = false;
    } else {
      occupied = reader_.getValue(slotIndex, fresh);
    }
  } else {
    occupied = reader_.getKey(slotIndex, fresh);
  }
  trace(9, [&](std::ostream& os) {
    os << "ShadowStore::doSlot() updated: " << updated << " compare: " << compare
       << " slotIndex:" << slotIndex << (occupied ? " found" : " not found");
  });
  if (!occupied) {
    if (!remove(slot)) return;
    slot.content = Content{};
    if (notify(oldKey)) tryShrink();
    return;
  }
  if (updated) {
    const KEY newKey = keyOf<KEY>(fresh);
    // The writer has used the slot again for another key.
    const bool reused = !(oldKey == newKey) && remove(slot);
    slot.content = fresh;
    if (reused && !notify(oldKey)) return;
  }
  if (write(slotIndex, updated)) static_cast<void>(notify(slot.key()));
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::write(unsigned slotIndex, bool updated) {
  ++counters_->shadowWrites;
  SLOT& slot = slots_[slotIndex];
  const KEY key = slot.key();
  SLOT** link = &heads_[bucketOf(key)];
  if (*link == nullptr) {
    linkIn(slot, link);
    trace(9,
          [&](std::ostream& os) { os << "ShadowStore::write() value inserted in fresh bucket"; });
    return true;
  }
  while (*link != nullptr && (*link)->key() < key) link = &(*link)->next;
  if (*link == nullptr) {
    linkIn(slot, link);
    trace(9, [&](std::ostream& os) { os << "ShadowStore::write() add slot to end of chain"; });
    return true;
  }
  SLOT& there = **link;
  if (!(there.key() == key)) {
    linkIn(slot, link);
    trace(9, [&](std::ostream& os) { os << "ShadowStore::write() value inserted"; });
    return true;
  }
  if (&there == &slot) {
    trace(9, [&](std::ostream& os) { os << "ShadowStore::write() no update needed"; });
    return updated;
  }
  // The key was removed and came back in another slot, and the news of the old slot is still to
  // come.
  bool differs = true;
  if constexpr (SLOT::kHoldsValue) differs = !(there.content == slot.content);
  ++counters_->slotMoves;
  replace(there, slot);
  trace(9, [&](std::ostream& os) { os << "ShadowStore::write() value updated"; });
  return differs;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::remove(SLOT& slot) {
  const unsigned index = indexOf(&slot);
  if (slot.link == nullptr) {
    trace(9, [&](std::ostream& os) { os << "ShadowStore::remove() dead slot " << index; });
    return false;
  }
  trace(9, [&](std::ostream& os) {
    os << "ShadowStore::remove() slot:" << index << " prev->next:" << indexOf(*slot.link)
       << " next:" << indexOf(slot.next) << " occupied:" << counters_->occupied
       << " key:" << slot.key();
  });
  *slot.link = slot.next;
  if (slot.next != nullptr) slot.next->link = slot.link;
  slot.next = nullptr;
  slot.link = nullptr;
  slotCounters_.slotDel(index);
  --counters_->occupied;
  return true;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::linkIn(SLOT& slot, SLOT** link) {
  slot.next = *link;
  slot.link = link;
  if (slot.next != nullptr) slot.next->link = &slot.next;
  *link = &slot;
  slotCounters_.slotIs(indexOf(&slot));
  ++counters_->occupied;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::replace(SLOT& old, SLOT& slot) {
  slot.next = old.next;
  slot.link = old.link;
  if (slot.next != nullptr) slot.next->link = &slot.next;
  *slot.link = &slot;
  slotCounters_.slotDel(indexOf(&old));
  slotCounters_.slotIs(indexOf(&slot));
  old = SLOT{};
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
const SLOT* ShadowStore<KEY, VALUE, SLOT, MAP, READER>::find(const KEY& key, bool orEqual) const {
  if (numBuckets_ == 0) return nullptr;
  const SLOT* slot = heads_[bucketOf(key)];
  while (slot != nullptr) {
    const KEY there = slot->key();
    if (!(there < key) && (orEqual || !(there == key))) break;
    slot = slot->next;
  }
  return slot;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
const VALUE* ShadowStore<KEY, VALUE, SLOT, MAP, READER>::valueOf(const SLOT& slot) const {
  if constexpr (SLOT::kHoldsValue) {
    return &slot.content;
  } else {
    // A listener may read while the handle is being detached: then there is nothing to fetch from.
    if (reader_.slotTable().header() != nullptr &&
        reader_.getValue(indexOf(&slot), scratchValue_) &&
        keyOf<KEY>(scratchValue_) == slot.key()) {
      return &scratchValue_;
    }
    ++counters_->staleKeyReads;
    return nullptr;
  }
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
const VALUE& ShadowStore<KEY, VALUE, SLOT, MAP, READER>::lookup(const KEY& key, bool& found) const {
  const SLOT* const slot = find(key, true);
  const VALUE* value = nullptr;
  if (slot != nullptr && slot->key() == key) value = valueOf(*slot);
  found = value != nullptr;
  return found ? *value : emptyValue_;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::from(const SLOT* slot, unsigned bucket,
                                                      VALUE& value, IterHint& hint) const {
  for (;;) {
    for (; slot != nullptr; slot = slot->next) {
      if (const VALUE* const found = valueOf(*slot)) {
        value = *found;
        hint = {indexOf(slot), bucket};
        return true;
      }
    }
    if (++bucket >= numBuckets_) break;
    slot = heads_[bucket];
  }
  value = emptyValue_;
  return false;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::first(unsigned bucket, VALUE& value,
                                                       IterHint& hint) const {
  if (bucket < numBuckets_) return from(heads_[bucket], bucket, value, hint);
  value = emptyValue_;
  return false;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::next(const KEY& key, VALUE& value,
                                                      IterHint& hint) const {
  if (hint.slot < numSlots_ && hint.bucket < numBuckets_) {
    const SLOT& slot = slots_[hint.slot];
    // The bucket too: one from elsewhere would skip or repeat some.
    if (slot.link != nullptr && slot.key() == key && bucketOf(key) == hint.bucket) {
      return from(slot.next, hint.bucket, value, hint);
    }
  }
  ++counters_->nextHintMisses;
  if (numBuckets_ == 0) return first(0, value, hint);
  return from(find(key, false), bucketOf(key), value, hint);
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
bool ShadowStore<KEY, VALUE, SLOT, MAP, READER>::grow(unsigned slotIndex) {
  trace(8, [&](std::ostream& os) { os << "ShadowStore::grow() for slotIndex:" << slotIndex; });
  reader_.resize();
  const unsigned newCount = reader_.capacity();
  trace(8, [&](std::ostream& os) {
    os << "ShadowStore::grow() resized QuillReader to " << newCount << " from " << numSlots_;
  });
  if (newCount < numSlots_) {
    raise<Sable::RuntimeException>("ShadowStore::grow() mapped memory unexpectedly shrank");
  }
  if (slotIndex >= newCount) {
    trace(8, [&](std::ostream& os) {
      os << "ShadowStore::grow() complete. Never learned of slotIndex:" << slotIndex
         << " so it is safe to ignore.";
    });
    return false;
  }
  trace(8, [&](std::ostream& os) {
    os << "ShadowStore::grow() resize shadow slots from " << numSlots_ << " to " << newCount
       << " due to out of range slot " << slotIndex;
  });
  const SLOT* const oldBase = slots_;
  const unsigned oldCount = numSlots_;
  resizeSlots("grow", newCount);
  std::uninitialized_fill(slots_ + oldCount, slots_ + newCount, SLOT{});
  patch(oldBase);
  ++counters_->shadowGrows;
  trace(8, [&](std::ostream& os) { os << "ShadowStore::grow() complete."; });
  return true;
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::tryShrink() {
  if (counters_->occupied > numSlots_ / 4) return;
  const unsigned newNumSlots = slotCounters_.largestOccupied();
  if (numSlots_ <= newNumSlots) return;
  trace(8, [&](std::ostream& os) {
    os << "ShadowStore::tryShrink() shadow slot occupancy <= 25% and can shrink to " << newNumSlots
       << " slots.";
  });
  if (const auto* const header = reader_.slotTable().header(); header != nullptr) {
    // Relaxed: only compared.
    const unsigned present = header->numSlots.load(Mem::relaxed).value;
    if (present > newNumSlots) {
      // The table being larger than what is left of its shadow is no reason to keep the memory: a
      // later change beyond it makes the shadow grow again.
      trace(8, [&](std::ostream& os) {
        os << "ShadowStore::tryShrink() skip shrinking of shadow table to " << newNumSlots
           << " slots because shared memory has grown to " << present << " slots";
      });
      if (reader_.capacity() > present) {
        raise<Sable::RuntimeException>(
            "Writer shrank the slot table! Enable third shadow slot shrink condition");
      }
    }
  }
  shrink(newNumSlots);
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::shrink(unsigned newNumSlots) {
  trace(8, [&](std::ostream& os) { os << "ShadowStore::shrink() newNumSlots:" << newNumSlots; });
  trace(8, [&](std::ostream& os) {
    os << "ShadowStore::shrink() resize shadow slots from " << numSlots_ << " to " << newNumSlots;
  });
  const SLOT* const oldBase = slots_;
  resizeSlots("shrink", newNumSlots);
  if (slots_ != nullptr) patch(oldBase);
  ++counters_->shadowShrinks;
  trace(8, [&](std::ostream& os) { os << "ShadowStore::shrink() complete."; });
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::resizeSlots(const char* caller, unsigned count) {
  trace(8, [&](std::ostream& os) { os << "QuillMem::resizeAs() resizing to " << count; });
  const std::uint64_t bytes = std::uint64_t{count} * sizeof(SLOT);
  void* base = nullptr;
  if (count == 0) {
    slotsMem_.detach();
  } else if (bytes <= std::numeric_limits<unsigned>::max()) {
    const auto size = static_cast<unsigned>(bytes);
    base =
        slots_ == nullptr ? slotsMem_.attach(size, Mem::Mode::readWrite) : slotsMem_.resize(size);
  }
  if (count != 0 && base == nullptr) {
    raise<Sable::MemoryResourceException>("ShadowStore::", caller,
                                          "() failed to resize local memory to size ", bytes,
                                          " - the system may be out of memory.");
  }
  slots_ = static_cast<SLOT*>(base);
  numSlots_ = count;
  trace(8, [&](std::ostream& os) {
    os << "ShadowStore::" << caller << "() Passed resize " << count << " and got " << base
       << " back.";
  });
}

template <class KEY, class VALUE, class SLOT, class MAP, class READER>
void ShadowStore<KEY, VALUE, SLOT, MAP, READER>::patch(const SLOT* oldBase) {
  // As numbers: the addresses of a region that has moved must not be followed or subtracted.
  const auto from = reinterpret_cast<std::uintptr_t>(oldBase);
  const auto distance = static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(slots_) - from);
  trace(8, [&](std::ostream& os) {
    os << "ShadowStore::patch() address offset is "
       << distance / static_cast<std::intptr_t>(sizeof(SLOT));
  });
  if (distance == 0 || oldBase == nullptr) return;
  const auto moved = [&](const SLOT* old) {
    return slots_ + (reinterpret_cast<std::uintptr_t>(old) - from) / sizeof(SLOT);
  };
  for (unsigned bucket = 0; bucket < numBuckets_; ++bucket) {
    if (heads_[bucket] == nullptr) continue;
    trace(9, [&](std::ostream& os) {
      os << "ShadowStore::patch() Patching slots in bucket " << bucket;
    });
    SLOT* slot = moved(heads_[bucket]);
    heads_[bucket] = slot;  // its link points at this head, which has not moved
    while (slot->next != nullptr) {
      slot->next = moved(slot->next);
      slot->next->link = &slot->next;
      slot = slot->next;
    }
  }
  ++counters_->patches;
}

}  // namespace Quill
