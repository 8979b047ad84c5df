// SPDX-License-Identifier: Apache-2.0
#include "quill/KickSession.h"

#include <gtest/gtest.h>

#include "quill/KickReaders.h"

namespace QuillTest {

namespace {

using Effect = Quill::KickSession::Effect;
using Quill::KickType;

class KickSessionTest : public testing::Test {
 protected:
  Effect take(KickType type, std::uint64_t sequence) {
    reason_.clear();
    return sut_.handleMessage({type, sequence}, last_, now_, reason_);
  }
  void introduce(std::uint64_t sequence) {
    EXPECT_EQ(Effect::none, take(KickType::hello, 0));
    EXPECT_EQ(Effect::introduced, take(KickType::sequence, sequence));
  }

  Quill::KickSession sut_;
  std::uint64_t last_ = 10;
  double now_ = 1'000.0;
  std::string reason_;
};

}  // namespace

TEST_F(KickSessionTest, IntroductionIsHelloThenSequence) {
  EXPECT_EQ(Effect::none, take(KickType::hello, 0));
  EXPECT_FALSE(sut_.introduced());
  EXPECT_EQ(Effect::introduced, take(KickType::sequence, 4));
  EXPECT_TRUE(sut_.introduced());
  EXPECT_EQ(4U, sut_.sequence());
  EXPECT_EQ(Effect::none, take(KickType::sequence, 4));
}

TEST_F(KickSessionTest, HelloWithASequenceIsRefused) {
  EXPECT_EQ(Effect::refused, take(KickType::hello, 1));
  EXPECT_EQ("HELLO with sequence 1, must be 0", reason_);
}

TEST_F(KickSessionTest, BothEndsOfTheRangeOfASequenceArePermitted) {
  introduce(4);
  EXPECT_EQ(Effect::none, take(KickType::sequence, 4));
  EXPECT_EQ(Effect::none, take(KickType::sequence, 10));
  EXPECT_EQ(Effect::refused, take(KickType::sequence, 11));
  EXPECT_EQ("SEQUENCE with sequence 11, must be 10 to 10", reason_);
}

TEST_F(KickSessionTest, FirstReportBeyondTheWritersIsRefused) {
  EXPECT_EQ(Effect::none, take(KickType::hello, 0));
  EXPECT_EQ(Effect::refused, take(KickType::sequence, 11));
  EXPECT_EQ("SEQUENCE with sequence 11, must be 0 to 10", reason_);
  EXPECT_FALSE(sut_.introduced());
}

TEST_F(KickSessionTest, SleepAtTheLastSequenceSleepsAndBelowItIsKicked) {
  introduce(4);
  EXPECT_EQ(Effect::kickNow, take(KickType::sleep, 9));
  EXPECT_FALSE(sut_.asleep());
  EXPECT_EQ(Effect::slept, take(KickType::sleep, 10));
  EXPECT_TRUE(sut_.asleep());
  sut_.handleKicked();
  EXPECT_FALSE(sut_.asleep());
}

TEST_F(KickSessionTest, ASleeperThatStaysBehindIsKickedOnceForEachChange) {
  introduce(4);
  EXPECT_EQ(Effect::kickNow, take(KickType::sleep, 9));
  EXPECT_EQ(Effect::slept, take(KickType::sleep, 9));
  EXPECT_TRUE(sut_.asleep());
  last_ = 11;
  sut_.handleKicked();
  EXPECT_EQ(Effect::kickNow, take(KickType::sleep, 9));
  EXPECT_EQ(Effect::slept, take(KickType::sleep, 10));
}

TEST_F(KickSessionTest, RateCountsPerSecondOfTheClock) {
  introduce(0);
  for (unsigned i = 2; i < 200'000; ++i) ASSERT_EQ(Effect::none, take(KickType::sequence, 0));
  now_ += 1.0;
  for (unsigned i = 0; i < 200'000; ++i) ASSERT_EQ(Effect::none, take(KickType::sequence, 0));
  now_ += 0.999;
  EXPECT_EQ(Effect::refused, take(KickType::sequence, 0));
  EXPECT_EQ("more than 200000 messages in a second", reason_);
}

TEST_F(KickSessionTest, ClockThatGoesBackBeginsANewSecond) {
  introduce(0);
  for (unsigned i = 2; i < 200'000; ++i) ASSERT_EQ(Effect::none, take(KickType::sequence, 0));
  now_ -= 100.0;
  EXPECT_EQ(Effect::none, take(KickType::sequence, 0));
}

TEST(KickRefusal, TableHasALimitForEverybody) {
  EXPECT_EQ("", Quill::kickRefusal(1'023, 1'023, 0, 7));
  EXPECT_EQ("the table has 1024 readers already", Quill::kickRefusal(1'024, 0, 0, 7));
  EXPECT_EQ("the table has 1024 readers already", Quill::kickRefusal(1'024, 0, 7, 7));
}

TEST(KickRefusal, UserHasALimitUnlessItIsRootOrTheWriters) {
  EXPECT_EQ("", Quill::kickRefusal(100, 63, 5, 7));
  EXPECT_EQ("user 5 has 64 readers already", Quill::kickRefusal(100, 64, 5, 7));
  EXPECT_EQ("", Quill::kickRefusal(100, 64, 0, 7));
  EXPECT_EQ("", Quill::kickRefusal(100, 64, 7, 7));
}

}  // namespace QuillTest
