// SPDX-License-Identifier: Apache-2.0
//
// What the writer and the readers of a table share beside the table: what was written when, and
// what the readers counted. In memory that processes share, or threads.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "tests/quill/history/KeyVersions.h"
#include "tests/quill/history/SharedBoard.h"

namespace QuillTest {

struct ReadBoard : SharedBoard<ReadBoard> {
  static constexpr unsigned kKeys = 2'048;

  enum Kind : unsigned { lookups, values, iterations, shadows, keyShadows, kinds };

  struct Key {
    KeyVersions versions;
    // Of the queue, after the version that is done. Stored before `done`, so that whoever loads it
    // after `done` has one that is no lower.
    std::atomic<std::uint64_t> sequence = 0;
  };

  // For the next table.
  void clear() {
    for (Key& key : keys) {
      key.versions.begin(0);
      key.versions.end(0);
      key.sequence = 0;
    }
    active = 0;
    ready = 0;
    stop = false;
  }
  bool over() const noexcept {
    return stop.load(std::memory_order_relaxed) || failed.load(std::memory_order_relaxed);
  }
  std::uint64_t allReads() const {
    std::uint64_t sum = 0;
    for (const auto& each : reads) sum += each;
    return sum;
  }

  std::array<Key, kKeys> keys{};
  std::atomic<std::uint32_t> active = 0;  // so many keys are in use
  std::atomic<unsigned> ready = 0;        // readers
  std::atomic<bool> stop = false;
  std::atomic<std::uint64_t> newsLost = 0;  // QueueWatch.h

  std::array<std::atomic<std::uint64_t>, kinds> reads{};
  // Reads during which a change of that very key was begun or under way.
  std::array<std::atomic<std::uint64_t>, kinds> raced{};
  std::array<std::atomic<std::uint64_t>, kinds> missed{};  // found nothing, rightly
  std::atomic<std::uint64_t> retries = 0;
  std::atomic<std::uint64_t> lookasides = 0;
  std::atomic<std::uint64_t> remaps = 0;
  std::atomic<std::uint64_t> swaps = 0;
  std::atomic<std::uint64_t> operations = 0;
  std::atomic<std::uint64_t> growths = 0;
  std::atomic<std::uint64_t> moves = 0;

 private:
  friend class SharedBoard<ReadBoard>;
  ReadBoard() = default;
};

}  // namespace QuillTest
