// SPDX-License-Identifier: Apache-2.0
//
// Quill::ConquerNotifications: as much of one notification table as a reader has mapped.
//
// A value of one thread; the entries belong to whoever mapped the file and are valid as long as the
// mapping is.
//
// Invariant: an index is compared with the mapped capacity, never with what the file says now.
#pragma once

#include <cstdint>

#include "quill/ConquerTable.h"
#include "runtime/mem/Atomics.h"

namespace Quill {

class ConquerNotifications {
 public:
  // The capacity of a table of which only the first page is mapped: no version that a table starts
  // with, so that the first look maps it whole.
  static constexpr Mem::VerU32 kUnmapped{0xFFFFFFFFU, 0};

  ConquerNotifications() = default;
  // `word` is the table's `notifications` as mapped: its version and the capacity.
  ConquerNotifications(const Conquer::Table* table, Mem::VerU32 word) noexcept
      : table_(table), word_(word) {}

  // Raises CorruptionDetectedException for an index that is not mapped.
  const Conquer::Entry& operator[](std::uint32_t index) const {
    if (index >= word_.value) [[unlikely]]
      outOfRange(index);
    return table_->entries()[index];
  }
  std::uint32_t capacity() const noexcept { return word_.value; }
  std::uint32_t version() const noexcept { return word_.version; }

 private:
  [[noreturn]] void outOfRange(std::uint32_t index) const;

  const Conquer::Table* table_ = nullptr;
  Mem::VerU32 word_ = kUnmapped;
};

}  // namespace Quill
