// SPDX-License-Identifier: Apache-2.0
//
// The writer and the readers of a table as processes. A writer that is killed at a random moment
// leaves a table that the next one either keeps, as it was before or after the operation that the
// former died in, or gives up as a whole; and it gives up none of which the writer died between two
// operations. Readers that stay all the time see whole values only, and end with what the last
// writer has.
//
// A process that dies leaves its stores in the order of its program, so this is about the order of
// the writer's code, not about a machine that loses power.
//
// QUILL_KILLS says how many writers die, QUILL_SEED from where the random numbers start.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>

#include "runtime/mem/Atomics.h"
#include "tests/quill/TestTable.h"
#include "tests/quill/history/Child.h"
#include "tests/quill/history/Follower.h"

namespace QuillTest {

namespace {

constexpr unsigned kMaxSlots = 16;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

using Map = Follower::Map;

}  // namespace

class ProcessTest : public testing::Test {
 protected:
  ProcessTest() : journal_(Journal::newShared()) {}
  ~ProcessTest() override { Journal::sharedDel(journal_); }

  std::unique_ptr<Map> newWriter() {
    auto table = std::make_unique<Map>(path_, "t");
    table->init(Quill::QuillType::writer, false, kMaxSlots);
    return table;
  }
  // One random operation, with its notes in the journal.
  void change(Map& table, std::minstd_rand& random) {
    const auto index = static_cast<unsigned>(random() / 8 % Journal::kKeys);
    const std::uint32_t key = historyKey(index);
    const auto what = static_cast<unsigned>(random() / 64 % 8);
    if (what < 3) {
      journal_->begin(index, 0);
      CheckedRecord old;
      table.remove({key}, old);
    } else {
      const std::uint32_t counter = ++journal_->lastCounter;
      const CheckedRecord record = checkedRecord(key, counter);
      journal_->begin(index, counter);
      if (what == 7) {
        Mem::Atomics::copyIn(table.directWrite({key}).address, &record, sizeof record);
        table.directCommit();
      } else {
        table.write(record);
      }
    }
    journal_->end();
  }
  // A writer process: changes the table until it is killed, and tells when it has made `enough`
  // changes.
  std::unique_ptr<Child> newWriterProcess(unsigned seed, unsigned enough) {
    return std::make_unique<Child>([this, seed, enough](int socket) {
      StallLoop loop;
      const Vex::CurrentActivityManager current(loop);
      const auto table = newWriter();
      if (table->fenixId() != generation_) wrong("a whole table was given up");
      std::minstd_rand random(seed);
      for (unsigned i = 0; i < 50'000'000; ++i) {
        if (i == enough) Child::tell(socket);
        change(*table, random);
        if (i % 32 == 0) loop.runTurn();
      }
    });
  }
  std::unique_ptr<Child> newReaderProcess(Quill::QuillType type) {
    return std::make_unique<Child>([this, type](int socket) {
      Follower sut(path_, type, *journal_);
      Child::tell(socket);
      if (sut.look(seed_) == 0) wrong("nothing was looked at");
      sut.compare();
    });
  }
  // The table whose writers are to die, still empty.
  void newTable() {
    StallLoop loop;
    const Vex::CurrentActivityManager current(loop);
    generation_ = newWriter()->fenixId();
  }
  // What a new writer finds after one was killed.
  void checkAfterDeath() {
    StallLoop loop;
    const Vex::CurrentActivityManager current(loop);
    const auto table = newWriter();
    const TableModel found = contentsOf("the new writer", *table);
    const TableModel before = journal_->before();
    const TableModel after = journal_->after();
    if (table->fenixId() == generation_) {
      ++kept_;
      if (found != after && found != before) requireSame("the new writer", found, after);
    } else {
      ++givenUp_;
      if (!found.empty()) wrong("a table was given up and is not empty");
      if (!journal_->inOperation()) wrong("a table was given up without need");
    }
    if (!table->validate()) wrong("the table is not sound");
    generation_ = table->fenixId();
    journal_->heldIs(found);
  }
  // What the readers are to compare with.
  void announce(const Map& table) {
    journal_->heldIs(contentsOf("the writer", table));
    journal_->sequence = table.sequence();
    journal_->fenix = table.fenixId();
  }
  // Writes every key once more, and removes again what is not to be there, in parts that the queue
  // holds, each after the shadows have come to the end. A lagging shadow may have lost the news of
  // a slot (QueueWatch.h), but not this.
  void sweep(StallLoop& loop, Map& table) {
    for (unsigned index = 0; index < Journal::kKeys; ++index) {
      if (index % 60 == 0) awaitShadows(loop, table);
      const std::uint32_t key = historyKey(index);
      bool there = false;
      table.lookup({key}, there);
      table.write(checkedRecord(key, ++journal_->lastCounter));
      CheckedRecord old;
      if (!there) table.remove({key}, old);
    }
  }
  void awaitShadows(StallLoop& loop, const Map& table) {
    const auto behind = [&] {
      return journal_->seen[1] != table.sequence() || journal_->seen[3] != table.sequence();
    };
    for (unsigned turns = 0; behind(); ++turns) {
      if (turns == 3'000'000) wrong("a shadow does not follow");
      if (!loop.runTurn()) sched_yield();
    }
    while (loop.runTurn()) {
    }
  }
  // Runs the writer's loop until a child says something, or ends.
  static void runUntil(StallLoop& loop, const Child& child) {
    for (unsigned turns = 0; !Child::readable(child.socket(), 1); ++turns) {
      pollfd entry{child.socket(), 0, 0};
      if (poll(&entry, 1, 0) == 1) return;  // its end is closed
      if (turns == Child::kLimit) wrong("a child does not answer");
      while (loop.runTurn()) {
      }
    }
  }

  TemporaryRoot root_;
  const std::string path_ = root_.table("t");
  Journal* const journal_;
  const unsigned seed_ = numberFrom("QUILL_SEED", 20);
  std::uint32_t generation_ = 0;
  unsigned kept_ = 0;
  unsigned givenUp_ = 0;
};

TEST_F(ProcessTest, KilledWriterLeavesTheTableBeforeOrAfterOneOperationOrNone) {
  const unsigned kills = numberFrom("QUILL_KILLS", 20);
  SCOPED_TRACE("QUILL_SEED=" + std::to_string(seed_));
  newTable();
  const auto reader = newReaderProcess(Quill::QuillType::reader);
  const auto shadow = newReaderProcess(Quill::QuillType::shadow);
  const auto keyShadow = newReaderProcess(Quill::QuillType::keyshadow);
  for (const Child* const each : {reader.get(), shadow.get(), keyShadow.get()}) each->await();
  std::minstd_rand random(seed_);

  for (unsigned round = 0; round < kills; ++round) {
    const auto child = newWriterProcess(seed_ + round, static_cast<unsigned>(random() / 4 % 3000));
    ASSERT_NO_THROW(child->await()) << "round " << round;
    // A moment that has nothing to do with where the writer is.
    for (volatile unsigned spin = static_cast<unsigned>(random() / 4 % 100'000); spin > 0;) {
      spin = spin - 1;
    }
    child->kill();
    ASSERT_NO_THROW(checkAfterDeath()) << "round " << round;
  }

  StallLoop loop;
  const Vex::CurrentActivityManager current(loop);
  const auto table = newWriter();
  change(*table, random);
  sweep(loop, *table);
  announce(*table);
  journal_->stop = true;
  for (Child* const each : {reader.get(), shadow.get(), keyShadow.get()}) {
    runUntil(loop, *each);
    EXPECT_EQ(0, each->end());
  }
  EXPECT_EQ(kills, kept_ + givenUp_);
  std::printf("kept %u, given up %u of %u\n", kept_, givenUp_, kills);
}

TEST_F(ProcessTest, EveryChangedKeyIsNotifiedAcrossProcesses) {
  SCOPED_TRACE("QUILL_SEED=" + std::to_string(seed_));
  StallLoop loop;
  const Vex::CurrentActivityManager current(loop);
  auto table = newWriter();
  std::vector<std::unique_ptr<Child>> children;
  for (const auto type :
       {Quill::QuillType::reader, Quill::QuillType::shadow, Quill::QuillType::keyshadow}) {
    children.push_back(std::make_unique<Child>([this, type](int socket) {
      Follower sut(path_, type, *journal_);
      for (char byte = 0; Child::readable(socket) && read(socket, &byte, 1) == 1 && byte != '.';) {
        sut.compare();
        Child::tell(socket);
      }
    }));
  }
  std::minstd_rand random(seed_);

  for (unsigned round = 0; round < 40; ++round) {
    const auto changes = static_cast<unsigned>(random() / 4 % 3000);
    for (unsigned i = 0; i < changes; ++i) {
      change(*table, random);
      if (random() / 4 % 256 == 0) loop.runTurn();
    }
    if (random() / 4 % 4 == 0) {
      table.reset();
      table = newWriter();
    }
    announce(*table);
    for (const auto& each : children) Child::tell(each->socket());
    for (const auto& each : children) {
      runUntil(loop, *each);
      ASSERT_NO_THROW(each->await()) << "round " << round;
    }
    // Up to where they have come: they say it before they answer. Unknown, it could cost them news
    // (QueueWatch.h).
    while (loop.runTurn()) {
    }
  }

  for (const auto& each : children) {
    EXPECT_EQ(1, write(each->socket(), ".", 1));
    EXPECT_EQ(0, each->end());
  }
}

}  // namespace QuillTest
