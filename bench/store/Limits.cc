// SPDX-License-Identifier: Apache-2.0
//
// Two limits of what a reader without locks may cost: copying a record whose place is known under a
// counter that a writer raises before and after it stores, and one load for each record whose
// address the load before has given.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

#include "bench/store/Contestant.h"

namespace StoreBench {
namespace {

class SequenceCopy {
 public:
  static constexpr bool kByPlace = true;

  explicit SequenceCopy(std::size_t count) : cells_(count) {}
  void insert(std::uint32_t place, const IntfId& key) { store(place, {key, place, 0, 0}); }
  const Record* lookup(std::uint32_t place, const IntfId&) {
    const Cell& cell = cells_[place];
    std::uint32_t before = 0;
    std::uint32_t words[kWords];
    do {
      // Acquires throughout: a word of a store that has begun brings the counter's odd value along.
      before = cell.sequence.load(std::memory_order_acquire);
      for (unsigned i = 0; i < kWords; ++i) {
        words[i] = cell.words[i].load(std::memory_order_acquire);
      }
    } while ((before & 1) != 0 || cell.sequence.load(std::memory_order_relaxed) != before);
    std::memcpy(&copy_, words, sizeof copy_);
    return copy_.key == IntfId() ? nullptr : &copy_;
  }
  void update(std::uint32_t place, const IntfId& key, std::uint32_t value) {
    store(place, {key, value, value, value});
  }

 private:
  static constexpr unsigned kWords = sizeof(Record) / sizeof(std::uint32_t);
  struct Cell {
    std::atomic<std::uint32_t> sequence{0};
    std::atomic<std::uint32_t> words[kWords]{};
  };

  void store(std::uint32_t place, const Record& record) {
    Cell& cell = cells_[place];
    std::uint32_t words[kWords];
    std::memcpy(words, &record, sizeof record);
    const std::uint32_t before = cell.sequence.load(std::memory_order_relaxed);
    cell.sequence.store(before + 1, std::memory_order_relaxed);
    // Releases: a reader that sees one of the words sees the odd value.
    for (unsigned i = 0; i < kWords; ++i) cell.words[i].store(words[i], std::memory_order_release);
    cell.sequence.store(before + 2, std::memory_order_release);
  }

  std::vector<Cell> cells_;
  Record copy_;
};

// One cycle through all nodes, in the order of the visits.
void chase(benchmark::State& state) {
  struct Node {
    const Node* next;
    std::uint32_t place;
  };
  const Keys& keys = keysOf(state);
  std::vector<Node> nodes(keys.count());
  for (std::size_t i = 0; i < keys.count(); ++i) {
    nodes[keys.place[i]] = {&nodes[keys.place[(i + 1) % keys.count()]], keys.place[i]};
  }
  const std::uint64_t expected = keys.sum(keys.count());
  const Node* at = nodes.data();
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < keys.count(); ++i) {
      sum += at->place;
      at = at->next;
    }
    if (sum != expected) state.SkipWithError("a node was not met");
  }
  perRecord(state, keys.count());
}

const bool registered = registerTable<SequenceCopy>("sequence_copy") &&
                        (registerSizes("hit/chase", chase, maxRecordsOf<SequenceCopy>()), true);

}  // namespace
}  // namespace StoreBench
