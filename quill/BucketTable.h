// SPDX-License-Identifier: Apache-2.0
//
// The file `buckets` of a table: the heads of its hash chains. Here stand the layout, what writer
// and reader share, and both classes; docs/formats.md describes the file field by field.
//
// Objects belong to one thread. One process, the writer, stores; any process loads.
//
// Invariants:
//  1. The file neither grows nor moves while it is attached.
//  2. Every key of chain i has hash() % numBuckets == i; keys ascend along the chain.
//  3. A head changes by one 64-bit store that raises its version by one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "quill/Counters.h"
#include "quill/QuillMem.h"
#include "quill/Remainder.h"
#include "quill/SlotTable.h"
#include "runtime/mem/Atomics.h"
#include "runtime/sable/Platform.h"

namespace Quill {

class BucketTable : protected Sable::Debuggable {
 public:
  static constexpr std::uint32_t kHeaderSize = 24;
  static constexpr std::uint32_t kBucketSize = 8;
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::string_view kMagic = "QUILLBKT";

  struct Header {
    SlotRef* buckets() noexcept { return reinterpret_cast<SlotRef*>(this + 1); }
    // False with the first thing that is wrong in `message`. `fenix` 0: any generation will do.
    bool validate(std::uint32_t fileSize, std::uint32_t fenix, std::string& message) const;

    Mem::SharedU64 magic;
    Mem::SharedU32 version;
    Mem::SharedU32 fenix;
    Mem::SharedU32 numBuckets;
    Mem::SharedU32 ownerPid;  // who formatted the file
  };

  // Heads for a table of `maxSlots`: two for each slot and what the last page has room for.
  static std::uint32_t bucketsFor(std::uint32_t maxSlots, std::uint32_t pageSize) noexcept;

  BucketTable(const BucketTable&) = delete;
  BucketTable& operator=(const BucketTable&) = delete;
  virtual ~BucketTable() = default;

  void detach();
  // 0 for a reader that is detached.
  std::uint32_t numBuckets() const noexcept { return numBuckets_; }
  // The chain of a key with this hash: hash % numBuckets(); 0 while that is 0.
  std::uint32_t bucketOf(std::uint32_t hash) const noexcept { return remainder_(hash); }
  const Header* header() const noexcept { return header_; }
  const QuillMem& mem() const noexcept { return mem_; }

 protected:
  BucketTable(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem);
  void headsAre(std::uint32_t count) noexcept {
    numBuckets_ = count;
    remainder_ = Remainder(count);
  }
  // Takes `count` heads as there, as far as the mapping reaches.
  void countIs(std::uint32_t count) noexcept;

  QuillMem mem_;
  std::uint32_t numBuckets_ = 0;
  Remainder remainder_;          // by numBuckets_
  std::uint32_t highest_ = 0;    // highest valid index
  std::uint32_t reachable_ = 0;  // heads that lie in the mapping, at most numBuckets_
  Header* header_ = nullptr;
};

class BucketWriterTable final : public BucketTable {
 public:
  BucketWriterTable(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem,
                    std::uint32_t maxSlots, Writer::Counters& counters);

  // True only if it formatted an existing file anew. Raises Sable::InvalidInitializeException and
  // Sable::MemoryResourceException.
  bool attach(std::uint32_t fenix);
  void detach();
  // Raises CorruptionDetectedException for an index above the highest.
  SlotRef* getRef(std::uint32_t index) const {
    if (index >= reachable_) [[unlikely]]
      outOfRange(index);
    return header_->buckets() + index;
  }

 private:
  [[noreturn]] void outOfRange(std::uint32_t index) const;
  void format(std::uint32_t fenix);

  [[maybe_unused]] Writer::Counters* counters_;
  std::uint32_t wanted_;  // heads for the table's size
};

class BucketReaderTable final : public BucketTable {
 public:
  BucketReaderTable(Sable::Platform::DebugHandler& handler, const RootPath& root);

  // Maps the file as long as it is; the count of heads stays 0 until numBucketsIs(). False if there
  // is no file or it cannot be mapped.
  bool attach();
  // Takes the number of heads from a header that has been found valid.
  void numBucketsIs(std::uint32_t count) noexcept { countIs(count); }
  // Raises CorruptionDetectedException for an index above the highest.
  const SlotRef* getRef(std::uint32_t index) const {
    if (index >= reachable_) [[unlikely]]
      outOfRange(index);
    return header_->buckets() + index;
  }
  // Null in place of an exception.
  const SlotRef* peek(std::uint32_t index) const noexcept {
    return index < reachable_ ? header_->buckets() + index : nullptr;
  }

 private:
  [[noreturn]] void outOfRange(std::uint32_t index) const;
};

static_assert(sizeof(BucketTable::Header) == BucketTable::kHeaderSize);
static_assert(offsetof(BucketTable::Header, magic) == 0);
static_assert(offsetof(BucketTable::Header, version) == 8);
static_assert(offsetof(BucketTable::Header, fenix) == 12);
static_assert(offsetof(BucketTable::Header, numBuckets) == 16);
static_assert(offsetof(BucketTable::Header, ownerPid) == 20);
static_assert(sizeof(SlotRef) == BucketTable::kBucketSize);

}  // namespace Quill
