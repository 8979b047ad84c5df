// SPDX-License-Identifier: Apache-2.0
//
// When a timer fires and in which order: each rule of Helm::TimerWheel by itself, in virtual time.
// TimerWheelModelTest.cc compares the whole with a model.
#include "runtime/helm/TimerWheel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "tests/runtime/TimerWheelFixture.h"

namespace RuntimeTest {
namespace {

using Helm::TimerWheel;
using Vex::kNever;
using Vex::makePtr;
using Vex::Ptr;

TEST_F(TimerWheelTest, GettersGiveTheConstructorArguments) {
  const auto config = makePtr<Vex::ActivityConfig>(manager);
  const auto sut = makePtr<TimerWheel>(config, manager.clock(), 20U, 30U, false, 40U);
  EXPECT_EQ(sut->activityConfig(), config);
  EXPECT_EQ(sut->clock(), manager.clock());
  EXPECT_EQ(sut->tickMsecs(), 20U);
  EXPECT_EQ(sut->initialMaxTicks(), 30U);
  EXPECT_FALSE(sut->preserveOrder());
  EXPECT_EQ(sut->defaultBucketSize(), 40U);
  EXPECT_TRUE(sut->hasNotificationActive());
}

TEST_F(TimerWheelTest, ActivityConfigSaysWhichManagerRunsTheTimers) {
  Vex::VirtualActivityManager other(50.0);
  wheel = makePtr<TimerWheel>(makePtr<Vex::ActivityConfig>(other), nullptr, 10U, 100U, true, 64U);
  const auto timer = newTimerAt(51.0);
  manager.runFor(100);
  EXPECT_EQ(timer->fired, 0);
  other.runUntil(51.0);
  EXPECT_EQ(timer->fired, 1);
  wheel.reset();
}

TEST_F(TimerWheelTest, SizesOfZeroAreRangeExceptions) {
  const auto make = [&](std::uint32_t tick, std::uint32_t maxTicks, std::uint32_t bucket) {
    return std::make_unique<Ptr<TimerWheel>>(
        makePtr<TimerWheel>(nullptr, manager.clock(), tick, maxTicks, true, bucket));
  };
  EXPECT_THROW(make(0, 1, 1), Vex::RangeException);
  EXPECT_THROW(make(1, 0, 1), Vex::RangeException);
  EXPECT_THROW(make(1, 1, 0), Vex::RangeException);
  EXPECT_NO_THROW(make(1, 1, 1));
}

TEST_F(TimerWheelTest, ClockTooLargeForTicksIsARangeException) {
  Vex::VirtualActivityManager late(1e300);
  const Vex::CurrentActivityManager scope(late);
  EXPECT_THROW((void)makePtr<TimerWheel>(nullptr, nullptr, 10U, 1U, true, 64U),
               Vex::RangeException);
}

TEST_F(TimerWheelTest, FiresAtTheTimeOfItsTickExactly) {
  const auto timer = newTimerAt(1000.07);
  manager.runUntil(1002.0);
  EXPECT_EQ(timer->fired, 1);
  EXPECT_EQ(timer->firedAt, 1000.0 + 7 * 10 / 1000.0);
}

TEST_F(TimerWheelTest, FiresAtTheFirstTickNotBeforeItsTime) {
  const auto between = newTimerAt(1000.0701);
  const auto justAfter = newTimerAt(std::nextafter(1000.07, 2000.0));
  manager.runUntil(std::nextafter(1000.08, 0.0));
  EXPECT_EQ(between->fired, 0);
  EXPECT_EQ(justAfter->fired, 0);
  manager.runUntil(1000.08);
  EXPECT_EQ(between->firedAt, 1000.08);
  EXPECT_EQ(justAfter->firedAt, 1000.08);
}

TEST_F(TimerWheelTest, NeverFiresBeforeItsTimeAtAnyTick) {
  std::vector<Ptr<Timer>> timers;
  for (int i = 1; i <= 100000; ++i) timers.push_back(newTimerAt(1000.0 + i / 100.0));
  manager.runUntil(2001.0);
  for (int i = 1; i <= 100000; ++i) {
    const Timer& timer = *timers[static_cast<std::size_t>(i - 1)];
    ASSERT_EQ(timer.fired, 1) << i;
    ASSERT_EQ(timer.firedAt, timer.timeMin()) << i;
  }
}

TEST_F(TimerWheelTest, NewTimerWaitsForever) {
  const auto timer = newTimer();
  EXPECT_EQ(timer->timeMin(), kNever);
  EXPECT_FALSE(timer->armed());
  manager.runFor(1e6);
  EXPECT_EQ(timer->fired, 0);
}

TEST_F(TimerWheelTest, FiresOncePerArmingAndKeepsItsTime) {
  const auto timer = newTimerAt(1001.0);
  manager.runFor(100);
  EXPECT_EQ(timer->fired, 1);
  EXPECT_EQ(timer->timeMin(), 1001.0);
  EXPECT_FALSE(timer->armed());
}

TEST_F(TimerWheelTest, EqualTimeArmsAgainAfterFiring) {
  const auto timer = newTimerAt(1001.0);
  manager.runUntil(1001.0);
  timer->timeMinIs(1001.0);
  EXPECT_TRUE(timer->armed());
  manager.runUntil(1002.0);
  EXPECT_EQ(timer->fired, 2);
}

TEST_F(TimerWheelTest, CancelledTimerNeverFires) {
  const auto timer = newTimerAt(1001.0);
  timer->timeMinIs(kNever);
  EXPECT_FALSE(timer->armed());
  EXPECT_EQ(timer->timeMin(), kNever);
  manager.runFor(1e6);
  EXPECT_EQ(timer->fired, 0);
}

TEST_F(TimerWheelTest, NeverThenATimeArmsAgain) {
  const auto timer = newTimerAt(1001.0);
  timer->timeMinIs(kNever);
  timer->timeMinIs(1002.0);
  manager.runFor(100);
  EXPECT_EQ(timer->fired, 1);
  EXPECT_EQ(timer->firedAt, 1002.0);
}

TEST_F(TimerWheelTest, RearmedTimerFiresAtItsNewTimeOnly) {
  const auto later = newTimerAt(1001.0);
  const auto earlier = newTimerAt(1900.0);
  later->timeMinIs(1900.0);
  earlier->timeMinIs(1001.0);
  manager.runFor(1000);
  EXPECT_EQ(later->fired, 1);
  EXPECT_EQ(later->firedAt, 1900.0);
  EXPECT_EQ(earlier->fired, 1);
  EXPECT_EQ(earlier->firedAt, 1001.0);
}

TEST_F(TimerWheelTest, NotANumberIsARangeExceptionAndChangesNothing) {
  const auto timer = newTimerAt(1001.0);
  EXPECT_THROW(timer->timeMinIs(std::numeric_limits<double>::quiet_NaN()), Vex::RangeException);
  EXPECT_EQ(timer->timeMin(), 1001.0);
  manager.runFor(2);
  EXPECT_EQ(timer->fired, 1);
}

TEST_F(TimerWheelTest, PresentAndPastTimesFireAtTheNextTick) {
  manager.runUntil(1000.5);  // a tick's time
  const std::vector<double> times = {1000.5, 1000.495, 1000.0, 999.0, 0.0, -1e308, -kNever};
  std::vector<Ptr<Timer>> timers;
  for (const double time : times) timers.push_back(newTimerAt(time));
  manager.runTurn();
  for (const auto& timer : timers) EXPECT_EQ(timer->fired, 0) << timer->timeMin();
  manager.runFor(1);
  for (const auto& timer : timers) EXPECT_EQ(timer->firedAt, 1000.51) << timer->timeMin();
}

TEST_F(TimerWheelTest, PastTimeBetweenTwoTicksFiresAtTheNextTick) {
  manager.runUntil(1000.505);
  const auto timer = newTimerAt(1000.2);
  manager.runFor(1);
  EXPECT_EQ(timer->firedAt, 1000.51);
}

TEST_F(TimerWheelTest, HandlerThatRearmsWithNowRunsOncePerTick) {
  Ptr<Timer> timer;
  timer = newTimerAt(1000.0, [&] { timer->timeMinIs(Vex::now()); });
  manager.runUntil(1001.0);
  EXPECT_EQ(timer->fired, 100);
}

TEST_F(TimerWheelTest, HandlerThatRearmsWithAPastTimeRunsOnceHoweverLateTheWheelIs) {
  Ptr<Timer> timer;
  timer = newTimerAt(1000.01, [&] { timer->timeMinIs(0.0); });
  const Ptr<TimerWheel> writable(const_cast<TimerWheel*>(wheel.get()));
  writable->hasNotificationActiveIs(false);
  manager.runUntil(1005.0);
  writable->hasNotificationActiveIs(true);
  manager.runTurn();
  EXPECT_EQ(timer->fired, 1);
  manager.runUntil(1005.02);
  EXPECT_EQ(timer->fired, 3);
}

TEST_F(TimerWheelTest, TimersOfOneTickFireInTheOrderOfTheirArming) {
  std::vector<int> order;
  std::vector<Ptr<Timer>> timers;
  for (int i = 0; i < 5; ++i) timers.push_back(newTimer([&order, i] { order.push_back(i); }));
  // Armed from far away, from near and from next to it, so that they come down from different
  // levels.
  const double time = 30000.0;
  timers[3]->timeMinIs(time);
  manager.runUntil(time - 700);
  manager.runTurn();  // the wheel has seen the time
  timers[1]->timeMinIs(time - 0.004);
  manager.runUntil(time - 650);
  manager.runTurn();  // the wheel has seen the time
  timers[0]->timeMinIs(time);
  manager.runUntil(time - 10.23);
  manager.runTurn();  // the wheel has seen the time
  timers[4]->timeMinIs(time);
  manager.runUntil(time - 0.01);
  manager.runTurn();  // the wheel has seen the time
  timers[2]->timeMinIs(time - 0.009);
  manager.runUntil(time);
  EXPECT_EQ(order, (std::vector<int>{3, 1, 0, 4, 2}));
}

TEST_F(TimerWheelTest, OrderOfArmingHoldsWhereSlotsOfSeveralWidthsBeginTogether) {
  std::vector<int> order;
  const auto fromFar = newTimer([&] { order.push_back(1); });
  const auto fromNear = newTimer([&] { order.push_back(2); });
  // In the first 1024 ticks of a slot of 65536: both slots are entered at once.
  const double time = 1000.0 + (3 * 65536 + 100) / 100.0;
  fromFar->timeMinIs(time);
  manager.runUntil(time - 200);
  manager.runTurn();  // the wheel has seen the time
  fromNear->timeMinIs(time);
  manager.runUntil(time);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(TimerWheelTest, RearmingWithTheSameTimeMovesATimerBehindTheOthersOfItsTick) {
  std::vector<int> order;
  const auto first = newTimerAt(1001.0, [&] { order.push_back(1); });
  const auto second = newTimerAt(1001.0, [&] { order.push_back(2); });
  first->timeMinIs(1001.0);
  manager.runUntil(1001.0);
  EXPECT_EQ(order, (std::vector<int>{2, 1}));
}

TEST_F(TimerWheelTest, LaterTickFiresAfterEarlierOne) {
  std::vector<int> order;
  const auto later = newTimerAt(1001.01, [&] { order.push_back(2); });
  const auto earlier = newTimerAt(1001.0, [&] { order.push_back(1); });
  manager.runUntil(1010.0);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST_F(TimerWheelTest, TimesBeyondTheSpanFireWhenDue) {
  const double span = 1000.0 + 604800.0;
  const double times[] = {span, span + 5.005, span * 2, 1e9, 1e12, 2e15};
  std::vector<Ptr<Timer>> timers;
  for (const double time : times) timers.push_back(newTimerAt(time));
  for (std::size_t i = 0; i < timers.size(); ++i) {
    manager.runUntil(std::nextafter(times[i], 0.0));
    EXPECT_EQ(timers[i]->fired, 0) << times[i];
    manager.runUntil(times[i] + 1.0);
    EXPECT_EQ(timers[i]->fired, 1) << times[i];
    EXPECT_GE(timers[i]->firedAt, times[i]);
    EXPECT_LE(timers[i]->firedAt, times[i] + 0.5) << times[i];
  }
}

TEST_F(TimerWheelTest, NeverEarlyWhereManyTicksRoundToOneTime) {
  std::vector<Ptr<Timer>> timers;
  double time = 1e15;
  for (int i = 0; i < 500; ++i) {
    time = std::nextafter(time, 2e15);
    timers.push_back(newTimerAt(time));
  }
  manager.runUntil(time + 1);
  for (const auto& timer : timers) {
    EXPECT_EQ(timer->fired, 1);
    EXPECT_GE(timer->firedAt, timer->timeMin());
    EXPECT_LE(timer->firedAt, timer->timeMin() + 0.5);
  }
}

TEST_F(TimerWheelTest, HugeTimesNeverComeAndDoNoHarm) {
  const auto huge = newTimerAt(1e18);
  const auto largest = newTimerAt(std::numeric_limits<double>::max());
  const auto normal = newTimerAt(1001.0);
  manager.runFor(1e6);
  EXPECT_EQ(manager.wakeUps(), 1u);
  EXPECT_EQ(normal->fired, 1);
  largest->timeMinIs(manager.now() + 1);
  manager.runFor(2);
  EXPECT_EQ(largest->fired, 1);
  EXPECT_EQ(huge->fired, 0);
}

TEST_F(TimerWheelTest, NeverWakesWithoutADueTimer) {
  // One timer per level, none at the start of a wider slot.
  const auto a = newTimerAt(1003.33);
  const auto b = newTimerAt(1777.77);
  const auto c = newTimerAt(55555.55);
  const auto d = newTimerAt(5555555.55);
  const auto cancelled = newTimerAt(40000.0);
  cancelled->timeMinIs(kNever);
  manager.runUntil(1e8);
  EXPECT_EQ(manager.wakeUps(), 4u);
  EXPECT_EQ(a->firedAt, 1003.33);
  EXPECT_EQ(b->firedAt, 1777.77);
  EXPECT_EQ(c->firedAt, 55555.55);
  EXPECT_EQ(d->firedAt, 5555555.55);
}

TEST_F(TimerWheelTest, WakesForTheNextTimerAfterTheEarliestOfAWideSlotIsCancelled) {
  const auto first = newTimerAt(1500.0);
  const auto second = newTimerAt(1501.0);
  manager.runTurn();  // the wheel has been asked
  first->timeMinIs(kNever);
  manager.runUntil(1600.0);
  EXPECT_EQ(manager.wakeUps(), 1u);
  EXPECT_EQ(second->firedAt, 1501.0);
}

TEST_F(TimerWheelTest, SameTickWakesOnce) {
  std::vector<Ptr<Timer>> timers;
  for (int i = 0; i < 100; ++i) timers.push_back(newTimerAt(1002.991 + i * 0.00009));
  manager.runUntil(1010.0);
  EXPECT_EQ(manager.wakeUps(), 1u);
}

TEST_F(TimerWheelTest, InsideAHandlerTheTimeIsThatOfTheTimerSoThatIntervalsDoNotGrow) {
  std::vector<double> seen;
  Ptr<Timer> timer;
  timer = newTimerAt(1000.003, [&] {
    seen.push_back(Vex::now());
    timer->timeMinIs(Vex::now() + 0.1);
  });
  manager.runUntil(1010.0);
  ASSERT_EQ(seen.size(), 100U);
  EXPECT_NEAR(seen.back(), 1000.003 + 99 * 0.1, 1e-9);
  EXPECT_EQ(Vex::now(), 1010.0);
  timer->timeMinIs(kNever);
}

TEST_F(TimerWheelTest, ATimerThatIsLateByATickAndMoreSeesTheClockAndCatchesUpNothing) {
  Ptr<Timer> timer;
  timer = newTimerAt(1000.1, [&] { timer->timeMinIs(Vex::now() + 0.1); });
  const auto* silent = wheel.get();
  const_cast<TimerWheel*>(silent)->hasNotificationActiveIs(false);
  manager.runUntil(1005.0);
  const_cast<TimerWheel*>(silent)->hasNotificationActiveIs(true);
  manager.runUntil(1005.5);
  EXPECT_LE(timer->fired, 6);
  EXPECT_GE(timer->fired, 5);
  timer->timeMinIs(kNever);
}

}  // namespace
}  // namespace RuntimeTest
