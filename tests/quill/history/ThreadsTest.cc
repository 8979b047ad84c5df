// SPDX-License-Identifier: Apache-2.0
//
// A writer and three readers as threads of one process, each on a loop of its own, without any lock
// between them. The property: whatever a reader is given is a whole value of the key it asked for,
// its counter never goes back and is never ahead of what the writer has begun to write; a key that
// is there all the time is always found, by lookup and by iteration; and in the end the shadows
// hold what the writer holds. Under the thread sanitizer, which sees every access of the store: no
// data race.
//
// It does not prove that there is no forbidden interleaving: it meets those that the scheduler
// happens to make, on the memory model of this machine. And the sanitizer sees an access that is
// not atomic, but not one that is atomic with too weak an order. Bounded by the writer's
// operations; nothing here looks at a clock.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quill/QuillMap.h"
#include "runtime/vex/EpollActivityManager.h"
#include "tests/quill/TestTable.h"
#include "tests/quill/history/TableModel.h"

namespace QuillTest {

namespace {

// GCC says by a macro, Clang by a feature, that the thread sanitizer is at work.
#if defined(__has_feature)
#define RINGWARD_HAS_FEATURE(feature) __has_feature(feature)
#else
#define RINGWARD_HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_THREAD__) || RINGWARD_HAS_FEATURE(thread_sanitizer)
constexpr unsigned kOperations = 200'000;
#else
constexpr unsigned kOperations = 1'500'000;
#endif
constexpr unsigned kSeed = 20;
constexpr unsigned kKeys = 240;
constexpr unsigned kMaxSlots = 16;  // the table grows while it is read
constexpr unsigned kMaxTurns = 100'000;

using Map = Quill::QuillMap<Number, CheckedRecord, KeySet>;

// Every fourth key is there from the beginning to the end.
bool stays(unsigned index) { return index % 4 == 0; }

}  // namespace

class ThreadsTest : public testing::Test {
 protected:
  // What a thread does; what it raises ends it and fails the test.
  void newThread(const std::string& name, std::function<void()> work) {
    threads_.emplace_back([this, name, work = std::move(work)] {
      try {
        work();
      } catch (const std::exception& exception) {
        ADD_FAILURE() << name << ", seed " << kSeed << ": " << exception.what();
        failed_ = true;
      }
    });
  }
  void join() {
    for (std::thread& each : threads_) each.join();
  }

  // The writer's operations, a turn of its loop now and then.
  void write(Vex::EpollActivityManager& loop, Map& table) {
    std::minstd_rand random(kSeed);
    for (unsigned i = 0; i < kOperations && !failed_; ++i) {
      const auto index = static_cast<unsigned>(random() % kKeys);
      const std::uint32_t key = historyKey(index);
      const auto what = static_cast<unsigned>(random() / 64 % 8);
      if (!stays(index) && what < 3) {
        CheckedRecord old;
        table.remove({key}, old);
        model_.erase(key);
      } else {
        const std::uint32_t counter = begun_[index].load() + 1;
        begun_[index] = counter;
        const CheckedRecord record = checkedRecord(key, counter);
        if (what == 7) {
          Mem::Atomics::copyIn(table.directWrite({key}).address, &record, sizeof record);
          table.directCommit();
        } else {
          table.write(record);
        }
        model_[key] = counter;
      }
      if (i % 64 == 0) loop.runTurn(0.0);
    }
  }
  // Writes every key once more, and removes again what is not to be there, in parts that the queue
  // holds, each after the shadows have come to the end. A lagging shadow may have lost the news of
  // a slot (QueueWatch.h), but not this.
  void sweep(Vex::EpollActivityManager& loop, Map& table) {
    for (unsigned index = 0; index < kKeys && !failed_; ++index) {
      if (index % 60 == 0) awaitShadows(loop, table);
      const std::uint32_t key = historyKey(index);
      const bool there = model_.contains(key);
      const std::uint32_t counter = begun_[index].load() + 1;
      begun_[index] = counter;
      table.write(checkedRecord(key, counter));
      model_[key] = counter;
      if (there) continue;
      CheckedRecord old;
      table.remove({key}, old);
      model_.erase(key);
    }
  }
  void awaitShadows(Vex::EpollActivityManager& loop, const Map& table) {
    const auto behind = [&] {
      return seen_[1] != table.sequence() || seen_[3] != table.sequence();
    };
    for (unsigned turns = 0; behind() && !failed_; ++turns) {
      if (turns == kMaxTurns) wrong("a shadow does not follow");
      loop.runTurn(0.001);
    }
    for (unsigned turns = 0; turns < 100; ++turns) loop.runTurn(0.0);  // what they have reported
  }
  // Random looks at a table until the writer has finished.
  void look(Vex::EpollActivityManager& loop, const Map& table, const char* name) {
    std::minstd_rand random(kSeed + std::char_traits<char>::length(name));
    std::vector<std::uint32_t> last(kKeys);
    while (!finished_ && !failed_) {
      for (unsigned i = 0; i < 200; ++i) {
        lookAt(table, name, static_cast<unsigned>(random() % kKeys), last);
      }
      iterate(table, name);
      loop.runTurn(0.0);
      seen_[static_cast<unsigned>(table.mode())] = table.sequence();
      ++looks_;
    }
  }
  void lookAt(const Map& table, const char* name, unsigned index,
              std::vector<std::uint32_t>& last) {
    const std::uint32_t key = historyKey(index);
    bool found = false;
    const CheckedRecord value = table.lookup({key}, found);
    if (!found) {
      if (stays(index)) wrong(std::string(name) + " misses key " + std::to_string(key));
      return;
    }
    requireWhole(name, key, value);
    if (value.counter < last[index] || value.counter > begun_[index]) {
      wrong(std::string(name) + " sees counter " + std::to_string(value.counter) + " of key " +
            std::to_string(key) + " after " + std::to_string(last[index]));
    }
    last[index] = value.counter;
  }
  static void iterate(const Map& table, const char* name) {
    const TableModel seen = contentsOf(name, table);
    for (unsigned index = 0; index < kKeys; ++index) {
      if (stays(index) && !seen.contains(historyKey(index))) {
        wrong(std::string(name) + " iterates past key " + std::to_string(historyKey(index)));
      }
    }
  }

  void writer() {
    Vex::EpollActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    Map table(path_, "t");
    table.init(Quill::QuillType::writer, false, kMaxSlots);
    for (unsigned index = 0; index < kKeys; index += 4) {
      begun_[index] = 1;
      table.write(checkedRecord(historyKey(index), 1));
      model_[historyKey(index)] = 1;
    }
    prepared_ = true;
    while (ready_ != 3 && !failed_) loop.runTurn(0.001);
    write(loop, table);
    sweep(loop, table);
    sequence_ = table.sequence();
    finished_ = true;
    while (done_ != 3 && !failed_) loop.runTurn(0.001);
    EXPECT_TRUE(table.validate());
    const Quill::Writer::Counters counters = table.writerCounters();
    EXPECT_GT(counters.compactions, 0U);
  }
  void reader(Quill::QuillType type, const char* name) {
    while (!prepared_ && !failed_) std::this_thread::yield();
    Vex::EpollActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    KeySet told;
    Map table(path_, "t");
    table.notifierIs(&told);
    table.init(type, false, 0);
    const bool isShadow = type != Quill::QuillType::reader;
    while (table.mountStatus() != (isShadow ? 2U : 1U) && !failed_) loop.runTurn(0.001);
    ++ready_;
    look(loop, table, name);
    for (unsigned turns = 0; isShadow && table.sequence() != sequence_ && !failed_; ++turns) {
      if (turns == kMaxTurns) wrong(std::string(name) + " does not follow to the end");
      loop.runTurn(0.01);
    }
    if (!failed_) requireSame(name, contentsOf(name, table), model_);
    if (isShadow && !failed_) requireTold(name, changedKeys({}, model_), told.keys);
    ++done_;
  }

  TemporaryRoot root_;
  const std::string path_ = root_.table("t");
  std::vector<std::thread> threads_;
  // The counter that the writer has begun to write, of each key.
  std::array<std::atomic<std::uint32_t>, kKeys> begun_{};
  TableModel model_;  // the writer's; everybody's once it has finished
  std::atomic<std::uint64_t> sequence_ = 0;
  std::array<std::atomic<std::uint64_t>, 4> seen_{};  // by the readers, by their modes
  std::atomic<unsigned> ready_ = 0;
  std::atomic<unsigned> done_ = 0;
  std::atomic<unsigned> looks_ = 0;
  std::atomic<bool> prepared_ = false;
  std::atomic<bool> finished_ = false;
  std::atomic<bool> failed_ = false;
};

TEST_F(ThreadsTest, ReadersSeeWholeValuesAndMissNoKeyThatStays) {
  newThread("the writer", [this] { writer(); });
  newThread("the reader", [this] { reader(Quill::QuillType::reader, "the reader"); });
  newThread("the shadow", [this] { reader(Quill::QuillType::shadow, "the shadow"); });
  newThread("a key shadow", [this] { reader(Quill::QuillType::keyshadow, "a key shadow"); });

  join();

  EXPECT_GT(looks_, 0U);
  RecordProperty("looks", static_cast<int>(looks_));
}

}  // namespace QuillTest
