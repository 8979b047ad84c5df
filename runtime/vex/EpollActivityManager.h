// SPDX-License-Identifier: Apache-2.0
//
// The activity loop of a real process: epoll(7) for descriptors, one timerfd(2) for all timer
// sources, the monotonic clock for time.
//
// Belongs to the thread that runs it, stop() included; signals reach it as signalfd descriptors.
// Watched descriptors stay their owners' and must be withdrawn before they are closed.
//
// Invariants:
//  1. The process sleeps unless a timer is due, a descriptor is readable or a task is scheduled.
//  With
//     no timer armed in any source the timerfd is disarmed.
//  2. The timerfd fires at or after the due time, never before it.
//  3. The handler of a withdrawn descriptor is not called, even if it was reported readable before
//     and even if its number has been taken by another descriptor meanwhile.
#pragma once

#include <cstdint>
#include <ctime>
#include <unordered_map>

#include "runtime/vex/ActivityManager.h"

namespace Vex {

// clock_gettime(CLOCK_MONOTONIC), in seconds; one reading per call.
class MonotonicClock final : public Clock {
 public:
  double now() const noexcept override;
};

// A time as the monotonic clock reports it, in seconds.
double secondsOf(const timespec& time) noexcept;

// The earliest time of the monotonic clock that, in seconds, is not before `seconds`; at least one
// nanosecond. REQUIRES: `seconds` is below 2^31.
timespec notBefore(double seconds) noexcept;

class EpollActivityManager final : public ActivityManager {
 public:
  // Raises an internal exception with the system's reason if a descriptor cannot be made.
  EpollActivityManager();
  ~EpollActivityManager() override;

  // Runs turns until stop(). A stop() before run() ends it before its first turn.
  void run();
  // Makes run() return at the end of the present turn.
  void stop() noexcept { stopped_ = true; }
  // Waits until there is something to do, `maxWaitSeconds` (rounded up to milliseconds; kNever: no
  // limit; 0 or less: not at all) have passed or a signal has come, then runs one turn.
  void runTurn(double maxWaitSeconds);

  // How often the loop has come back from a wait that could put the thread to sleep.
  std::uint64_t wakeUps() const noexcept { return wakeUps_; }
  // How often the timerfd was set or disarmed.
  std::uint64_t timerSettings() const noexcept { return timerSettings_; }

  void readableIs(int fd, ReadableHandler& handler) override;
  void readableDel(int fd) noexcept override;

 private:
  // A descriptor that is closed with its scope.
  class OwnDescriptor {
   public:
    OwnDescriptor(int fd, const char* what);
    OwnDescriptor(const OwnDescriptor&) = delete;
    OwnDescriptor& operator=(const OwnDescriptor&) = delete;
    ~OwnDescriptor();
    int get() const noexcept { return fd_; }

   private:
    int fd_;
  };
  struct Watch {
    ReadableHandler* handler;
    std::uint32_t generation;  // tells a descriptor from a later one of the same number
  };

  void timerIs(double due);

  const OwnDescriptor epoll_;
  const OwnDescriptor timer_;
  double timerDue_ = kNever;  // what the timerfd is set to
  std::unordered_map<int, Watch> watches_;
  std::uint32_t lastGeneration_ = 0;
  bool stopped_ = false;
  std::uint64_t wakeUps_ = 0;
  std::uint64_t timerSettings_ = 0;
};

}  // namespace Vex
