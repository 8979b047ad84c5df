// SPDX-License-Identifier: Apache-2.0
//
// Timers that come, go, fall silent or raise, also while the wheel runs their handlers.
#include "runtime/helm/TimerWheel.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "tests/runtime/TimerWheelFixture.h"

namespace RuntimeTest {
namespace {

using Helm::TimerWheel;
using Vex::kNever;
using Vex::makePtr;
using Vex::Ptr;

TEST_F(TimerWheelTest, UnregisteredTimerIsSilentAndRemembersItsTime) {
  const auto timer = newTimerAt(1001.0);
  timer->isRegisteredNotifieeIs(false);
  EXPECT_FALSE(timer->armed());
  EXPECT_EQ(timer->timeMin(), 1001.0);
  manager.runUntil(1000.5);
  EXPECT_EQ(manager.wakeUps(), 0u);
  timer->isRegisteredNotifieeIs(true);
  manager.runUntil(1002.0);
  EXPECT_EQ(timer->firedAt, 1001.0);
}

TEST_F(TimerWheelTest, TimeSetWhileUnregisteredArmsAtRegistration) {
  const auto timer = makePtr<Timer>();
  timer->timeMinIs(1001.0);
  timer->notifierIs(wheel);
  manager.runUntil(1000.5);
  EXPECT_FALSE(timer->armed());
  timer->isRegisteredNotifieeIs(true);
  manager.runUntil(1002.0);
  EXPECT_EQ(timer->firedAt, 1001.0);
}

TEST_F(TimerWheelTest, RegisteringAgainAfterFiringDoesNotFireAgain) {
  const auto timer = newTimerAt(1001.0);
  manager.runUntil(1002.0);
  timer->isRegisteredNotifieeIs(false);
  timer->isRegisteredNotifieeIs(true);
  manager.runUntil(1003.0);
  EXPECT_EQ(timer->fired, 1);
}

TEST_F(TimerWheelTest, ZombieTimerIsSilentUntilItIsBackAlive) {
  const auto timer = newTimer();
  timer->hasNotificationActiveIs(true);
  timer->timeMinIs(1001.0);
  timer->vexDoZombieReactors(true);
  manager.runUntil(1005.0);
  EXPECT_EQ(timer->fired, 0);
  timer->vexDoZombieReactors(false);
  manager.runUntil(1006.0);
  EXPECT_EQ(timer->firedAt, 1005.01);
}

TEST_F(TimerWheelTest, TimerMovesToAnotherWheelWithItsTime) {
  const auto timer = newTimerAt(1001.001);
  timer->notifierIs(newWheel(500));
  EXPECT_FALSE(timer->armed());
  timer->isRegisteredNotifieeIs(true);
  manager.runUntil(1005.0);
  EXPECT_EQ(timer->firedAt, 1001.5);
}

TEST_F(TimerWheelTest, NotifierOfAnotherClassCountsAsNull) {
  const auto timer = newTimerAt(1001.0);
  timer->notifierIs(makePtr<Timer>());
  EXPECT_EQ(timer->notifier(), nullptr);
  EXPECT_FALSE(timer->armed());
  manager.runUntil(1002.0);
  EXPECT_EQ(timer->fired, 0);
}

TEST_F(TimerWheelTest, OnlyTimersCanBeRegistered) {
  struct Other final : Vex::NotifieeConst {};
  const auto other = makePtr<Other>();
  other->notifierIs(wheel);
  EXPECT_THROW(other->isRegisteredNotifieeIs(true), Vex::InternalException);
  other->isRegisteredNotifieeIs(false);
}

TEST_F(TimerWheelTest, DestroyedTimerLeavesTheWheel) {
  auto timer = newTimerAt(1001.0);
  timer.reset();
  manager.runFor(10);
  EXPECT_EQ(manager.wakeUps(), 0u);
}

TEST_F(TimerWheelTest, TimerKeepsTheWheelAlive) {
  const auto timer = newTimerAt(1001.0);
  wheel.reset();
  manager.runFor(10);
  EXPECT_EQ(timer->fired, 1);
}

TEST_F(TimerWheelTest, HandlerMayDestroyItself) {
  int fired = 0;
  Ptr<Timer> timer;
  timer = newTimerAt(1001.0, [&] {
    ++fired;
    timer.reset();
  });
  const auto other = newTimerAt(1001.0);
  manager.runFor(10);
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(other->fired, 1);
}

TEST_F(TimerWheelTest, TimerLivesUntilItsHandlerIsDone) {
  class Mortal final : public TimerWheel::NotifieeConst {
   public:
    Mortal(Ptr<Mortal>& owner, bool& dead) : owner_(owner), dead_(dead) {}
    ~Mortal() override { dead_ = true; }
    void onTime() override {
      const bool& dead = dead_;
      owner_.reset();
      EXPECT_FALSE(dead);
    }

   private:
    Ptr<Mortal>& owner_;
    bool& dead_;
  };
  bool dead = false;
  Ptr<Mortal> timer;
  timer = makePtr<Mortal>(timer, dead);
  timer->notifierIs(wheel);
  timer->isRegisteredNotifieeIs(true);
  timer->timeMinIs(1001.0);
  manager.runFor(10);
  EXPECT_TRUE(dead);
}

TEST_F(TimerWheelTest, HandlerMayDestroyOrCancelOthersOfItsTick) {
  Ptr<Timer> destroyed;
  Ptr<Timer> cancelled;
  const auto first = newTimerAt(1001.0, [&] {
    destroyed.reset();
    cancelled->timeMinIs(kNever);
  });
  int firedDestroyed = 0;
  destroyed = newTimerAt(1001.0, [&] { ++firedDestroyed; });
  cancelled = newTimerAt(1001.0);
  const auto last = newTimerAt(1001.0);
  manager.runFor(10);
  EXPECT_EQ(firedDestroyed, 0);
  EXPECT_EQ(cancelled->fired, 0);
  EXPECT_EQ(last->fired, 1);
}

TEST_F(TimerWheelTest, HandlerMayPutOffAnotherOfItsTick) {
  Ptr<Timer> other;
  const auto first = newTimerAt(1001.0, [&] { other->timeMinIs(1002.0); });
  other = newTimerAt(1001.0);
  manager.runFor(10);
  EXPECT_EQ(other->fired, 1);
  EXPECT_EQ(other->firedAt, 1002.0);
}

TEST_F(TimerWheelTest, HandlerMayDropTheLastReferenceToTheWheel) {
  int fired = 0;
  Ptr<Timer> timer;
  Ptr<Timer> other = newTimerAt(1001.01, [&] { ++fired; });
  timer = newTimerAt(1001.0, [&] {
    ++fired;
    other.reset();
    timer.reset();
    wheel.reset();
  });
  manager.runFor(10);
  EXPECT_EQ(fired, 1);
}

TEST_F(TimerWheelTest, ExceptionOfAHandlerStaysWithItsTimer) {
  const auto bad = newTimerAt(1001.0, [] { throw std::runtime_error("handler"); });
  const auto next = newTimerAt(1001.0);
  const auto later = newTimerAt(1001.01);
  EXPECT_NO_THROW(manager.runFor(10));
  EXPECT_EQ(bad->exceptions, (std::vector<Vex::AttributeId>{0}));
  EXPECT_FALSE(bad->armed());
  EXPECT_EQ(next->fired, 1);
  EXPECT_EQ(later->fired, 1);
}

TEST_F(TimerWheelTest, SilencedWheelHoldsTimersBackUntilItIsActiveAgain) {
  const Ptr<TimerWheel> writable(const_cast<TimerWheel*>(wheel.get()));
  std::vector<int> order;
  const auto first = newTimerAt(1001.0, [&] {
    order.push_back(1);
    writable->hasNotificationActiveIs(false);  // in the middle of its tick
  });
  const auto second = newTimerAt(1001.0, [&] { order.push_back(2); });
  const auto third = newTimerAt(1002.0, [&] { order.push_back(3); });
  manager.runUntil(1010.0);
  EXPECT_EQ(order, (std::vector<int>{1}));
  EXPECT_EQ(manager.wakeUps(), 1u);
  EXPECT_TRUE(second->armed());
  first->timeMinIs(1010.005);
  writable->hasNotificationActiveIs(true);
  manager.runTurn();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(second->firedAt, 1010.0);
  manager.runUntil(1011.0);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 1}));
  EXPECT_EQ(first->firedAt, 1010.01);
}

}  // namespace
}  // namespace RuntimeTest
