// SPDX-License-Identifier: Apache-2.0
//
// The activity loop: one thread on which all reactions, timers and readable descriptors of one or
// more systems run. EpollActivityManager drives it from the kernel, VirtualActivityManager from a
// test or a simulation that says what time it is.
//
// Everything here belongs to the activity thread. Nobody is owned by the manager: whoever registers
// a task, a timer source or a descriptor withdraws it before it goes (DeferredTask does it itself).
//
// A manager is current on its thread while it runs a turn, so that handlers find it through
// activityManager(). One turn runs, in this order:
//  1. the deferred tasks that were scheduled before the turn began,
//  2. the timer sources, in the order of their registration, that have something due,
//  3. the handlers of the readable descriptors.
//
// Invariants:
//  1. The loop wakes for a due timer, a readable descriptor or a scheduled task, and for nothing
//  else.
//  2. A task runs once for any number of schedule() calls before it runs.
//  3. What a handler raises ends the turn and reaches whoever ran it; tasks that the turn had not
//     come to yet run in the next one. A turn cannot be run inside a turn.
#pragma once

#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "runtime/vex/LogService.h"
#include "runtime/vex/PtrInterface.h"

namespace Vex {

inline constexpr double kNever = std::numeric_limits<double>::infinity();

// A source of time. Seconds, never going back; what second 0 is belongs to the clock.
class Clock : public VFPtrInterface {
 public:
  virtual double now() const noexcept = 0;
};

// Something that has timers of its own, such as a timer wheel.
class TimerSource {
 public:
  // When runDue() is next wanted, in seconds on the manager's clock; kNever for not at all. Exact:
  // there is something due at that time. Cheap: asked about twice a turn.
  virtual double nextDue() = 0;
  // Runs what is due at `now`.
  virtual void runDue(double now) = 0;

 protected:
  ~TimerSource() = default;
};

// What wants to know that a descriptor is readable (or in error).
class ReadableHandler {
 public:
  // Level-triggered: called each turn while there is something to read. Does a bounded amount of
  // work.
  virtual void onReadable() = 0;

 protected:
  ~ReadableHandler() = default;
};

class ActivityManager;

// Makes a manager current on this thread for the life of the scope; scopes nest.
class CurrentActivityManager {
 public:
  explicit CurrentActivityManager(ActivityManager& manager) noexcept;
  CurrentActivityManager(const CurrentActivityManager&) = delete;
  CurrentActivityManager& operator=(const CurrentActivityManager&) = delete;
  ~CurrentActivityManager();

 private:
  ActivityManager* before_;
};

// A place in a ring of tasks; alone, it is a ring of itself.
struct TaskLink {
  TaskLink() noexcept = default;
  TaskLink(const TaskLink&) = delete;
  TaskLink& operator=(const TaskLink&) = delete;

  TaskLink* taskPrev = this;
  TaskLink* taskNext = this;
};

// Work for the next turn. Owned by whoever defers; destroying it takes it off the list. Scheduling
// and cancelling cost O(1) and allocate nothing.
class DeferredTask : private TaskLink {
 public:
  explicit DeferredTask(ActivityManager& manager) noexcept : manager_(manager) {}
  DeferredTask(const DeferredTask&) = delete;
  DeferredTask& operator=(const DeferredTask&) = delete;

  // Does nothing if the task is scheduled already.
  void schedule() noexcept;
  // Does nothing if the task is not scheduled.
  void cancel() noexcept;
  bool scheduled() const noexcept { return scheduled_; }

  virtual void run() = 0;

 protected:
  virtual ~DeferredTask() { cancel(); }

 private:
  friend class ActivityManager;
  ActivityManager& manager_;
  bool scheduled_ = false;
};

class ActivityManager {
 public:
  ActivityManager(const ActivityManager&) = delete;
  ActivityManager& operator=(const ActivityManager&) = delete;
  virtual ~ActivityManager();

  const Ptr<Clock const>& clock() const noexcept { return clock_; }
  LogService& logService() noexcept { return *logService_; }

  // The time of what is happening: the clock's, except inside a timer's handler. There it is the
  // time for which the timer was set, if it fires at the tick that its time belongs to. So a timer
  // that sets itself to now() + interval keeps its interval, and the rounding to ticks does not add
  // up.
  double now() const noexcept { return timerTime_ != kNever ? timerTime_ : clock_->now(); }

  // Makes now() the time of a timer while its handler runs; kNever leaves it at the clock's. For
  // timer sources.
  class TimerTime {
   public:
    TimerTime(ActivityManager& manager, double time) noexcept
        : manager_(manager), before_(std::exchange(manager.timerTime_, time)) {}
    TimerTime(const TimerTime&) = delete;
    TimerTime& operator=(const TimerTime&) = delete;
    ~TimerTime() { manager_.timerTime_ = before_; }

   private:
    ActivityManager& manager_;
    double before_;
  };

  // `source` must outlive its registration. Registering twice is an internal exception. A source
  // that is registered while the sources run is first asked in the next turn.
  void timerSourceIs(TimerSource& source);
  // Does nothing for an unknown source. Allowed at any time, also from the source's own runDue().
  void timerSourceDel(TimerSource& source) noexcept;

  // Watches a descriptor, one handler each; the descriptor stays the caller's and must be withdrawn
  // before it is closed. Raises an internal exception with the system's reason if it cannot be
  // watched.
  virtual void readableIs(int fd, ReadableHandler& handler) = 0;
  virtual void readableDel(int fd) noexcept = 0;

 protected:
  explicit ActivityManager(Ptr<Clock const> clock);

  // Stands on the stack for the length of a turn. Raises an internal exception inside another turn
  // of the same manager.
  class TurnScope {
   public:
    explicit TurnScope(ActivityManager& manager);
    TurnScope(const TurnScope&) = delete;
    TurnScope& operator=(const TurnScope&) = delete;
    ~TurnScope() { manager_.inTurn_ = false; }

   private:
    ActivityManager& manager_;
    CurrentActivityManager current_;
  };

  // Step 1 of a turn; false if there was nothing to do.
  bool runDeferred();
  bool hasDeferred() const noexcept { return deferred_.taskNext != &deferred_; }
  // The earliest time that any source wants.
  double nextDue();
  // Step 2 of a turn; false if there was nothing to do.
  bool runTimers(double now);

 private:
  friend class DeferredTask;
  Ptr<Clock const> clock_;
  std::unique_ptr<LogService> logService_;
  std::vector<TimerSource*> sources_;  // null: withdrawn while the list is walked
  bool walkingSources_ = false;
  bool inTurn_ = false;
  double timerTime_ = kNever;  // kNever: no timer's handler runs
  TaskLink deferred_;          // the ring of the scheduled tasks
};

// The manager of this thread. Raises an internal exception if none is current.
ActivityManager& activityManager();
// The same, null if none is current.
ActivityManager* currentActivityManager() noexcept;

// ActivityManager::now() of the current manager, in seconds.
double now();

// The configuration of the thread's activity: where machines find their clock.
class ActivityManagerConfig {
 public:
  explicit ActivityManagerConfig(const ActivityManager& manager) : clock_(manager.clock()) {}
  const Ptr<Clock const>& clock() const noexcept { return clock_; }

 private:
  Ptr<Clock const> clock_;
};

// Says on which activity a machine runs. A null reference means the current manager.
class ActivityConfig : public VFPtrInterface {
 public:
  explicit ActivityConfig(ActivityManager& manager) noexcept : manager_(manager) {}
  ActivityManager& manager() const noexcept { return manager_; }

 private:
  ActivityManager& manager_;
};

}  // namespace Vex
