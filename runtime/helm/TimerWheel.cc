// SPDX-License-Identifier: Apache-2.0
#include "runtime/helm/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "runtime/vex/Exception.h"

namespace Helm {

namespace {

std::uint32_t atLeastOne(const char* what, std::uint32_t value) {
  if (value == 0) Vex::throwRangeException(std::string("timer wheel: ") + what + " 0, at least 1");
  return value;
}

}  // namespace

TimerWheel::TimerWheel(Vex::Ptr<Vex::ActivityConfig> activityConfig,
                       const Vex::Ptr<Vex::Clock const>& clock, std::uint32_t tickMsecs,
                       std::uint32_t initialMaxTicks, bool preserveOrder,
                       std::uint32_t defaultBucketSize)
    : activityConfig_(std::move(activityConfig)),
      manager_(activityConfig_ ? activityConfig_->manager() : Vex::activityManager()),
      clock_(clock ? clock : manager_.clock()),
      tickMsecs_(atLeastOne("tickMsecs", tickMsecs)),
      initialMaxTicks_(atLeastOne("initialMaxTicks", initialMaxTicks)),
      preserveOrder_(preserveOrder),
      defaultBucketSize_(atLeastOne("defaultBucketSize", defaultBucketSize)),
      base_(clock_->now()),
      ticksPerSecond_(1000.0 / tickMsecs),
      rings_(defaultBucketSize) {
  if (!(tickTime(1) > base_)) {
    Vex::throwRangeException("timer wheel: time " + std::to_string(base_) +
                             " of the clock, too large for ticks of " + std::to_string(tickMsecs) +
                             " ms");
  }
  hasNotificationActiveIs(true);
  manager_.timerSourceIs(*this);
}

TimerWheel::~TimerWheel() { manager_.timerSourceDel(*this); }

// The first tick for which `reached(tickTime)` holds; kNoTick if it is not among the rings' ticks.
// `time` is where that is, but for rounding: a few steps around it find the tick.
template <class Reached>
std::uint64_t TimerWheel::firstTick(double time, Reached reached) const noexcept {
  const double guess = (time - base_) * ticksPerSecond_;
  if (guess >= static_cast<double>(TickRings::kMaxTick)) return TickRings::kNoTick;
  std::uint64_t tick = guess > 0 ? static_cast<std::uint64_t>(guess) : 0;
  if (reached(tickTime(tick))) {
    while (tick > 0 && reached(tickTime(tick - 1))) --tick;
  } else {
    do {
      ++tick;
    } while (!reached(tickTime(tick)));
  }
  return tick <= TickRings::kMaxTick ? tick : TickRings::kNoTick;
}

std::uint64_t TimerWheel::firstTickNotBefore(double time) const noexcept {
  return firstTick(time, [time](double tickTime) { return tickTime >= time; });
}

std::uint64_t TimerWheel::firstTickAfter(double time) const noexcept {
  return firstTick(time, [time](double tickTime) { return tickTime > time; });
}

void TimerWheel::arm(NotifieeConst& timer) const noexcept {
  if (timer.linked()) rings_.remove(timer);
  if (!timer.waiting()) return;
  std::uint64_t tick = firstTickNotBefore(timer.timeMin_);
  if (running_) {
    tick = std::max(tick, runningTick_ + 1);
  } else if (tick != TickRings::kNoTick) {
    const double now = clock_->now();
    if (tickTime(tick) <= now) tick = firstTickAfter(now);
    // A clock that stands before the wheel's position has gone back.
    tick = std::max(tick, rings_.position() + 1);
  }
  // Times beyond the rings, millions of years away, never come.
  if (tick <= TickRings::kMaxTick) rings_.insert(timer, tick);
}

double TimerWheel::nextDue() {
  if (!hasNotificationActive()) return Vex::kNever;
  const std::uint64_t due = rings_.earliest();
  // Without this the position would stay behind while all timers are cancelled in time, and new
  // ones would crowd into wide slots.
  const std::uint64_t next = firstTickAfter(clock_->now());
  if (next != 0 && next <= due && next != TickRings::kNoTick) rings_.advance(next - 1);
  return due == TickRings::kNoTick ? Vex::kNever : tickTime(due);
}

void TimerWheel::runDue(double now) {
  // The last timer may take the last reference with it.
  const Vex::Ptr<TimerWheel> self(this);
  const std::uint64_t next = firstTickAfter(now);
  if (next == 0 || running_) return;
  runningTick_ = std::min(next - 1, TickRings::kMaxTick);
  running_ = true;
  while (hasNotificationActive() && rings_.advance(runningTick_)) {
    while (hasNotificationActive()) {
      auto* timer = static_cast<NotifieeConst*>(rings_.pop());
      if (timer == nullptr) break;
      timer->markIs(false);
      const Vex::Ptr<NotifieeConst> keep(timer);
      // Only for a timer of this tick: one that is late would catch up missed intervals in a burst.
      const bool onTick = runningTick_ == 0 || timer->timeMin() > tickTime(runningTick_ - 1);
      const Vex::ActivityManager::TimerTime time(
          manager_, onTick ? std::min(timer->timeMin(), now) : Vex::kNever);
      Vex::guardedNotification(*timer, 0, [timer] { timer->onTime(); });
    }
  }
  running_ = false;
}

void TimerWheel::notifieeRegisteredIs(Vex::NotifieeConst& notifiee, bool registered) const {
  auto* timer = dynamic_cast<NotifieeConst*>(&notifiee);
  if (timer != nullptr && !registered) {
    if (timer->linked()) rings_.remove(*timer);
  } else if (timer != nullptr) {
    arm(*timer);
  } else if (registered) {
    Vex::throwInternalException("only timers can be registered with a timer wheel");
  }
}

void TimerWheel::NotifieeConst::timeMinIs(double seconds) {
  if (std::isnan(seconds)) Vex::throwRangeException("timeMin of a timer: not a number");
  timeMin_ = seconds;
  markIs(seconds < std::numeric_limits<double>::infinity());
  if (isRegisteredNotifiee()) static_cast<const TimerWheel*>(notifier())->arm(*this);
}

void TimerWheel::NotifieeConst::notifierIs(const Vex::Ptr<Vex::PtrInterface const>& notifier) {
  const bool isWheel = dynamic_cast<const TimerWheel*>(notifier.get()) != nullptr;
  Vex::NotifieeConst::notifierIs(isWheel ? notifier : nullptr);
}

TimerWheel::NotifieeConst::~NotifieeConst() {
  // For an owner that deletes the timer itself; a counted one has left the wheel by now.
  if (linked()) static_cast<const TimerWheel*>(notifier())->rings_.remove(*this);
}

}  // namespace Helm
