// SPDX-License-Identifier: Apache-2.0
//
// The files `conquer.1` and `conquer.2` of a table: its notification queue, an append-only log of
// (sequence, slot) pairs of which one file at a time is current. Here stand the layout and what
// writer and reader share; docs/formats.md describes the files field by field.
//
// An object belongs to one thread. One process, the writer, stores; any process loads.
//
// Invariants of the current table:
//  1. Entries below currentPos are complete; an entry is filled in before currentPos passes it.
//  2. Sequences strictly ascend with position.
//  3. A slot's conquerSlot is the position of its one live entry; the only change to an entry below
//     currentPos is that its slot becomes kNoSlot, a tombstone.
//  4. The table that is not current may be rewritten at will.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "quill/QuillMem.h"
#include "runtime/mem/Atomics.h"
#include "runtime/sable/Platform.h"

namespace Quill {

class Conquer : protected Sable::Debuggable {
 public:
  static constexpr std::uint32_t kHeaderSize = 56;  // up to the first entry, and 4 bytes at the end
  static constexpr std::uint32_t kEntrySize = 12;
  static constexpr std::uint32_t kVersion = 6;
  static constexpr std::string_view kMagic = "QUILLCQR";
  static constexpr std::uint64_t kNoSequence = 0xFFFFFFFFFFFFFFFFU;

  // Names the file, not its role: `conquer.1` and `conquer.2`.
  enum ConquerTableId : std::uint32_t { primary = 0, secondary = 1 };

  // On a 4-byte boundary: the sequence is two halves. Whole once currentPos has passed it.
  struct Entry {
    std::uint64_t sequence() const noexcept {
      return std::uint64_t{high.load(Mem::relaxed)} << 32 | low.load(Mem::relaxed);
    }
    void sequenceIs(std::uint64_t value) noexcept {
      low.store(static_cast<std::uint32_t>(value), Mem::release);
      high.store(static_cast<std::uint32_t>(value >> 32), Mem::release);
    }

    Mem::SharedU32 low;
    Mem::SharedU32 high;
    Mem::SharedU32 slot;  // kNoSlot: a tombstone
  };

  // The part of a file from offset 40 on.
  struct Table {
    Entry* entries() noexcept { return const_cast<Entry*>(std::as_const(*this).entries()); }
    const Entry* entries() const noexcept {
      return reinterpret_cast<const Entry*>(reinterpret_cast<const char*>(this) + kEntriesOffset);
    }

    static constexpr std::size_t kEntriesOffset = 12;
    Mem::SharedVerU32 notifications;  // version from 1 on; entries that the file has room for
    Mem::SharedU32 currentPos;        // entries in use
  };

  struct Header {
    // False with the first thing that is wrong in `message`. `fenix` must match, 0 too.
    bool validate(std::uint32_t fileSize, std::uint32_t fenix, std::string& message) const;

    Mem::SharedU64 magic;
    Mem::SharedU32 version;
    Mem::SharedU32 fenix;
    // These three count in conquer.1 alone.
    Mem::SharedU64 minSeq;           // notifications up to this one are gone
    Mem::SharedU32 numReaders;       // readers that the writer counts as connected
    Mem::SharedU32 reserved;         // never written
    Mem::SharedVerU32 currentTable;  // version ("table generation"), ConquerTableId
    Table table;
  };

  // Bytes of a file for `notifications` entries.
  static constexpr std::uint64_t fileSize(std::uint64_t notifications) noexcept {
    return notifications * kEntrySize + kHeaderSize;
  }

  Conquer(const Conquer&) = delete;
  Conquer& operator=(const Conquer&) = delete;
  virtual ~Conquer() = default;

  // Loads which table is current and points at it. Raises CorruptionDetectedException for an id
  // that is none. REQUIRES: both files are attached.
  void getTable();

 protected:
  Conquer(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem);

  // Points at what is mapped, or at nothing.
  void regionIs(ConquerTableId id, void* base) noexcept;
  // Unmaps both files and points at nothing.
  void detachRegions();
  void traceHeader(const Header& header) const;

  const RootPath* conquerRoot_;
  Mem::VerU32 currentTable_;  // as last loaded: generation and id
  Table* current_ = nullptr;
  Table* other_ = nullptr;
  std::array<QuillMem, 2> mems_;
  std::array<Header*, 2> headers_{};
  std::array<Table*, 2> tables_{};
};

static_assert(offsetof(Conquer::Header, magic) == 0);
static_assert(offsetof(Conquer::Header, version) == 8);
static_assert(offsetof(Conquer::Header, fenix) == 12);
static_assert(offsetof(Conquer::Header, minSeq) == 16);
static_assert(offsetof(Conquer::Header, numReaders) == 24);
static_assert(offsetof(Conquer::Header, currentTable) == 32);
static_assert(offsetof(Conquer::Header, table) == 40);
static_assert(offsetof(Conquer::Table, notifications) == 0);
static_assert(offsetof(Conquer::Table, currentPos) == 8);
static_assert(sizeof(Conquer::Entry) == Conquer::kEntrySize && alignof(Conquer::Entry) == 4);
static_assert(offsetof(Conquer::Entry, slot) == 8);

}  // namespace Quill
