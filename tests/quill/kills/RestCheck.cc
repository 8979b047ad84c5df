// SPDX-License-Identifier: Apache-2.0
//
// "What holds at rest" of docs/formats.md, rule by rule, over bytes.
#include <cstring>
#include <vector>

#include "tests/quill/kills/Image.h"
#include "tests/quill/kills/KillRecord.h"

namespace QuillTest {

namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFF;

std::uint32_t u32(const std::string& bytes, std::size_t at) {
  std::uint32_t number = 0;
  std::memcpy(&number, &bytes.at(at), 4);
  return number;
}

std::uint64_t u64(const std::string& bytes, std::size_t at) {
  return u32(bytes, at) | std::uint64_t{u32(bytes, at + 4)} << 32;
}

std::uint32_t checksum(std::string_view bytes) {
  std::uint32_t h = 0x811c9dc5U;
  for (const char c : bytes) h = (h ^ static_cast<unsigned char>(c)) * 0x01000193U;
  h = (h ^ h >> 16) * 0x85ebca6bU;
  h = (h ^ h >> 13) * 0xc2b2ae35U;
  return h ^ h >> 16;
}

}  // namespace

// One look at one image.
class RestCheck {
 public:
  explicit RestCheck(const Image& image) : image_(image) {}

  // Empty: it holds.
  std::string run() {
    const std::uint32_t id = image_.fenix();
    if (id == 0) return "no fenix";
    static constexpr std::array<std::string_view, 4> kMagic{"QUILLSLT", "QUILLBKT", "QUILLCQR",
                                                            "QUILLCQR"};
    static constexpr std::array<std::uint32_t, 4> kVersion{4, 1, 6, 6};
    static constexpr std::array<std::size_t, 4> kLeast{216, 24, 56, 56};
    for (unsigned file = 0; file < 4; ++file) {
      const auto& bytes = image_.mapped(file);
      const std::string name = Image::kNames[file];
      if (!bytes || bytes->size() < kLeast[file]) return name + " missing or short";
      if (bytes->substr(0, 8) != kMagic[file]) return name + " magic";
      if (u32(*bytes, 8) != kVersion[file]) return name + " version";
      if (u32(*bytes, 12) != id) return name + " id";
    }
    std::string result = header();
    if (result.empty()) result = queue();
    if (result.empty()) result = chains();
    if (result.empty()) result = freeList();
    if (result.empty()) result = entriesAndSlots();
    return result;
  }

  std::map<Portus::IntfId, std::string> entries;
  std::uint64_t sequence = 0;

 private:
  const std::string& file(unsigned which) const { return *image_.mapped(which); }
  std::size_t slotAt(std::uint32_t slot) const {
    return 176 + std::size_t{slotSize_} * (std::size_t{slot} + 1);
  }

  std::string header() {
    const std::string& slots = file(Image::slots);
    valueSize_ = u32(slots, 144);
    slotSize_ = u32(slots, 148);
    count_ = u32(slots, 172);
    const std::string_view view(slots);
    std::uint32_t sum = checksum(view.substr(16, 64)) + checksum(view.substr(80, 64));
    for (const std::size_t at : {144U, 148U, 152U}) sum += checksum(view.substr(at, 4));
    if (sum != u32(slots, 156)) return "slots checksum";
    if (slots.size() < slotAt(count_)) return "slots size";
    const std::string& heads = file(Image::buckets);
    buckets_ = u32(heads, 16);
    if (buckets_ == 0 || heads.size() < 24 + std::size_t{buckets_} * 8) return "buckets size";
    return {};
  }

  std::string queue() {
    for (const unsigned which : {Image::conquer1, Image::conquer2}) {
      const std::string& bytes = file(which);
      if (bytes.size() < 56 + std::size_t{u32(bytes, 44)} * 12) return "conquer size";
      if (u32(bytes, 48) > u32(bytes, 44)) return "currentPos";
    }
    const std::uint32_t id = u32(file(Image::conquer1), 36);
    if (id > 1) return "table id";
    table_ = &file(id == 0 ? Image::conquer1 : Image::conquer2);
    used_ = u32(*table_, 48);
    for (std::uint32_t pos = 0; pos < used_; ++pos) {
      const std::uint64_t next = u64(*table_, 52 + std::size_t{pos} * 12);
      if (next <= sequence || next == UINT64_MAX) return "order of sequences";
      sequence = next;
    }
    return u64(file(Image::conquer1), 16) > sequence ? "minSeq" : std::string();
  }

  std::string chains() {
    const std::string& slots = file(Image::slots);
    seen_.assign(count_, false);
    for (std::uint32_t bucket = 0; bucket < buckets_; ++bucket) {
      std::uint32_t slot = u32(file(Image::buckets), 24 + std::size_t{bucket} * 8 + 4);
      const Portus::IntfId* before = nullptr;
      Portus::IntfId last;
      for (; slot != kNone; slot = u32(slots, slotAt(slot) + 4)) {
        if (slot >= count_ || seen_[slot]) return "chain";
        seen_[slot] = true;
        ++chained_;
        if ((u32(slots, slotAt(slot) + 12) & 3) != 1) return "flags on a chain";
        Portus::IntfId key;
        std::memcpy(static_cast<void*>(&key), &slots.at(slotAt(slot) + 16), sizeof key);
        if (key.hash() % buckets_ != bucket) return "key in a wrong chain";
        if (before != nullptr && !(last < key)) return "order of keys";
        last = key;
        before = &last;
        entries[key] = slots.substr(slotAt(slot) + 16, valueSize_);
      }
    }
    return chained_ == u32(slots, 160) ? std::string() : "occupiedSlots";
  }

  std::string freeList() {
    const std::string& slots = file(Image::slots);
    std::uint32_t length = 0;
    for (std::uint32_t slot = u32(slots, 164); slot != kNone; slot = u32(slots, slotAt(slot) + 4)) {
      if (slot >= count_ || seen_[slot]) return "free list";
      seen_[slot] = true;
      ++length;
      if ((u32(slots, slotAt(slot) + 12) & 3) != 0) return "flags on the free list";
    }
    return chained_ + length == count_ ? std::string() : "a slot is on no list";
  }

  std::string entriesAndSlots() const {
    const std::string& slots = file(Image::slots);
    for (std::uint32_t slot = 0; slot < count_; ++slot) {
      const std::uint32_t pos = u32(slots, slotAt(slot) + 8);
      if (pos == kNone) continue;
      if (pos >= used_ || u32(*table_, 60 + std::size_t{pos} * 12) != slot) return "conquerSlot";
    }
    for (std::uint32_t pos = 0; pos < used_; ++pos) {
      const std::uint32_t slot = u32(*table_, 60 + std::size_t{pos} * 12);
      if (slot == kNone) continue;
      if (slot >= count_ || u32(slots, slotAt(slot) + 8) != pos) return "entry";
    }
    return {};
  }

  const Image& image_;
  const std::string* table_ = nullptr;
  std::uint32_t valueSize_ = 0;
  std::uint32_t slotSize_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t buckets_ = 0;
  std::uint32_t used_ = 0;
  std::uint32_t chained_ = 0;
  std::vector<bool> seen_;
};

bool Image::atRest(std::string* why) const {
  const std::string found = RestCheck(*this).run();
  if (why != nullptr) *why = found;
  return found.empty();
}

std::uint64_t Image::sequence() const {
  RestCheck check(*this);
  static_cast<void>(check.run());
  return check.sequence;
}

std::uint64_t Image::queueRoom() const {
  const std::string& table = *mapped_[u32(*mapped_[conquer1], 36) == 0 ? conquer1 : conquer2];
  return u32(table, 44) - u32(table, 48);
}

std::map<Portus::IntfId, std::string> Image::contents() const {
  RestCheck check(*this);
  static_cast<void>(check.run());
  return check.entries;
}

}  // namespace QuillTest
