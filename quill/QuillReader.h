// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillReader: reads a table in shared memory while its one writer, in another process,
// changes it.
//
// An object belongs to one thread. It takes no lock, stores nothing in the table and never waits
// for the writer: a writer that died in the middle of a store cannot stop it. A value that lookup()
// refers to is valid until the next operation on the same object.
//
// Invariants:
//  1. A key is reported only if the link that led to its slot stood unchanged from before the value
//     was copied until after it.
//  2. A walk begins again only if a link has changed since it was loaded, so a writer must have
//     been at work; a pass visits at most capacity() slots of a chain.
//  3. Damage is believed only when no growth of the table explains it, and nothing is believed that
//     was read from a file that became shorter than its mapping.
//  4. A read makes no system call and no allocation, and stores nothing outside of this object.
//
// Iteration goes from bucket to bucket and, within a chain, by ascending key: the key and the
// number of buckets alone decide the order. It meets every entry that is there all the time.
#pragma once

#include <cstdint>
#include <string>

#include "quill/BucketTable.h"
#include "quill/QuillBase.h"
#include "quill/RootPath.h"
#include "quill/SlotReaderTable.h"

namespace Quill {

template <class KEY, class VALUE>
class QuillReader final : public QuillBase<KEY, VALUE> {
 public:
  using Slots = SlotReaderTable<KEY, VALUE>;

  QuillReader(Sable::Platform::DebugHandler& handler, const char* fullName);
  ~QuillReader() override;

  // Maps the table and checks its headers. False while there is no table, and for headers that are
  // not valid, which are reported in the table's directory. Raises
  // Sable::InvalidInitializeException on a processor without 64-bit accesses.
  bool initialize() override;
  void detach() override;
  bool resize() const override { return slots_.doResize(); }

  // Those that follow, up to getKey(), raise CorruptionDetectedException for damage and
  // Sable::MemoryResourceException if a grown table cannot be mapped. `key` may lie in `value`, or
  // in what lookup() referred to.
  const VALUE& lookup(const KEY& key, bool& found) const override;
  // lookup() for each of `count` keys, and answers how many were found; the memory that one needs
  // is fetched while the one before is looked up. `values` and `found` have room for `count`; they
  // may not overlap `keys`. What was not found is a default value.
  // After an exception they hold answers up to the key that it is about, and anything behind.
  unsigned lookupMany(const KEY* keys, unsigned count, VALUE* values, bool* found) const;
  // False: `value` is a default one.
  bool first(VALUE& value, IterHint& hint) const override { return first(0, value, hint); }
  // The first entry at or after a bucket.
  bool first(std::uint32_t bucket, VALUE& value, IterHint& hint) const;
  // False: `value` is anything.
  bool next(const KEY& key, VALUE& value, IterHint& hint) const override;
  // Copies what the slot holds, and answers whether it is occupied. After a removal the key is
  // still there.
  bool getValue(std::uint32_t slot, VALUE& value) const;
  bool getKey(std::uint32_t slot, KEY& key) const;

  // One attempt of lookup() and of next(), growth not looked at. REQUIRES: `key` lies neither in
  // what an earlier operation referred to nor, for doNext(), in `value`.
  const VALUE& doLookup(const KEY& key, bool& found) const;
  bool doNext(const KEY& key, VALUE& value, IterHint& hint) const;

  // 0 while nothing is mapped, all three.
  unsigned members() const override;
  unsigned maxSize() const override;
  unsigned capacity() const override { return slots_.capacity(); }
  QuillType type() const override { return QuillType::reader; }
  Reader::Counters readerCounters() const override { return counters_; }
  std::string rootPath() const override { return root_.rootPath(); }
  std::string quillName() const override { return root_.quillName(); }
  unsigned mountStatus() const override { return this->initialized_ ? 1 : 0; }
  unsigned fenixId() const override { return fenix_; }

  // For whoever keeps a copy of the table.
  Reader::Counters& counters() const noexcept { return counters_; }
  Slots& slotTable() const noexcept { return slots_; }
  std::uint32_t numBuckets() const noexcept { return buckets_.numBuckets(); }

 private:
  // Buckets that an iteration looks ahead.
  static constexpr std::uint32_t kPrefetch = 16;
  // Keys that lookupMany() has under way: enough to hide one access to memory behind the others.
  static constexpr unsigned kBatch = 64;

  // A link as it was loaded, and where. Two plain numbers: they stay in registers.
  struct Position {
    const SlotRef* link;
    std::uint32_t version;
    std::uint32_t next;

    explicit Position(const SlotRef* from) noexcept;
    // What was taken from the slot behind the link may come from another chain.
    bool changed() const noexcept;
  };

  // The step around every reading operation.
  template <class Attempt>
  decltype(auto) believed(const Attempt& attempt) const;
  // False while nobody has changed the size of a file.
  bool unsettled() const noexcept;
  // True: the table has grown, what was read is thrown away. Raises if a file became shorter.
  bool settle() const;
  // True: a growth explains it. Else raises what is to be raised.
  bool afterDamage(const CorruptionDetectedException& damage) const;

  // `text` goes up to the number. Copies, so that a walk keeps nothing in memory for their sake.
  [[noreturn]] void raiseCycle(const char* text, std::uint32_t count) const;
  [[noreturn]] void raiseFree(const char* text, std::uint32_t slot, KEY key) const;

  // How the two damages that a walk meets begin in the texts of an operation.
  struct WalkTexts {
    const char* cycle;
    const char* free;
  };
  static constexpr WalkTexts kLookupTexts{
      "QuillReader::doLookup() hash chain cycle detected, slotCount:",
      "QuillReader::doLookup() slot:"};
  static constexpr WalkTexts kNextTexts{
      "QuillReader::doNext() hash chain cycle detected, slotCount:", "QuillReader::doNext() slot:"};
  std::uint32_t bucketOf(const KEY& key) const noexcept {
    return buckets_.bucketOf(static_cast<std::uint32_t>(key.hash()));
  }
  // Walks a chain up to the first key for which `stop` is true, and answers its slot with the value
  // in scratch_; kNoSlot at the end of the chain. `key` is the one asked for, for texts. Raises
  // CorruptionDetectedException.
  template <class Stop>
  std::uint32_t walk(const KEY& key, std::uint32_t bucket, const WalkTexts& texts,
                     const Stop& stop) const;
  const VALUE& find(const KEY& key, bool& found) const;
  // lookup() from the chain's head, null for one that is not mapped. `own` must not lie in
  // scratch_.
  const VALUE& lookupFrom(const SlotRef* head, const KEY& own, bool& found) const;
  const VALUE& lookupAgain(KEY key, bool& found) const;
  bool doFirst(std::uint32_t bucket, VALUE& value, IterHint& hint) const;
  // False: the hint does not hold.
  bool hintedNext(const KEY& key, VALUE& value, IterHint& hint, bool& answer) const;
  bool walkToNext(const KEY& key, VALUE& value, IterHint& hint) const;

  bool attach();
  void unmap();

  RootPath root_;
  BucketReaderTable buckets_;
  mutable Slots slots_;
  mutable Reader::Counters counters_;
  std::uint32_t fenix_ = 0;
  mutable VALUE scratch_{};
};

}  // namespace Quill

#include "quill/QuillReader-inl.h"
