// SPDX-License-Identifier: Apache-2.0
//
// What every contestant of the store's benchmarks is given: records of 20 bytes under an 8-byte key
// (an interface), made from one fixed seed, and the order in which they are visited.
//
// Records are inserted by ascending place and visited in another, shuffled order, so that nobody
// gains from memory that it gave out in the order of the visits. Keys stand in the order of the
// visits: reading them costs everybody the same, next to nothing.
//
// For one thread. The directory of tableRoot() goes at the end of the program that made it.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "runtime/portus/IntfId.h"

namespace StoreBench {

using Portus::IntfId;

struct Record {
  IntfId key;
  std::uint32_t tx = 0;
  std::uint32_t rx = 0;
  std::uint32_t rxOther = 0;

  friend bool operator==(const Record&, const Record&) = default;
};
static_assert(sizeof(Record) == 20);

inline constexpr std::size_t kSeed = 20261121;

struct Keys {
  explicit Keys(std::size_t count) : byPlace(count), present(count), absent(count), place(count) {
    std::mt19937_64 random(kSeed);
    // The lowest bit tells keys that are there from others; the bits above it count, so that no two
    // are alike.
    const auto newKey = [&random](std::size_t number, bool there) {
      return IntfId::fromValue((random() << 22) | (number << 1) | (there ? 0U : 1U));
    };
    for (std::size_t i = 0; i < count; ++i) byPlace[i] = newKey(i, true);
    for (std::size_t i = 0; i < count; ++i) absent[i] = newKey(i, false);
    std::iota(place.begin(), place.end(), 0U);
    std::shuffle(place.begin(), place.end(), random);
    for (std::size_t i = 0; i < count; ++i) present[i] = byPlace[place[i]];
  }
  std::size_t count() const noexcept { return place.size(); }
  // The sum of the places that the first `visits` visits meet, which each record holds in `tx`.
  std::uint64_t sum(std::size_t visits) const {
    return std::accumulate(place.begin(), place.begin() + static_cast<std::ptrdiff_t>(visits),
                           std::uint64_t{0});
  }

  std::vector<IntfId> byPlace;
  // By visit.
  std::vector<IntfId> present;
  std::vector<IntfId> absent;
  std::vector<std::uint32_t> place;
};

inline const Keys& keysOf(std::size_t count) {
  static std::unordered_map<std::size_t, std::unique_ptr<Keys>> all;
  std::unique_ptr<Keys>& keys = all[count];
  if (keys == nullptr) keys = std::make_unique<Keys>(count);
  return *keys;
}

// A directory in memory where there is such a place.
inline const std::string& tableRoot() {
  static const struct Root {
    Root() : owner(getpid()) {
      const char* const shm = "/dev/shm";
      // The six X are for mkdtemp(3) to fill in.
      std::string pattern =
          (std::filesystem::exists(shm) ? std::string(shm)
                                        : std::filesystem::temp_directory_path().string()) +
          "/store-bench-XXXXXX";
      path = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~Root() {
      std::error_code ignored;
      if (!path.empty() && owner == getpid()) std::filesystem::remove_all(path, ignored);
    }
    pid_t owner;
    std::string path;
  } root;
  return root.path;
}

}  // namespace StoreBench
