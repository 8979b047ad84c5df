// SPDX-License-Identifier: Apache-2.0
#include "quill/Syncer.h"

#include <gtest/gtest.h>

#include "tests/quill/ShadowFixture.h"
#include "tests/quill/SteppingLoop.h"
#include "tests/quill/TestTable.h"

namespace {

using QuillTest::FakeMap;
using QuillTest::TraceText;

// Keeps which slots were visited; `onSlot` runs inside the visit.
struct FakeStore {
  void doSlot(unsigned slotIndex, bool compare) {
    visited.push_back(slotIndex);
    compared = compare;
    if (onSlot) onSlot(slotIndex);
  }
  std::vector<unsigned> taken() { return std::exchange(visited, {}); }

  std::vector<unsigned> visited;
  bool compared = false;
  std::function<void(unsigned)> onSlot;
};

struct FakeShadow {
  FakeStore* store() { return &store_; }
  FakeMap* map() { return &map_; }
  bool initialized() const { return initialized_; }
  double yieldTime() const { return yieldTime_; }
  unsigned sample() const { return sample_; }
  void syncComplete() { ++completions; }

  FakeStore store_;
  FakeMap map_;
  bool initialized_ = true;
  double yieldTime_ = 0.05;
  unsigned sample_ = 2;
  unsigned completions = 0;
};

class SyncerTest : public testing::Test {
 protected:
  // All turns that there is something to do in.
  unsigned runLoop() {
    unsigned turns = 0;
    while (turns < 1000 && loop_.runTurn()) ++turns;
    return turns;
  }

  QuillTest::SteppingLoop loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"test"};
  Quill::Reader::Counters counters_;
  FakeShadow shadow_;
  Quill::Syncer<FakeShadow> sut_{handler_, &shadow_, counters_};
};

using Slots = std::vector<unsigned>;

TEST_F(SyncerTest, VisitsEverySlotFromTheHighestToTheFirst) {
  EXPECT_TRUE(sut_.sync(5, false));
  EXPECT_EQ(shadow_.store_.visited, (Slots{4, 3, 2, 1, 0}));
  EXPECT_FALSE(shadow_.store_.compared);
  EXPECT_EQ(shadow_.completions, 1U);
  EXPECT_EQ(runLoop(), 0U);
}

TEST_F(SyncerTest, ResyncComparesFirst) {
  EXPECT_TRUE(sut_.sync(1, true));
  EXPECT_TRUE(shadow_.store_.compared);
}

TEST_F(SyncerTest, WithNoSlotsItIsCompleteAtOnce) {
  EXPECT_TRUE(sut_.sync(0, false));
  EXPECT_EQ(shadow_.store_.visited, Slots{});
  EXPECT_EQ(shadow_.completions, 1U);
}

TEST_F(SyncerTest, TheFirstWalkRunsInOneGoHoweverLongItTakes) {
  shadow_.initialized_ = false;
  loop_.steppingClock().step = 10.0;
  EXPECT_TRUE(sut_.sync(100, false));
  EXPECT_EQ(shadow_.store_.visited.size(), 100U);
  EXPECT_EQ(shadow_.completions, 1U);
  EXPECT_EQ(counters_.syncerYields, 0U);
}

TEST_F(SyncerTest, ALaterWalkGivesWayWhenItsTimeIsUpAndGoesOnInTheNextTurn) {
  loop_.steppingClock().step = 0.03;
  EXPECT_TRUE(sut_.sync(10, true));
  // Read at the start, and after 2 and 4 slots: 0.06 seconds.
  EXPECT_EQ(shadow_.store_.taken(), (Slots{9, 8, 7, 6}));
  EXPECT_EQ(counters_.syncerYields, 1U);
  EXPECT_EQ(shadow_.completions, 0U);
  EXPECT_TRUE(loop_.runTurn());
  EXPECT_EQ(shadow_.store_.taken(), (Slots{5, 4, 3, 2}));
  EXPECT_EQ(counters_.syncerYields, 2U);
  EXPECT_TRUE(loop_.runTurn());
  EXPECT_EQ(shadow_.store_.taken(), (Slots{1, 0}));
  EXPECT_EQ(shadow_.completions, 1U);
  EXPECT_EQ(runLoop(), 0U) << "the timer is cancelled";
}

TEST_F(SyncerTest, TracesHowFarARunCame) {
  loop_.steppingClock().step = 1.0;
  const TraceText traces;
  EXPECT_TRUE(sut_.sync(10, true));
  EXPECT_TRUE(traces.has("Syncer::sync() resync:1 numSlots:10\n"));
  EXPECT_TRUE(traces.has(
      "Syncer::doSync() Syncing, resync:1 sample:2 yieldTime:0.05 currentSlot:10 start:"));
  EXPECT_TRUE(traces.has("Syncer::doSync() Synced 2 slots in "));
  EXPECT_TRUE(traces.has(" seconds, currentSlot:8 yield:1 stop:0\n"));
}

TEST_F(SyncerTest, TheClockIsReadAtMostEverySampleSlots) {
  shadow_.sample_ = 8;
  EXPECT_TRUE(sut_.sync(33, true));
  // Start, after 8, 16, 24 and 32 slots, and for the last trace only if it is looked at.
  EXPECT_EQ(loop_.steppingClock().reads(), 5U);
}

TEST_F(SyncerTest, YieldTimeZeroRunsAResyncInOneGo) {
  shadow_.yieldTime_ = 0;
  loop_.steppingClock().step = 10.0;
  EXPECT_TRUE(sut_.sync(100, true));
  EXPECT_EQ(shadow_.store_.visited.size(), 100U);
  EXPECT_EQ(shadow_.completions, 1U);
}

TEST_F(SyncerTest, ATimeLimitBelowTheClocksStepStillLetsTheWalkEnd) {
  shadow_.yieldTime_ = 1e-9;
  shadow_.sample_ = 0;
  loop_.steppingClock().step = 0.001;
  EXPECT_TRUE(sut_.sync(10, true));
  EXPECT_EQ(runLoop(), 9U);
  EXPECT_EQ(shadow_.store_.visited.size(), 10U);
  EXPECT_EQ(shadow_.completions, 1U);
}

TEST_F(SyncerTest, NotificationsOffStopTheWalkAndOnResumesItAtItsSlot) {
  shadow_.store_.onSlot = [this](unsigned slot) {
    if (slot == 7) sut_.notifying(false);
  };
  EXPECT_TRUE(sut_.sync(10, true));
  EXPECT_EQ(shadow_.store_.taken(), (Slots{9, 8, 7}));
  EXPECT_EQ(sut_.currentSlot(), 7U);
  runLoop();
  EXPECT_EQ(shadow_.store_.taken(), Slots{}) << "nothing while they are off";
  EXPECT_EQ(shadow_.completions, 0U);
  shadow_.store_.onSlot = nullptr;
  sut_.notifying(true);
  EXPECT_EQ(shadow_.store_.taken(), Slots{}) << "not before the loop has run";
  EXPECT_TRUE(loop_.runTurn());
  EXPECT_EQ(shadow_.store_.taken(), (Slots{6, 5, 4, 3, 2, 1, 0}));
  EXPECT_EQ(shadow_.completions, 1U);
}

TEST_F(SyncerTest, AFirstWalkThatIsStoppedSaysHowMuchIsLeft) {
  shadow_.initialized_ = false;
  shadow_.store_.onSlot = [this](unsigned slot) {
    if (slot == 3) sut_.notifying(false);
  };
  const TraceText traces;
  EXPECT_TRUE(sut_.sync(5, false));
  EXPECT_TRUE(
      traces.has("Syncer::doSync() Interrupted shadow initialization, synced 2 slots (3 "
                 "slots remaining)\n"));
}

TEST_F(SyncerTest, ASyncWhileNotificationsAreOffWaitsForThem) {
  sut_.notifying(false);
  const TraceText traces;
  EXPECT_TRUE(sut_.sync(3, true));
  EXPECT_TRUE(traces.has("Syncer::doSync() notifications temporarily disabled\n"));
  EXPECT_EQ(shadow_.store_.visited, Slots{});
  EXPECT_EQ(runLoop(), 0U);
  sut_.notifying(true);
  runLoop();
  EXPECT_EQ(shadow_.store_.visited, (Slots{2, 1, 0}));
  EXPECT_EQ(shadow_.completions, 1U);
}

TEST_F(SyncerTest, SwitchingOnWithNothingToVisitArmsNothing) {
  sut_.notifying(true);
  EXPECT_EQ(runLoop(), 0U);
}

TEST_F(SyncerTest, ANewSyncForgetsTheWalkBefore) {
  loop_.steppingClock().step = 1.0;
  EXPECT_TRUE(sut_.sync(100, true));
  EXPECT_EQ(shadow_.store_.taken().size(), 2U);
  shadow_.yieldTime_ = 0;
  EXPECT_TRUE(sut_.sync(4, true));
  EXPECT_EQ(shadow_.store_.taken(), (Slots{3, 2, 1, 0}));
  EXPECT_EQ(shadow_.completions, 1U);
  EXPECT_EQ(runLoop(), 0U);
}

TEST_F(SyncerTest, DamageGoesToTheMapAndEndsTheWalk) {
  shadow_.store_.onSlot = [](unsigned slot) {
    if (slot == 2) Quill::raise<Quill::CorruptionDetectedException>("slot 2 is bad");
  };
  shadow_.map_.onCorruption = [this] { sut_.abandon(); };
  const TraceText traces;
  EXPECT_FALSE(sut_.sync(5, true));
  EXPECT_EQ(shadow_.map_.reports, std::vector<std::string>{"slot 2 is bad"});
  EXPECT_TRUE(traces.has("Syncer::doSync() corruption detected: slot 2 is bad\n"));
  EXPECT_FALSE(traces.has("Syncer::doSync() Synced"));
  EXPECT_EQ(shadow_.store_.visited, (Slots{4, 3, 2}));
  EXPECT_EQ(shadow_.completions, 0U);
  EXPECT_EQ(runLoop(), 0U);
}

TEST_F(SyncerTest, NothingIsTouchedAfterDamageWasReported) {
  auto shadow = std::make_unique<FakeShadow>();
  auto sut = std::make_unique<Quill::Syncer<FakeShadow>>(handler_, shadow.get(), counters_);
  shadow->store_.onSlot = [](unsigned) { Quill::raise<Quill::CorruptionDetectedException>("bad"); };
  // Poisoned rather than freed, as the map holds the callback that runs.
  shadow->map_.onCorruption = [&] { sut.reset(); };
  EXPECT_FALSE(sut->sync(5, true));
  EXPECT_EQ(sut, nullptr);
}

TEST_F(SyncerTest, AListenerThatDetachesEndsTheWalkWithoutCompletion) {
  shadow_.store_.onSlot = [this](unsigned slot) {
    if (slot == 0) sut_.abandon();
  };
  EXPECT_FALSE(sut_.sync(3, false));
  EXPECT_EQ(shadow_.completions, 0U);
  EXPECT_EQ(runLoop(), 0U);
}

TEST_F(SyncerTest, WhatStopsAWalkFromTheLoopIsTriedAgainAfterASecond) {
  bool full = true;
  shadow_.store_.onSlot = [&](unsigned slot) {
    if (slot == 1 && full) Quill::raise<Sable::MemoryResourceException>("no memory");
  };
  sut_.notifying(false);
  EXPECT_TRUE(sut_.sync(3, true));
  sut_.notifying(true);
  EXPECT_NO_THROW(runLoop());
  EXPECT_EQ(shadow_.store_.taken(), (Slots{2, 1}));
  EXPECT_EQ(sut_.currentSlot(), 2U) << "slot 1 is still to visit";
  full = false;
  loop_.steppingClock().step = 0.6;
  EXPECT_FALSE(loop_.runTurn());
  EXPECT_TRUE(loop_.runTurn());
  EXPECT_EQ(shadow_.store_.taken(), (Slots{1, 0}));
  EXPECT_EQ(shadow_.completions, 1U);
  EXPECT_EQ(shadow_.map_.reports.size(), 0U);
}

TEST_F(SyncerTest, NothingIsTouchedAfterDamageInAWalkFromTheLoop) {
  auto shadow = std::make_unique<FakeShadow>();
  auto sut = std::make_unique<Quill::Syncer<FakeShadow>>(handler_, shadow.get(), counters_);
  shadow->store_.onSlot = [](unsigned) { Quill::raise<Quill::CorruptionDetectedException>("bad"); };
  shadow->map_.onCorruption = [&] { sut.reset(); };
  sut->notifying(false);
  EXPECT_TRUE(sut->sync(5, true));
  sut->notifying(true);
  runLoop();
  EXPECT_EQ(sut, nullptr);
}

TEST_F(SyncerTest, OtherExceptionsPassOn) {
  shadow_.store_.onSlot = [](unsigned) { Quill::raise<Sable::RuntimeException>("logic"); };
  EXPECT_THROW(static_cast<void>(sut_.sync(3, false)), Sable::RuntimeException);
  EXPECT_EQ(shadow_.map_.reports.size(), 0U);
}

}  // namespace
