// SPDX-License-Identifier: Apache-2.0
//
// What the writer and the readers of a table share beside the table: what was written when, and
// what the readers counted. In memory that processes share, or threads.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>

#include "tests/quill/history/KeyVersions.h"
#include "tests/quill/history/TableModel.h"

namespace QuillTest {

struct ReadBoard {
  static constexpr unsigned kKeys = 2'048;

  enum Kind : unsigned { lookups, values, iterations, shadows, keyShadows, kinds };

  struct Key {
    KeyVersions versions;
    // Of the queue, after the version that is done. Stored before `done`, so that whoever loads it
    // after `done` has one that is no lower.
    std::atomic<std::uint64_t> sequence = 0;
  };

  static ReadBoard* newShared() {
    void* const room =
        mmap(nullptr, sizeof(ReadBoard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) wrong("no memory for the board");
    return new (room) ReadBoard;
  }
  static void sharedDel(ReadBoard* board) { munmap(board, sizeof(ReadBoard)); }

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
  // The first text stays.
  void failureIs(const std::string& text) {
    if (failing.exchange(true)) return;
    std::snprintf(failure.data(), failure.size(), "%s", text.c_str());
    failed = true;
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

  std::atomic<bool> failing = false;
  std::atomic<bool> failed = false;
  std::array<char, 1'000> failure{};

 private:
  ReadBoard() = default;
};

}  // namespace QuillTest
