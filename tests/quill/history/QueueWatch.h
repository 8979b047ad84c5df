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

#include <cstdint>
#include <map>
#include <string>

#include "tests/quill/RawFile.h"

namespace QuillTest {

class QueueWatch {
 public:
  explicit QueueWatch(const std::string& directory) : directory_(directory) {
    const RawFile file = current();
    if (file.u32(kCurrentPos) >= file.u32(kCapacity)) before_ = liveEntries(file);
  }

  // Asked after the change.
  bool droppedTooEarly() const {
    if (before_.empty()) return false;
    const std::uint64_t minSeq = RawFile(directory_ + "/conquer.1").u64(kMinSeq);
    const std::map<std::uint32_t, std::uint64_t> after = liveEntries(current());
    for (const auto& [slot, sequence] : before_) {
      if (sequence > minSeq && !after.contains(slot)) return true;
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

  RawFile current() const {
    const bool second = RawFile(directory_ + "/conquer.1").u32(kCurrentTable) != 0;
    return RawFile(directory_ + (second ? "/conquer.2" : "/conquer.1"));
  }
  // The sequence of each slot's live entry.
  static std::map<std::uint32_t, std::uint64_t> liveEntries(const RawFile& file) {
    std::map<std::uint32_t, std::uint64_t> live;
    const std::uint32_t count = file.u32(kCurrentPos);
    for (std::uint32_t pos = 0; pos < count; ++pos) {
      const std::uint64_t at = kEntries + kEntrySize * pos;
      const std::uint32_t slot = file.u32(at + 8);
      if (slot != 0xFFFFFFFFU) live[slot] = file.u64(at);
    }
    return live;
  }

  std::string directory_;
  std::map<std::uint32_t, std::uint64_t> before_;  // empty: the change compacts nothing
};

}  // namespace QuillTest
