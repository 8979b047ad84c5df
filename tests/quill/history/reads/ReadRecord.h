// SPDX-License-Identifier: Apache-2.0
//
// A value each of whose 64-bit words follows from its key and its version, and no word of which
// stands in any other value of any key: so one that is mixed of two, or belongs elsewhere, is
// recognised, and its version says how old it is. Checking one costs a few nanoseconds.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string_view>

#include "tests/quill/history/KeyVersions.h"

namespace QuillTest {

// A few keys share a bucket, whose chain they walk among others that come and go.
struct ReadKey {
  std::uint32_t value = 0;

  std::uint32_t hash() const noexcept { return value; }
  friend bool operator==(const ReadKey&, const ReadKey&) = default;
  friend auto operator<=>(const ReadKey&, const ReadKey&) = default;
  friend std::ostream& operator<<(std::ostream& out, const ReadKey& key) {
    return out << key.value;
  }
};

template <unsigned kWords>
struct ReadRecord {
  static constexpr std::string_view kTypeName = "QuillTest::ReadRecord";

  ReadKey key;
  std::uint32_t version = 0;
  std::array<std::uint64_t, kWords> words{};

  static ReadRecord of(std::uint32_t key, std::uint32_t version) noexcept {
    ReadRecord record{{key}, version, {}};
    for (unsigned i = 0; i < kWords; ++i) record.words[i] = word(key, version, i);
    return record;
  }
  bool whole() const noexcept {
    std::uint64_t differences = 0;
    for (unsigned i = 0; i < kWords; ++i) differences |= words[i] ^ word(key.value, version, i);
    return differences == 0;
  }
  friend bool operator==(const ReadRecord&, const ReadRecord&) = default;
  friend std::ostream& operator<<(std::ostream& out, const ReadRecord& record) {
    return out << record.key << ": " << record.version;
  }

 private:
  // One to one from (key, version), for each place.
  static std::uint64_t word(std::uint32_t key, std::uint32_t version, unsigned place) noexcept {
    const std::uint64_t number = std::uint64_t{key} << 32 | version;
    return (mixed(number) + place) * 0x9E3779B97F4A7C15U;
  }
};

}  // namespace QuillTest
