// SPDX-License-Identifier: Apache-2.0
//
// A value that tells by itself whether it is whole: each of its words follows from its key and its
// counter. A mixture of two values, or a value of another key, has words that do not. It is large,
// so that there is time to look at it, or to die, while it is being stored. And the keys of the
// histories: few, so that they meet, and three long chains, so that places in them matter.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string_view>

#include "tests/quill/Records.h"

namespace QuillTest {

struct CheckedRecord {
  static constexpr std::string_view kTypeName = "QuillTest::CheckedRecord";

  Number key;
  std::uint32_t counter = 0;
  std::array<std::uint32_t, 57> words{};

  bool whole() const noexcept;
  friend bool operator==(const CheckedRecord&, const CheckedRecord&) = default;
};
static_assert(sizeof(CheckedRecord) == 236);

inline CheckedRecord checkedRecord(std::uint32_t key, std::uint32_t counter) noexcept {
  CheckedRecord record{{key}, counter, {}};
  std::uint32_t word = key * 0x9E3779B9U + counter;
  for (std::uint32_t& each : record.words) {
    word ^= word << 13;  // xorshift: no two counters of a key have a word in common
    word ^= word >> 17;
    word ^= word << 5;
    each = word;
  }
  return record;
}

inline bool CheckedRecord::whole() const noexcept {
  return *this == checkedRecord(key.value, counter);
}

inline std::ostream& operator<<(std::ostream& out, const CheckedRecord& record) {
  return out << record.key << ": " << record.counter;
}

// Keys of one thousand share a bucket.
inline std::uint32_t historyKey(std::uint32_t index) noexcept {
  return index % 3 * 1000 + index / 3 + 1;
}

}  // namespace QuillTest
