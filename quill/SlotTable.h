// SPDX-License-Identifier: Apache-2.0
//
// The file `slots` of a table: one header and an array of slots, each of which holds one entry.
// Here stand the layout and what writer and reader share; docs/formats.md describes the file field
// by field.
//
// Every field is a cell of runtime/mem/Atomics.h. One thread of one process, the writer, stores;
// any process loads.
//
// Invariants of the file:
//  1. Every slot is on exactly one list: a hash chain or the free list. Both run through `ref`.
//  2. A slot is never moved: its index names it for the life of the generation.
//  3. Within a generation the file only grows, and numSlots with it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "quill/QuillBase.h"
#include "quill/QuillMem.h"
#include "runtime/mem/Atomics.h"

namespace Quill {

// A link: the version and the index of the slot that follows, kNoSlot at the end.
using SlotRef = Mem::SharedVerU32;

// The bits of a slot's flags. The rest counts writes.
inline constexpr std::uint32_t kOccupied = 1;
inline constexpr std::uint32_t kLookaside = 2;

// Type names are stored in this many bytes, a NUL at the end included.
inline constexpr std::size_t kTypeNameSize = 64;

template <class VALUE>
struct Slot {
  SlotRef ref;                 // version; next slot of the chain or of the free list
  Mem::SharedU32 conquerSlot;  // the writer's own: where this slot's live notification stands
  Mem::SharedU32 flags;
  Mem::SharedBytes<sizeof(VALUE)> value;
};

template <class VALUE>
class SlotTable {
 public:
  static constexpr std::uint32_t kSlotSize = sizeof(Slot<VALUE>);
  static constexpr std::uint32_t kHeaderSize = 176 + kSlotSize;
  static constexpr std::uint32_t kVersion = 4;
  static constexpr std::string_view kMagic = "QUILLSLT";

  struct Header;

  // A process's own copy of a header, which cannot change while it is looked at.
  struct HeaderCopy {
    HeaderCopy() = default;
    // Copies until the copy holds no two states of a growth.
    explicit HeaderCopy(const Header& header) noexcept;

    // False with the first thing that is wrong in `message`. `fenix` 0: any generation will do.
    bool validate(std::uint32_t fileSize, std::uint32_t fenix, std::string& message) const;
    // The checksum over the fields that never change.
    std::uint32_t computedHash() const noexcept;

    std::uint64_t magic = 0;
    std::uint32_t version = 0;
    std::uint32_t fenix = 0;
    std::array<char, kTypeNameSize> valueType{};
    std::array<char, kTypeNameSize> classType{};
    std::uint32_t valueSize = 0;
    std::uint32_t slotSize = 0;
    std::uint32_t maxSlots = 0;
    std::uint32_t hash = 0;
    std::uint32_t occupiedSlots = 0;
    std::uint32_t freeSlots = 0;
    Mem::VerU32 numSlots;
  };

  struct Header {
    // Writes every field, the look-aside slot and `numSlots` slots, all fresh, at the beginning of
    // a region that has room for them. Raises Sable::InvalidInitializeException for a type name
    // that does not fit; nothing is written then.
    static Header* format(void* region, std::uint32_t numSlots, std::uint32_t maxSlots,
                          std::uint32_t fenix, const std::string& classTypeName);

    Slot<VALUE>* slots() noexcept { return reinterpret_cast<Slot<VALUE>*>(this + 1); }
    const Slot<VALUE>* slots() const noexcept {
      return reinterpret_cast<const Slot<VALUE>*>(this + 1);
    }

    Mem::SharedU64 magic;
    Mem::SharedU32 version;
    Mem::SharedU32 fenix;
    Mem::SharedBytes<kTypeNameSize> valueType;
    Mem::SharedBytes<kTypeNameSize> classType;
    Mem::SharedU32 valueSize;
    Mem::SharedU32 slotSize;
    Mem::SharedU32 maxSlots;
    Mem::SharedU32 hash;
    Mem::SharedU32 occupiedSlots;
    Mem::SharedU32 freeSlots;
    Mem::SharedVerU32 numSlots;
    Slot<VALUE> lookaside;
  };

  // What a slot holds before its first use.
  static void freshSlot(Slot<VALUE>& slot) noexcept;

  // Bytes of a file that holds `numSlots` slots.
  static constexpr std::uint64_t fileSize(std::uint64_t numSlots) noexcept {
    return kHeaderSize + kSlotSize * numSlots;
  }

  SlotTable(Sable::Platform::DebugHandler& handler, const RootPath& root, bool localMem)
      : debugHandler_(&handler), root_(&root), mem_(handler, root, "slots", localMem) {}
  SlotTable(const SlotTable&) = delete;
  SlotTable& operator=(const SlotTable&) = delete;
  virtual ~SlotTable() = default;

  virtual void detach() = 0;
  // Slots that this object knows of.
  virtual std::uint32_t capacity() const = 0;

  // Null while detached.
  const Header* header() const noexcept { return header_; }
  const QuillMem& mem() const noexcept { return mem_; }

 protected:
  template <class Format>
  void trace(unsigned level, Format&& format,
             const Vex::TracePlace& where = Vex::TracePlace::current()) const {
    debugHandler_->trace(level, format, where);
  }

  Sable::Platform::DebugHandler* debugHandler_;
  bool ownsHandler_ = false;  // the handler is always the table's
  const RootPath* root_;
  QuillMem mem_;
  Header* header_ = nullptr;
};

}  // namespace Quill

#include "quill/SlotTable-inl.h"
