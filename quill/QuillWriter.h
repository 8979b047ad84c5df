// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillWriter: the one object that changes a table. It joins buckets, slots and queue, and
// carries out the protocol that lets readers go without locks: no reader blocks the writer, the
// writer waits for no reader, and no reader sees half a value or follows a link into a wrong chain
// unawares. The order of the stores is the design; quill/README.md numbers it.
//
// Belongs to one thread of one process, the writer lock sees to the process. No operation is
// re-entrant. Addresses that an operation returns are valid until the next change.
//
// Every change raises Sable::MemoryResourceException if there is no room to grow, and
// CorruptionDetectedException if what its walk meets contradicts itself: the table is as it was
// then. Damage that is found in the queue, or a file that has become shorter, is told in the same
// way after the change was made.
//
// Invariants, beside those of the tables:
//  1. A link changes by one 64-bit store that raises its version by one.
//  2. flags never return to a former value while a value is being stored.
//  3. A slot is whole before a link to it is stored; a link away from it is stored before the slot
//  is
//     touched.
#pragma once

#include <string>
#include <string_view>

#include "quill/BucketTable.h"
#include "quill/ConquerWriter.h"
#include "quill/QuillBase.h"
#include "quill/RootPath.h"
#include "quill/SlotWriterTable.h"
#include "quill/ValidatorBase.h"

namespace Quill {

template <class Key, class Value>
class Validator;

template <class Key, class Value>
class QuillWriter : public QuillBase<Key, Value> {
 public:
  // Records only. `name` as RootPath takes it; `maxSlots` is the size for which the table is made,
  // a soft limit; `localMem`: anonymous memory, no files, no readers. Raises
  // Sable::InvalidInitializeException for a name that cannot be.
  QuillWriter(Sable::Platform::DebugHandler& handler, const char* name, unsigned maxSlots,
              bool localMem, std::string classTypeName);
  ~QuillWriter() override;

  // Takes the writer lock, attaches the files, taking over what is there if it is sound, and begins
  // to listen to readers. Needs a current activity loop unless local. Answers true; raises
  // Sable::InvalidInitializeException (its text names the owner if another writer lives),
  // Sable::MemoryResourceException, Sable::RuntimeException; nothing is held then.
  bool initialize() override;
  void detach() override;
  bool validate() override;
  bool validateFiles() override;
  void cleanup() override;

  const Value* write(const Value& value, bool overwrite) override;
  bool remove(const Key& key, Value& old) override;
  const Value& lookup(const Key& key, bool& found) const override;
  bool first(Value& value, IterHint& hint) const override { return first(0, value, hint); }
  bool next(const Key& key, Value& value, IterHint& hint) const override;
  bool first(std::uint32_t bucket, Value& value, IterHint& hint) const;

  // A pair: the caller fills in the value at the address given, then commits. Readers see the old
  // value, or none, until then. One may be open at a time and no other change may come between:
  // each raises Sable::RuntimeException.
  DirectTarget directWrite(const Key& key) override;
  void directCommit() override;

  unsigned members() const override { return slots_.occupiedSlots(); }
  unsigned maxSize() const override { return slots_.maxSlots(); }
  unsigned capacity() const override { return slots_.capacity(); }
  QuillType type() const override { return QuillType::writer; }
  Writer::Counters writerCounters() const override;
  std::uint64_t sequence() const override { return counters_.lastSequence; }
  std::string rootPath() const override { return root_.rootPath(); }
  std::string quillName() const override { return root_.quillName(); }
  unsigned mountStatus() const override { return !localMem_ && this->initialized_ ? 1 : 0; }
  unsigned fenixId() const override { return fenix_; }

  // Readers that are connected now, and whether those of a former life are waited for.
  unsigned connectedReaders() const noexcept { return conquer_.connectedReaders(); }
  bool waitingForReaders() const noexcept { return conquer_.waitingForReaders(); }

 private:
  friend class Validator<Key, Value>;

  void attach();
  // The four files, under `fenix_`. True if one of them belonged to another generation.
  bool attachFiles();
  std::uint32_t bucketOf(const Key& key) const {
    return buckets_.bucketOf(static_cast<std::uint32_t>(key.hash()));
  }
  Key keyAt(const Slot<Value>& slot) const noexcept;
  bool isOccupied(const Slot<Value>& slot) const noexcept {
    return (slot.flags.load(Mem::relaxed) & kOccupied) != 0;
  }
  // The stored value as the writer, which alone changes it, may see it.
  static const Value* valueIn(const Slot<Value>& slot) noexcept;
  // `curr` comes in as the bucket's head. True: `next` is the key's slot and `curr` the link to it.
  // False: `curr` is the link after which the key belongs. `index` is the slot that `curr` names.
  bool find(const Key& key, std::uint32_t bucket, SlotRef*& curr, Slot<Value>*& next,
            std::uint32_t& index) const;
  // The operations that the texts of a walk's three tests name.
  struct WalkNames {
    const char* cycle;
    const char* occupied;
    const char* corrupt;
  };
  static constexpr WalkNames kFindNames{"find", "find", "find"};
  static constexpr WalkNames kLookupNames{"lookup", "lookup", "lookup"};
  static constexpr WalkNames kNextNames{"next", "lookup", "find"};
  // One step of a walk: counts it and tests the slot that a link names.
  Slot<Value>& slotOnChain(std::uint32_t index, std::uint32_t& steps, const WalkNames& names) const;
  // Tests that a key on the chain of `bucket` belongs there. A key that was asked for does.
  void requireInBucket(const Key& key, std::uint32_t index, std::uint32_t bucket,
                       const WalkNames& names) const {
    if (bucketOf(key) != bucket) [[unlikely]]
      keyOfOtherBucket(index, names);
  }
  [[noreturn]] void cycleOnChain(std::uint32_t steps, const WalkNames& names) const;
  [[noreturn]] void freeOnChain(std::uint32_t index, const WalkNames& names) const;
  [[noreturn]] void keyOfOtherBucket(std::uint32_t index, const WalkNames& names) const;
  // alloc(), with `curr` and `scratch` kept right if the region moves.
  std::uint32_t allocKeeping(SlotRef*& curr, Slot<Value>*& scratch);
  // The flags that a change begins with. No writer leaves LOOKASIDE on a free slot; if somebody
  // else did, it would be set, and readers sent to `lookaside`, for as long as the slot is in use.
  static std::uint32_t flagsToChange(const Slot<Value>& slot) noexcept;
  void storeValue(Slot<Value>& slot, const Value& value) noexcept;
  // What an iteration gives out.
  void handOut(std::uint32_t slot, Value& value) const;
  void requireNoDirectWrite(const char* operation) const;
  void abandonDirectWrite() noexcept;
  // Raises if a file became shorter than its mapping: what was stored may be lost.
  void requireFiles() const;
  [[noreturn]] void filesTruncated() const;

  RootPath root_;
  bool localMem_;
  std::uint32_t fenix_ = 0;
  std::uint32_t directSlot_ = kNoSlot;
  SlotRef* directRef_ = nullptr;
  bool directNew_ = false;
  Writer::Counters counters_;
  BucketWriterTable buckets_;
  SlotWriterTable<Value> slots_;
  ConquerWriter<Value> conquer_;
  ValidatorBase noValidator_;
  ValidatorBase* validator_ = &noValidator_;
};

}  // namespace Quill

#include "quill/QuillWriter-inl.h"
#include "quill/QuillWriterAttach-inl.h"
