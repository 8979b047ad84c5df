// SPDX-License-Identifier: Apache-2.0
//
// One process's share of the proof: plans scenarios, records each with recordKillTrace() and checks
// every image. Also records the recovery from an image, the recovery of that, and so on, since a
// successor dies as easily as its predecessor.
//
// Everything that is not as it must be is raised as std::runtime_error, whose text says which seed
// brings it about again.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>

namespace QuillTest {

struct KillCounts {
  std::uint64_t images = 0;
  std::uint64_t kept = 0;         // taken over by the next writer
  std::uint64_t givenUp = 0;      // begun anew under the next id
  std::uint64_t unannounced = 0;  // kept with a change that the queue does not tell of
  std::uint64_t checked = 0;      // by the independent checker too
};

class KillWorker {
 public:
  // Makes its tables below `root`. `everyImage` false: of a recovery, which has more than a
  // thousand, a random part. `checkEach`: every so many images go to the independent checker, 0 for
  // none.
  KillWorker(std::string root, bool everyImage, unsigned checkEach);
  ~KillWorker();

  // One scenario and whatever follows from it. `until`: seconds of the monotonic clock at which it
  // breaks off.
  void run(std::uint32_t seed, double until);
  // Prints what distinguishes the scenario's trace, to compare recorders by.
  void list(std::uint32_t seed);

  const std::map<std::string, KillCounts>& counts() const { return counts_; }
  const std::unordered_set<std::uint64_t>& distinct() const { return distinct_; }
  std::uint64_t steps() const { return steps_; }

 private:
  template <class Record>
  void runWith(std::uint32_t seed, double until);
  template <class Record>
  void listWith(std::uint32_t seed);

  std::string root_;
  bool everyImage_;
  unsigned checkEach_;
  std::map<std::string, KillCounts> counts_;  // by operation
  std::unordered_set<std::uint64_t> distinct_;
  std::uint64_t steps_ = 0;
  std::unique_ptr<class CheckerProcess> checker_;
};

}  // namespace QuillTest
