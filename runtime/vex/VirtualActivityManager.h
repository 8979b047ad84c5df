// SPDX-License-Identifier: Apache-2.0
//
// The activity loop of tests and simulations: time stands still until somebody moves it, and moves
// from event to event. Two runs of the same program do the same things in the same order.
//
// Belongs to the thread that runs it. Descriptors stay their owners'; they are polled without
// waiting, in the order of their numbers, once each turn, and cost nothing while there are none.
// What other processes write to a watched descriptor is the one thing that is not deterministic.
//
// Invariants:
//  1. Time never goes back and never passes a due timer.
//  2. All work of one instant is done before time moves: deferred tasks, due timers, readable
//     descriptors.
#pragma once

#include <poll.h>

#include <cstdint>
#include <map>
#include <vector>

#include "runtime/vex/ActivityManager.h"

namespace Vex {

// A clock that stands where it is put.
class VirtualClock final : public Clock {
 public:
  explicit VirtualClock(double time) noexcept : time_(time) {}
  double now() const noexcept override { return time_; }

 private:
  friend class VirtualActivityManager;
  double time_;
};

class VirtualActivityManager final : public ActivityManager {
 public:
  // More turns than this without time passing are an endless loop: each turn defers or finds new
  // work. Far above what a simulation of thousands of ports does in one instant.
  static constexpr std::uint32_t kMaxTurnsAtOneInstant = 1'000'000;

  // Seconds. Raises a range exception if `startTime` is not finite.
  explicit VirtualActivityManager(double startTime = 1000.0);
  ~VirtualActivityManager() override;

  double now() const noexcept { return virtualClock_->now(); }

  // One turn; no time passes. False if there was nothing to do.
  bool runTurn();
  // Does what is due now, then goes from one due time to the next, up to and including `time`,
  // where the clock stands in the end. Raises a range exception if `time` is past or not finite,
  // and an internal exception after kMaxTurnsAtOneInstant.
  void runUntil(double time);
  void runFor(double seconds) { runUntil(now() + seconds); }

  // How often time was moved for something that was due.
  std::uint64_t wakeUps() const noexcept { return wakeUps_; }

  void readableIs(int fd, ReadableHandler& handler) override;
  void readableDel(int fd) noexcept override;

 private:
  struct Watch {
    ReadableHandler* handler;
    std::uint64_t generation;  // tells a descriptor from a later one of the same number
  };
  struct Ready {
    int fd;
    std::uint64_t generation;
  };

  explicit VirtualActivityManager(const Ptr<VirtualClock>& clock);
  // All turns of the present instant.
  void runInstant();
  bool runReadable();

  Ptr<VirtualClock> virtualClock_;
  std::map<int, Watch> watches_;
  std::vector<pollfd> polled_;  // of watches_, in their order
  bool watchesChanged_ = false;
  std::uint64_t lastGeneration_ = 0;
  std::uint64_t wakeUps_ = 0;
};

}  // namespace Vex
