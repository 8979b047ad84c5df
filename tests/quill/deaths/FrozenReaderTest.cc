// SPDX-License-Identifier: Apache-2.0
//
// Readers that are stopped at a random moment, sleep through thousands of rewrites of the table
// (moves of the queue, slots used again, growths, writers that die, generations that are given up),
// and go on. What holds then is what holds always (Watcher.h): nothing is found that the table did
// not hold at some moment of the look, the long one that was stopped included; and at rest all is
// as the writer has it.
//
// QUILL_SECONDS and QUILL_SEED: ProofRun.h.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/quill/deaths/Field.h"
#include "tests/quill/history/NearWrap.h"
#include "tests/quill/history/ProofRun.h"

namespace QuillTest {

namespace {

constexpr unsigned kMoves = 300;  // of the queue, while a reader sleeps; thousands of changes each
constexpr unsigned kMaxWait = 100'000;

// Until the queue has been moved so many times more.
void awaitMoves(Field& field, const Child& writer, unsigned moves) {
  const std::uint64_t enough = field.board().moves + moves;
  while (field.board().moves < enough) {
    if (writer.ended(1)) {
      field.requireSound();
      wrong("the writer ended");
    }
  }
}

}  // namespace

TEST(FrozenReaderTest, AReaderThatSleptThroughThousandsOfRewritesEndsInTheWritersState) {
  SCOPED_TRACE("QUILL_SEED=" + std::to_string(ProofRun::seed()));
  const ProofRun run(6);
  Field field(ProofRun::seed());
  NearWrap wraps(field.path());
  Board& board = field.board();
  unsigned freezes = 0;
  std::uint64_t lost = 0;

  for (unsigned round = 0; run.goesOn(round); ++round) {
    auto writer = field.newWriter(false);
    ASSERT_NO_THROW(field.awaitWork(*writer)) << "round " << round;
    ASSERT_NO_THROW(awaitMoves(field, *writer, 2)) << "round " << round;
    busyWait(field.random() % kMaxWait);
    const unsigned frozen = 1 + field.random() % 15;
    for (unsigned number = 0; number < Board::kWatchers; ++number) {
      if ((frozen >> number & 1U) == 0) continue;
      field.watcher(number).signal(SIGSTOP);
      ++freezes;
    }
    // The connections stay, or the writer that comes next waits for its readers, or it does not.
    const unsigned lives = round % 3 == 0 ? 1 : 3;
    for (unsigned life = 1; life <= lives; ++life) {
      board.leap = round % 3 == 2;
      ASSERT_NO_THROW(awaitMoves(field, *writer, kMoves / lives)) << "round " << round;
      ASSERT_NO_THROW(field.kill(*writer)) << "round " << round;
      if (life == lives) break;
      writer = field.newWriter(false);
      ASSERT_NO_THROW(field.awaitWork(*writer)) << "round " << round;
    }
    for (unsigned number = 0; number < Board::kWatchers; ++number) {
      field.watcher(number).signal(SIGCONT);
    }
    if (board.newsLost) ++lost;
    wraps.put();
    writer = field.newWriter(true);
    ASSERT_NO_THROW(field.awaitWork(*writer)) << "round " << round;
    ASSERT_NO_THROW(field.kill(*writer)) << "round " << round;
  }
  ASSERT_NO_THROW(field.end());

  EXPECT_GT(freezes, 0U);
  EXPECT_GT(board.moves, 0U);
  std::uint64_t resyncs = 0;
  for (const auto& each : board.resyncs) resyncs += each;
  std::printf(
      "frozen readers: %u stopped and continued, the queue moved %lu times, %lu operations, %lu "
      "resynchronisations, news lost %lu times, versions wrapped %lu, seed %u\n",
      freezes, static_cast<unsigned long>(board.moves),
      static_cast<unsigned long>(board.operations), static_cast<unsigned long>(resyncs),
      static_cast<unsigned long>(lost), static_cast<unsigned long>(wraps.wrapped()),
      ProofRun::seed());
}

}  // namespace QuillTest
