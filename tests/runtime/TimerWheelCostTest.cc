// SPDX-License-Identifier: Apache-2.0
//
// What a wheel allocates and how often it wakes up.
#include "runtime/helm/TimerWheel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "tests/runtime/AllocationCount.h"
#include "tests/runtime/TimerWheelFixture.h"

namespace RuntimeTest {
namespace {

using Helm::TimerWheel;
using Vex::kNever;
using Vex::makePtr;
using Vex::Ptr;

TEST_F(TimerWheelTest, ArmingRearmingCancellingAndFiringAllocateNothing) {
  std::vector<Ptr<Timer>> timers;
  for (int i = 0; i < 1000; ++i) timers.push_back(newTimer());
  const AllocationCount allocations;
  for (int round = 0; round < 3; ++round) {
    double offset = 0.003;
    for (const auto& timer : timers) {
      timer->timeMinIs(manager.now() + offset);
      offset *= 1.02;
      if (offset > 1e7) offset = 0.01;
    }
    for (const auto& timer : timers) timer->timeMinIs(timer->timeMin() + 1);
    manager.runFor(100);
    for (const auto& timer : timers) timer->timeMinIs(kNever);
  }
  EXPECT_EQ(allocations.sinceThen(), 0u);
  EXPECT_GT(timers[0]->fired, 0);
}

TEST_F(TimerWheelTest, AllocationsAreSeenByTheCount) {
  const AllocationCount allocations;
  const auto timer = newTimer();
  EXPECT_GE(allocations.sinceThen(), 1u);
}

TEST_F(TimerWheelTest, MillionTimersOverTheWholeSpanFireAtTheirTicks) {
  class Small final : public TimerWheel::NotifieeConst {
   public:
    explicit Small(std::vector<std::uint32_t>& order, std::uint32_t tick)
        : order_(order), tick_(tick) {}
    void onTime() override { order_.push_back(tick_); }

   private:
    std::vector<std::uint32_t>& order_;
    std::uint32_t tick_;
  };
  constexpr std::uint32_t kTimers = 1000000;
  constexpr std::uint32_t kSpan = 60480000;
  std::vector<std::uint32_t> order;
  std::vector<Ptr<Small>> timers;
  timers.reserve(kTimers);
  std::uint32_t wakeUps = 0;
  std::vector<bool> used(kSpan + 1);
  for (std::uint32_t i = 0; i < kTimers; ++i) {
    const auto tick = static_cast<std::uint32_t>(1 + std::uint64_t{i} * 2654435761U % kSpan);
    timers.push_back(makePtr<Small>(order, tick));
    timers.back()->notifierIs(wheel);
    timers.back()->isRegisteredNotifieeIs(true);
    timers.back()->timeMinIs(1000.0 + tick * 10.0 / 1000.0);
    if (!used[tick]) ++wakeUps;
    used[tick] = true;
  }
  manager.runUntil(1000.0 + 604800.0);
  ASSERT_EQ(order.size(), kTimers);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(manager.wakeUps(), wakeUps);
}

}  // namespace
}  // namespace RuntimeTest
