// SPDX-License-Identifier: Apache-2.0
//
// The files of a table as they stand at one moment, and what follows from their bytes alone by
// docs/formats.md: whether the table is at rest, and what it holds. Shares nothing with the code
// that it judges but the hash of a key.
//
// Values; belong to whoever holds them.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/portus/IntfId.h"

namespace QuillTest {

class Image {
 public:
  enum File : unsigned { slots, buckets, conquer1, conquer2 };
  static constexpr std::array<const char*, 4> kNames{"slots", "buckets", "conquer.1", "conquer.2"};

  // The id of every table with a history, so that its bytes are the same in every process.
  static constexpr std::uint32_t kFenix = 0x51000001;

  // The directory as it is; empty if there is none. A socket counts as a file without contents.
  static Image of(const std::string& directory);
  // Makes the directory hold this, in the same files where they exist: whoever has mapped them sees
  // it. `lock` stays.
  void put(const std::string& directory) const;

  std::optional<std::string>& mapped(unsigned file) { return mapped_[file]; }
  const std::optional<std::string>& mapped(unsigned file) const { return mapped_[file]; }
  // The mapped files alone are compared by hash(); ids that depend on the process are left out.
  std::uint64_t hash() const;
  friend bool operator==(const Image&, const Image&) = default;

  // What `fenix` says; 0: nothing.
  std::uint32_t fenix() const;
  // Whether everything holds that holds at rest; `why` says what does not.
  bool atRest(std::string* why = nullptr) const;
  // The last sequence of the current table. REQUIRES: atRest().
  std::uint64_t sequence() const;
  // Entries that the current table has room for. REQUIRES: atRest().
  std::uint64_t queueRoom() const;
  // Key and whole value of every entry. REQUIRES: atRest().
  std::map<Portus::IntfId, std::string> contents() const;

 private:
  friend class RestCheck;
  std::array<std::optional<std::string>, 4> mapped_;
  std::map<std::string, std::string> others_;
};

}  // namespace QuillTest
