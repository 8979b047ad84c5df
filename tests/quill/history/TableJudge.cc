// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/history/TableJudge.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

namespace QuillTest {

namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFF;

struct Unsound {
  std::string reason;
};

void require(bool holds, const char* rule) {
  if (!holds) throw Unsound{rule};
}

class Bytes {
 public:
  explicit Bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(file), {});
  }
  std::uint32_t u32(std::uint64_t at) const { return number<std::uint32_t>(at); }
  std::uint64_t u64(std::uint64_t at) const { return number<std::uint64_t>(at); }
  std::uint64_t size() const { return bytes_.size(); }
  bool begins(const char* text) const { return bytes_.rfind(text, 0) == 0; }
  const std::string& text() const { return bytes_; }

 private:
  template <class T>
  T number(std::uint64_t at) const {
    require(at + sizeof(T) <= bytes_.size(), "a file is too short");
    T value{};
    std::memcpy(&value, bytes_.data() + at, sizeof value);
    return value;
  }
  std::string bytes_;
};

class Table {
 public:
  Table(const std::string& directory, std::uint32_t fenix)
      : slots_(directory + "/slots"),
        buckets_(directory + "/buckets"),
        queue_{Bytes(directory + "/conquer.1"), Bytes(directory + "/conquer.2")},
        fenix_(fenix) {}

  void judge() {
    headers();
    lists();
    queue();
  }

 private:
  void headers() {
    require(slots_.begins("QUILLSLT") && slots_.u32(8) == 4, "slots: no header");
    require(buckets_.begins("QUILLBKT") && buckets_.u32(8) == 1, "buckets: no header");
    require(slots_.u32(12) == fenix_ && buckets_.u32(12) == fenix_, "another id");
    slotSize_ = slots_.u32(148);
    count_ = slots_.u32(172);
    numBuckets_ = buckets_.u32(16);
    require(slots_.size() >= 176 + slotSize_ * (count_ + 1), "slots: too short");
    require(buckets_.size() >= 24 + 8 * std::uint64_t{numBuckets_}, "buckets: too short");
    for (const Bytes& each : queue_) {
      require(each.begins("QUILLCQR") && each.u32(8) == 6, "queue: no header");
      require(each.u32(12) == fenix_, "queue: another id");
      require(each.size() >= 56 + 12 * std::uint64_t{each.u32(44)}, "queue: too short");
      require(each.u32(36) < 2, "queue: table id");
    }
  }
  std::uint64_t slot(std::uint32_t index) const {
    require(index < count_, "an index is too high");
    return 176 + slotSize_ + slotSize_ * index;
  }
  void lists() {
    std::vector<bool> listed(static_cast<std::size_t>(count_));
    const auto take = [&listed](std::uint32_t index) {
      require(!listed[index], "a slot is on two lists");
      listed[index] = true;
    };
    std::uint32_t occupied = 0;
    for (std::uint32_t bucket = 0; bucket < numBuckets_; ++bucket) {
      std::uint64_t last = 0;
      for (std::uint32_t at = buckets_.u32(24 + 8 * std::uint64_t{bucket} + 4); at != kNone;
           at = slots_.u32(slot(at) + 4)) {
        const std::uint32_t flags = slots_.u32(slot(at) + 12);
        take(at);
        ++occupied;
        require((flags & 1) != 0, "a slot on a chain is not occupied");
        require((flags & 2) == 0, "LOOKASIDE is left");
        const std::uint32_t key = slots_.u32(slot(at) + 16);
        require(key / 1000 % numBuckets_ == bucket, "a key is in another bucket");
        require(key > last, "a chain does not ascend");
        last = key;
      }
    }
    require(occupied == slots_.u32(160), "occupiedSlots is wrong");
    std::uint32_t free = 0;
    for (std::uint32_t at = slots_.u32(164); at != kNone; at = slots_.u32(slot(at) + 4)) {
      take(at);
      ++free;
      require((slots_.u32(slot(at) + 12) & 3) == 0, "a free slot has flags");
    }
    require(occupied + free == count_, "a slot is on no list");
  }
  void queue() {
    const Bytes& current = queue_[queue_[0].u32(36)];
    const std::uint32_t used = current.u32(48);
    require(used <= current.u32(44), "currentPos is too high");
    std::uint64_t last = 0;
    for (std::uint32_t pos = 0; pos < used; ++pos) {
      const std::uint64_t at = 52 + 12 * std::uint64_t{pos};
      const std::uint64_t sequence = current.u64(at);
      const std::uint32_t named = current.u32(at + 8);
      require(sequence > last && sequence != ~std::uint64_t{0}, "sequences do not ascend");
      last = sequence;
      if (named != kNone) {
        require(slots_.u32(slot(named) + 8) == pos, "an entry's slot has another conquerSlot");
      }
    }
    require(queue_[0].u64(16) <= last, "minSeq is above the last sequence");
    for (std::uint32_t index = 0; index < count_; ++index) {
      const std::uint32_t pos = slots_.u32(slot(index) + 8);
      if (pos == kNone) continue;
      require(pos < used, "a conquerSlot is too high");
      require(current.u32(52 + 12 * std::uint64_t{pos} + 8) == index,
              "a conquerSlot's entry names another slot");
    }
  }

  Bytes slots_;
  Bytes buckets_;
  Bytes queue_[2];
  std::uint32_t fenix_;
  std::uint64_t slotSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint32_t numBuckets_ = 0;
};

}  // namespace

Verdict judgeTable(const std::string& directory) {
  Verdict verdict;
  unsigned fenix = 0;
  const std::string text = Bytes(directory + "/fenix").text();
  if (text.size() == 23 && std::sscanf(text.c_str(), "quill-fenix 1 %08x\n", &fenix) == 1) {
    verdict.fenix = fenix;
  }
  try {
    require(verdict.fenix != 0, "no id");
    Table(directory, verdict.fenix).judge();
    verdict.sound = true;
  } catch (const Unsound& unsound) {
    verdict.reason = unsound.reason;
  }
  return verdict;
}

}  // namespace QuillTest
