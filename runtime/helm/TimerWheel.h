// SPDX-License-Identifier: Apache-2.0
//
// Helm::TimerWheel: any number of timers on one clock, rounded up to ticks. Arming, re-arming and
// cancelling cost O(1) and allocate nothing. Activity thread only.
//
// A timer is a reactor derived from TimerWheel::NotifieeConst and registered with the wheel. It
// owns a reference to the wheel; the wheel owns no timer and knows only the armed ones. The wheel
// is a timer source of its activity manager, which must outlive it.
//
// Tick k stands at (time of construction) + k * tickMsecs / 1000 seconds, computed in this order in
// double precision; a timer belongs to the first tick that is not before its time.
//
// Invariants:
//  1. No timer fires before its time, and each fires once for each arming.
//  2. A time that is now or past belongs to the tick after the present one: what a handler arms
//  never
//     fires in the same walk.
//  3. Timers of one tick fire in the order in which they were armed (`preserveOrder` allows the
//  wheel
//     to do otherwise; it never does).
//  4. The wheel asks to be run when a timer fires and at no other time.
#pragma once

#include <cstdint>
#include <limits>

#include "runtime/helm/TickRings.h"
#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/Notifiee.h"
#include "runtime/vex/Ptr.h"
#include "runtime/vex/PtrInterface.h"

namespace Helm {

class TimerWheel final : public Vex::VFPtrInterface, private Vex::TimerSource {
 public:
  class NotifieeConst;

  // `activityConfig` says on which activity the timers fire; null: on the current manager's.
  // `clock` must be that manager's clock or count the same seconds; null: the manager's.
  // `initialMaxTicks` is the span that the caller expects to use; later times are as good.
  // `defaultBucketSize` is the number of slots of one tick, rounded up to a power of two from 64 to
  // 4096; it matters for speed alone.
  // Raises a range exception for a number of 0, and if the clock's time is so large that a tick
  // gets lost in its rounding.
  TimerWheel(Vex::Ptr<Vex::ActivityConfig> activityConfig, const Vex::Ptr<Vex::Clock const>& clock,
             std::uint32_t tickMsecs, std::uint32_t initialMaxTicks, bool preserveOrder,
             std::uint32_t defaultBucketSize);

  const Vex::Ptr<Vex::ActivityConfig>& activityConfig() const noexcept { return activityConfig_; }
  const Vex::Ptr<Vex::Clock const>& clock() const noexcept { return clock_; }
  std::uint32_t tickMsecs() const noexcept { return tickMsecs_; }
  std::uint32_t initialMaxTicks() const noexcept { return initialMaxTicks_; }
  bool preserveOrder() const noexcept { return preserveOrder_; }
  std::uint32_t defaultBucketSize() const noexcept { return defaultBucketSize_; }

  // hasNotificationActiveIs(false) holds all timers back, in the middle of a tick too. They stay
  // armed, and those that came due meanwhile fire in the turn after it is true again. A new wheel
  // has notification active.

  // Timers come and go; anything else that registers raises an internal exception.
  void notifieeRegisteredIs(Vex::NotifieeConst& notifiee, bool registered) const override;

 private:
  ~TimerWheel() override;

  double nextDue() override;
  void runDue(double now) override;

  double tickTime(std::uint64_t tick) const noexcept {
    return base_ + static_cast<double>(tick) * tickMsecs_ / 1000.0;
  }
  template <class Reached>
  std::uint64_t firstTick(double time, Reached reached) const noexcept;
  std::uint64_t firstTickNotBefore(double time) const noexcept;
  std::uint64_t firstTickAfter(double time) const noexcept;
  // Takes the timer off the rings and puts it back if it has a time to wait for.
  void arm(NotifieeConst& timer) const noexcept;

  const Vex::Ptr<Vex::ActivityConfig> activityConfig_;
  Vex::ActivityManager& manager_;
  const Vex::Ptr<Vex::Clock const> clock_;
  const std::uint32_t tickMsecs_;
  const std::uint32_t initialMaxTicks_;
  const bool preserveOrder_;
  const std::uint32_t defaultBucketSize_;
  const double base_;  // the time of tick 0
  const double ticksPerSecond_;

  bool running_ = false;           // inside runDue()
  std::uint64_t runningTick_ = 0;  // the present tick while running
  // Who arms a timer holds the wheel for reading: its own state does not change by it.
  mutable TickRings rings_;
};

// A timer. Kept small: there may be a million of them.
class TimerWheel::NotifieeConst : public Vex::NotifieeConst, private TickNode {
 public:
  // When to wake, in seconds on the wheel's clock. +infinity: never, and cancels. Every call counts
  // as an arming, with an equal value too. Raises a range exception for NaN and leaves all as it
  // was. While the timer is not registered the time is remembered; registering arms it.
  void timeMinIs(double seconds);
  // What was set last, also after it has fired; +infinity before that.
  double timeMin() const noexcept { return timeMin_; }
  // Will fire, as things stand.
  bool armed() const noexcept { return linked(); }

  // The time has come. The timer is disarmed; the handler may arm or cancel any timer, destroy any,
  // this one included, and let the wheel go. An exception goes to onNotificationException(0).
  virtual void onTime() {}

  // Only a wheel can be the notifier; anything else counts as null.
  void notifierIs(const Vex::Ptr<Vex::PtrInterface const>& notifier) override;

 protected:
  NotifieeConst() noexcept = default;
  ~NotifieeConst() override;

 private:
  friend class TimerWheel;
  // The mark of the node: has a time that has not fired yet.
  bool waiting() const noexcept { return mark(); }

  double timeMin_ = std::numeric_limits<double>::infinity();
};

static_assert(sizeof(void*) != 8 || sizeof(TimerWheel::NotifieeConst) <= 64);

}  // namespace Helm
