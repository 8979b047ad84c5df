// SPDX-License-Identifier: Apache-2.0
//
// What a writer process does, in memory that it shares with its parent and that survives it: each
// operation is noted before it begins and after it is done. Whoever finds the writer dead knows the
// table before and after the operation that it died in, if it died in one.
//
// One process writes, its parent reads while it lives and has the journal alone when it is dead.
#pragma once

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <new>

#include "tests/quill/history/TableModel.h"

namespace QuillTest {

class Journal {
 public:
  static constexpr unsigned kKeys = 240;

  // In a mapping that children share.
  static Journal* newShared() {
    void* const room =
        mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (room == MAP_FAILED) wrong("no memory for the journal");
    return new (room) Journal;
  }
  static void sharedDel(Journal* journal) { munmap(journal, sizeof(Journal)); }

  // The writer. `counter` 0: the key is removed.
  void begin(std::uint32_t index, std::uint32_t counter) {
    settle();
    const std::uint64_t number = done_ + 1;
    operations_[number % 2] = {index, counter};
    begun_ = number;
  }
  void end() { done_ = begun_.load(); }

  // The writer or, when it is dead, its parent: enters what was done last. Done once more it
  // changes nothing.
  void settle() {
    const Operation& last = operations_[done_ % 2];
    if (done_ != 0) counters_[last.index] = last.counter;
  }

  // The parent, when the writer is dead.
  bool inOperation() const { return begun_ != done_; }
  TableModel before() {
    settle();
    TableModel model;
    for (unsigned index = 0; index < kKeys; ++index) {
      if (counters_[index] != 0) model[historyKey(index)] = counters_[index];
    }
    return model;
  }
  TableModel after() {
    TableModel model = before();
    if (!inOperation()) return model;
    const Operation& last = operations_[begun_ % 2];
    model.erase(historyKey(last.index));
    if (last.counter != 0) model[historyKey(last.index)] = last.counter;
    return model;
  }
  // The table was found to hold `model`: the operation that was under way is so no more.
  void heldIs(const TableModel& model) {
    counters_ = {};
    for (unsigned index = 0; index < kKeys; ++index) {
      const auto found = model.find(historyKey(index));
      if (found != model.end()) counters_[index] = found->second;
    }
    begun_ = 0;
    done_ = 0;
  }

  // Says that the readers of the table are to end.
  std::atomic<bool> stop = false;
  // The last counter given out; higher with every write of all writers.
  std::atomic<std::uint32_t> lastCounter = 0;
  // Of the writer that is there when the readers are to compare.
  std::atomic<std::uint64_t> sequence = 0;
  std::atomic<std::uint32_t> fenix = 0;
  // Seen by the readers, by their modes; 0 for a reader that is not connected to the writer.
  std::array<std::atomic<std::uint64_t>, 4> seen{};

 private:
  struct Operation {
    std::uint32_t index = 0;
    std::uint32_t counter = 0;
  };

  Journal() = default;

  std::array<std::uint32_t, kKeys> counters_{};
  // One is being written while the other still stands.
  std::array<Operation, 2> operations_{};
  std::atomic<std::uint64_t> begun_ = 0;
  std::atomic<std::uint64_t> done_ = 0;
};

}  // namespace QuillTest
