// SPDX-License-Identifier: Apache-2.0
//
// Bodies of SlotTable.h.
#pragma once

#include <cstring>

#include "quill/SlotTable.h"
#include "quill/Text.h"
#include "quill/Util.h"
#include "runtime/sable/TypeName.h"

namespace Quill {

namespace Detail {

// The eight characters of a magic as they are loaded in one word.
constexpr std::uint64_t magicWord(std::string_view text) noexcept {
  std::uint64_t word = 0;
  for (std::size_t i = 0; i < 8; ++i) {
    word |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
  }
  return word;
}

// `name` in a field of its own, padded with NULs. Raises if it does not fit: `what` begins the
// text.
inline std::array<char, kTypeNameSize> typeNameField(const char* what, const std::string& name) {
  if (name.size() >= kTypeNameSize) {
    raise<Sable::InvalidInitializeException>(what, name, " exceeds ", kTypeNameSize, " characters");
  }
  std::array<char, kTypeNameSize> field{};
  std::memcpy(field.data(), name.data(), name.size());
  return field;
}

inline std::uint32_t hashOf(std::uint32_t number) noexcept {
  std::array<char, sizeof number> bytes;
  std::memcpy(bytes.data(), &number, sizeof number);
  return Util::hash(bytes.data(), sizeof number);
}

}  // namespace Detail

template <class VALUE>
SlotTable<VALUE>::HeaderCopy::HeaderCopy(const Header& header) noexcept {
  // [O7] numSlots first and its version last: the loads between see one state of a growth, or the
  // version tells. Pairs with the release of numSlots in SlotWriterTable::grow().
  do {
    numSlots = header.numSlots.load(Mem::acquire);
    magic = header.magic.load(Mem::acquire);
    version = header.version.load(Mem::acquire);
    fenix = header.fenix.load(Mem::acquire);
    header.valueType.copyOut(valueType.data());
    header.classType.copyOut(classType.data());
    valueSize = header.valueSize.load(Mem::acquire);
    slotSize = header.slotSize.load(Mem::acquire);
    maxSlots = header.maxSlots.load(Mem::acquire);
    hash = header.hash.load(Mem::acquire);
    occupiedSlots = header.occupiedSlots.load(Mem::acquire);
    freeSlots = header.freeSlots.load(Mem::acquire);
  } while (numSlots.version != header.numSlots.version(Mem::relaxed));
}

template <class VALUE>
std::uint32_t SlotTable<VALUE>::HeaderCopy::computedHash() const noexcept {
  return Util::hash(valueType.data(), kTypeNameSize) + Util::hash(classType.data(), kTypeNameSize) +
         Detail::hashOf(valueSize) + Detail::hashOf(slotSize) + Detail::hashOf(maxSlots);
}

template <class VALUE>
bool SlotTable<VALUE>::HeaderCopy::validate(std::uint32_t fileSize, std::uint32_t wantedFenix,
                                            std::string& message) const {
  const auto wrong = [&message](const auto&... parts) {
    message = textOf(parts...);
    return false;
  };
  if (fileSize < kHeaderSize) {
    return wrong("SlotTable::Header::validate() bad header file size: ", fileSize,
                 " wanted:", kHeaderSize);
  }
  if (magic != Detail::magicWord(kMagic)) {
    return wrong("SlotTable::Header::validate() bad magic: ", std::hex, magic);
  }
  if (version != kVersion) {
    return wrong("SlotTable::Header::validate() bad version: ", version);
  }
  if (wantedFenix != 0 && fenix != wantedFenix) {
    return wrong("SlotTable::validate() bad fenix:", fenix, " wanted:", wantedFenix);
  }
  if (const std::uint32_t computed = computedHash(); computed != hash) {
    return wrong("SlotTable::Header::validate() checksum fail: ", computed, " != ", hash);
  }
  if (occupiedSlots > numSlots.value) {
    return wrong("SlotTable::Header::validate() bad occupiedSlots: ", occupiedSlots,
                 " num slots: ", numSlots);
  }
  if (freeSlots != kNoSlot && freeSlots >= numSlots.value) {
    return wrong("SlotTable::Header::validate() bad freeSlots: ", freeSlots,
                 " slots: ", numSlots.value);
  }
  if (const std::uint64_t wanted = SlotTable::fileSize(numSlots.value); fileSize < wanted) {
    return wrong("SlotTable::Header::validate() bad shmem size:", fileSize, " wanted:", wanted,
                 " for ", numSlots.value, " slots");
  }
  return true;
}

template <class VALUE>
void SlotTable<VALUE>::freshSlot(Slot<VALUE>& slot) noexcept {
  const VALUE fresh{};
  slot.ref.store({0, kNoSlot}, Mem::release);
  slot.conquerSlot.store(kNoSlot, Mem::release);
  slot.flags.store(0, Mem::release);
  slot.value.copyIn(&fresh);
}

template <class VALUE>
typename SlotTable<VALUE>::Header* SlotTable<VALUE>::Header::format(
    void* region, std::uint32_t numSlots, std::uint32_t maxSlots, std::uint32_t fenix,
    const std::string& classTypeName) {
  static_assert(offsetof(Header, magic) == 0 && offsetof(Header, version) == 8);
  static_assert(offsetof(Header, fenix) == 12 && offsetof(Header, valueType) == 16);
  static_assert(offsetof(Header, classType) == 80 && offsetof(Header, valueSize) == 144);
  static_assert(offsetof(Header, slotSize) == 148 && offsetof(Header, maxSlots) == 152);
  static_assert(offsetof(Header, hash) == 156 && offsetof(Header, occupiedSlots) == 160);
  static_assert(offsetof(Header, freeSlots) == 164 && offsetof(Header, numSlots) == 168);
  static_assert(offsetof(Header, lookaside) == 176 && sizeof(Header) == kHeaderSize);
  static_assert(offsetof(Slot<VALUE>, ref) == 0 && offsetof(Slot<VALUE>, conquerSlot) == 8);
  static_assert(offsetof(Slot<VALUE>, flags) == 12 && offsetof(Slot<VALUE>, value) == 16);
  static_assert(sizeof(Slot<VALUE>) == 16 + (sizeof(VALUE) + 7) / 8 * 8);
  static_assert(std::is_standard_layout_v<Header> && std::is_trivially_copyable_v<Header>);

  HeaderCopy copy;
  copy.valueType =
      Detail::typeNameField("SlotTable::Header() value typename ", Sable::typeName<VALUE>());
  copy.classType = Detail::typeNameField("SlotTable::Header() class typename: ", classTypeName);
  copy.valueSize = sizeof(VALUE);
  copy.slotSize = kSlotSize;
  copy.maxSlots = maxSlots;

  auto* const header = static_cast<Header*>(region);
  header->magic.store(Detail::magicWord(kMagic), Mem::release);
  header->version.store(kVersion, Mem::release);
  header->fenix.store(fenix, Mem::release);
  header->valueType.copyIn(copy.valueType.data());
  header->classType.copyIn(copy.classType.data());
  header->valueSize.store(copy.valueSize, Mem::release);
  header->slotSize.store(copy.slotSize, Mem::release);
  header->maxSlots.store(maxSlots, Mem::release);
  header->hash.store(copy.computedHash(), Mem::release);
  header->occupiedSlots.store(0, Mem::release);
  header->freeSlots.store(kNoSlot, Mem::release);
  header->numSlots.store({0, numSlots}, Mem::release);
  for (std::uint32_t i = 0; i < numSlots; ++i) freshSlot(header->slots()[i]);
  // Behind the slots: one that a dead writer left with LOOKASIDE up sends the readers of the old
  // table here until it is fresh itself, and zeros are a value that nobody wrote.
  freshSlot(header->lookaside);
  return header;
}

}  // namespace Quill
