// SPDX-License-Identifier: Apache-2.0
//
// What the benchmarks of several processes share: helper processes that are forked, bound to one
// processor and ended by their process ids, and a page of memory by which they and the benchmark
// tell each other how far they are.
//
// The benchmark works on the first processor that it may use, helpers on the second; where there is
// one alone they share it, and the figures say little. A helper is forked before the benchmark has
// a table, so that it inherits nothing of it. Every wait ends after kLimit.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/store/QuillTable.h"
#include "quill/QuillMap.h"
#include "runtime/vex/EpollActivityManager.h"

namespace StoreBench {

inline constexpr unsigned kMaxHelpers = 8;
inline constexpr std::chrono::seconds kLimit{300};

// Zero at the beginning. Sequentially consistent throughout: nothing here is timed but `stamp`,
// and of that the time at which it was taken.
struct SharedPage {
  std::atomic<bool> go{false};
  std::atomic<bool> ready{false};
  std::atomic<std::uint64_t> work{0};                        // of the helper that writes
  std::array<std::atomic<std::uint64_t>, kMaxHelpers> seen;  // sequence, or notifications
  std::atomic<std::uint64_t> stamp{0};                       // nanoseconds
  std::atomic<std::uint32_t> word{0};                        // a futex
};

std::unique_ptr<SharedPage, void (*)(SharedPage*)> newSharedPage();

// Nanoseconds of the monotonic clock, the same on all processors.
std::uint64_t nanoseconds();

// Binds the calling thread to the first or the second of the processors that the program may use.
void processorIs(unsigned which);

// False: it did not become true within kLimit. `step` is done between two looks.
template <class Condition, class Step>
bool await(const Condition& condition, const Step& step) {
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    step();
  }
  return true;
}

class Helper {
 public:
  // `work` runs in a process of its own, which ends when it returns or with this object or this
  // process.
  explicit Helper(const std::function<void()>& work);
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;
  ~Helper();

  // Whether it sleeps in the kernel.
  bool asleep() const;

 private:
  pid_t pid_;
  int status_ = -1;  // /proc/<pid>/stat
};

// A shadow on a table that need not be there yet, for as long as its process lives; after each turn
// of its loop it says in page.seen[number] which sequence it has consumed. With `stamping` it
// says when it was notified, and how often, instead.
void follow(SharedPage& page, unsigned number, const std::string& table, bool stamping);

// A writer with all records of `keys`, updated in the order of their visits, at full speed from
// page.go on. Each record holds one number three times.
void writeForever(SharedPage& page, const std::string& table, const Keys& keys);

// A writer in this process with its loop, and shadows in processes of their own, all connected and
// up to date. What is not so is told by error().
class FollowedTable {
 public:
  FollowedTable(std::size_t records, unsigned shadows, bool stamping = false);
  FollowedTable(const FollowedTable&) = delete;
  FollowedTable& operator=(const FollowedTable&) = delete;
  ~FollowedTable();

  QuillWriter& writer() { return *writer_; }
  SharedPage& page() { return *page_; }
  const Helper& helper(unsigned number) const { return *helpers_[number]; }
  // A turn of the loop: reports of readers are taken in.
  void turn() { loop_.runTurn(0); }
  // Runs until all shadows have all changes.
  bool settle();
  const char* error() const { return error_; }

 private:
  std::string name_ = Quill::tablePath(tableRoot(), "followed");
  std::unique_ptr<SharedPage, void (*)(SharedPage*)> page_ = newSharedPage();
  std::vector<std::unique_ptr<Helper>> helpers_;
  Vex::EpollActivityManager loop_;
  Vex::CurrentActivityManager current_;
  Sable::Platform::DebugHandler handler_{"bench"};
  std::unique_ptr<QuillWriter> writer_;
  const char* error_ = nullptr;
};

}  // namespace StoreBench
