// SPDX-License-Identifier: Apache-2.0
//
// What the processes of a table whose writers die know of each other: memory that they share and
// that survives each of them. The writer notes each change before it begins and when it is done
// (KeyVersions.h); a reader holds what it finds against that; whoever sees something that must not
// be says so here, and the test fails with its words.
//
// Written by the writer that lives, by the test's process while none does, and by each watcher in
// its own fields.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/quill/history/KeyVersions.h"
#include "tests/quill/history/SharedBoard.h"

namespace QuillTest {

struct Board : SharedBoard<Board> {
  static constexpr unsigned kKeys = 64;
  static constexpr unsigned kWatchers = 4;
  static constexpr unsigned kFirstShadow = 2;

  void consumedIs(unsigned number, std::uint32_t generation, std::uint64_t upTo) {
    consumed[number].fenix = 0;
    consumed[number].sequence = upTo;
    consumed[number].fenix = generation;
  }
  // Up to where all shadows have come for certain.
  std::uint64_t consumedByAll() const {
    std::uint64_t lowest = ~std::uint64_t{0};
    for (unsigned number = kFirstShadow; number < kWatchers; ++number) {
      const std::uint32_t generation = consumed[number].fenix;
      const std::uint64_t upTo = consumed[number].sequence;
      if (generation != fenix || consumed[number].fenix != generation) return 0;
      lowest = std::min(lowest, upTo);
    }
    return lowest;
  }

  void stateSeen(const std::string& name) {
    for (State& state : states) {
      if (state.count == 0) std::snprintf(state.name.data(), state.name.size(), "%s", name.c_str());
      if (name != state.name.data()) continue;
      ++state.count;
      return;
    }
  }

  std::array<KeyVersions, kKeys> keys{};

  // The writer. An index is that of a key, plus 1; 0 is none.
  std::atomic<std::uint32_t> inOperation = 0;
  // Its news may be lost with the writer that changed it: written again before anything else.
  std::atomic<std::uint32_t> again = 0;
  // The writer lets the shadows catch up before it moves the queue, so that no news are lost.
  std::atomic<bool> gentle = false;
  // The writer's clock leaps so far that it waits for nobody any more.
  std::atomic<bool> leap = false;
  std::atomic<bool> movingQueue = false;
  std::atomic<bool> newsLost = false;  // QueueWatch.h
  // Odd from the death of a writer until the next one has attached.
  std::atomic<std::uint32_t> attaches = 0;
  std::atomic<std::uint32_t> fenix = 0;
  // The files were seen in a state that costs the table, and it has not been given up yet.
  std::atomic<bool> unsound = false;
  std::atomic<std::uint64_t> sequence = 0;

  // The watchers are to compare when this rises, and say so when they have.
  std::atomic<std::uint32_t> quiet = 0;
  std::array<std::atomic<std::uint32_t>, kWatchers> compared{};
  std::atomic<bool> stop = false;
  // Up to where a shadow has come, in which generation; generation 0 while the two are being
  // stored.
  struct Consumed {
    std::atomic<std::uint32_t> fenix = 0;
    std::atomic<std::uint64_t> sequence = 0;
  };
  std::array<Consumed, kWatchers> consumed{};

  // Counts, for the summary and for the tests' own coverage.
  std::atomic<std::uint64_t> operations = 0;
  std::atomic<std::uint64_t> diedInOperation = 0;
  std::atomic<std::uint64_t> kept = 0;
  std::atomic<std::uint64_t> keptBefore = 0;
  std::atomic<std::uint64_t> keptAfter = 0;
  std::atomic<std::uint64_t> givenUp = 0;
  // In what states the files were left, of those that cost the table. The writer alone counts.
  struct State {
    std::array<char, 60> name{};
    std::uint64_t count = 0;
  };
  std::array<State, 24> states{};
  std::atomic<std::uint64_t> moves = 0;    // of the queue
  std::atomic<std::uint64_t> growths = 0;  // of the slots
  std::atomic<std::uint64_t> lostNews = 0;
  std::array<std::atomic<std::uint64_t>, kWatchers> looks{};
  std::array<std::atomic<std::uint64_t>, kWatchers> raced{};
  std::array<std::atomic<std::uint64_t>, kWatchers> damages{};
  std::array<std::atomic<std::uint64_t>, kWatchers> resyncs{};

 private:
  friend class SharedBoard<Board>;
  Board() = default;
};

}  // namespace QuillTest
