// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/FloodMeter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "runtime/vex/VirtualActivityManager.h"

namespace Platform::Linux {
namespace {

class FloodMeterTest : public testing::Test, private FloodMeter::Listener {
 protected:
  FloodMeterTest() { sut.listenerIs(this); }

  // `turns` turns in `seconds`, evenly.
  void turns(std::size_t turns, std::size_t frames, bool full, double seconds) {
    for (std::size_t i = 0; i < turns; ++i) {
      loop_.runFor(seconds / static_cast<double>(turns));
      sut.turn(frames, full);
    }
  }

  Vex::VirtualActivityManager loop_{1000.0};
  Vex::CurrentActivityManager current_{loop_};
  FloodMeter sut{loop_};
  std::vector<bool> told_;

 private:
  void floodIs(bool flood) override { told_.push_back(flood); }
};

TEST_F(FloodMeterTest, FullTurnsInARowAreAFloodHoweverSlowlyTheyAreRead) {
  turns(63, 256, true, 6.3);
  EXPECT_FALSE(sut.flood());
  turns(1, 256, true, 0.1);
  EXPECT_TRUE(sut.flood());
  EXPECT_EQ(told_, std::vector<bool>{true});
}

TEST_F(FloodMeterTest, ATurnThatWasNotFullEndsTheRow) {
  turns(63, 256, true, 6.3);
  turns(1, 255, false, 0.1);
  turns(63, 256, true, 6.3);
  EXPECT_FALSE(sut.flood());
}

TEST_F(FloodMeterTest, ManyFramesInAShortTimeAreAFloodThoughNoTurnIsFull) {
  turns(163, 100, false, 0.08);
  EXPECT_FALSE(sut.flood());
  turns(1, 100, false, 0.0);
  EXPECT_TRUE(sut.flood());
  EXPECT_EQ(told_, std::vector<bool>{true});
}

TEST_F(FloodMeterTest, TheSameNumberInALongerTimeIsNone) {
  turns(1'000, 160, false, 1.0);
  EXPECT_FALSE(sut.flood());
  EXPECT_TRUE(told_.empty());
}

TEST_F(FloodMeterTest, LastsWhileHalfAsManyCome) {
  turns(64, 256, true, 0.01);
  for (int i = 0; i < 10; ++i) turns(100, 90, false, 0.1);
  EXPECT_TRUE(sut.flood());
  turns(100, 70, false, 0.2);
  EXPECT_FALSE(sut.flood());
  EXPECT_EQ(told_, (std::vector<bool>{true, false}));
}

TEST_F(FloodMeterTest, LastsWhileTurnsAreFullHoweverSlowlyTheyAreRead) {
  turns(64, 256, true, 6.4);
  turns(100, 256, true, 5.0);
  EXPECT_TRUE(sut.flood());
  EXPECT_EQ(told_.size(), 1U);
}

TEST_F(FloodMeterTest, EndsByItselfWhenNothingComesAnyMoreAndThenLeavesTheLoopAsleep) {
  turns(64, 256, true, 0.01);
  loop_.runFor(0.25);
  EXPECT_FALSE(sut.flood());
  EXPECT_EQ(told_, (std::vector<bool>{true, false}));
  const std::uint64_t before = loop_.wakeUps();
  loop_.runFor(1'000.0);
  EXPECT_EQ(loop_.wakeUps(), before);
}

TEST_F(FloodMeterTest, TheNextOneIsFoundLikeTheFirst) {
  turns(64, 256, true, 0.01);
  loop_.runFor(0.25);
  turns(63, 256, true, 6.3);
  EXPECT_FALSE(sut.flood());
  turns(164, 100, false, 0.05);
  EXPECT_TRUE(sut.flood());
}

TEST_F(FloodMeterTest, NobodyNeedsToListen) {
  sut.listenerIs(nullptr);
  turns(64, 256, true, 0.01);
  loop_.runFor(0.25);
  EXPECT_FALSE(sut.flood());
  EXPECT_TRUE(told_.empty());
}

}  // namespace
}  // namespace Platform::Linux
