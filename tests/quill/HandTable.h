// SPDX-License-Identifier: Apache-2.0
//
// A table in files that a test builds and changes store by store, in the order in which a writer
// stores, so that a reader can be met at any point between two of them. With it a key whose
// comparison calls back, which is how a test gets into the middle of a walk.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "quill/BucketTable.h"
#include "quill/Exceptions.h"
#include "quill/FenixFile.h"
#include "quill/SlotTable.h"
#include "runtime/mem/Region.h"

namespace QuillTest {

// Keys 100 * b to 100 * b + 99 hash to b.
struct HookKey {
  // Called at each comparison by order.
  static inline std::function<void()> onCompare;
  static inline unsigned compares = 0;

  std::uint32_t number = 0;

  std::uint32_t hash() const noexcept { return number / 100; }
  friend bool operator<(const HookKey& a, const HookKey& b) {
    ++compares;
    // Taken out before the call: what a hook does may compare as well.
    if (onCompare) std::exchange(onCompare, nullptr)();
    return a.number < b.number;
  }
  friend bool operator==(const HookKey&, const HookKey&) = default;
};

inline std::ostream& operator<<(std::ostream& out, const HookKey& key) { return out << key.number; }

struct HookValue {
  static constexpr std::string_view kTypeName = "QuillTest::HookValue";

  HookKey key;
  std::uint32_t a = 0;
  std::uint32_t b = 0;
  std::uint32_t c = 0;

  friend bool operator==(const HookValue&, const HookValue&) = default;
};

inline std::ostream& operator<<(std::ostream& out, const HookValue& value) {
  return out << value.key << ": " << value.a << ", " << value.b << ", " << value.c;
}

inline HookValue hookValue(std::uint32_t key, std::uint32_t number) {
  return {{key}, number, number, number};
}

// The text of the damage that `action` raises, empty if it raises none.
template <class Action>
std::string damageOf(const Action& action) {
  try {
    action();
  } catch (const Quill::CorruptionDetectedException& damage) {
    return damage.msg();
  }
  return {};
}

class HandTable {
 public:
  using Table = Quill::SlotTable<HookValue>;

  static constexpr std::uint32_t kFenix = 7;
  static constexpr std::uint32_t kBuckets = 8;

  HandTable(Sable::Platform::DebugHandler& handler, std::string path, std::uint32_t numSlots = 16)
      : path_(std::move(path)),
        slotsFile_(path_, "slots", false, Mem::Shared::SHARED_DEFAULT_FLAGS, false),
        bucketsFile_(path_, "buckets", false, Mem::Shared::SHARED_DEFAULT_FLAGS, false) {
    HookKey::onCompare = nullptr;
    HookKey::compares = 0;
    std::filesystem::create_directories(path_);
    void* const slots = slotsFile_.attach(bytes(numSlots), Mem::Mode::readWrite);
    Table::Header::format(slots, numSlots, 1000, kFenix, "Test");
    void* const buckets =
        bucketsFile_.attach(Quill::BucketTable::kHeaderSize + 8 * kBuckets, Mem::Mode::readWrite);
    auto& header = *static_cast<Quill::BucketTable::Header*>(buckets);
    header.fenix.store(kFenix, Mem::release);
    header.magic.store(Quill::Detail::magicWord("QUILLBKT"), Mem::release);
    header.version.store(1, Mem::release);
    header.numBuckets.store(kBuckets, Mem::release);
    header.ownerPid.store(1, Mem::release);
    for (std::uint32_t i = 0; i < kBuckets; ++i) head(i).store({0, Quill::kNoSlot}, Mem::release);
    Quill::FenixFile::write(handler, path_, kFenix);
  }

  Table::Header& header() { return *static_cast<Table::Header*>(slotsFile_.base()); }
  Quill::BucketTable::Header& bucketHeader() {
    return *static_cast<Quill::BucketTable::Header*>(bucketsFile_.base());
  }
  Quill::Slot<HookValue>& slot(std::uint32_t index) { return header().slots()[index]; }
  Quill::SlotRef& head(std::uint32_t bucket) { return bucketHeader().buckets()[bucket]; }
  const std::string& path() const { return path_; }

  static void linkIs(Quill::SlotRef& link, std::uint32_t next) {
    link.store(link.load(Mem::relaxed).next(next), Mem::release);
  }
  void flagsAdd(std::uint32_t index, std::uint32_t number) {
    slot(index).flags.store(slot(index).flags.load(Mem::relaxed) + number, Mem::release);
  }

  // The first two steps of a writer that stores into an occupied slot.
  void beginValue(std::uint32_t index, const HookValue& value) {
    header().lookaside.value.copyIn(&value);
    flagsAdd(index, 2);
  }
  // The last two.
  void endValue(std::uint32_t index, const HookValue& value) {
    slot(index).value.copyIn(&value);
    const std::uint32_t flags = slot(index).flags.load(Mem::relaxed);
    slot(index).flags.store((flags + 2) | Quill::kOccupied, Mem::release);
  }
  void valueIs(std::uint32_t index, const HookValue& value) {
    beginValue(index, value);
    endValue(index, value);
  }
  // Puts a value into the unused slot `index` and links it after `link`.
  void insertAfter(Quill::SlotRef& link, std::uint32_t index, const HookValue& value) {
    linkIs(slot(index).ref, link.load(Mem::relaxed).value);
    flagsAdd(index, 2);
    endValue(index, value);
    linkIs(link, index);
    header().occupiedSlots.store(header().occupiedSlots.load(Mem::relaxed) + 1, Mem::release);
  }
  // Takes the slot behind `link` out; it goes to no list that a reader needs.
  void removeAfter(Quill::SlotRef& link) {
    const std::uint32_t index = link.load(Mem::relaxed).value;
    linkIs(link, slot(index).ref.load(Mem::relaxed).value);
    slot(index).flags.store(slot(index).flags.load(Mem::relaxed) & ~Quill::kOccupied, Mem::release);
    linkIs(slot(index).ref, Quill::kNoSlot);
    header().occupiedSlots.store(header().occupiedSlots.load(Mem::relaxed) - 1, Mem::release);
  }
  // The link after which a key belongs.
  Quill::SlotRef& linkFor(std::uint32_t key) {
    Quill::SlotRef* link = &head(key / 100 % kBuckets);
    for (;;) {
      const std::uint32_t index = link->load(Mem::relaxed).value;
      if (index == Quill::kNoSlot || keyAt(index) >= key) return *link;
      link = &slot(index).ref;
    }
  }
  void insert(std::uint32_t index, const HookValue& value) {
    insertAfter(linkFor(value.key.number), index, value);
  }
  void remove(std::uint32_t key) { removeAfter(linkFor(key)); }
  std::uint32_t keyAt(std::uint32_t index) {
    HookKey key;
    slot(index).value.copyOut(&key, sizeof key);
    return key.number;
  }
  void growFile(std::uint32_t numSlots) { slotsFile_.resize(bytes(numSlots)); }
  void grow(std::uint32_t numSlots) {
    const Mem::VerU32 before = header().numSlots.load(Mem::relaxed);
    growFile(numSlots);
    for (std::uint32_t i = before.value; i < numSlots; ++i) Table::freshSlot(slot(i));
    header().numSlots.store(before.next(numSlots), Mem::release);
  }
  static std::uint32_t bytes(std::uint32_t numSlots) {
    return static_cast<std::uint32_t>(Table::fileSize(numSlots));
  }

 private:
  std::string path_;
  Mem::Shared slotsFile_;
  Mem::Shared bucketsFile_;
};

}  // namespace QuillTest
