// SPDX-License-Identifier: Apache-2.0
//
// Writers that are killed while they change a table, or while they attach to what the one before
// left, with four readers that live on: two plain ones, a shadow, a key shadow. LoadedWriter.h and
// Watcher.h say what holds after each death and all the time; docs/deaths-and-reads.md says what
// that shows and what it does not.
//
// QUILL_SECONDS and QUILL_SEED: ProofRun.h.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/quill/deaths/Field.h"
#include "tests/quill/history/NearWrap.h"
#include "tests/quill/history/ProofRun.h"

namespace QuillTest {

namespace {

constexpr unsigned kMaxWait = 100'000;   // some 300 microseconds
constexpr unsigned kMaxStart = 400'000;  // some longer than an attach takes
constexpr unsigned kRestEvery = 30;

unsigned long count(const std::atomic<std::uint64_t>& number) {
  return static_cast<unsigned long>(number.load());
}

void summarize(Board& board, unsigned deaths, unsigned rests, const NearWrap& wraps) {
  std::printf(
      "writers: kept %lu (%lu as before and %lu as after the operation), given up %lu; %lu "
      "operations, queue moved %lu times, slots grown %lu times\n",
      count(board.kept), count(board.keptBefore), count(board.keptAfter), count(board.givenUp),
      count(board.operations), count(board.moves), count(board.growths));
  std::printf(
      "writers: %u comparisons at rest, news lost before %lu of them; versions wrapped %lu\n",
      rests, count(board.lostNews), static_cast<unsigned long>(wraps.wrapped()));
  for (const Board::State& state : board.states) {
    if (state.count == 0) break;
    std::printf("writers: left unsound %lu times: %s\n", static_cast<unsigned long>(state.count),
                state.name.data());
  }
  for (unsigned number = 0; number < Board::kWatchers; ++number) {
    std::printf(
        "writers: watcher %u: %lu looks, %lu at a key in the making, %lu lost generations met, "
        "%lu resynchronisations\n",
        number, count(board.looks[number]), count(board.raced[number]),
        count(board.damages[number]), count(board.resyncs[number]));
  }
  std::printf("deaths-writers: %u of 100000 writers killed, seed %u\n", deaths, ProofRun::seed());
}

}  // namespace

TEST(WriterDeathTest, EveryDeathLeavesTheTableBeforeOrAfterOneOperationOrACleanNewOne) {
  SCOPED_TRACE("QUILL_SEED=" + std::to_string(ProofRun::seed()));
  const ProofRun run(300);
  Field field(ProofRun::seed());
  NearWrap wraps(field.path());
  unsigned deaths = 0;
  unsigned rests = 0;

  for (; run.goesOn(deaths); ++deaths) {
    field.board().gentle = deaths / kRestEvery % 2 == 0;
    const bool rest = deaths % kRestEvery == kRestEvery - 1;
    if (rest) wraps.put();
    const auto writer = field.newWriter(rest);
    if (!rest && field.random() % 8 == 0) {
      busyWait(field.random() % kMaxStart);  // wherever it is in its attach
    } else {
      ASSERT_NO_THROW(field.awaitWork(*writer)) << "death " << deaths;
      busyWait(field.random() % kMaxWait);
    }
    ASSERT_NO_THROW(field.kill(*writer)) << "death " << deaths;
    if (rest) ++rests;
  }
  ASSERT_NO_THROW(field.end());

  Board& board = field.board();
  EXPECT_GT(board.kept, 0U);
  EXPECT_GT(board.givenUp, 0U);
  EXPECT_GT(board.moves, 0U);
  EXPECT_GT(board.growths, 0U);
  EXPECT_GT(wraps.wrapped(), 0U);
  for (const auto& looks : board.looks) EXPECT_GT(looks, 0U);
  summarize(board, deaths, rests, wraps);
}

}  // namespace QuillTest
