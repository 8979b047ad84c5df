// SPDX-License-Identifier: Apache-2.0
//
// Every change of a key has a number: the key's version, which rises by one with each change. A
// version says by itself what the change was, a write or a removal, so that whoever knows between
// which versions a reader looked knows all that it may have found. The writer publishes for each
// key the version that it has begun and the one that it has completed.
//
// One process writes, any process reads. What is published lies in memory of its own, which the
// store knows nothing of.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace QuillTest {

// Every bit of the result depends on every bit of the argument, and no two arguments share one.
constexpr std::uint64_t mixed(std::uint64_t number) noexcept {
  number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9U;
  number = (number ^ number >> 27) * 0x94D049BB133111EBU;
  return number ^ number >> 31;
}

// Version 0 is that of a key that was never there; of the others about one in four is a removal.
constexpr bool isRemoval(std::uint32_t key, std::uint32_t version) noexcept {
  return version == 0 || mixed(std::uint64_t{key} << 32 | version) % 4 == 0;
}

struct KeyVersions {
  std::atomic<std::uint32_t> begun = 0;
  std::atomic<std::uint32_t> done = 0;

  // The writer. [1] What is begun is told before anything of it is stored into the table, and what
  // is done after all of it: a reader that looks at `done` first and at `begun` last has the
  // versions between which it looked. Releases, which pair with the reader's acquires.
  std::uint32_t next() const noexcept { return done.load(std::memory_order_relaxed) + 1; }
  void begin(std::uint32_t version) noexcept { begun.store(version, std::memory_order_release); }
  void end(std::uint32_t version) noexcept { done.store(version, std::memory_order_release); }

  // A reader, before and after it looks.
  std::uint32_t before() const noexcept { return done.load(std::memory_order_acquire); }
  std::uint32_t after() const noexcept { return begun.load(std::memory_order_acquire); }
};

// Whether a reader that looked between two versions may have found this one.
constexpr bool mayBeFound(std::uint32_t key, std::uint32_t before, std::uint32_t after,
                          std::uint32_t version) noexcept {
  return before <= version && version <= after && !isRemoval(key, version);
}
// Whether it may have found nothing.
constexpr bool mayBeMissed(std::uint32_t key, std::uint32_t before, std::uint32_t after) noexcept {
  for (std::uint32_t version = before; version <= after; ++version) {
    if (isRemoval(key, version)) return true;
  }
  return false;
}

}  // namespace QuillTest
