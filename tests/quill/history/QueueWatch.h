// SPDX-License-Identifier: Apache-2.0
//
// Tells when a compaction drops a notification that a connected reader has not passed. The place
// where a compaction cuts is fixed by a rule: when the sequence up to which all readers have come
// is in the queue no more, the entry above it can go as well, and with it, for a reader that has
// not come so far, the news of one slot. A history knows by this class when that has happened, and
// does not ask the impossible of its shadows.
//
// Looks at the files before and after one change of the table, by their bytes alone.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "tests/quill/RawFile.h"

namespace QuillTest {

class QueueWatch {
 public:
  explicit QueueWatch(const std::string& directory) : directory_(directory) {
    const std::string file = current();
    if (number<std::uint32_t>(file, kCurrentPos) >= number<std::uint32_t>(file, kCapacity)) {
      before_ = liveEntries(file);
    }
  }

  // Asked after the change. An entry was dropped that a reader may not have passed: one above what
  // the file says that all have passed, and above `passed`, if more is known of them.
  bool droppedTooEarly(std::uint64_t passed = 0) const {
    if (before_.empty()) return false;
    passed = std::max(passed, RawFile(directory_ + "/conquer.1").u64(kMinSeq));
    const std::map<std::uint32_t, std::uint64_t> after = liveEntries(current());
    for (const auto& [slot, sequence] : before_) {
      if (sequence > passed && !after.contains(slot)) return true;
    }
    return false;
  }

 private:
  // Byte offsets, as docs/formats.md has them.
  static constexpr std::uint64_t kMinSeq = 16;
  static constexpr std::uint64_t kCurrentTable = 36;
  static constexpr std::uint64_t kCapacity = 44;
  static constexpr std::uint64_t kCurrentPos = 48;
  static constexpr std::uint64_t kEntries = 52;
  static constexpr std::uint64_t kEntrySize = 12;

  // At one go: a queue has hundreds of entries.
  std::string current() const {
    const bool second = RawFile(directory_ + "/conquer.1").u32(kCurrentTable) != 0;
    return RawFile(directory_ + (second ? "/conquer.2" : "/conquer.1")).all();
  }
  template <class T>
  static T number(const std::string& file, std::uint64_t offset) {
    T value{};
    if (offset + sizeof value <= file.size()) {
      std::memcpy(&value, file.data() + offset, sizeof value);
    }
    return value;
  }
  // The sequence of each slot's live entry.
  static std::map<std::uint32_t, std::uint64_t> liveEntries(const std::string& file) {
    std::map<std::uint32_t, std::uint64_t> live;
    const auto count = number<std::uint32_t>(file, kCurrentPos);
    for (std::uint32_t pos = 0; pos < count; ++pos) {
      const std::uint64_t at = kEntries + kEntrySize * pos;
      const auto slot = number<std::uint32_t>(file, at + 8);
      if (slot != 0xFFFFFFFFU) live[slot] = number<std::uint64_t>(file, at);
    }
    return live;
  }

  std::string directory_;
  std::map<std::uint32_t, std::uint64_t> before_;  // empty: the change compacts nothing
};

}  // namespace QuillTest
