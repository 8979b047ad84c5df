// SPDX-License-Identifier: Apache-2.0
//
// orders <seconds> <rounds>: random operations of a real writer, each run seen by a real reader, or
// a real shadow, through the weakest memory that the orders in the code allow (WeakMemory.h).
// scripts/check-orders builds it with the code as it is, where nothing may be noticed, and with one
// order lowered, where something should be.
//
// The properties are those of the models: a value is whole and of its key; it is none older than
// the reader must know of, nor older than what it was given before; an iteration meets every key
// that was there all the time; no damage is reported; a shadow that has come to the end holds what
// the writer holds.
//
// It does not show that nothing else can happen: it meets what the generator chooses.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "quill/ConquerReader.h"
#include "quill/QuillReader.h"
#include "quill/QuillWriter.h"
#include "runtime/vex/VirtualActivityManager.h"
#include "tests/quill/Records.h"
#include "tests/quill/model/orders/WeakMemory.h"

namespace QuillTest {

// Two words and a half, each of which tells key and stamp.
struct StampedRecord {
  static constexpr std::string_view kTypeName = "StampedRecord";

  Number key;
  std::uint32_t stamp = 0;
  std::uint32_t words[3] = {};

  friend bool operator==(const StampedRecord&, const StampedRecord&) = default;
};
static_assert(sizeof(StampedRecord) == 20);
std::ostream& operator<<(std::ostream& out, const StampedRecord& record) {
  return out << record.key << ": " << record.stamp;
}

StampedRecord record(std::uint32_t key, std::uint32_t stamp) {
  const std::uint32_t word = key * 0x9E3779B9U + stamp * 0x85EBCA6BU;
  return {{key}, stamp, {word, word + 1, word + 2}};
}

[[noreturn]] void wrong(const std::string& what) { throw std::runtime_error(what); }

constexpr std::uint32_t kKeys = 6;
std::uint32_t keyOf(std::uint32_t index) { return index % 3 * 1000 + index / 3 + 1; }

// The live entries of a queue's current table, by slot, and minSeq, from the bytes of the files.
struct QueueContents {
  std::uint64_t minSeq = 0;
  bool full = false;
  std::map<std::uint32_t, std::uint64_t> live;

  explicit QueueContents(const std::string& directory) {
    const std::string first = bytesOf(directory + "/conquer.1");
    minSeq = at<std::uint64_t>(first, 16);
    const bool second = at<std::uint32_t>(first, 36) != 0;
    const std::string current = second ? bytesOf(directory + "/conquer.2") : first;
    const auto count = at<std::uint32_t>(current, 48);
    full = count >= at<std::uint32_t>(current, 44);
    for (std::uint32_t pos = 0; pos < count; ++pos) {
      const auto slot = at<std::uint32_t>(current, 60 + 12 * pos);
      if (slot != Quill::kNoSlot) live[slot] = at<std::uint64_t>(current, 52 + 12 * pos);
    }
  }

 private:
  static std::string bytesOf(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  template <class T>
  static T at(const std::string& bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
  }
};

using Writer = Quill::QuillWriter<Number, StampedRecord>;
using Reader = Quill::QuillReader<Number, StampedRecord>;

// The state of the table after each of the last operations: the stamp of each key, 0 for none.
struct Contents {
  std::vector<std::uint32_t> stamps = std::vector<std::uint32_t>(kKeys);
  std::uint64_t moment = 0;  // when the operation that led to it was complete
};

class Round {
 public:
  Round(const std::string& root, std::uint64_t seed) : random_(seed) {
    WeakMemory::instance().seedIs(seed);
    name_ = root + "/t" + std::to_string(seed);
  }

  void run(unsigned steps);

 private:
  void change();
  void newOperations();
  void look(const Reader& reader);
  void iterate(const Reader& reader);
  void follow();
  void require(std::uint32_t index, std::uint32_t stamp);

  std::mt19937_64 random_;
  std::string name_;
  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"orders"};
  std::optional<Writer> writer_;
  std::vector<Contents> contents_{1};
  std::size_t oldest_ = 0;  // of contents_: what the reader must know of at least
  std::uint32_t stamp_ = 0;
  bool dropped_ = false;  // the news of a slot
                          // The shadow, as far as the queue goes.
 public:
  struct Store {
    Round* round;
    void doSlot(unsigned slot, bool) { round->readSlot(slot); }
  };
  struct Shadow;
  void readSlot(unsigned slot);
  const Reader* shadowReader_ = nullptr;
  std::vector<StampedRecord> copy_;
  std::vector<bool> there_;
};

void Round::change() {
  const auto index = static_cast<std::uint32_t>(random_() % kKeys);
  const std::uint32_t key = keyOf(index);
  Contents after = contents_.back();
  const QueueContents before(name_);
  const auto what = random_() % 8;
  if (what < 3) {
    StampedRecord old;
    writer_->remove({key}, old);
    after.stamps[index] = 0;
  } else {
    const StampedRecord value = record(key, ++stamp_);
    if (what < 5) {
      Mem::Atomics::copyIn(writer_->directWrite({key}).address, &value, sizeof value);
      writer_->directCommit();
    } else {
      writer_->write(value, true);
    }
    after.stamps[index] = stamp_;
  }
  after.moment = WeakMemory::instance().now();
  contents_.push_back(after);
  // The one change that a shadow need not hear of: quill/README.md, "The cut of the queue".
  if (before.full) {
    const QueueContents now(name_);
    for (const auto& [slot, sequence] : before.live) {
      dropped_ = dropped_ || (sequence > now.minSeq && !now.live.contains(slot));
    }
  }
}

void Round::newOperations() {
  contents_.erase(contents_.begin(), contents_.begin() + static_cast<std::ptrdiff_t>(oldest_));
  oldest_ = 0;
  // Now and then so many that the queue's tables are used again under the reader.
  const auto most = random_() % 8 == 0 ? 60U : 6U;
  for (auto count = 1 + random_() % most; count-- > 0;) change();
  // The reader knows of some of them as it begins.
  oldest_ = static_cast<std::size_t>(random_()) % contents_.size();
  WeakMemory::instance().readerKnows(contents_[oldest_].moment);
}

void Round::require(std::uint32_t index, std::uint32_t stamp) {
  for (std::size_t i = oldest_; i < contents_.size(); ++i) {
    if (contents_[i].stamps[index] != stamp) continue;
    oldest_ = i;
    return;
  }
  wrong("[order] key " + std::to_string(keyOf(index)) + " has stamp " + std::to_string(stamp));
}

void Round::look(const Reader& reader) {
  const auto index = static_cast<std::uint32_t>(random_() % kKeys);
  bool found = false;
  const StampedRecord value = reader.lookup({keyOf(index)}, found);
  if (found && value != record(keyOf(index), value.stamp)) wrong("[torn] a value is not whole");
  require(index, found ? value.stamp : 0);
}

void Round::iterate(const Reader& reader) {
  std::vector<bool> met(kKeys);
  StampedRecord value;
  Quill::IterHint hint;
  unsigned count = 0;
  for (bool more = reader.first(value, hint); more; more = reader.next(value.key, value, hint)) {
    if (value != record(value.key.value, value.stamp)) wrong("[torn] a value is not whole");
    if (++count > kKeys) wrong("[ends] an iteration goes round");
    met[(value.key.value % 1000 - 1) * 3 + value.key.value / 1000] = true;
  }
  for (std::uint32_t index = 0; index < kKeys; ++index) {
    bool stayed = true;
    for (std::size_t i = oldest_; i < contents_.size(); ++i) {
      stayed = stayed && contents_[i].stamps[index] != 0;
    }
    if (stayed && !met[index]) wrong("[stays] key " + std::to_string(keyOf(index)) + " is missed");
  }
}

// What a queue reader asks of its shadow and of the map.
struct QueueMapStub {
  void corruptionDetected(const std::string& message) { wrong("[damage] " + message); }
  void handleDisconnect() {}
};

}  // namespace QuillTest

namespace Quill {

// The queue reader's shadow in this program: it reads each slot that it is told of.
template <>
class QuillShadow<QuillTest::Number, QuillTest::StampedRecord, QuillTest::QueueMapStub> {
 public:
  QuillTest::Round::Store* store() { return &store_; }
  QuillTest::QueueMapStub* map() { return &map_; }
  double yieldTime() const { return 0.0; }
  unsigned sample() const { return 8; }
  void resync() { asked_ = true; }

  QuillTest::Round::Store store_{};
  QuillTest::QueueMapStub map_;
  bool asked_ = false;
};

}  // namespace Quill

namespace QuillTest {

using Queue = Quill::ConquerReader<Number, StampedRecord, QueueMapStub>;
using QueueShadow = Quill::QuillShadow<Number, StampedRecord, QueueMapStub>;

void Round::readSlot(unsigned slot) {
  StampedRecord value;
  const bool there = shadowReader_->getValue(slot, value);
  if (there && value != record(value.key.value, value.stamp)) wrong("[torn] a slot is not whole");
  if (copy_.size() <= slot) {
    copy_.resize(slot + 1);
    there_.resize(slot + 1);
  }
  copy_[slot] = value;
  there_[slot] = there;
}

void Round::run(unsigned steps) {
  // Few slots: they are used again and again, and grow now and then.
  writer_.emplace(handler_, name_.c_str(), 4, false, "Test");
  writer_->initialize();
  Reader reader(handler_, name_.c_str());
  WeakMemory::instance().readerKnows(WeakMemory::instance().now());
  contents_[0].moment = WeakMemory::instance().now();
  if (!reader.initialize()) wrong("[damage] the reader does not attach");
  shadowReader_ = &reader;

  Quill::RootPath path(handler_, name_, true);
  Quill::Reader::Counters counters{};
  QueueShadow shadow;
  shadow.store_.round = this;
  Queue queue(handler_, path, counters, shadow);
  if (!queue.initialize()) wrong("[damage] the queue's reader does not attach");
  queue.enabledIs(true);

  const auto synchronise = [&] {
    std::uint64_t latest = 0;
    do {
      shadow.asked_ = false;
      latest = queue.latestSequence();
    } while (reader.resize());
    for (unsigned slot = reader.capacity(); slot-- > 0;) readSlot(slot);
    counters.lastConsumedSequence = latest;
    queue.handleEnabled();
  };
  // With all stores before it, the copy is what the table is.
  const auto requireCopy = [&] {
    oldest_ = contents_.size() - 1;
    WeakMemory::instance().readerKnows(WeakMemory::instance().now());
    if (dropped_) synchronise();
    dropped_ = false;
    queue.doProcessNotifications();
    if (shadow.asked_) synchronise();
    queue.doProcessNotifications();
    for (std::uint32_t index = 0; index < kKeys; ++index) {
      const std::uint32_t stamp = contents_.back().stamps[index];
      bool held = false;
      for (std::size_t slot = 0; slot < copy_.size(); ++slot) {
        held = held || (there_[slot] && copy_[slot] == record(keyOf(index), stamp));
      }
      if (stamp != 0 && !held) wrong("[told] the news of a key is missed");
    }
  };
  for (unsigned step = 0; step < steps; ++step) {
    newOperations();
    switch (random_() % 4) {
      case 0:
        iterate(reader);
        break;
      case 1:
        break;
      default:
        for (unsigned i = 0; i < 4; ++i) look(reader);
    }
    if (random_() % 2 == 0) {
      queue.doProcessNotifications();
      if (queue.connected()) queue.sendSequence(counters.lastConsumedSequence);
    }
    // Only now and then does the writer hear of the reader, and the reader of the writer.
    if (random_() % 4 == 0) loop_.runFor(0.0);
    if (shadow.asked_) synchronise();
    if (random_() % 8 == 0) requireCopy();
  }
  queue.detachConquer();
  reader.detach();
  writer_->detach();
}

}  // namespace QuillTest

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 10.0;
  const unsigned long most = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1'000'000;
  const char* const given = std::getenv("QUILL_SEED");
  const std::uint64_t first = given != nullptr ? std::strtoull(given, nullptr, 10) : 1;
  std::string root = (std::filesystem::temp_directory_path() / "quill-orders-XXXXXX").string();
  if (mkdtemp(root.data()) == nullptr) {
    std::perror("orders: no temporary directory");
    return 2;
  }
  int status = 0;
  unsigned long rounds = 0;
  // The time of this process, so that a busy machine does not make the run shorter.
  const auto end = std::clock() + static_cast<std::clock_t>(seconds * CLOCKS_PER_SEC);
  while (status == 0 && rounds < most && std::clock() < end) {
    const std::uint64_t seed = first + rounds++;
    try {
      QuillTest::Round(root, seed).run(100);
    } catch (const Sable::Exception& exception) {
      std::cout << "noticed: [damage] " << exception.msg() << ", seed " << seed << "\n";
      status = 1;
    } catch (const std::exception& exception) {
      std::cout << "noticed: " << exception.what() << ", seed " << seed << "\n";
      status = 1;
    }
    std::error_code ignored;
    std::filesystem::remove_all(root + "/t" + std::to_string(seed), ignored);
  }
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  std::cout << "orders: " << rounds << " rounds, " << QuillTest::WeakMemory::instance().oldAnswers()
            << " loads of old stores, seed " << first << "\n";
  return status;
}
