// SPDX-License-Identifier: Apache-2.0
//
// Values of two sizes under keys of interfaces. Each word of a value follows from its key and its
// counter, so that a mixture of two values is known by itself.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <ostream>
#include <string_view>
#include <type_traits>
#include <vector>

#include "runtime/portus/IntfId.h"

namespace QuillTest {

// The name of the smaller one is that of the real table, so that a checker knows its keys.
template <unsigned kWords>
struct KillRecord {
  static constexpr std::string_view kTypeName =
      kWords == 3 ? "Ringward::Status::CounterIntf" : "QuillTest::KillRecord";

  Portus::IntfId key;
  std::array<std::uint32_t, kWords> words{};

  friend bool operator==(const KillRecord&, const KillRecord&) = default;
};

using SmallRecord = KillRecord<3>;   // 97 slots in a page
using LargeRecord = KillRecord<57>;  // 14 slots in a page, and thirty stores for a value
static_assert(sizeof(SmallRecord) == 20 && sizeof(LargeRecord) == 236);

template <class Record>
Record killRecord(const Portus::IntfId& key, std::uint32_t counter) {
  Record record{key, {}};
  std::uint32_t word = key.hash() * 0x9E3779B9U ^ counter;
  for (std::uint32_t& each : record.words) {
    word = (word ^ word >> 15) * 0x85EBCA6BU + counter;
    each = word;
  }
  record.words[0] = counter;
  return record;
}

template <unsigned kWords>
std::ostream& operator<<(std::ostream& out, const KillRecord<kWords>& record) {
  return out << record.key << ": " << record.words[0];
}

// A table's contents: the counter under each key.
using KillModel = std::map<Portus::IntfId, std::uint32_t>;

// The keys of all tables here: first three chains of kChain keys that share a bucket each, then
// kSpread others. Each chain in the order of its keys.
struct KillKeys {
  static constexpr unsigned kChains = 3;
  static constexpr unsigned kChain = 7;
  static constexpr unsigned kSpread = 240;
  static constexpr unsigned kBuckets = 509;  // of every table that is made for up to 254 slots

  static const std::vector<Portus::IntfId>& all();
};

}  // namespace QuillTest
