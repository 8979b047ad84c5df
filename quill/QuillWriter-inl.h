// SPDX-License-Identifier: Apache-2.0
//
// Bodies of QuillWriter.h: life, changes, reads. QuillWriterAttach-inl.h has the recovery.
#pragma once

#include <utility>

#include "quill/Exceptions.h"
#include "quill/QuillMem.h"
#include "quill/QuillWriter.h"
#include "quill/Text.h"

namespace Quill {

template <class Key, class Value>
QuillWriter<Key, Value>::QuillWriter(Sable::Platform::DebugHandler& handler, const char* name,
                                     unsigned maxSlots, bool localMem, std::string classTypeName)
    : QuillBase<Key, Value>(handler),
      root_(handler, name, !localMem),
      localMem_(localMem),
      buckets_(handler, root_, localMem, maxSlots, counters_),
      slots_(handler, root_, localMem, maxSlots, counters_, std::move(classTypeName)),
      conquer_(handler, root_, localMem, slots_, counters_) {}

template <class Key, class Value>
QuillWriter<Key, Value>::~QuillWriter() {
  detach();
}

template <class Key, class Value>
Key QuillWriter<Key, Value>::keyAt(const Slot<Value>& slot) const noexcept {
  Key key;
  slot.value.copyOut(&key, sizeof key);
  return key;
}

template <class Key, class Value>
const Value* QuillWriter<Key, Value>::valueIn(const Slot<Value>& slot) noexcept {
  return static_cast<const Value*>(const_cast<Slot<Value>&>(slot).value.address());
}

template <class Key, class Value>
[[gnu::always_inline]] inline Slot<Value>& QuillWriter<Key, Value>::slotOnChain(
    std::uint32_t index, std::uint32_t& steps, const WalkNames& names) const {
  if (++steps > capacity()) [[unlikely]]
    cycleOnChain(steps, names);
  Slot<Value>& slot = slots_.slots()[index];
  if (!isOccupied(slot)) [[unlikely]]
    freeOnChain(index, names);
  return slot;
}

template <class Key, class Value>
[[gnu::noinline, gnu::cold]] void QuillWriter<Key, Value>::cycleOnChain(
    std::uint32_t steps, const WalkNames& names) const {
  raise<CorruptionDetectedException>("QuillWriter::", names.cycle,
                                     "() hash chain cycle detected, slotCount:", steps,
                                     " capacity:", capacity());
}

template <class Key, class Value>
[[gnu::noinline, gnu::cold]] void QuillWriter<Key, Value>::freeOnChain(
    std::uint32_t index, const WalkNames& names) const {
  raise<CorruptionDetectedException>("QuillWriter::", names.occupied, "() slot: ", index,
                                     " not marked as occupied");
}

template <class Key, class Value>
[[gnu::noinline, gnu::cold]] void QuillWriter<Key, Value>::keyOfOtherBucket(
    std::uint32_t index, const WalkNames& names) const {
  raise<CorruptionDetectedException>("QuillWriter::", names.corrupt,
                                     "() corrupt key detected, slot: ", index);
}

template <class Key, class Value>
[[gnu::always_inline]] inline bool QuillWriter<Key, Value>::find(const Key& key,
                                                                 std::uint32_t bucket,
                                                                 SlotRef*& curr, Slot<Value>*& next,
                                                                 std::uint32_t& index) const {
  std::uint32_t steps = 0;
  while ((index = curr->load(Mem::relaxed).value) != kNoSlot) {
    next = &slotOnChain(index, steps, kFindNames);
    const Key slotKey = keyAt(*next);
    if (slotKey == key) return true;
    requireInBucket(slotKey, index, bucket, kFindNames);
    if (key < slotKey) return false;
    curr = &next->ref;
  }
  return false;
}

template <class Key, class Value>
std::uint32_t QuillWriter<Key, Value>::allocKeeping(SlotRef*& curr, Slot<Value>*& scratch) {
  // Nothing moves while there is a free slot, which is nearly always: the guards cost as much as a
  // third of the insertion.
  if (slots_.hasFree()) [[likely]]
    return slots_.alloc();
  const std::uint32_t size = slots_.mem().size();
  const AutoMemMove currGuard(this->debugHandler(), &curr, slots_.headerAddress(), size);
  const AutoMemMove scratchGuard(this->debugHandler(), &scratch, slots_.headerAddress(), size);
  return slots_.alloc();
}

template <class Key, class Value>
std::uint32_t QuillWriter<Key, Value>::flagsToChange(const Slot<Value>& slot) noexcept {
  const std::uint32_t flags = slot.flags.load(Mem::relaxed);
  return (flags & kOccupied) != 0 ? flags : flags & ~kLookaside;
}

template <class Key, class Value>
void QuillWriter<Key, Value>::storeValue(Slot<Value>& slot, const Value& value) noexcept {
  const std::uint32_t flags = flagsToChange(slot);
  if ((flags & kOccupied) != 0) {
    // [O2] The whole value in `lookaside` before LOOKASIDE sends readers there; each word a release
    // after the last flags store, so that a reader that copied a mixed value sees flags that moved
    // on. Pairs with the acquires of flags and value words in SlotReaderTable.
    slots_.header()->lookaside.value.copyIn(&value);
  }
  slot.flags.store(flags + 2, Mem::release);
  slot.value.copyIn(&value);
  // [O3] The value in the slot before LOOKASIDE is down again. Pairs as [O2].
  slot.flags.store((flags + 4) | kOccupied, Mem::release);
}

template <class Key, class Value>
const Value* QuillWriter<Key, Value>::write(const Value& value, bool overwrite) {
  requireNoDirectWrite("write");
  const Key key = keyOf<Key>(value);
  const std::uint32_t bucket = bucketOf(key);
  SlotRef* curr = buckets_.getRef(bucket);
  Slot<Value>* slot = nullptr;
  std::uint32_t index = kNoSlot;
  if (find(key, bucket, curr, slot, index)) {
    if (!overwrite) {
      requireFiles();
      return valueIn(*slot);
    }
    conquer_.makeRoom();
    storeValue(*slot, value);
  } else {
    conquer_.makeRoom();
    index = allocKeeping(curr, slot);
    slot = &slots_.slots()[index];
    const Mem::VerU32 before = curr->load(Mem::relaxed);
    slot->ref.store(slot->ref.load(Mem::relaxed).next(before.value), Mem::release);
    storeValue(*slot, value);
    // [O1] The slot whole before the link to it. Pairs with the acquire of links in QuillReader.
    curr->store(before.next(index), Mem::release);
  }
  conquer_.notify(index);
  requireFiles();
  return valueIn(*slot);
}

template <class Key, class Value>
bool QuillWriter<Key, Value>::remove(const Key& key, Value& old) {
  requireNoDirectWrite("remove");
  const std::uint32_t bucket = bucketOf(key);
  SlotRef* curr = buckets_.getRef(bucket);
  Slot<Value>* slot = nullptr;
  std::uint32_t index = kNoSlot;
  if (!find(key, bucket, curr, slot, index)) {
    requireFiles();
    return false;
  }
  conquer_.makeRoom();
  slot->value.copyOut(&old);
  // [O5] Off the chain before anything of the slot changes: a reader that sees a change of the slot
  // sees that the link which brought it there has moved on. Pairs with the second look at a link's
  // version in QuillReader.
  const Mem::VerU32 next = slot->ref.load(Mem::relaxed);
  curr->store(curr->load(Mem::relaxed).next(next.value), Mem::release);
  slot->flags.store(slot->flags.load(Mem::relaxed) & ~kOccupied, Mem::release);
  slots_.free(index);
  ++counters_.slotsRemoved;
  conquer_.notify(index);
  requireFiles();
  return true;
}

template <class Key, class Value>
DirectTarget QuillWriter<Key, Value>::directWrite(const Key& key) {
  requireNoDirectWrite("directWrite");
  const std::uint32_t bucket = bucketOf(key);
  SlotRef* ref = buckets_.getRef(bucket);
  Slot<Value>* slot = nullptr;
  std::uint32_t index = kNoSlot;
  const bool found = find(key, bucket, ref, slot, index);
  if (!found) {
    index = allocKeeping(ref, slot);
    slot = &slots_.slots()[index];
  }
  ++counters_.directWrites;
  directRef_ = ref;
  directSlot_ = index;
  directNew_ = !found;
  auto& target = isOccupied(*slot) ? slots_.header()->lookaside.value : slot->value;
  Value fresh{};
  std::memset(static_cast<void*>(&fresh), 0, sizeof fresh);
  std::memcpy(static_cast<void*>(&fresh), static_cast<const void*>(&key), sizeof key);
  target.copyIn(&fresh);
  return {target.address(), index};
}

template <class Key, class Value>
void QuillWriter<Key, Value>::directCommit() {
  if (directSlot_ == kNoSlot) {
    raise<Sable::RuntimeException>("QuillWriter::directCommit() no direct write is open");
  }
  conquer_.makeRoom();
  const std::uint32_t index = directSlot_;
  Slot<Value>& slot = slots_.slots()[index];
  const Mem::VerU32 before = directNew_ ? directRef_->load(Mem::relaxed) : Mem::VerU32();
  if (directNew_) {
    slot.ref.store(slot.ref.load(Mem::relaxed).next(before.value), Mem::release);
  }
  ++counters_.directCommits;
  const std::uint32_t flags = flagsToChange(slot);
  if ((flags & kOccupied) != 0) {
    // [O2] and [O3], as in storeValue(); the caller has filled in `lookaside`.
    slot.flags.store(flags + 2, Mem::release);
    Value value;
    slots_.header()->lookaside.value.copyOut(&value);
    slot.value.copyIn(&value);
    slot.flags.store(flags + 4, Mem::release);
  } else {
    slot.flags.store((flags + 4) | kOccupied, Mem::release);
  }
  directSlot_ = kNoSlot;
  // [O1], as in write().
  if (directNew_) directRef_->store(before.next(index), Mem::release);
  directNew_ = false;
  conquer_.notify(index);
  requireFiles();
}

template <class Key, class Value>
void QuillWriter<Key, Value>::requireNoDirectWrite(const char* operation) const {
  if (directSlot_ == kNoSlot) [[likely]]
    return;
  raise<Sable::RuntimeException>("QuillWriter::", operation, "() while a direct write of slot ",
                                 directSlot_, " is open");
}

template <class Key, class Value>
void QuillWriter<Key, Value>::abandonDirectWrite() noexcept {
  // A slot that no link leads to would belong to no list, and cost the table at the next attach.
  if (directSlot_ != kNoSlot && directNew_) slots_.free(directSlot_);  // an index that alloc() gave
  directSlot_ = kNoSlot;
  directNew_ = false;
}

template <class Key, class Value>
void QuillWriter<Key, Value>::requireFiles() const {
  if (!Mem::BusGuard::any()) [[likely]]
    return;
  if (slots_.mem().truncated() || buckets_.mem().truncated() || conquer_.truncated()) {
    filesTruncated();
  }
}

template <class Key, class Value>
void QuillWriter<Key, Value>::filesTruncated() const {
  raise<CorruptionDetectedException>("QuillWriter: a file of ", rootPath(),
                                     " became shorter than its mapping");
}

template <class Key, class Value>
const Value& QuillWriter<Key, Value>::lookup(const Key& key, bool& found) const {
  found = false;
  const std::uint32_t bucket = bucketOf(key);
  const SlotRef* link = buckets_.getRef(bucket);
  std::uint32_t steps = 0;
  std::uint32_t index;
  while ((index = link->load(Mem::relaxed).value) != kNoSlot) {
    const Slot<Value>& slot = slotOnChain(index, steps, kLookupNames);
    const Key slotKey = keyAt(slot);
    if (slotKey == key) {
      requireFiles();
      found = true;
      return *valueIn(slot);
    }
    requireInBucket(slotKey, index, bucket, kLookupNames);
    if (key < slotKey) break;
    link = &slot.ref;
  }
  requireFiles();
  return this->emptyValue_;
}

template <class Key, class Value>
void QuillWriter<Key, Value>::handOut(std::uint32_t slot, Value& value) const {
  validator_->markOccupied(slot);
  slots_.slots()[slot].value.copyOut(&value);
  requireFiles();
}

template <class Key, class Value>
bool QuillWriter<Key, Value>::first(std::uint32_t bucket, Value& value, IterHint& hint) const {
  for (; bucket < buckets_.numBuckets(); ++bucket) {
    const std::uint32_t index = buckets_.getRef(bucket)->load(Mem::relaxed).value;
    if (index == kNoSlot) continue;
    const Slot<Value>& slot = slots_.slots()[index];
    if (!isOccupied(slot)) {
      raise<CorruptionDetectedException>("QuillWriter::first() slot: ", index,
                                         " from bucket: ", bucket, " not marked as occupied");
    }
    if (bucketOf(keyAt(slot)) != bucket) {
      raise<CorruptionDetectedException>("QuillWriter::first() corrupt key detected, slot: ",
                                         index);
    }
    handOut(index, value);
    hint = {index, bucket};
    return true;
  }
  requireFiles();
  return false;
}

template <class Key, class Value>
bool QuillWriter<Key, Value>::next(const Key& key, Value& value, IterHint& hint) const {
  std::uint32_t steps = 0;
  if (hint.slot < capacity() && hint.bucket < buckets_.numBuckets()) {
    const Slot<Value>& slot = slots_.slots()[hint.slot];
    // The bucket too: the slot may have been used again, for this key in another chain.
    if (isOccupied(slot) && keyAt(slot) == key && bucketOf(key) == hint.bucket) {
      const std::uint32_t index = slot.ref.load(Mem::relaxed).value;
      if (index == kNoSlot) return first(hint.bucket + 1, value, hint);
      const Slot<Value>& behind = slotOnChain(index, steps, kFindNames);
      const Key behindKey = keyAt(behind);
      requireInBucket(behindKey, index, hint.bucket, kFindNames);
      // A chain that does not ascend is damaged: the walk finds its cycle, so that an iteration
      // over any bytes comes to an end. A check keeps count of the slots by itself.
      if (key < behindKey || validator_ != &noValidator_) [[likely]] {
        handOut(index, value);
        hint.slot = index;
        return true;
      }
      steps = 0;
    }
  }
  const std::uint32_t bucket = bucketOf(key);
  const SlotRef* link = buckets_.getRef(bucket);
  std::uint32_t index;
  while ((index = link->load(Mem::relaxed).value) != kNoSlot) {
    const Slot<Value>& slot = slotOnChain(index, steps, kNextNames);
    const Key slotKey = keyAt(slot);
    requireInBucket(slotKey, index, bucket, kNextNames);
    if (key < slotKey) {
      handOut(index, value);
      hint = {index, bucket};
      return true;
    }
    link = &slot.ref;
  }
  return first(bucket + 1, value, hint);
}

}  // namespace Quill
