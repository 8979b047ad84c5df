// SPDX-License-Identifier: Apache-2.0
//
// Registration of reactors and the walk that tells them of a change.
#include "runtime/vex/Notifiee.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/runtime/AllocationCount.h"
#include "tests/runtime/TestEntity.h"

namespace {

using namespace RuntimeTest;
using Vex::makePtr;
using Vex::Ptr;

class NotifieeTest : public testing::Test {
 protected:
  Ptr<Watcher> watch(std::string name, std::function<void()> handler = {}) {
    return newWatcher(lamp, std::move(name), &log, std::move(handler));
  }
  // The log of one change; the log is empty afterwards.
  Log change() {
    lamp->colourIs(lamp->colour() + 1);
    return std::exchange(log, Log{});
  }

  Log log;
  Ptr<Lamp> lamp = makePtr<Lamp>();
};

// Registration

TEST_F(NotifieeTest, ReactorsAreToldInTheOrderInWhichTheyRegistered) {
  const auto a = watch("a");
  const auto b = watch("b");
  const auto c = watch("c");
  EXPECT_EQ(change(), (Log{"a", "b", "c"}));
  a->isRegisteredNotifieeIs(false);
  a->isRegisteredNotifieeIs(true);
  EXPECT_EQ(change(), (Log{"b", "c", "a"}));
}

TEST_F(NotifieeTest, AdaptersStandAheadOfAllOthers) {
  const auto a = watch("a");
  const auto log1 = newWatcher<Adapter>(lamp, "log1", &log);
  const auto b = watch("b");
  EXPECT_EQ(change(), (Log{"log1", "a", "b"}));
  const auto log2 = newWatcher<Adapter>(lamp, "log2", &log);  // to the head, as each adapter
  EXPECT_EQ(change(), (Log{"log2", "log1", "a", "b"}));
}

TEST_F(NotifieeTest, RegisteringTwiceTellsOnce) {
  const auto a = watch("a");
  const std::uint32_t version = lamp->notifieeListVersion();
  a->isRegisteredNotifieeIs(true);
  EXPECT_EQ(lamp->notifieeListVersion(), version);
  EXPECT_EQ(lamp->notifieeCount(), 1U);
  EXPECT_EQ(change(), Log{"a"});
}

TEST_F(NotifieeTest, WithoutANotifierRegistrationDoesNothing) {
  const auto sut = makePtr<Watcher>("a", &log);
  sut->isRegisteredNotifieeIs(true);
  EXPECT_FALSE(sut->isRegisteredNotifiee());
  sut->notifierIs(lamp);  // binding alone does not register
  EXPECT_FALSE(sut->isRegisteredNotifiee());
  EXPECT_EQ(change(), Log{});
}

TEST_F(NotifieeTest, EveryChangeOfTheListCountsAVersion) {
  const auto a = watch("a");
  EXPECT_EQ(lamp->notifieeListVersion(), 1U);
  a->isRegisteredNotifieeIs(false);
  EXPECT_EQ(lamp->notifieeListVersion(), 2U);
  a->isRegisteredNotifieeIs(false);
  EXPECT_EQ(lamp->notifieeListVersion(), 2U);
}

TEST_F(NotifieeTest, RebindingLeavesTheOldNotifierUnregistered) {
  const auto other = makePtr<Lamp>("other");
  const auto a = watch("a");
  a->notifierIs(other);
  EXPECT_FALSE(a->isRegisteredNotifiee());
  EXPECT_EQ(a->notifier(), other.get());
  EXPECT_EQ(lamp->notifieeCount(), 0U);
  EXPECT_EQ(lamp->references(), 1U);
  a->isRegisteredNotifieeIs(true);
  other->colourIs(1);
  EXPECT_EQ(log, Log{"a"});
}

TEST_F(NotifieeTest, BindingToThePresentNotifierChangesNothing) {
  const auto a = watch("a");
  const std::uint32_t version = lamp->notifieeListVersion();
  a->notifierIs(lamp);
  EXPECT_TRUE(a->isRegisteredNotifiee());
  EXPECT_EQ(lamp->notifieeListVersion(), version);
}

TEST_F(NotifieeTest, ADestroyedReactorHasLeftItsNotifier) {
  auto a = watch("a");
  a.reset();
  EXPECT_EQ(lamp->notifieeCount(), 0U);
  EXPECT_EQ(change(), Log{"~a"});
}

class Stranger final : public Vex::NotifieeConst {};

TEST_F(NotifieeTest, AReactorOfAnotherClassCannotRegister) {
  const auto a = watch("a");
  const auto b = watch("b");
  {
    const auto stranger = makePtr<Stranger>();
    stranger->notifierIs(lamp);
    try {
      stranger->isRegisteredNotifieeIs(true);
      ADD_FAILURE() << "nothing raised";
    } catch (const Vex::InternalException& e) {
      EXPECT_STREQ(e.what(), "a reactor of another class cannot watch this entity");
    }
    EXPECT_FALSE(stranger->isRegisteredNotifiee());
  }
  // The refused reactor's end must not take another one out of the list.
  EXPECT_EQ(lamp->notifieeCount(), 2U);
  EXPECT_EQ(change(), (Log{"a", "b"}));
}

// The walk

TEST_F(NotifieeTest, ANotifieeAddedDuringAWalkIsNotToldInThatWalk) {
  Ptr<Watcher> late;
  const auto a = watch("a", [&] {
    if (!late) late = watch("late");
  });
  const auto b = watch("b");
  EXPECT_EQ(change(), (Log{"a", "b"}));
  EXPECT_EQ(change(), (Log{"a", "b", "late"}));
}

TEST_F(NotifieeTest, ANotifieeThatUnregistersDuringAWalkIsStillTold) {
  Watcher* second = nullptr;
  const auto a = watch("a", [&] { second->isRegisteredNotifieeIs(false); });
  const auto b = watch("b");
  const auto c = watch("c");
  second = b.get();
  EXPECT_EQ(change(), (Log{"a", "b", "c"}));
  EXPECT_EQ(change(), (Log{"a", "c"}));
}

TEST_F(NotifieeTest, AZombieIsCalledAndDoesNothing) {
  int called = 0;
  class Counting final : public Lamp::NotifieeConst {
   public:
    explicit Counting(int* called) : called_(called) {}
    void onColour() override {
      ++*called_;
      EXPECT_TRUE(isZombie());
    }

   private:
    int* const called_;
  };
  const auto b = makePtr<Counting>(&called);
  const auto a = watch("a", [&] { b->vexDoZombieReactors(true); });
  b->notifierIs(lamp);
  b->isRegisteredNotifieeIs(true);
  EXPECT_EQ(change(), Log{"a"});
  EXPECT_EQ(called, 1);
  EXPECT_EQ(change(), Log{"a"});
  EXPECT_EQ(called, 1);
}

TEST_F(NotifieeTest, ANotifieeDestroyedByAnEarlierOneLivesUntilTheWalkIsOver) {
  Ptr<Watcher> b;
  const auto a = watch("a", [&] { b.reset(); });
  b = watch("b");
  const auto c = watch("c", [&] { log.emplace_back("end of c"); });
  // b's last owner let it go: it has become a zombie, is called, and goes after the last notifiee.
  EXPECT_EQ(change(), (Log{"a", "c", "end of c", "~b"}));
  EXPECT_EQ(change(), (Log{"a", "c", "end of c"}));
}

TEST_F(NotifieeTest, ANotifieeMayDestroyItself) {
  Ptr<Watcher> a;
  a = watch("a", [&] {
    a.reset();
    log.emplace_back("after");
  });
  const auto b = watch("b");
  EXPECT_EQ(change(), (Log{"a", "after", "b", "~a"}));
}

TEST_F(NotifieeTest, ADestroyedNotifieeIsGoneBeforeTheSetterReturnsEvenIfWalksNest) {
  Ptr<Watcher> b;
  const auto a = watch("a", [&] {
    if (lamp->colour() == 1) {
      b.reset();
      lamp->colourIs(2);
      log.emplace_back("nested over");
    }
  });
  b = watch("b");
  EXPECT_EQ(change(), (Log{"a", "a", "nested over", "~b"}));
}

TEST_F(NotifieeTest, TheEntityMayGoDuringItsOwnWalk) {
  Log ends;
  lamp = makePtr<Lamp>("lamp", &ends);
  Ptr<Watcher> b;
  Ptr<Watcher> a = watch("a", [&] {
    lamp.reset();
    b.reset();
    a.reset();
  });
  b = watch("b");
  Lamp* const object = lamp.get();
  object->colourIs(9);
  EXPECT_EQ(log, (Log{"a", "~a", "~b"}));
  EXPECT_EQ(ends, Log{"~lamp"});
}

TEST_F(NotifieeTest, ChangesMadeByAHandlerAreToldBeforeItsSetterReturns) {
  bool first = true;
  const auto a = watch("a", [&] {
    if (std::exchange(first, false)) {
      lamp->socketIs(5, true);
      lamp->colourIs(2);
      log.emplace_back("a is back");
    }
  });
  const auto b = watch("b", [&] { log.push_back("sees " + std::to_string(lamp->colour())); });
  lamp->colourIs(1);
  EXPECT_EQ(log, (Log{"a",                     // told of 1
                      "a:5", "sees 1", "b:5",  // the socket, to both
                      "a", "b", "sees 2",      // told of 2
                      "a is back",             //
                      "b", "sees 2"}));        // told of 1, sees what stands now
}

TEST_F(NotifieeTest, AWalkThatChangesTheListOverAndOverTellsEachOnce) {
  constexpr int kOthers = 30;
  std::vector<Ptr<Watcher>> others;
  const auto a = watch("a", [&] {
    for (int round = 0; round < 50; ++round) {
      for (const auto& other : others) {
        other->isRegisteredNotifieeIs(false);
        other->isRegisteredNotifieeIs(true);
      }
    }
  });
  Log expected{"a"};
  for (int i = 0; i < kOthers; ++i) {
    // Each churns the list behind itself too.
    const auto at = static_cast<std::size_t>(i);
    others.push_back(watch(std::to_string(i), [&others, at] {
      others[at]->isRegisteredNotifieeIs(false);
      others[at]->isRegisteredNotifieeIs(true);
    }));
    expected.push_back(std::to_string(i));
  }
  EXPECT_EQ(change(), expected);
  EXPECT_EQ(change(), expected);  // and they are back in the same order
  EXPECT_EQ(lamp->notifieeCount(), kOthers + 1U);
}

TEST_F(NotifieeTest, AnExceptionGoesToItsNotifieeAndTheWalkGoesOn) {
  const auto a = watch("a", [] { Vex::throwRangeException("no"); });
  const auto b = watch("b", [] { throw std::runtime_error("no"); });
  const auto c = watch("c", [] { throw 1; });  // NOLINT(hicpp-exception-baseclass): anything may be
  const auto d = watch("d");
  EXPECT_EQ(change(), (Log{"a", "a!258", "b", "b!258", "c", "c!258", "d"}));
  log.clear();
  lamp->socketIs(1, true);
  EXPECT_EQ(log, (Log{"a!259", "b!259", "c!259", "d:1"}));
}

TEST_F(NotifieeTest, TheExceptionCanBeLookedAtByWhoeverIsToldOfIt) {
  std::string text;
  class Asking final : public Lamp::NotifieeConst {
   public:
    explicit Asking(std::string* text) : text_(text) {}
    void onColour() override { Vex::throwRangeException("the reason"); }
    using Vex::NotifieeConst::onNotificationException;
    void onNotificationException(Vex::AttributeId /*id*/) override {
      EXPECT_EQ(Vex::Expect::depth(), 0U);
      try {
        std::rethrow_exception(std::current_exception());
      } catch (const Vex::Exception& e) {
        *text_ = e.what();
      }
      throw std::runtime_error("and this ends here");
    }

   private:
    std::string* const text_;
  };
  const auto a = makePtr<Asking>(&text);
  a->notifierIs(lamp);
  a->isRegisteredNotifieeIs(true);
  const auto b = watch("b");
  EXPECT_EQ(change(), Log{"b"});
  EXPECT_EQ(text, "the reason");
}

TEST_F(NotifieeTest, AHandlerRunsUnderTheGuardAndGuardsNest) {
  std::vector<std::uint32_t> depths;
  const auto a = watch("a", [&] {
    depths.push_back(Vex::Expect::depth());
    if (lamp->colour() == 1) lamp->colourIs(2);
  });
  lamp->colourIs(1);
  EXPECT_EQ(depths, (std::vector<std::uint32_t>{1, 2}));
  EXPECT_EQ(Vex::Expect::depth(), 0U);
  EXPECT_EQ(Vex::Expect(0).id(), 0U);
}

class Quiet final : public Lamp::NotifieeConst {
 public:
  void onColour() override { ++told; }
  int told = 0;
};

TEST_F(NotifieeTest, AChangeAllocatesNothingWhenNobodyChangesTheList) {
  const auto a = makePtr<Quiet>();
  const auto b = makePtr<Quiet>();
  for (const auto& quiet : {a, b}) {
    quiet->notifierIs(lamp);
    quiet->isRegisteredNotifieeIs(true);
  }
  const AllocationCount allocations;
  for (int i = 1; i <= 100; ++i) lamp->colourIs(i);
  EXPECT_EQ(allocations.sinceThen(), 0U);
  EXPECT_EQ(a->told, 100);
  EXPECT_EQ(b->told, 100);
}

// Notification active

TEST_F(NotifieeTest, TurningNotificationOffAndOnRestoresTheRegistration) {
  const auto a = watch("a");
  a->hasNotificationActiveIs(true);
  const auto b = watch("b");
  a->hasNotificationActiveIs(false);
  EXPECT_FALSE(a->isRegisteredNotifiee());
  EXPECT_EQ(change(), Log{"b"});
  a->hasNotificationActiveIs(false);  // again: the memory stays
  a->hasNotificationActiveIs(true);
  EXPECT_EQ(change(), (Log{"b", "a"}));
}

TEST_F(NotifieeTest, TurningNotificationOnDoesNotRegisterWhoWasNot) {
  const auto a = watch("a");
  a->hasNotificationActiveIs(true);
  a->isRegisteredNotifieeIs(false);
  a->hasNotificationActiveIs(false);
  a->hasNotificationActiveIs(true);
  EXPECT_EQ(change(), Log{});
}

TEST_F(NotifieeTest, TurningNotificationOffWorksOnAReactorThatWasNeverTurnedOn) {
  const auto a = watch("a");
  ASSERT_FALSE(a->hasNotificationActive());
  a->hasNotificationActiveIs(false);
  EXPECT_EQ(change(), Log{});
  a->hasNotificationActiveIs(true);
  EXPECT_EQ(change(), Log{"a"});
}

TEST_F(NotifieeTest, ANewNotifierForgetsWhatWasRemembered) {
  const auto other = makePtr<Lamp>("other");
  const auto a = watch("a");
  a->hasNotificationActiveIs(true);
  a->hasNotificationActiveIs(false);
  a->notifierIs(other);
  a->hasNotificationActiveIs(true);
  EXPECT_EQ(other->notifieeCount(), 0U);
}

// Zombies

TEST_F(NotifieeTest, AZombieHasNotificationOffAndALaterFalseBringsItBack) {
  for (const bool active : {false, true}) {
    const auto a = watch("a");
    if (active) a->hasNotificationActiveIs(true);
    a->vexDoZombieReactors(true);
    EXPECT_TRUE(a->isZombie());
    EXPECT_FALSE(a->hasNotificationActive());
    EXPECT_FALSE(a->isRegisteredNotifiee());
    log.clear();
    EXPECT_EQ(change(), Log{});
    a->vexDoZombieReactors(false);
    EXPECT_FALSE(a->isZombie());
    EXPECT_TRUE(a->hasNotificationActive());
    EXPECT_EQ(change(), Log{"a"}) << "active before: " << active;
    a->isRegisteredNotifieeIs(false);
  }
}

TEST_F(NotifieeTest, TellingALivingReactorThatItIsNoZombieTurnsItsNotificationOn) {
  const auto a = watch("a");
  a->vexDoZombieReactors(false);
  EXPECT_TRUE(a->hasNotificationActive());
  EXPECT_EQ(change(), Log{"a"});
}

TEST_F(NotifieeTest, WithoutANotifierAZombieOnlyHasTheFlag) {
  const auto a = makePtr<Watcher>("a", &log);
  a->vexDoZombieReactors(true);
  EXPECT_TRUE(a->isZombie());
  a->vexDoZombieReactors(false);
  EXPECT_FALSE(a->isZombie());
  EXPECT_FALSE(a->hasNotificationActive());
}

// Walks in pieces

TEST_F(NotifieeTest, ASuspendedWalkTellsTheSameAsOneWalk) {
  const auto a = watch("a");
  const auto b = watch("b");
  const auto c = watch("c", [] { Vex::throwRangeException("no"); });
  const auto d = watch("d");
  auto walk = lamp->colourIsSuspended(7);
  EXPECT_EQ(log, Log{});
  EXPECT_TRUE(walk.tellUntil(*b));
  EXPECT_EQ(std::exchange(log, Log{}), Log{"a"});
  b->onColour();  // the caller's own turn
  walk.tellRest();
  EXPECT_EQ(log, (Log{"b", "c", "c!258", "d"}));
  walk.tellRest();
  EXPECT_EQ(log.size(), 4U);
}

TEST_F(NotifieeTest, ASuspendedWalkThatDoesNotFindItsStopTellsAll) {
  const auto a = watch("a");
  const auto b = watch("b");
  const auto outside = makePtr<Watcher>("outside", &log);
  auto walk = lamp->colourIsSuspended(7);
  EXPECT_FALSE(walk.tellUntil(*outside));
  EXPECT_EQ(log, (Log{"a", "b"}));
}

TEST_F(NotifieeTest, ASuspendedWalkKeepsTheListOfItsBeginning) {
  const auto a = watch("a");
  Ptr<Watcher> b = watch("b");
  const auto c = watch("c");
  {
    auto walk = lamp->colourIsSuspended(7);
    EXPECT_TRUE(walk.tellUntil(*a));
    b.reset();
    c->isRegisteredNotifieeIs(false);
    const auto d = watch("d");
    auto moved = std::move(walk);
    moved.tellRest();
    EXPECT_EQ(std::exchange(log, Log{}), Log{"c"});
  }
  EXPECT_EQ(log, (Log{"~b", "~d"}));
}

}  // namespace
