// SPDX-License-Identifier: Apache-2.0
//
// A shadow that has missed something: connections, resynchronisation, and a long run of random
// changes and interruptions.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/quill/ShadowTable.h"

namespace {

using QuillTest::Keys;
using QuillTest::TestKey;
using QuillTest::TraceText;

class QuillShadowResyncTest : public QuillTest::ShadowTableTest {
 protected:
  // A shadow with a copy of the keys 1 to `count` and no connection.
  void attachUnconnected(unsigned count) {
    for (unsigned i = 1; i <= count; ++i) write(i, 10);
    hideSocket();
    attach();
    showSocket();
    settle();
    notified();
  }
};

TEST_F(QuillShadowResyncTest, WithoutAConnectionItIsMountedAndARetryConnects) {
  attachUnconnected(5);
  EXPECT_EQ(shadow_->mountStatus(), 1U);
  write(6, 60);
  settle();
  EXPECT_EQ(valueIn(1), "k1=10") << "it goes on answering";
  EXPECT_EQ(valueIn(6), "none");
  const TraceText traces;
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_TRUE(traces.has("QuillShadow::doInitialize() now connected, seq:5 latestSeq:6\n"));
  EXPECT_EQ(shadow_->mountStatus(), 2U);
  EXPECT_TRUE(traces.has("QuillShadow::mountStatus(): 2\n"));
  settle();
  EXPECT_EQ(notified(), Keys{6}) << "the queue still holds what was missed";
  EXPECT_EQ(counters().resyncs, 0U);
  EXPECT_TRUE(shadow_->initialize()) << "connected already";
  EXPECT_EQ(counters().connections, 1U);
}

TEST_F(QuillShadowResyncTest, ARetryWithoutAWriterKeepsTheCopy) {
  attachUnconnected(3);
  hideSocket();
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_EQ(shadow_->mountStatus(), 1U);
  EXPECT_EQ(valueIn(3), "k3=10");
  EXPECT_EQ(notified(), Keys{});
}

TEST_F(QuillShadowResyncTest, ALostConnectionIsToldToTheMap) {
  write(1, 10);
  attach();
  settle();
  EXPECT_EQ(shadow_->mountStatus(), 2U);
  writer_.reset();
  settle();
  EXPECT_EQ(map_.disconnects, 1U);
  EXPECT_EQ(shadow_->mountStatus(), 1U);
  EXPECT_EQ(valueIn(1), "k1=10");
}

TEST_F(QuillShadowResyncTest, AWriterBehindItsReaderIsDamage) {
  attachUnconnected(3);
  // As if the last entry of the queue had never been made.
  QuillTest::RawFile(name_ + "/conquer.1").u32Is(48, 2);
  const TraceText traces;
  EXPECT_FALSE(shadow_->initialize());
  EXPECT_EQ(map_.reports,
            std::vector<std::string>{
                "QuillShadow::doInitialize() bad reader sequence:3 writer sequence:2"});
  EXPECT_TRUE(
      traces.has("QuillShadow::initialize() corruption detected: "
                 "QuillShadow::doInitialize() bad reader sequence:3 writer sequence:2\n"));
  EXPECT_EQ(notified().size(), 3U) << "every key removed";
  EXPECT_EQ(shadow_->mountStatus(), 0U);
}

TEST_F(QuillShadowResyncTest, APrunedQueueLeadsToAResyncThatNotifiesWhatDiffers) {
  attachUnconnected(20);
  for (unsigned i = 0; i < 400; ++i) write(1, 1000 + i);  // fills the queue; nobody holds it back
  ASSERT_GT(writer_->writerCounters().prunes, 0U);
  remove(2);
  write(3, 30);
  write(99, 99);
  const TraceText traces;
  EXPECT_TRUE(shadow_->initialize());
  settle();
  EXPECT_EQ(counters().resyncs, 1U);
  EXPECT_TRUE(
      traces.has("QuillShadow::resync() Out-of-sync, re-synchronizing local shadow  "
                 "latestSeq:423 numSlots:"));
  Keys keys = notified();
  std::sort(keys.begin(), keys.end());
  // 99 took the slot of 2, and what the queue holds behind the noted sequence is nothing.
  EXPECT_EQ(keys, (Keys{1, 2, 3, 99}));
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
  EXPECT_EQ(shadow_->sequence(), 423U);
  EXPECT_EQ(+counters().syncedSequence, 423U);
  write(5, 55);
  settle();
  EXPECT_EQ(notified(), Keys{5}) << "and it follows again";
}

TEST_F(QuillShadowResyncTest, AResyncOfAnUnchangedTableNotifiesNothing) {
  for (unsigned i = 1; i <= 30; ++i) write(i, 10);
  attach();
  settle();
  notified();
  shadow_->resync();
  settle();
  EXPECT_EQ(notified(), Keys{});
  EXPECT_EQ(counters().resyncs, 1U);
}

TEST_F(QuillShadowResyncTest, AResyncOfAnEmptyTableIsComplete) {
  attach();
  settle();
  shadow_->resync();
  settle();
  EXPECT_EQ(counters().resyncs, 1U);
  EXPECT_EQ(shadow_->sequence(), 0U);
  write(1, 10);
  settle();
  EXPECT_EQ(notified(), Keys{1});
}

TEST_F(QuillShadowResyncTest, YieldTimeZeroResyncsInOneGo) {
  for (unsigned i = 1; i <= 50; ++i) write(i, 10);
  attach();
  settle();
  shadow_->yieldTimeIs(0);
  const TraceText traces;
  shadow_->resync();
  EXPECT_TRUE(traces.has("QuillShadow::syncComplete() Synchronizing into local shadow. done\n"));
  EXPECT_EQ(counters().syncerYields, 0U);
}

TEST_F(QuillShadowResyncTest, NotificationsOffStopAResyncAndOnResumesIt) {
  for (unsigned i = 1; i <= 50; ++i) write(i, 10);
  attach();
  settle();
  notified();
  hideSocket();
  for (unsigned i = 1; i <= 50; ++i) write(i, 20);
  map_.notifier_.onNotify = [this](const TestKey&) {
    if (map_.notifier_.keys.size() == 10) shadow_->notifying(false);
  };
  const TraceText traces;
  shadow_->resync();
  settle();
  EXPECT_EQ(notified().size(), 10U);
  EXPECT_FALSE(traces.has("QuillShadow::syncComplete()"));
  map_.notifier_.onNotify = nullptr;
  shadow_->notifying(true);
  EXPECT_EQ(notified(), Keys{});
  settle();
  EXPECT_TRUE(traces.has("QuillShadow::syncComplete()"));
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
}

TEST_F(QuillShadowResyncTest, AResyncInSlicesStaysCorrectWhileTheTableChanges) {
  for (unsigned i = 1; i <= 80; ++i) write(i, 10);
  newShadow();
  follow();
  ASSERT_TRUE(shadow_->initialize());
  settle();
  shadow_->yieldTimeIs(-1.0);  // any time is too long
  shadow_->sampleIs(4);
  shadow_->resync();
  EXPECT_EQ(counters().syncerYields, 1U);
  for (unsigned round = 0; round < 40; ++round) {
    write(1 + round * 3 % 90, 1000 + round);
    remove(1 + round * 7 % 90);
    loop_.runTurn();
  }
  settle();
  EXPECT_GT(counters().syncerYields, 10U);
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
  EXPECT_EQ(seen_.size(), writer_->members());
}

TEST_F(QuillShadowResyncTest, DamageInAResyncGoesToTheMapAndIsNotRaised) {
  for (unsigned i = 1; i <= 5; ++i) write(i, 10);
  attach();
  settle();
  notified();
  const QuillTest::RawFile slots(name_ + "/slots");
  slots.u64Is(168, (slots.u64(168) & 0xFFFFFFFF) + 1);
  EXPECT_NO_THROW(shadow_->resync());
  EXPECT_EQ(map_.reports.size(), 1U);
  EXPECT_EQ(notified().size(), 5U);
  settle();
}

TEST_F(QuillShadowResyncTest, APruningPointAboveEverySequenceCostsOneResyncAndNoMore) {
  for (unsigned i = 1; i <= 3; ++i) write(i, 10);
  QuillTest::RawFile(name_ + "/conquer.1").u64Is(16, ~0ULL);
  attach();
  EXPECT_EQ(counters().resyncs, 0U);
  settle();  // ends
  EXPECT_EQ(counters().resyncs, 1U) << "at the writer's answer";
  write(4, 10);
  settle();
  EXPECT_EQ(counters().resyncs, 1U);
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
}

TEST_F(QuillShadowResyncTest, SettingsAreTraced) {
  newShadow();
  const TraceText traces;
  shadow_->yieldTimeIs(0.25);
  shadow_->sampleIs(17);
  shadow_->notifying(true);
  EXPECT_TRUE(traces.has("QuillShadow()::yieldTimeIs() yieldTime: 0.25\n"));
  EXPECT_TRUE(traces.has("QuillShadow()::sampleIs() sample: 17\n"));
  EXPECT_TRUE(traces.has("QuillShadow()::notifying() notifying: 1\n"));
  EXPECT_TRUE(traces.has("Syncer::notifying() notifying: 1\n"));
  EXPECT_EQ(shadow_->yieldTime(), 0.25);
  EXPECT_EQ(shadow_->sample(), 17U);
}

class QuillShadowRandomTest : public QuillShadowResyncTest,
                              public testing::WithParamInterface<bool> {};

// Random changes, with the loop run for a while in between, and now and then a resync, a pause, a
// lost connection or a detach. In the end the shadow holds what the table holds, and a listener
// that looked up what it was told of knows the same.
TEST_P(QuillShadowRandomTest, HoldsAndTellsWhatTheTableHoldsAfterAnyChanges) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE(Quill::textOf("seed ", seed));
    std::mt19937 random(seed);
    const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
    newWriter();
    seen_.clear();
    newShadow(GetParam());
    follow();
    ASSERT_TRUE(shadow_->initialize());
    for (unsigned round = 0; round < 150; ++round) {
      for (unsigned i = below(60); i-- > 0;) {
        const unsigned number = below(400);
        if (below(100) < (round % 50 < 25 ? 30U : 80U)) {
          remove(number);
        } else {
          write(number, below(3));
        }
        if (below(10) == 0) loop_.runTurn();
      }
      switch (below(12)) {
        case 0:
          shadow_->resync();
          break;
        case 1:
          shadow_->notifying(false);
          break;
        case 2:
        case 3:
          shadow_->notifying(true);
          break;
        case 4:
          shadow_->yieldTimeIs(below(2) == 0 ? -1.0 : 0.05);
          break;
        case 5:
          shadow_->detach();
          ASSERT_TRUE(seen_.empty());
          shadow_->notifying(true);
          ASSERT_TRUE(shadow_->initialize());
          break;
        case 6:
          settle();
          break;
        default:
          loop_.runTurn();
      }
    }
    shadow_->notifying(true);
    settle();
    const auto expected = contentOf(*writer_);
    ASSERT_EQ(contentOf(*shadow_), expected);
    ASSERT_EQ(shadow_->members(), expected.size());
    ASSERT_EQ(seen_.size(), expected.size());
    for (const auto& value : expected) ASSERT_EQ(seen_[value.key.number], value);
    ASSERT_EQ(map_.reports, std::vector<std::string>{});
    shadow_.reset();
    writer_->cleanup();
  }
}

INSTANTIATE_TEST_SUITE_P(BothForms, QuillShadowRandomTest, testing::Bool(),
                         [](const auto& form) { return form.param ? "keys" : "values"; });

}  // namespace
