// SPDX-License-Identifier: Apache-2.0
//
// One writer and four readers of a table at full speed: two plain ones, a shadow, a key shadow. Not
// one read may be wrong: PlainReads.h and ShadowReads.h say what that means,
// docs/deaths-and-reads.md what it shows and what it does not. Tables follow each other, each of
// which grows from one page to its full size while it is read, by turns with small values and with
// large ones.
//
// As processes, as in use, and as threads; as threads under the thread sanitizer too, which sees
// every access of the store and follows its mappings by SanitizedRemap.cc.
// QUILL_SECONDS and QUILL_SEED: ProofRun.h.
#include <gtest/gtest.h>
#include <sched.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/quill/TestTable.h"
#include "tests/quill/history/Child.h"
#include "tests/quill/history/ProofRun.h"
#include "tests/quill/history/reads/PlainReads.h"
#include "tests/quill/history/reads/ShadowReads.h"

namespace QuillTest {

namespace {

using Small = ReadRecord<3>;   // 32 bytes
using Large = ReadRecord<28>;  // 232 bytes: long in the making

constexpr unsigned kReaders = 4;
constexpr std::uint64_t kOperations = 1'000'000;  // of one table in a long run

class ReadsTest : public testing::Test {
 protected:
  ReadsTest() : board_(ReadBoard::newShared()) {}
  ~ReadsTest() override { ReadBoard::sharedDel(board_); }

  // What a party does; what it raises ends all of them.
  std::function<void()> guarded(std::function<void()> work) {
    return [this, work = std::move(work)] {
      try {
        work();
      } catch (const std::exception& exception) {
        board_->failureIs(exception.what());
      }
    };
  }
  template <class Record>
  std::function<void()> writer(const std::string& path, unsigned seed, std::uint64_t operations) {
    return guarded([this, path, seed, operations] {
      BusyWriter<Record> writer(path, *board_, seed);
      ++board_->ready;
      while (board_->ready != 1 + kReaders && !board_->over()) writer.serve();
      writer.run(operations);
      board_->stop = true;
    });
  }
  template <class Record>
  std::function<void()> reader(const std::string& path, unsigned seed, unsigned number) {
    return guarded([this, path, seed, number] {
      if (number < 2) {
        PlainReads<Record> reads(path, *board_, seed + number);
        ++board_->ready;
        reads.run();
      } else {
        ShadowReads<Record> reads(path, number == 3, *board_, seed + number);
        ++board_->ready;
        reads.run();
      }
    });
  }
  template <class Record>
  void runProcesses(const std::string& path, unsigned seed, std::uint64_t operations,
                    const ProofRun& run) {
    board_->clear();
    std::vector<std::unique_ptr<Child>> children;
    const auto start = [&](const std::function<void()>& work) {
      children.push_back(std::make_unique<Child>([&work](int) { work(); }));
    };
    start(writer<Record>(path, seed, operations));
    awaitReady();
    for (unsigned number = 0; number < kReaders; ++number) {
      start(reader<Record>(path, seed, number));
    }
    while (!children.front()->ended(20)) {
      if (!run.goesOn(0)) board_->stop = true;
    }
    for (const auto& each : children) {
      if (each->end() != 0) board_->failureIs("a process did not end by itself");
    }
  }
  template <class Record>
  void runThreads(const std::string& path, unsigned seed, std::uint64_t operations) {
    board_->clear();
    std::vector<std::thread> threads;
    threads.emplace_back(writer<Record>(path, seed, operations));
    awaitReady();
    for (unsigned number = 0; number < kReaders; ++number) {
      threads.emplace_back(reader<Record>(path, seed, number));
    }
    for (std::thread& each : threads) each.join();
  }
  void awaitReady() {
    for (unsigned turns = 0; board_->ready == 0 && !board_->failed; ++turns) {
      if (turns == 60'000'000) wrong("the writer does not begin");
      sched_yield();
    }
  }

  void summarize(const char* name, unsigned tables) const {
    static constexpr const char* kKinds[] = {"lookups", "values by slot", "values by iteration",
                                             "shadow lookups", "key shadow lookups"};
    for (unsigned kind = 0; kind < ReadBoard::kinds; ++kind) {
      std::printf("%s: %s: %lu, of which %lu found nothing and %lu met a change of their key\n",
                  name, kKinds[kind], number(board_->reads[kind]), number(board_->missed[kind]),
                  number(board_->raced[kind]));
    }
    std::printf(
        "%s: %u tables, %lu operations, %lu growths, queue moved %lu times; %lu walks begun again, "
        "%lu values from lookaside, %lu slot files mapped anew, %lu queue swaps seen, news lost "
        "%lu "
        "times\n",
        name, tables, number(board_->operations), number(board_->growths), number(board_->moves),
        number(board_->retries), number(board_->lookasides), number(board_->remaps),
        number(board_->swaps), number(board_->newsLost));
  }
  // A run in which readers never met the writer has shown nothing.
  void requireRaces() const {
    for (unsigned kind = 0; kind < ReadBoard::kinds; ++kind) {
      EXPECT_GT(board_->reads[kind], 0U) << kind;
    }
    EXPECT_GT(board_->raced[ReadBoard::lookups], 0U);
    EXPECT_GT(board_->growths, 0U);
    EXPECT_GT(board_->moves, 0U);
    EXPECT_GT(board_->remaps, 0U);
  }
  static unsigned long number(const std::atomic<std::uint64_t>& value) {
    return static_cast<unsigned long>(value.load());
  }

  ReadBoard* const board_;
};

}  // namespace

TEST_F(ReadsTest, NoProcessReadsAnythingThatTheTableDidNotHold) {
  SCOPED_TRACE("QUILL_SEED=" + std::to_string(ProofRun::seed()));
  const ProofRun run(2);
  const std::uint64_t operations = ProofRun::seconds() == 0 ? 100'000 : kOperations;
  unsigned tables = 0;

  for (; run.goesOn(tables) && !board_->failed; ++tables) {
    TemporaryRoot root;
    const unsigned seed = ProofRun::seed() + 100 * tables;
    if (tables % 2 == 0) {
      runProcesses<Small>(root.table("t"), seed, operations, run);
    } else {
      runProcesses<Large>(root.table("t"), seed, operations, run);
    }
  }

  EXPECT_FALSE(board_->failed) << board_->failure.data();
  requireRaces();
  summarize("reads", tables);
  std::printf("reads: %lu of 1000000000 checked reads, seed %u\n",
              static_cast<unsigned long>(board_->allReads()), ProofRun::seed());
}

TEST_F(ReadsTest, NoThreadReadsAnythingThatTheTableDidNotHold) {
  SCOPED_TRACE("QUILL_SEED=" + std::to_string(ProofRun::seed()));
  TemporaryRoot root;

  runThreads<Small>(root.table("small"), ProofRun::seed(), 50'000);
  if (!board_->failed) runThreads<Large>(root.table("large"), ProofRun::seed() + 1, 50'000);

  EXPECT_FALSE(board_->failed) << board_->failure.data();
  requireRaces();
  summarize("threads", 2);
}

}  // namespace QuillTest
