// SPDX-License-Identifier: Apache-2.0
//
// A wheel of ticks of 10 ms on a virtual clock that stands at 1000 s, and timers that count.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace RuntimeTest {

class Timer final : public Helm::TimerWheel::NotifieeConst {
 public:
  explicit Timer(std::function<void()> handler = {}) : handler_(std::move(handler)) {}
  void onTime() override {
    ++fired;
    firedAt = Vex::activityManager().clock()->now();
    if (handler_) handler_();
  }
  using Vex::NotifieeConst::onNotificationException;
  void onNotificationException(Vex::AttributeId id) override { exceptions.push_back(id); }

  int fired = 0;
  double firedAt = 0;
  std::vector<Vex::AttributeId> exceptions;

 private:
  std::function<void()> handler_;
};

class TimerWheelTest : public testing::Test {
 protected:
  Vex::Ptr<Helm::TimerWheel const> newWheel(std::uint32_t tickMsecs = 10) {
    return Vex::makePtr<Helm::TimerWheel>(nullptr, manager.clock(), tickMsecs, 60480000U, true,
                                          1024U);
  }
  Vex::Ptr<Timer> newTimer(std::function<void()> handler = {}) {
    auto timer = Vex::makePtr<Timer>(std::move(handler));
    timer->notifierIs(wheel);
    timer->isRegisteredNotifieeIs(true);
    return timer;
  }
  Vex::Ptr<Timer> newTimerAt(double seconds, std::function<void()> handler = {}) {
    auto timer = newTimer(std::move(handler));
    timer->timeMinIs(seconds);
    return timer;
  }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Vex::Ptr<Helm::TimerWheel const> wheel = newWheel();
};

}  // namespace RuntimeTest
