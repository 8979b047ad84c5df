// SPDX-License-Identifier: Apache-2.0
//
// Bodies of QuillReader.h.
#pragma once

#include <algorithm>
#include <array>
#include <bit>

#include "quill/Exceptions.h"
#include "quill/FenixFile.h"
#include "quill/QuillReader.h"
#include "quill/Text.h"
#include "quill/Util.h"

namespace Quill {

template <class KEY, class VALUE>
QuillReader<KEY, VALUE>::QuillReader(Sable::Platform::DebugHandler& handler, const char* fullName)
    : QuillBase<KEY, VALUE>(handler),
      root_(handler, fullName, true),
      buckets_(handler, root_),
      slots_(handler, root_, counters_) {}

template <class KEY, class VALUE>
QuillReader<KEY, VALUE>::~QuillReader() {
  detach();
}

// --- attaching

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::initialize() {
  if (!Mem::Atomics::checkCpuSupport()) {
    this->trace(7, [](std::ostream& os) { os << "Hardware does not support Atomics"; });
    raise<Sable::InvalidInitializeException>("Hardware does not support Atomics");
  }
  if (this->initialized_) return true;
  if (!attach()) {
    unmap();
    return false;
  }
  this->initialized_ = true;
  this->trace(7, [&](std::ostream& os) {
    os << "QuillReader::initialize() success " << root_.rootPath() << " capacity: " << capacity()
       << " fenixId: " << fenix_;
  });
  return true;
}

// The files are mapped before the id is read, and both must agree with it: a writer that formats
// them meanwhile makes a validation fail, and no reader has files of two generations.
template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::attach() {
  const auto failed = [this](const char* what) {
    this->trace(7, [&](std::ostream& os) { os << "QuillReader::initialize() " << what; });
    return false;
  };
  if (!buckets_.attach()) return failed("buckets.attach() failed");
  if (!slots_.attach()) return failed("slots attach() failed");
  fenix_ = FenixFile::read(this->debugHandler(), root_.rootPath());
  if (fenix_ == 0) {
    this->trace(7, [&](std::ostream& os) {
      os << "QuillReader::initialize(): " << root_.rootPath() << " failed to read fenix file";
    });
    return false;
  }
  std::string message;
  // By the size of the mapping: the file may have become longer since, which nobody has mapped.
  if (!buckets_.header()->validate(buckets_.mem().size(), fenix_, message)) {
    failed("buckets.validate() failed");
    Util::writeCorruptionFile(this->debugHandler(), root_.rootPath(), message);
    return false;
  }
  // [O11] Constant since before the id was written to disk.
  buckets_.numBucketsIs(buckets_.header()->numBuckets.load(Mem::relaxed));
  if (!slots_.validate(fenix_, message)) {
    failed("slots validate() failed");
    Util::writeCorruptionFile(this->debugHandler(), root_.rootPath(), message);
    return false;
  }
  return true;
}

template <class KEY, class VALUE>
void QuillReader<KEY, VALUE>::unmap() {
  buckets_.detach();
  slots_.detach();
}

template <class KEY, class VALUE>
void QuillReader<KEY, VALUE>::detach() {
  if (!this->initialized_) {
    this->trace(7, [](std::ostream& os) { os << "QuillReader::detach() already detached"; });
    return;
  }
  unmap();
  this->initialized_ = false;
  this->trace(7, [&](std::ostream& os) {
    os << "QuillReader::detach() " << root_.rootPath() << " detached";
  });
}

template <class KEY, class VALUE>
unsigned QuillReader<KEY, VALUE>::members() const {
  // Relaxed: a number that changes as it is read.
  return this->initialized_ ? slots_.header()->occupiedSlots.load(Mem::relaxed) : 0;
}

template <class KEY, class VALUE>
unsigned QuillReader<KEY, VALUE>::maxSize() const {
  // [O11] Constant in a generation.
  return this->initialized_ ? slots_.header()->maxSlots.load(Mem::relaxed) : 0;
}

// --- the step around every reading operation

template <class KEY, class VALUE>
template <class Attempt>
decltype(auto) QuillReader<KEY, VALUE>::believed(const Attempt& attempt) const {
  for (;;) {
    try {
      decltype(auto) result = attempt();
      if (!unsettled() || !settle()) return result;
    } catch (const CorruptionDetectedException& damage) {
      afterDamage(damage);
    }
  }
}

template <class KEY, class VALUE>
[[gnu::always_inline]] inline bool QuillReader<KEY, VALUE>::unsettled() const noexcept {
  if (slots_.grown()) [[unlikely]]
    return true;
  // One load while no file of the process has ever become shorter.
  if (!Mem::BusGuard::any()) [[likely]]
    return false;
  return slots_.mem().truncated() || buckets_.mem().truncated();
}

template <class KEY, class VALUE>
[[gnu::noinline, gnu::cold]] bool QuillReader<KEY, VALUE>::settle() const {
  if (slots_.doResize()) return true;
  slots_.checkTruncated();
  if (buckets_.mem().truncated()) {
    raise<CorruptionDetectedException>("BucketReader: ", buckets_.mem().getFilename(),
                                       " became shorter than its mapping");
  }
  return false;
}

template <class KEY, class VALUE>
[[gnu::noinline, gnu::cold]] bool QuillReader<KEY, VALUE>::afterDamage(
    const CorruptionDetectedException& damage) const {
  if (settle()) return true;
  throw CorruptionDetectedException(damage.msg());
}

template <class KEY, class VALUE>
[[gnu::noinline, gnu::cold]] void QuillReader<KEY, VALUE>::raiseCycle(const char* text,
                                                                      std::uint32_t count) const {
  raise<CorruptionDetectedException>(text, count, " capacity:", capacity());
}

template <class KEY, class VALUE>
[[gnu::noinline, gnu::cold]] void QuillReader<KEY, VALUE>::raiseFree(const char* text,
                                                                     std::uint32_t slot,
                                                                     KEY key) const {
  raise<CorruptionDetectedException>(text, slot, " not marked as occupied key:", key);
}

template <class KEY, class VALUE>
const VALUE& QuillReader<KEY, VALUE>::lookup(const KEY& key, bool& found) const {
  const KEY own = key;  // the key may lie in the value that the last operation answered
  return lookupFrom(buckets_.peek(bucketOf(own)), own, found);
}

// The walk of find(), as short as it can be while nothing happens to the table: it keeps all in
// registers and holds no exception's way out. Whatever is out of the ordinary, damage included, is
// left to the careful one, which begins again.
template <class KEY, class VALUE>
[[gnu::always_inline]] inline const VALUE& QuillReader<KEY, VALUE>::lookupFrom(const SlotRef* head,
                                                                               const KEY& own,
                                                                               bool& found) const {
  if (head == nullptr) [[unlikely]]
    return lookupAgain(own, found);
  const auto slots = slots_.slots();
  bool equal = false;
  Position at(head);
  for (std::uint32_t left = slots.reachable(); at.next != kNoSlot; --left) {
    if (at.next >= slots.reachable() || left == 0) [[unlikely]]
      return lookupAgain(own, found);
    const Slot<VALUE>& slot = slots.base()[at.next];
    if (!slots_.readSettled(slot, scratch_)) [[unlikely]] {
      if (at.changed()) ++counters_.readRetries;
      return lookupAgain(own, found);
    }
    const KEY stored = keyOf<KEY>(scratch_);
    const bool last = !(stored < own);
    const Position next = last ? at : Position(&slot.ref);
    if (at.changed()) [[unlikely]] {
      ++counters_.readRetries;
      return lookupAgain(own, found);
    }
    if (last) {
      equal = !(own < stored);
      break;
    }
    at = next;
  }
  if (unsettled()) [[unlikely]]
    return lookupAgain(own, found);
  found = equal;
  return equal ? scratch_ : this->emptyValue_;
}

template <class KEY, class VALUE>
[[gnu::noinline, gnu::cold]] const VALUE& QuillReader<KEY, VALUE>::lookupAgain(KEY key,
                                                                               bool& found) const {
  found = false;
  bool there = false;  // told only if it is believed
  const VALUE& result = believed([&]() -> const VALUE& { return doLookup(key, there); });
  found = there;
  return result;
}

template <class KEY, class VALUE>
const VALUE& QuillReader<KEY, VALUE>::doLookup(const KEY& key, bool& found) const {
  return find(key, found);
}

template <class KEY, class VALUE>
unsigned QuillReader<KEY, VALUE>::lookupMany(const KEY* keys, unsigned count, VALUE* values,
                                             bool* found) const {
  unsigned numFound = 0;
  for (unsigned n; count != 0; keys += n, values += n, found += n, count -= n) {
    n = std::min(count, kBatch);
    // Nothing that is looked at here is believed: the lookup reads it all again. It may also map a
    // grown table anew, so this is where the slots are for this batch alone. Heads stay where they
    // are.
    const auto slots = slots_.slots();
    std::array<const SlotRef*, kBatch> heads;
    for (unsigned i = 0; i < n; ++i) {
      heads[i] = buckets_.peek(bucketOf(keys[i]));
      __builtin_prefetch(heads[i]);
    }
    std::array<std::uint32_t, kBatch> firsts;
    for (unsigned i = 0; i < n; ++i) {
      firsts[i] = heads[i] == nullptr ? kNoSlot : heads[i]->load(Mem::relaxed).value;
      slots.prefetch(firsts[i]);
    }
    // One key in five is not the first of its chain.
    for (unsigned i = 0; i < n; ++i) {
      if (firsts[i] >= slots.reachable()) continue;
      const Slot<VALUE>& slot = slots.base()[firsts[i]];
      KEY stored;
      slot.value.copyOut(&stored, sizeof stored);
      slots.prefetch(stored < keys[i] ? slot.ref.load(Mem::relaxed).value : firsts[i]);
    }
    for (unsigned i = 0; i < n; ++i) {
      const KEY own = keys[i];
      values[i] = lookupFrom(heads[i], own, found[i]);
      numFound += found[i] ? 1 : 0;
    }
  }
  return numFound;
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::first(std::uint32_t bucket, VALUE& value, IterHint& hint) const {
  return believed([&] { return doFirst(bucket, value, hint); });
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::next(const KEY& key, VALUE& value, IterHint& hint) const {
  // Copies: a result that is discarded must leave the question as it was.
  const KEY after = key;
  IterHint at;
  const bool found = believed([&] {
    at = hint;
    return doNext(after, value, at);
  });
  hint = at;
  return found;
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::getValue(std::uint32_t slot, VALUE& value) const {
  return believed([&] { return (slots_.read(slots_.slot(slot), value) & kOccupied) != 0; });
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::getKey(std::uint32_t slot, KEY& key) const {
  return believed([&] { return (slots_.read(slots_.slot(slot), key) & kOccupied) != 0; });
}

// --- walking

template <class KEY, class VALUE>
[[gnu::always_inline]] inline QuillReader<KEY, VALUE>::Position::Position(
    const SlotRef* from) noexcept
    : link(from) {
  // [O1] Acquire: the slot that the link leads to was complete before the link was stored. Pairs
  // with the release of every link in QuillWriter and SlotWriterTable.
  const auto word = std::bit_cast<std::uint64_t>(from->load(Mem::acquire));
  version = static_cast<std::uint32_t>(word);
  next = static_cast<std::uint32_t>(word >> 32);
}

template <class KEY, class VALUE>
[[gnu::always_inline]] inline bool QuillReader<KEY, VALUE>::Position::changed() const noexcept {
  // Relaxed: behind the acquires of [O2] and [O4]. Whoever saw a byte of the slot's next use sees
  // here the store that took the slot from this chain.
  return link->version(Mem::relaxed) != version;
}

template <class KEY, class VALUE>
template <class Stop>
[[gnu::always_inline]] inline std::uint32_t QuillReader<KEY, VALUE>::walk(const KEY& key,
                                                                          std::uint32_t bucket,
                                                                          const WalkTexts& texts,
                                                                          const Stop& stop) const {
  for (;; ++counters_.readRetries) {
    Position at(buckets_.getRef(bucket));
    for (std::uint32_t count = 1; at.next != kNoSlot; ++count) {
      if (count > capacity()) [[unlikely]] {
        raiseCycle(texts.cycle, count);
      }
      const Slot<VALUE>& slot = slots_.slot(at.next);
      const std::uint32_t flags = slots_.read(slot, scratch_);
      if ((flags & kOccupied) == 0) [[unlikely]] {
        if (at.changed()) break;
        raiseFree(texts.free, at.next, key);
      }
      if (stop(keyOf<KEY>(scratch_))) {
        if (at.changed()) [[unlikely]]
          break;
        return at.next;
      }
      const Position next(&slot.ref);
      if (at.changed()) [[unlikely]]
        break;
      at = next;
    }
    if (at.next == kNoSlot) return kNoSlot;
  }
}

template <class KEY, class VALUE>
[[gnu::always_inline]] inline const VALUE& QuillReader<KEY, VALUE>::find(const KEY& key,
                                                                         bool& found) const {
  found = false;
  if (buckets_.numBuckets() == 0) [[unlikely]] {
    this->trace(7, [](std::ostream& os) { os << "QuillReader::doLookup() bucket table detached"; });
    return this->emptyValue_;
  }
  const auto notBefore = [&key](const KEY& stored) { return !(stored < key); };
  if (walk(key, bucketOf(key), kLookupTexts, notBefore) == kNoSlot) {
    return this->emptyValue_;
  }
  found = !(key < keyOf<KEY>(scratch_));
  return found ? scratch_ : this->emptyValue_;
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::doFirst(std::uint32_t bucket, VALUE& value, IterHint& hint) const {
  const std::uint32_t numBuckets = buckets_.numBuckets();
  while (bucket < numBuckets) {
    // Chains lie anywhere: those of the buckets to come are under way while this one is copied.
    if (const SlotRef* const ahead = buckets_.peek(bucket + kPrefetch)) {
      slots_.slots().prefetch(ahead->load(Mem::relaxed).value);
    }
    const Position at(buckets_.getRef(bucket));
    if (at.next == kNoSlot) {
      ++bucket;
      continue;
    }
    const std::uint32_t flags = slots_.read(slots_.slot(at.next), value);
    if (at.changed()) [[unlikely]] {
      ++counters_.readRetries;
      continue;
    }
    const KEY key = keyOf<KEY>(value);
    if ((flags & kOccupied) == 0) [[unlikely]] {
      raiseFree("QuillReader::first() slot:", at.next, key);
    }
    if (bucketOf(key) != bucket) [[unlikely]] {
      raise<CorruptionDetectedException>("QuillReader::first() corrupt key detected, key:", key,
                                         " bucket:", bucket);
    }
    hint = {at.next, bucket};
    return true;
  }
  this->trace(9, [](std::ostream& os) { os << "QuillReader::first() none found!"; });
  value = this->emptyValue_;
  return false;
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::doNext(const KEY& key, VALUE& value, IterHint& hint) const {
  const std::uint32_t numBuckets = buckets_.numBuckets();
  if (numBuckets == 0) [[unlikely]] {
    this->trace(7, [](std::ostream& os) { os << "QuillReader::doNext() bucket table detached"; });
    return false;
  }
  if (hint.slot < capacity() && hint.bucket < numBuckets) {
    bool answer = false;
    if (hintedNext(key, value, hint, answer)) return answer;
  }
  ++counters_.nextHintMisses;
  return walkToNext(key, value, hint);
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::hintedNext(const KEY& key, VALUE& value, IterHint& hint,
                                         bool& answer) const {
  const Slot<VALUE>& hinted = slots_.slot(hint.slot);
  const Position at(&hinted.ref);
  KEY own;
  const std::uint32_t ownFlags = slots_.read(hinted, own);
  if ((ownFlags & kOccupied) == 0 || own < key || key < own) return false;
  if (at.next == kNoSlot) {
    // The end of the chain, or of the free list if the slot was taken and used again meanwhile. A
    // bucket from elsewhere would skip or repeat some.
    if (at.changed() || bucketOf(key) != hint.bucket) return false;
    answer = doFirst(hint.bucket + 1, value, hint);
    return true;
  }
  const std::uint32_t flags = slots_.read(slots_.slot(at.next), scratch_);
  if (at.changed()) [[unlikely]]
    return false;
  if ((flags & kOccupied) == 0) [[unlikely]] {
    raiseFree("QuillReader::doNext() slot:", at.next, key);
  }
  const KEY stored = keyOf<KEY>(scratch_);
  if (bucketOf(stored) != hint.bucket) [[unlikely]] {
    // A bucket from elsewhere is the hint's fault and not the table's.
    if (bucketOf(key) != hint.bucket) return false;
    raise<CorruptionDetectedException>("QuillReader::doNext() corrupt key detected key:", stored,
                                       " bucketIndex ", hint.bucket);
  }
  // A chain that does not ascend is damaged: the walk finds its cycle, so that an iteration over
  // any bytes comes to an end.
  if (!(key < stored)) [[unlikely]]
    return false;
  value = scratch_;
  hint.slot = at.next;
  answer = true;
  return true;
}

template <class KEY, class VALUE>
bool QuillReader<KEY, VALUE>::walkToNext(const KEY& key, VALUE& value, IterHint& hint) const {
  const std::uint32_t bucket = bucketOf(key);
  const auto behind = [&key](const KEY& stored) { return key < stored; };
  const std::uint32_t slot = walk(key, bucket, kNextTexts, behind);
  if (slot == kNoSlot) return doFirst(bucket + 1, value, hint);
  if (const KEY stored = keyOf<KEY>(scratch_); bucketOf(stored) != bucket) [[unlikely]] {
    raise<CorruptionDetectedException>("QuillReader::doNext() corrupt key detected key:", stored,
                                       " bucketIndex:", bucket);
  }
  value = scratch_;
  hint = {slot, bucket};
  return true;
}

}  // namespace Quill
