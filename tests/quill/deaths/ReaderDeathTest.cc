// SPDX-License-Identifier: Apache-2.0
//
// Readers that are killed, of all kinds, wherever they are: attaching, connecting, waiting for the
// writer's answer, reading, following the queue. Nothing of it shows in the table: afterwards its
// four files are byte for byte those of a table to which the same operations were done with nobody
// looking.
//
// Readers do show in the files in one lawful way: the writer drops nothing from the queue that a
// reader has not passed, so minSeq, and with it what a move of the queue keeps, follows the lowest
// report. Two kinds of run take that out, each in a way of its own, so that what is left must be
// equal:
//  - "alone": the writer moves the queue only at moments at which no reader is connected, so each
//  move
//    prunes up to the last sequence, as without readers. Readers come and die between the moves.
//  - "waiting": both tables begin with so many former readers in their header that the writer waits
//    for them all the time. As long, no move prunes, whoever is connected. Readers live through
//    moves and growths.
// `numReaders` is left out: it says who is there.
//
// QUILL_SECONDS and QUILL_SEED: ProofRun.h.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <new>
#include <random>
#include <string>

#include "runtime/mem/Atomics.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/deaths/Field.h"
#include "tests/quill/history/NearWrap.h"
#include "tests/quill/history/ProofRun.h"

namespace QuillTest {

namespace {

using Map = LoadedWriter::Map;

constexpr std::uint64_t kNumReaders = 24;  // its offset in conquer.1
constexpr std::uint32_t kManyReaders = 1U << 30;
constexpr unsigned kKills = 150;        // of one table
constexpr unsigned kMaxLife = 800'000;  // of a reader; some longer than it takes to be connected
constexpr unsigned kMaxTurns = 10'000'000;

// What the test and the writer's process share.
struct Control {
  std::atomic<bool> stop = false;
  std::atomic<std::uint64_t> operations = 0;
  std::atomic<std::uint64_t> introduced = 0;
  std::atomic<std::uint64_t> moves = 0;
};

// The operations: the same ones from the same seed.
class Operations {
 public:
  explicit Operations(unsigned seed) : random_(seed) {}

  void next(Map& table) {
    const std::uint32_t key = historyKey(static_cast<unsigned>(random_() / 8 % Board::kKeys));
    const auto what = static_cast<unsigned>(random_() / 64 % 8);
    const CheckedRecord record = checkedRecord(key, ++counter_);
    if (what < 3) {
      CheckedRecord old;
      table.remove({key}, old);
    } else if (what == 7) {
      Mem::Atomics::copyIn(table.directWrite({key}).address, &record, sizeof record);
      table.directCommit();
    } else {
      table.write(record);
    }
  }

 private:
  std::minstd_rand random_;
  std::uint32_t counter_ = 0;
};

// A writer whose time stands still: its wait for readers has no end.
class StillWriter {
 public:
  explicit StillWriter(const std::string& path) : current_(loop_), table_(path, "t") {
    loop_.stepIs(0);
    table_.init(Quill::QuillType::writer, false, LoadedWriter::kMaxSlots);
  }
  Map& table() { return table_; }
  bool runTurn() { return loop_.runTurn(); }
  void giveWay() { loop_.await(50); }
  std::uint64_t connected() const { return table_.writerCounters().readersConnected; }
  void awaitNobody() {
    for (unsigned turns = 0; connected() != 0; ++turns) {
      if (turns == kMaxTurns) wrong("a reader is not forgotten");
      loop_.runTurn();
    }
  }

 private:
  StallLoop loop_;
  const Vex::CurrentActivityManager current_;
  Map table_;
};

void write(const std::string& path, unsigned seed, bool alone, Control& control, int socket) {
  StillWriter writer(path);
  const QueuePeek queue(path);
  Operations operations(seed);
  Child::tell(socket);
  std::uint64_t before = 0;
  for (std::uint64_t done = 0; !control.stop; ++done) {
    if (alone && queue.full()) writer.awaitNobody();
    if (queue.full()) ++control.moves;
    operations.next(writer.table());
    control.operations = done + 1;
    if (done % 4 != 0) continue;
    writer.runTurn();
    const std::uint64_t now = writer.connected();
    if (now > before) control.introduced += now - before;
    before = now;
    // The more the writer does, the longer takes its repetition.
    if (done % 32 == 0) writer.giveWay();
  }
  writer.awaitNobody();
}

void read(const std::string& path, Quill::QuillType type) {
  StallLoop loop;
  const Vex::CurrentActivityManager current(loop);
  KeySet told;
  Map table(path, "t");
  table.notifierIs(&told);
  table.init(type, false, 0);
  for (;;) {  // until it is killed
    for (unsigned index = 0; index < Board::kKeys; ++index) {
      bool found = false;
      const CheckedRecord value = table.safeLookup({historyKey(index)}, found);
      if (found && !(value.key.value == historyKey(index) && value.whole())) abort();
    }
    loop.runTurn();
    loop.leap(0.01);
  }
}

class ReaderDeathTest : public testing::Test {
 protected:
  ReaderDeathTest() {
    void* const room =
        mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    control_ = new (room) Control;
  }
  ~ReaderDeathTest() override { munmap(control_, sizeof(Control)); }

  unsigned random() { return static_cast<unsigned>(random_() / 8); }

  // Two equal tables.
  void makeTables(unsigned table, bool alone, TemporaryRoot& root) {
    watched_ = root.table("watched");
    lonely_ = root.table("lonely");
    {
      StillWriter writer(watched_);
      Operations operations(table);
      for (unsigned i = 0; i < 100; ++i) operations.next(writer.table());
    }
    if (table % 4 >= 2) NearWrap(watched_).put();
    if (!alone) RawFile(watched_ + "/conquer.1").u32Is(kNumReaders, kManyReaders);
    std::filesystem::create_directory(lonely_);
    for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2", "fenix"}) {
      std::filesystem::copy_file(watched_ + "/" + name, lonely_ + "/" + name);
    }
  }
  // A life of one table with readers that die; the operations that were done.
  void live(unsigned seed, bool alone) {
    new (control_) Control;
    Child writer([&](int socket) { write(watched_, seed, alone, *control_, socket); });
    writer.await();
    std::deque<std::unique_ptr<Child>> readers;
    for (unsigned kill = 0; kill < kKills; ++kill) {
      static constexpr std::array<Quill::QuillType, 4> kTypes = {
          Quill::QuillType::reader, Quill::QuillType::shadow, Quill::QuillType::keyshadow,
          Quill::QuillType::shadow};
      const Quill::QuillType type = kTypes[random() % kTypes.size()];
      readers.push_back(std::make_unique<Child>([&](int) { read(watched_, type); }));
      busyWait(random() % kMaxLife);
      if (!alone && readers.size() < 3 && kill + 1 < kKills) continue;
      endOldest(readers);
    }
    while (!readers.empty()) endOldest(readers);
    control_->stop = true;
    if (writer.end() != 0) wrong("the writer did not end by itself");
  }
  void endOldest(std::deque<std::unique_ptr<Child>>& readers) {
    readers.front()->kill();
    if (readers.front()->end() != -1) wrong("a reader ended by itself");
    readers.pop_front();
    ++kills_;
  }
  void replay(unsigned seed) {
    StillWriter writer(lonely_);
    Operations operations(seed);
    for (std::uint64_t i = 0; i < control_->operations; ++i) operations.next(writer.table());
  }
  void compare(bool alone) {
    for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
      std::string watched = RawFile(watched_ + "/" + name).all();
      std::string lonely = RawFile(lonely_ + "/" + name).all();
      if (std::string_view(name) == "conquer.1") {
        const std::uint32_t readers = RawFile(watched_ + "/conquer.1").u32(kNumReaders);
        if (readers != (alone ? 0 : kManyReaders))
          wrong("numReaders is " + std::to_string(readers));
        watched.replace(kNumReaders, 4, lonely, kNumReaders, 4);
      }
      if (watched == lonely) continue;
      const auto at = static_cast<std::size_t>(
          std::mismatch(watched.begin(), watched.end(), lonely.begin(), lonely.end()).first -
          watched.begin());
      wrong(std::string(name) + " differs at byte " + std::to_string(at) + ", " +
            std::to_string(watched.size()) + " and " + std::to_string(lonely.size()) + " bytes");
    }
  }

  Control* control_ = nullptr;
  std::minstd_rand random_{ProofRun::seed()};
  std::string watched_;
  std::string lonely_;
  std::uint64_t kills_ = 0;
};

}  // namespace

TEST_F(ReaderDeathTest, NoDeathOfAReaderShowsInTheFiles) {
  SCOPED_TRACE("QUILL_SEED=" + std::to_string(ProofRun::seed()));
  const ProofRun run(4);
  unsigned tables = 0;
  std::uint64_t operations = 0;
  std::uint64_t introduced = 0;
  std::uint64_t moves = 0;

  for (; run.goesOn(tables); ++tables) {
    const bool alone = tables % 2 == 0;
    const unsigned seed = random();
    TemporaryRoot root;
    makeTables(tables + 1, alone, root);
    ASSERT_NO_THROW(live(seed, alone)) << "table " << tables;
    replay(seed);
    ASSERT_NO_THROW(compare(alone)) << "table " << tables << ", alone: " << alone;
    operations += control_->operations;
    introduced += control_->introduced;
    moves += control_->moves;
  }

  EXPECT_GT(introduced, 0U);
  EXPECT_GT(moves, 0U);
  std::printf(
      "readers: %u tables equal, %lu operations, queue moved %lu times, at least %lu of the killed "
      "were connected\n",
      tables, static_cast<unsigned long>(operations), static_cast<unsigned long>(moves),
      static_cast<unsigned long>(introduced));
  std::printf("deaths-readers: %lu of 100000 readers killed, seed %u\n",
              static_cast<unsigned long>(kills_), ProofRun::seed());
}

}  // namespace QuillTest
