// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/runtime/TestEntity.h"

namespace {

using namespace RuntimeTest;
using Vex::makePtr;
using Vex::Ptr;

// What a machine owns and tells of notification-active.
class Child final : public Vex::VFPtrInterface {
 public:
  Child(std::string name, Log* log) : name_(std::move(name)), log_(log) {}
  ~Child() override { log_->push_back("~" + name_); }
  void hasNotificationActiveIs(bool flag) override {
    if (flag == hasNotificationActive()) return;
    Vex::VFPtrInterface::hasNotificationActiveIs(flag);
    log_->push_back(name_ + (flag ? " on" : " off"));
  }

 private:
  const std::string name_;
  Log* const log_;
};

class Sm final : public Vex::Machine<Sm> {
 public:
  static constexpr std::string_view kTypeName = "Test::Sm";

  Sm(Log* theLog, const Ptr<Lamp>& first, const Ptr<Lamp>& second)
      : log(theLog),
        first_(Vex::newReactor<VexFirst>(this, Ptr<Lamp const>(first))),
        second_(Vex::newReactor<VexSecond>(this, Ptr<Lamp const>(second))),
        child_(makePtr<Child>("child", theLog)),
        member_(makePtr<Child>("member", theLog)) {}
  ~Sm() override {
    log->push_back("~sm");
    vexTeardown();
    log->push_back(std::string("machine of first ") +
                   (first_ && first_->hasMachine() ? "kept" : "cleared"));
    log->push_back("torn down");
  }

  const Lamp* first() const { return watched(first_); }
  const Lamp* second() const { return watched(second_); }

  // The usual setter of a watched attribute.
  void firstIs(const Ptr<Vex::PtrInterface const>& lamp) { first_->notifierIs(lamp); }
  Vex::NotifieeConst* firstReactor() { return first_.get(); }

  void handleColour(const std::string& which) {
    log->push_back("handle " + which);
    if (handler) handler();
  }

  Log* const log;
  std::function<void()> handler;

 private:
  friend class Vex::Machine<Sm>;

  template <class Self>
  class Logged : public Vex::Reactor<Sm, Lamp> {
   public:
    ~Logged() override { log_->push_back(std::string("~") + Self::kName); }
    void vexLogIs(Log* theLog) { log_ = theLog; }
    void vexDoZombieReactors(bool flag) override {
      log_->push_back(std::string(Self::kName) + (flag ? " zombie" : " alive"));
      Vex::Reactor<Sm, Lamp>::vexDoZombieReactors(flag);
    }
    void hasNotificationActiveIs(bool flag) override {
      if (log_ != nullptr && flag != hasNotificationActive()) {
        log_->push_back(std::string(Self::kName) + (flag ? " on" : " off"));
      }
      Vex::Reactor<Sm, Lamp>::hasNotificationActiveIs(flag);
    }
    void onColour() override {
      react([](Sm& sm) { sm.handleColour(Self::kName); });
    }
    bool hasMachine() {
      bool had = false;
      vexMarkedForDeletionIs(false);  // so that only the back pointer decides
      react([&](Sm&) { had = true; });
      vexMarkedForDeletionIs(true);
      return had;
    }

   private:
    Log* log_ = nullptr;
  };
  class VexFirst final : public Logged<VexFirst> {
   public:
    static constexpr const char* kName = "first";

   protected:
    void vexReplay() override {
      react([](Sm& sm) {
        sm.log->push_back("replay " + sm.first()->name().str());
        if (sm.handler) sm.handler();
      });
    }
  };
  class VexSecond final : public Logged<VexSecond> {
   public:
    static constexpr const char* kName = "second";
  };

  auto vexReactors() { return std::tie(first_, second_); }
  auto vexOwned() { return std::tie(child_); }
  template <class Call>
  void vexOwnedCollections(Call call) {
    call(*member_);
  }

 public:
  void logReactors() {
    if (first_) first_->vexLogIs(log);
    if (second_) second_->vexLogIs(log);
  }

 private:
  Ptr<VexFirst> first_;
  Ptr<VexSecond> second_;
  Ptr<Child> child_;
  Ptr<Child> member_;
};

class MachineTest : public testing::Test {
 protected:
  Ptr<Sm> newSm(const Ptr<Lamp>& first, const Ptr<Lamp>& second) {
    auto sm = makePtr<Sm>(&log, first, second);
    sm->logReactors();
    return sm;
  }
  Log take() { return std::exchange(log, Log{}); }

  Log log;
  Ptr<Lamp> a = makePtr<Lamp>("a");
  Ptr<Lamp> b = makePtr<Lamp>("b");
};

TEST_F(MachineTest, ReactsFromItsConstructionOnAndWithoutReplay) {
  const auto sut = newSm(a, b);
  EXPECT_EQ(take(), Log{});
  a->colourIs(1);
  b->colourIs(1);
  EXPECT_EQ(take(), (Log{"handle first", "handle second"}));
  EXPECT_EQ(sut->references(), 1U);
}

TEST_F(MachineTest, ANullNotifierMakesNoReactor) {
  auto sut = newSm(a, nullptr);
  EXPECT_EQ(sut->second(), nullptr);
  sut->hasNotificationActiveIs(true);
  sut->vexDoZombieReactors(true);
  EXPECT_EQ(take(), (Log{"first on", "child on", "member on", "first zombie", "first off"}));
}

TEST_F(MachineTest, NotificationActiveGoesToReactorsThenToWhatIsOwnedInOrder) {
  const auto sut = newSm(a, b);
  sut->hasNotificationActiveIs(true);
  EXPECT_TRUE(sut->hasNotificationActive());
  EXPECT_EQ(take(), (Log{"first on", "second on", "child on", "member on"}));
  sut->hasNotificationActiveIs(true);
  EXPECT_EQ(take(), Log{});
  sut->hasNotificationActiveIs(false);
  EXPECT_EQ(take(), (Log{"first off", "second off", "child off", "member off"}));
  a->colourIs(1);
  EXPECT_EQ(take(), Log{});
  sut->hasNotificationActiveIs(true);
  (void)take();
  a->colourIs(2);
  EXPECT_EQ(take(), Log{"handle first"});
}

TEST_F(MachineTest, ZombieGoesToTheReactorsInOrderAndOnlyOnAChange) {
  const auto sut = newSm(a, b);
  sut->hasNotificationActiveIs(true);
  (void)take();
  sut->vexDoZombieReactors(false);
  EXPECT_EQ(take(), Log{});
  sut->vexDoZombieReactors(true);
  EXPECT_TRUE(sut->isZombie());
  EXPECT_EQ(take(), (Log{"first zombie", "first off", "second zombie", "second off"}));
  sut->vexDoZombieReactors(true);
  EXPECT_EQ(take(), Log{});
  a->colourIs(1);
  EXPECT_EQ(take(), Log{});
  sut->vexDoZombieReactors(false);
  EXPECT_EQ(take(), (Log{"first alive", "first on", "second alive", "second on"}));
  a->colourIs(2);
  EXPECT_EQ(take(), Log{"handle first"});
}

TEST_F(MachineTest, DestructionMakesZombiesFirstAndReleasesInReverseOrder) {
  auto sut = newSm(a, b);
  sut->hasNotificationActiveIs(true);
  (void)take();
  sut.reset();
  EXPECT_EQ(take(), (Log{"~sm", "first zombie", "first off", "second zombie", "second off",
                         "machine of first cleared", "torn down", "~member", "~child", "~second",
                         "~first"}));
  EXPECT_EQ(a->notifieeCount(), 0U);
  EXPECT_EQ(a->references(), 1U);
}

TEST_F(MachineTest, AMachineEndedByItsOwnHandlerLivesUntilTheHandlerReturns) {
  Ptr<Sm> sut = newSm(a, b);
  Sm* const plain = sut.get();
  plain->handler = [&] {
    sut.reset();
    plain->log->push_back("still there");  // the machine's own member
  };
  const auto after = newWatcher(a, "after", &log);
  a->colourIs(1);
  const Log got = take();
  ASSERT_GE(got.size(), 3U);
  EXPECT_EQ(got[0], "handle first");
  EXPECT_EQ(got[1], "still there");
  EXPECT_EQ(got[2], "~sm");
  EXPECT_NE(std::find(got.begin(), got.end(), "after"), got.end());
  EXPECT_EQ(got.back(), "~first");  // the reactor goes with the walk
}

TEST_F(MachineTest, AMachineEndedByNestedReactionsOfItsHandlerIsSafe) {
  Ptr<Sm> sut = newSm(a, b);
  const auto owner = newWatcher(b, "owner", &log, [&] { sut.reset(); });
  sut->handler = [&] {
    if (b->colour() == 0) b->colourIs(1);  // the machine's own second reactor runs, then the owner
  };
  a->colourIs(1);
  const Log got = take();
  EXPECT_EQ(got[0], "handle first");
  EXPECT_EQ(got[1], "handle second");
  EXPECT_EQ(got[2], "owner");
  EXPECT_EQ(got[3], "~sm");
  EXPECT_FALSE(sut);
  EXPECT_EQ(a->notifieeCount(), 0U);
}

TEST_F(MachineTest, AMachineEndedByAnEarlierNotifieeIsNotRun) {
  Ptr<Sm> sut;
  const auto owner = newWatcher(a, "owner", &log, [&] { sut.reset(); });
  sut = newSm(a, b);
  a->colourIs(1);
  const Log got = take();
  EXPECT_EQ(std::find(got.begin(), got.end(), "handle first"), got.end());
  EXPECT_NE(std::find(got.begin(), got.end(), "~sm"), got.end());
}

TEST_F(MachineTest, AnExceptionOfAHandlerEndsAtItsReactor) {
  const auto sut = newSm(a, b);
  sut->handler = [] { Vex::throwInternalException("no"); };
  const auto after = newWatcher(a, "after", &log);
  EXPECT_NO_THROW(a->colourIs(1));
  EXPECT_EQ(take(), (Log{"handle first", "after"}));
  EXPECT_EQ(sut->references(), 1U);
}

// Rebinding

TEST_F(MachineTest, RebindingReplaysOnceBoundAndEndsRegistered) {
  const auto sut = newSm(a, nullptr);
  std::uint32_t registeredDuringReplay = 99;
  sut->handler = [&] { registeredDuringReplay = b->notifieeCount(); };
  sut->firstIs(b);
  EXPECT_EQ(take(), Log{"replay b"});
  EXPECT_EQ(registeredDuringReplay, 0U);
  EXPECT_EQ(sut->first(), b.get());
  EXPECT_EQ(a->notifieeCount(), 0U);
  EXPECT_EQ(b->notifieeCount(), 1U);
  sut->handler = nullptr;
  a->colourIs(1);
  b->colourIs(1);
  EXPECT_EQ(take(), Log{"handle first"});
}

TEST_F(MachineTest, RebindingToThePresentNotifierDoesNothing) {
  const auto sut = newSm(a, nullptr);
  const std::uint32_t version = a->notifieeListVersion();
  sut->firstIs(a);
  EXPECT_EQ(take(), Log{});
  EXPECT_EQ(a->notifieeListVersion(), version);
  // At once: not even the registration at the end happens.
  sut->firstReactor()->isRegisteredNotifieeIs(false);
  sut->firstIs(a);
  EXPECT_EQ(a->notifieeCount(), 0U);
}

TEST_F(MachineTest, RebindingToNullReplaysNothing) {
  const auto sut = newSm(a, nullptr);
  sut->firstIs(nullptr);
  EXPECT_EQ(take(), Log{});
  EXPECT_EQ(sut->first(), nullptr);
  EXPECT_EQ(a->notifieeCount(), 0U);
  EXPECT_EQ(a->references(), 1U);
}

TEST_F(MachineTest, ANotifierOfAnotherClassCountsAsNull) {
  const auto sut = newSm(a, nullptr);
  sut->firstIs(makePtr<Child>("child of nobody", &log));
  EXPECT_EQ(sut->first(), nullptr);
  EXPECT_EQ(a->notifieeCount(), 0U);
  EXPECT_EQ(take(), Log{"~child of nobody"});
}

TEST_F(MachineTest, AZombieRebindsWithoutReplay) {
  const auto sut = newSm(a, nullptr);
  sut->vexDoZombieReactors(true);
  (void)take();
  sut->firstIs(b);
  EXPECT_EQ(take(), Log{});
  EXPECT_EQ(sut->first(), b.get());
  EXPECT_TRUE(sut->firstReactor()->isRegisteredNotifiee());
  b->colourIs(1);
  EXPECT_EQ(take(), Log{});
}

TEST_F(MachineTest, AReplayThatEndsTheMachineIsSafe) {
  Ptr<Sm> sut = newSm(a, nullptr);
  sut->handler = [&] { sut.reset(); };
  sut->firstReactor()->notifierIs(b);
  const Log got = take();
  EXPECT_EQ(got[0], "replay b");
  EXPECT_EQ(got.back(), "~first");
  EXPECT_EQ(a->notifieeCount(), 0U);
  EXPECT_EQ(b->notifieeCount(), 0U);
  EXPECT_EQ(b->references(), 1U);
}

}  // namespace
