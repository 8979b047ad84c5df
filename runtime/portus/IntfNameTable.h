// SPDX-License-Identifier: Apache-2.0
//
// Portus::IntfNameTable: remembers the names of the identifiers that hold only a hash, so that they
// can be read back.
//
// One table serves the whole process (IntfId.cc); several complete systems in one process can share
// it because it only remembers results of a pure function: what is in it never changes what an
// identifier is, only how an identifier prints. Safe from any thread. Owns copies of the names.
//
// Invariants:
//  1. An entry never changes and never goes away.
//  2. Two names never stand under one identifier.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Portus {

class IntfNameTable {
 public:
  explicit IntfNameTable(std::size_t maxNames) : maxNames_(maxNames) {}

  IntfNameTable(const IntfNameTable&) = delete;
  IntfNameTable& operator=(const IntfNameTable&) = delete;

  // Remembers that `name` gives `value`; nothing happens if it is known. Raises RangeException, and
  // changes nothing, when `value` belongs to another name or the table is full.
  void nameIs(std::uint64_t value, std::string_view name);

  std::optional<std::string> name(std::uint64_t value) const;
  std::size_t size() const;

 private:
  const std::size_t maxNames_;
  mutable std::mutex mutex_;
  std::unordered_map<std::uint64_t, std::string> names_;  // guarded by mutex_
};

}  // namespace Portus
