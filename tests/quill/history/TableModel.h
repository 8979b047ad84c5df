// SPDX-License-Identifier: Apache-2.0
//
// What a table should hold, as a plain map from keys to counters, and how an observer's view of a
// table is compared with it. Belongs to one thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "quill/QuillBase.h"
#include "tests/quill/history/CheckedRecord.h"

namespace QuillTest {

using TableModel = std::map<std::uint32_t, std::uint32_t>;

// Raised by every check of a history.
[[noreturn]] inline void wrong(const std::string& text) { throw std::logic_error(text); }

inline std::string textOf(const TableModel& model, std::uint32_t key) {
  const auto found = model.find(key);
  return found == model.end() ? "none" : std::to_string(found->second);
}

// The keys of which two models say something different.
inline std::set<std::uint32_t> changedKeys(const TableModel& before, const TableModel& after) {
  std::set<std::uint32_t> keys;
  for (const auto& [key, counter] : before) {
    if (textOf(after, key) != textOf(before, key)) keys.insert(key);
  }
  for (const auto& [key, counter] : after) {
    if (!before.contains(key)) keys.insert(key);
  }
  return keys;
}

// Compares two models; `who` had the first.
inline void requireSame(const std::string& who, const TableModel& seen, const TableModel& model) {
  const auto keys = changedKeys(seen, model);
  if (keys.empty()) return;
  wrong(who + " sees " + std::to_string(seen.size()) + " entries of " +
        std::to_string(model.size()) + " and differs in " + std::to_string(keys.size()) +
        " keys, first in key " + std::to_string(*keys.begin()) + ": " +
        textOf(seen, *keys.begin()) + " instead of " + textOf(model, *keys.begin()));
}

// Raises for a value that is not whole or not the key's.
inline void requireWhole(const std::string& who, std::uint32_t key, const CheckedRecord& value) {
  if (value.key.value == key && value.whole()) return;
  wrong(who + " was given a value that is none, for key " + std::to_string(key) + ": key " +
        std::to_string(value.key.value) + " counter " + std::to_string(value.counter));
}

// Everything that an iteration of `table` gives out. Raises for a key that comes twice and for one
// out of order within its bucket.
template <class Table>
TableModel contentsOf(const std::string& who, const Table& table) {
  TableModel seen;
  CheckedRecord value;
  Quill::IterHint hint;
  std::uint32_t last = 0;
  for (bool more = table.first(value, hint); more; more = table.next(value.key, value, hint)) {
    const std::uint32_t key = value.key.value;
    requireWhole(who, key, value);
    if (key / 1000 == last / 1000 && key <= last) {
      wrong(who + " iterates from key " + std::to_string(last) + " to " + std::to_string(key));
    }
    if (!seen.emplace(key, value.counter).second) {
      wrong(who + " iterates twice over key " + std::to_string(key));
    }
    last = key;
  }
  return seen;
}

// Keeps the keys that it is told of.
struct KeySet {
  void notify(const Number& key) { keys.insert(key.value); }
  std::set<std::uint32_t> keys;
};

// Raises if a key of `keys` was not told of.
inline void requireTold(const std::string& who, const std::set<std::uint32_t>& keys,
                        const std::set<std::uint32_t>& told) {
  for (const std::uint32_t key : keys) {
    if (!told.contains(key)) wrong(who + " was not told of key " + std::to_string(key));
  }
}

}  // namespace QuillTest
