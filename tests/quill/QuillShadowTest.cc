// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillShadow.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/quill/ShadowTable.h"

namespace {

using QuillTest::Keys;
using QuillTest::TestKey;
using QuillTest::TraceText;

class QuillShadowTest : public QuillTest::ShadowTableTest {};

// --- the first copy

TEST_F(QuillShadowTest, ATableNeverWrittenIsCompleteAtOnceWithNoSlotVisited) {
  newShadow();
  const TraceText traces;
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_TRUE(traces.has("Syncer::sync() resync:0 numSlots:0\n"));
  EXPECT_TRUE(traces.has("QuillShadow::syncComplete() Synchronizing into local shadow. done\n"));
  EXPECT_FALSE(traces.has("ShadowStore::doSlot()"));
  EXPECT_EQ(shadow_->sequence(), 0U);
  EXPECT_EQ(shadow_->members(), 0U);
  EXPECT_EQ(shadow_->mountStatus(), 2U);
  EXPECT_EQ(notified(), Keys{});
}

TEST_F(QuillShadowTest, AFullTableIsCopiedAndEveryKeyNotifiedBeforeInitializeReturns) {
  for (unsigned i = 1; i <= 50; ++i) write(i, i);
  remove(7);
  newShadow();
  const TraceText traces;
  ASSERT_TRUE(shadow_->initialize());
  EXPECT_TRUE(
      traces.has("QuillShadow::initialize() Synchronizing into local shadow. latestSeq:51 "
                 "numSlots:"));
  EXPECT_TRUE(traces.has(" connected:1\n"));
  Keys keys = notified();
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys.size(), 49U);
  EXPECT_EQ(std::unique(keys.begin(), keys.end()), keys.end());
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
  EXPECT_EQ(shadow_->members(), 49U);
  EXPECT_EQ(shadow_->sequence(), 51U);
  EXPECT_EQ(+counters().syncedSequence, 51U);
  EXPECT_EQ(counters().shadowGrows, 1U) << "the first visit grows to the full size";
  EXPECT_EQ(shadow_->type(), Quill::QuillType::shadow);
  EXPECT_EQ(shadow_->maxSize(), 100U);
  EXPECT_EQ(shadow_->capacity(), writer_->capacity());
  EXPECT_EQ(shadow_->fenixId(), writer_->fenixId());
  EXPECT_EQ(shadow_->rootPath(), name_);
  EXPECT_EQ(shadow_->quillName(), "t");
}

TEST_F(QuillShadowTest, AKeyWrittenDuringTheFirstCopyIsReadAgainAndNotifiedTwice) {
  for (unsigned i = 1; i <= 5; ++i) write(i, 10);
  newShadow();
  unsigned firstKey = 0;
  map_.notifier_.onNotify = [&](const TestKey& key) {
    if (firstKey != 0) return;
    firstKey = key.number;
    for (unsigned i = 1; i <= 5; ++i) {
      if (i != firstKey) write(i, 20);
    }
  };
  ASSERT_TRUE(shadow_->initialize());
  const Keys keys = notified();
  for (unsigned i = 1; i <= 5; ++i) {
    EXPECT_EQ(std::count(keys.begin(), keys.end(), i), i == firstKey ? 1 : 2) << i;
    EXPECT_EQ(valueIn(i), Quill::textOf("k", i, "=", i == firstKey ? 10 : 20));
  }
  EXPECT_EQ(shadow_->sequence(), 9U);
}

TEST_F(QuillShadowTest, TheTableGrowsDuringTheFirstCopyAndNothingIsLost) {
  for (unsigned i = 1; i <= 90; ++i) write(i, 1);
  newShadow();
  bool once = false;
  map_.notifier_.onNotify = [&](const TestKey&) {
    if (once) return;
    once = true;
    for (unsigned i = 91; i <= 500; ++i) write(i, 2);
  };
  ASSERT_TRUE(shadow_->initialize());
  settle();
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
  EXPECT_EQ(shadow_->members(), 500U);
}

TEST_F(QuillShadowTest, WithoutATableInitializeAnswersFalseAndCanBeTriedAgain) {
  writer_->cleanup();
  writer_.reset();
  newShadow();
  const TraceText traces;
  EXPECT_FALSE(shadow_->initialize());
  EXPECT_TRUE(traces.has("QuillShadow::initialize() quill.initialize() Failed\n"));
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  EXPECT_EQ(valueIn(1), "none");
  EXPECT_TRUE(contentOf(*shadow_).empty());
  newWriter();
  write(1, 10);
  shadow_->notifying(true);
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_EQ(valueIn(1), "k1=10");
}

TEST_F(QuillShadowTest, WithoutAQueueInitializeAnswersFalse) {
  std::filesystem::remove(name_ + "/conquer.2");
  newShadow();
  const TraceText traces;
  EXPECT_FALSE(shadow_->initialize());
  EXPECT_TRUE(traces.has("QuillShadow::initialize() conquer_.initialize() Failed\n"));
  EXPECT_EQ(shadow_->capacity(), 0U) << "nothing stays mapped";
}

TEST_F(QuillShadowTest, DamageDuringTheFirstCopyIsReportedAndEveryKeyTakenBack) {
  for (unsigned i = 1; i <= 20; ++i) write(i, 10);
  newShadow();
  // The writer would never make a table smaller within a generation.
  map_.notifier_.onNotify = [this](const TestKey&) {
    if (map_.notifier_.keys.size() != 5) return;
    const QuillTest::RawFile slots(name_ + "/slots");
    slots.u64Is(168, (slots.u64(168) & 0xFFFFFFFF) + 1);
  };
  const TraceText traces;
  EXPECT_FALSE(shadow_->initialize());
  ASSERT_EQ(map_.reports.size(), 1U);
  EXPECT_NE(map_.reports[0].find("SlotReader::doResize() header corruption, shrinking from: "),
            std::string::npos);
  EXPECT_TRUE(traces.has("Syncer::doSync() corruption detected: SlotReader::doResize()"));
  const Keys keys = notified();
  ASSERT_EQ(keys.size(), 10U) << "five came and went";
  for (const unsigned key : keys) EXPECT_EQ(std::count(keys.begin(), keys.end(), key), 2);
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  EXPECT_EQ(shadow_->members(), 0U);
}

TEST_F(QuillShadowTest, AListenerThatDetachesDuringTheFirstCopyEndsIt) {
  for (unsigned i = 1; i <= 20; ++i) write(i, 10);
  newShadow();
  map_.notifier_.onNotify = [this](const TestKey&) {
    if (map_.notifier_.keys.size() == 5) shadow_->detach();
  };
  EXPECT_FALSE(shadow_->initialize());
  EXPECT_EQ(notified().size(), 10U);
  EXPECT_EQ(shadow_->members(), 0U);
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  map_.notifier_.onNotify = nullptr;
  write(30, 10);
  settle();
  EXPECT_EQ(notified(), Keys{});
  EXPECT_EQ(map_.disconnects, 0U);
}

TEST_F(QuillShadowTest, InitializeFromInsideInitializeChangesNothing) {
  for (unsigned i = 1; i <= 3; ++i) write(i, 10);
  newShadow();
  bool inner = false;
  map_.notifier_.onNotify = [&](const TestKey&) { inner = shadow_->initialize(); };
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_TRUE(inner);
  EXPECT_EQ(notified().size(), 3U);
}

TEST_F(QuillShadowTest, WithNotificationsOffTheFirstCopyWaitsForThem) {
  for (unsigned i = 1; i <= 20; ++i) write(i, 10);
  newShadow();
  shadow_->notifying(false);
  EXPECT_TRUE(shadow_->initialize());
  settle();
  EXPECT_EQ(notified(), Keys{});
  EXPECT_EQ(shadow_->members(), 0U);
  write(21, 10);
  shadow_->notifying(true);
  settle();
  EXPECT_EQ(shadow_->members(), 21U);
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
}

// --- following

TEST_F(QuillShadowTest, ChangesAreFollowedAndNotifiedOnTheLoop) {
  attach();
  settle();
  write(1, 10);
  write(2, 20);
  EXPECT_EQ(valueIn(1), "none") << "the copy is read";
  bool found = false;
  EXPECT_EQ(shadow_->directLookup(QuillTest::entry(1, 0).key, found), QuillTest::entry(1, 10));
  EXPECT_TRUE(found) << "past the copy";
  settle();
  EXPECT_EQ(notified(), (Keys{1, 2}));
  EXPECT_EQ(valueIn(1), "k1=10");
  remove(1);
  settle();
  EXPECT_EQ(notified(), Keys{1});
  EXPECT_EQ(valueIn(1), "none");
  EXPECT_EQ(shadow_->sequence(), 3U);
  EXPECT_EQ(shadow_->members(), 1U);
}

TEST_F(QuillShadowTest, TheKeyFormFollowsTooAndReadsValuesFromTheTable) {
  write(1, 10);
  attach(true);
  settle();
  EXPECT_EQ(valueIn(1), "k1=10");
  EXPECT_EQ(shadow_->type(), Quill::QuillType::shadow);
  write(1, 11);
  EXPECT_EQ(valueIn(1), "k1=11");
  settle();
  EXPECT_EQ(notified(), (Keys{1, 1}));
  remove(1);
  EXPECT_EQ(valueIn(1), "none");
  EXPECT_EQ(counters().staleKeyReads, 1U);
  settle();
  EXPECT_EQ(notified(), Keys{1});
  EXPECT_EQ(shadow_->members(), 0U);
}

TEST_F(QuillShadowTest, AListenerThatDetachesWhileFollowingEndsIt) {
  attach();
  settle();
  map_.notifier_.onNotify = [this](const TestKey& key) {
    if (key.number == 2) shadow_->detach();
  };
  for (unsigned i = 1; i <= 4; ++i) write(i, 10);
  settle();
  EXPECT_EQ(notified(), (Keys{1, 2, 1, 2})) << "all that was told of is taken back";
  EXPECT_EQ(shadow_->members(), 0U);
  EXPECT_EQ(map_.reports.size(), 0U);
}

TEST_F(QuillShadowTest, AListenerMaySwitchNotificationsOffAndOn) {
  attach();
  settle();
  map_.notifier_.onNotify = [this](const TestKey&) {
    shadow_->notifying(false);
    shadow_->notifying(true);
  };
  for (unsigned i = 1; i <= 4; ++i) write(i, 10);
  settle();
  EXPECT_EQ(notified(), (Keys{1, 2, 3, 4}));
}

TEST_F(QuillShadowTest, DamageWhileFollowingGoesToTheMapAndTheLoopGoesOn) {
  for (unsigned i = 1; i <= 3; ++i) write(i, 10);
  attach();
  settle();
  notified();
  write(4, 10);
  const QuillTest::RawFile slots(name_ + "/slots");
  slots.u64Is(168, (slots.u64(168) & 0xFFFFFFFF) + 1);
  settle();
  EXPECT_EQ(map_.reports.size(), 1U);
  Keys keys = notified();
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (Keys{1, 2, 3}));
  EXPECT_EQ(shadow_->mountStatus(), 0U);
}

// --- the end

TEST_F(QuillShadowTest, AfterDetachEveryKeyWasRemovedAndThereAreNoMembers) {
  for (unsigned i = 1; i <= 30; ++i) write(i, 10);
  newShadow();
  follow();
  ASSERT_TRUE(shadow_->initialize());
  EXPECT_EQ(seen_.size(), 30U);
  notified();
  const TraceText traces;
  shadow_->detach();
  EXPECT_EQ(notified().size(), 30U);
  EXPECT_TRUE(seen_.empty());
  EXPECT_EQ(shadow_->members(), 0U);
  EXPECT_EQ(shadow_->capacity(), 0U);
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  EXPECT_TRUE(contentOf(*shadow_).empty());
  EXPECT_TRUE(traces.has("Syncer::notifying() notifying: 0\n"));
  EXPECT_TRUE(traces.has("QuillShadow::detach() detached\n"));
  shadow_->detach();
  EXPECT_TRUE(traces.has("QuillShadow::detach() already detached\n"));
  EXPECT_EQ(notified(), Keys{});
  shadow_->resync();
  write(31, 10);
  settle();
  EXPECT_EQ(notified(), Keys{}) << "nothing is followed any more";
}

TEST_F(QuillShadowTest, TheKeyFormToo) {
  for (unsigned i = 1; i <= 30; ++i) write(i, 10);
  newShadow(true);
  follow();
  ASSERT_TRUE(shadow_->initialize());
  EXPECT_EQ(seen_.size(), 30U);
  shadow_->detach();
  EXPECT_TRUE(seen_.empty());
  EXPECT_EQ(shadow_->members(), 0U);
}

TEST_F(QuillShadowTest, ADetachedShadowCanBeAttachedAgain) {
  write(1, 10);
  attach();
  shadow_->detach();
  notified();
  write(2, 20);
  shadow_->notifying(true);
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_EQ(contentOf(*shadow_), contentOf(*writer_));
  settle();
  write(3, 30);
  settle();
  EXPECT_EQ(valueIn(3), "k3=30");
}

TEST_F(QuillShadowTest, AShadowThatIsDeletedNotifiesNothing) {
  write(1, 10);
  attach();
  notified();
  shadow_.reset();
  EXPECT_EQ(notified(), Keys{});
  settle();
  EXPECT_EQ(map_.disconnects, 0U);
}

TEST_F(QuillShadowTest, DetachFromInsideDetachDoesNothing) {
  for (unsigned i = 1; i <= 3; ++i) write(i, 10);
  attach();
  notified();
  bool inner = false;
  map_.notifier_.onNotify = [&](const TestKey&) {
    shadow_->detach();
    inner = shadow_->initialize();
  };
  shadow_->detach();
  EXPECT_EQ(notified().size(), 3U);
  EXPECT_TRUE(inner);
  EXPECT_EQ(shadow_->mountStatus(), 0U);
}

}  // namespace
