// SPDX-License-Identifier: Apache-2.0
//
// What the tests of shadows share: a record whose key says in which bucket it lies, a table in
// plain memory in the place of a reader, and a map whose notifier keeps a list.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quill/Exceptions.h"
#include "quill/Text.h"
#include "runtime/mem/Atomics.h"

namespace QuillTest {

// Ordered by its number; the hash is the bucket, for as long as that is below the number of them.
struct TestKey {
  std::uint32_t number = 0;
  std::uint32_t bucket = 0;

  std::uint32_t hash() const noexcept { return bucket; }
  friend bool operator==(const TestKey&, const TestKey&) = default;
  friend bool operator<(const TestKey& a, const TestKey& b) { return a.number < b.number; }
};

inline std::ostream& operator<<(std::ostream& out, const TestKey& key) {
  return out << "k" << key.number;
}

struct TestRecord {
  static constexpr std::string_view kTypeName = "TestRecord";

  TestKey key;
  std::uint32_t tx = 0;
  std::uint32_t rx = 0;
  std::uint32_t rxOther = 0;

  friend bool operator==(const TestRecord&, const TestRecord&) = default;
};
static_assert(sizeof(TestRecord) == 20);

inline std::ostream& operator<<(std::ostream& out, const TestRecord& record) {
  return out << record.key << "=" << record.tx;
}

inline TestRecord record(std::uint32_t number, std::uint32_t tx, std::uint32_t bucket = 0) {
  return {{number, bucket}, tx, 0, 0};
}

// A table as a reader would show it: slots that the "writer" has, of which `mapped` are known.
class FakeTable {
 public:
  struct Slot {
    bool occupied = false;
    TestRecord value;
  };
  struct Header {
    Mem::SharedVerU32 numSlots;
  };

  explicit FakeTable(unsigned count, unsigned numBuckets = 4) : buckets(numBuckets) {
    slotsAre(count);
    mapped = count;
  }

  // The writer's side.
  void slotsAre(unsigned count) {
    slots.resize(count);
    header_.numSlots.store({++version_, count}, Mem::relaxed);
  }
  void put(unsigned slot, const TestRecord& value) { slots.at(slot) = {true, value}; }
  void take(unsigned slot) { slots.at(slot) = {}; }

  // The reader's side.
  unsigned numBuckets() const { return buckets; }
  unsigned capacity() const { return mapped; }
  FakeTable& slotTable() { return *this; }
  const Header* header() const { return attached ? &header_ : nullptr; }
  bool resize() {
    if (lateGrowth)
      lateGrowth = false;
    else
      mapped = static_cast<unsigned>(slots.size());
    return true;
  }
  bool getValue(unsigned slot, TestRecord& value) {
    ++valueReads;
    if (!damage.empty()) Quill::raise<Quill::CorruptionDetectedException>(damage);
    value = slots.at(slot).value;
    return slots.at(slot).occupied;
  }
  bool getKey(unsigned slot, TestKey& key) {
    if (!damage.empty()) Quill::raise<Quill::CorruptionDetectedException>(damage);
    key = slots.at(slot).value.key;
    return slots.at(slot).occupied;
  }
  bool compareValue(unsigned slot, const TestRecord& value) const {
    return slots.at(slot).occupied && slots.at(slot).value == value;
  }

  unsigned buckets;
  std::vector<Slot> slots;
  unsigned mapped = 0;
  bool attached = true;
  bool lateGrowth = false;  // the next resize() does not see the growth yet
  std::string damage;       // raised by every read
  unsigned valueReads = 0;

 private:
  std::uint32_t version_ = 0;
  Header header_{};
};

// Keeps what it is told; `onNotify` runs inside the notification.
struct FakeNotifier {
  void notify(const TestKey& key) {
    keys.push_back(key.number);
    if (onNotify) onNotify(key);
  }
  // The keys since the last call.
  std::vector<unsigned> taken() { return std::exchange(keys, {}); }

  std::vector<unsigned> keys;
  std::function<void(const TestKey&)> onNotify;
};

struct FakeMap {
  FakeNotifier* notifier() const { return notifierPointer; }
  void corruptionDetected(const std::string& message) {
    reports.push_back(message);
    if (onCorruption) onCorruption();
  }
  void handleDisconnect() { ++disconnects; }

  FakeNotifier notifier_;
  FakeNotifier* notifierPointer = &notifier_;
  std::vector<std::string> reports;
  std::function<void()> onCorruption;
  unsigned disconnects = 0;
};

using Keys = std::vector<unsigned>;

}  // namespace QuillTest
