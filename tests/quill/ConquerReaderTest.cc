// SPDX-License-Identifier: Apache-2.0
#include "quill/ConquerReader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/quill/HandQueueReader.h"

namespace QuillTest {

namespace {

using Slots = std::vector<unsigned>;

// --- the position

TEST_F(ConquerReader, AnEmptyCurrentTableIsVisitedAndLeavesTheSequence) {
  attach(5);
  EXPECT_FALSE(take());
  EXPECT_EQ(counters_.emptyQueueVisits, 1U);
  EXPECT_EQ(consumed_, 0U);
  EXPECT_EQ(sut.conquer(), 5U);
}

TEST_F(ConquerReader, ASequenceBelowEveryEntryIsAtTheBeginning) {
  fill(0, 5);
  attach(3);
  EXPECT_TRUE(sut.doResize());
  TraceText traces;
  EXPECT_TRUE(sut.findPosition());
  EXPECT_TRUE(traces.has("ConquerReader::findPosition() low pos:0 sequence:3\n"));
  EXPECT_EQ(sut.conquer(), 50U);
  EXPECT_EQ(slots(), (Slots{1, 2, 3, 4, 5}));
}

TEST_F(ConquerReader, ASequenceAboveEveryEntryIsAtTheBeginningAndTheFirstReadRaises) {
  fill(0, 5);
  attach(51);
  EXPECT_TRUE(sut.doResize());
  TraceText traces;
  EXPECT_TRUE(sut.findPosition());
  EXPECT_TRUE(traces.has("ConquerReader::findPosition() low pos:0 sequence:51\n"));
  EXPECT_EQ(damageOf([&] { take(); }),
            "ConquerReader::doConquer() unexpected sequence in in active queue, lastSeq:51 "
            "notifSeq:10 notifSlot:1 currentPos:0 tablePos:5");
}

TEST_F(ConquerReader, ASequenceBetweenTwoEntriesIsAtTheHigherOne) {
  fill(0, 9);
  attach();
  EXPECT_TRUE(sut.doResize());
  for (std::uint64_t i = 1; i < 9; ++i) {
    from(10 * i + 5);
    TraceText traces;
    EXPECT_TRUE(sut.findPosition());
    EXPECT_TRUE(traces.has("ConquerReader::findPosition() low pos:" + std::to_string(i) +
                           " sequence:" + std::to_string(10 * i + 5) + "\n"))
        << traces.text();
  }
}

TEST_F(ConquerReader, ASequenceOfAnEntryIsBehindIt) {
  fill(0, 9);
  attach();
  EXPECT_TRUE(sut.doResize());
  for (std::uint64_t i = 1; i <= 9; ++i) {
    from(10 * i);
    TraceText traces;
    EXPECT_TRUE(sut.findPosition());
    EXPECT_TRUE(traces.has("ConquerReader::findPosition() mid pos:" + std::to_string(i) +
                           " sequence:" + std::to_string(10 * i) + "\n"))
        << traces.text();
  }
}

TEST_F(ConquerReader, TheSearchIsLogarithmic) {
  queue_.grow(0, 5000);
  fill(0, 4096);
  attach(20470);
  EXPECT_TRUE(sut.doResize());
  EXPECT_TRUE(sut.findPosition());
  EXPECT_GE(counters_.searchSteps, 2U);
  EXPECT_LE(counters_.searchSteps, 13U);
}

TEST_F(ConquerReader, AnUnchangedGenerationKeepsThePosition) {
  fill(0, 5);
  attach(30);
  EXPECT_TRUE(sut.doResize());
  EXPECT_TRUE(sut.findPosition());
  const std::uint32_t steps = counters_.searchSteps;
  EXPECT_TRUE(sut.findPosition());
  EXPECT_EQ(counters_.searchSteps, steps);
  EXPECT_EQ(counters_.queueSwaps, 1U);
}

TEST_F(ConquerReader, ASwapDuringTheSearchStartsItOverOnTheOtherTable) {
  queue_.grow(0, 1000);
  fill(0, 900);
  fill(1, 3);
  attach(20);
  EXPECT_TRUE(sut.doResize());
  TraceText traces;
  {
    TouchHook hook(queue_.file(0), 4096, [&] { queue_.switchTo(1); });
    EXPECT_NE(damageOf([&] { sut.findPosition(); }), "");  // nothing of conquer.2 is mapped yet
    EXPECT_TRUE(hook.touched());
  }
  EXPECT_EQ(traces.count("ConquerReader::findPosition() conquerSwapped again\n"), 1U);
  EXPECT_TRUE(sut.doResize());
  EXPECT_TRUE(sut.findPosition());
  EXPECT_TRUE(traces.has("ConquerReader::findPosition() mid pos:2 sequence:20\n"));
}

TEST_F(ConquerReader, AnEmptyTableThatTheWriterLeavesMeanwhileIsNotTheEnd) {
  fill(0, 3);
  queue_.switchTo(1);
  attach();
  TouchHook hook(queue_.file(1), 0, [&] { queue_.switchTo(0); });
  EXPECT_EQ(sut.conquer(), 30U);
  EXPECT_TRUE(hook.touched());
  EXPECT_EQ(counters_.emptyQueueVisits, 0U);
}

TEST_F(ConquerReader, WhatLooksDamagedInATableThatIsBeingRewrittenIsThrownAway) {
  queue_.grow(1, 1000);
  fill(1, 900);
  fill(0, 3);
  queue_.switchTo(1);
  attach(20);
  EXPECT_TRUE(sut.latestSequence() == 9000);
  from(20);
  queue_.header(1).table.currentPos.store(2000, Mem::release);
  TouchHook hook(queue_.file(1), 0, [&] { queue_.switchTo(0); });
  EXPECT_EQ(sut.conquer(), 30U);
  EXPECT_TRUE(hook.touched());
  EXPECT_EQ(slots(), (Slots{3}));
}

TEST_F(ConquerReader, ATableIdThatIsNoneIsDamage) {
  attach();
  queue_.switchTo(2);
  EXPECT_EQ(damageOf([&] { sut.conquer(); }), "ConquerTable::getTable() bad tableId: 2");
  EXPECT_EQ(damageOf([&] { sut.latestSequence(); }), "ConquerTable::getTable() bad tableId: 2");
}

TEST_F(ConquerReader, APositionBeyondTheCapacityIsDamage) {
  attach();
  queue_.header(0).table.currentPos.store(337, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.conquer(); }),
            "ConquerReader::ConquerSlots::operator[] out-of-range index:336 max:336");
  EXPECT_EQ(damageOf([&] { sut.latestSequence(); }),
            "ConquerReader::ConquerSlots::operator[] out-of-range index:336 max:336");
}

TEST_F(ConquerReader, AQueueWhoseSizeWasNeverMappedHasNoEntry) {
  fill(0, 1);
  attach();
  EXPECT_EQ(damageOf([&] { sut.findPosition(); }),
            "ConquerReader::ConquerSlots::operator[] out-of-range index:0 max:0");
}

// --- following

TEST_F(ConquerReader, OneCallTakesOneLiveEntry) {
  fill(0, 2);
  attach();
  EXPECT_TRUE(sut.doResize());
  EXPECT_TRUE(take());
  EXPECT_EQ(slots(), (Slots{1}));
  EXPECT_EQ(counters_.lastConsumedSequence, 10U);
  EXPECT_EQ(counters_.notificationsConsumed, 1U);
  EXPECT_TRUE(take());
  EXPECT_FALSE(take());
  EXPECT_EQ(slots(), (Slots{1, 2}));
  EXPECT_EQ(consumed_, 2U);
  EXPECT_EQ(counters_.queueEndVisits, 1U);
  queue_.append(30, 9);
  EXPECT_TRUE(take());
  EXPECT_EQ(slots(), (Slots{1, 2, 9}));
}

TEST_F(ConquerReader, TombstonesAtTheEndArePassedWithTheirSequence) {
  fill(0, 5);
  for (const std::uint32_t pos : {3U, 4U}) queue_.entomb(pos);
  attach();
  EXPECT_EQ(sut.conquer(), 50U);
  EXPECT_EQ(slots(), (Slots{1, 2, 3}));
  EXPECT_EQ(counters_.tombstonesSkipped, 2U);
  EXPECT_EQ(counters_.notificationsConsumed, 3U);
  EXPECT_EQ(counters_.lastConsumedSequence, 30U);
}

TEST_F(ConquerReader, ASwapAfterTheEntryWasReadTakesNothingFromTheOldTable) {
  queue_.grow(0, 1000);
  fill(0, 900);
  queue_.append(1, 8000, 77);
  attach();
  for (unsigned i = 0; i < 500; ++i) sut.conquer();
  from(7000);
  EXPECT_TRUE(sut.findPosition());
  shadow_.store_.slots.clear();
  {
    TouchHook hook(queue_.file(0), 4096, [&] { queue_.switchTo(1); });
    const std::uint32_t swaps = counters_.queueSwaps;
    EXPECT_TRUE(take());
    EXPECT_TRUE(hook.touched());
    EXPECT_EQ(counters_.queueSwaps, swaps + 1);
  }
  EXPECT_EQ(slots(), Slots());
  EXPECT_EQ(sut.conquer(), 8000U);
  EXPECT_EQ(slots(), (Slots{77}));
}

TEST_F(ConquerReader, ASwapSeenAtTheEndOfTheTableGoesOnInTheOther) {
  fill(1, 2);
  queue_.append(0, 30, 5);
  queue_.switchTo(1);
  attach();
  EXPECT_EQ(sut.conquer(), 20U);
  TouchHook hook(queue_.file(1), 0, [&] { queue_.switchTo(0); });
  const std::uint32_t swaps = counters_.queueSwaps;
  EXPECT_TRUE(take());
  EXPECT_TRUE(hook.touched());
  EXPECT_EQ(counters_.queueSwaps, swaps + 1);
  EXPECT_EQ(sut.conquer(), 30U);
  EXPECT_EQ(slots(), (Slots{1, 2, 5}));
}

TEST_F(ConquerReader, ASequenceThatDoesNotRiseIsDamage) {
  queue_.append(10, 1);
  queue_.append(10, 2);
  attach();
  EXPECT_EQ(damageOf([&] { sut.conquer(); }),
            "ConquerReader::doConquer() unexpected sequence in in active queue, lastSeq:10 "
            "notifSeq:10 notifSlot:2 currentPos:1 tablePos:2");
}

TEST_F(ConquerReader, ATableThatBecameShorterInItsGenerationIsDamage) {
  fill(0, 3);
  attach();
  sut.conquer();
  queue_.header(0).table.currentPos.store(2, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.conquer(); }),
            "ConquerReader::doConquer() unexpected position in active queue, currentPos:3 "
            "tablePos:2");
}

TEST_F(ConquerReader, ABatchFollowsTheWriterFromTableToTable) {
  fill(0, 3);
  attach();
  EXPECT_EQ(sut.conquer(), 30U);
  queue_.append(1, 30, 3);
  queue_.append(1, 40, 4);
  queue_.switchTo(1);
  EXPECT_EQ(sut.conquer(), 40U);
  EXPECT_EQ(slots(), (Slots{1, 2, 3, 4}));
}

// --- batches

TEST_F(ConquerReader, ABatchWithoutAYieldTimeNeverStopsOnTimeNorLooksAtTheClock) {
  fill(0, 300);
  attach();
  shadow_.sample_ = 1;
  const unsigned looks = loop_.looking().looks;
  EXPECT_EQ(sut.conquer(), 3000U);
  EXPECT_EQ(loop_.looking().looks, looks + 1);  // at the beginning
  EXPECT_FALSE(sut.yielded_);
}

TEST_F(ConquerReader, ABatchYieldsWhenItsTimeIsOver) {
  fill(0, 300);
  attach();
  EXPECT_TRUE(sut.doResize());
  shadow_.yieldTime_ = 2.5;  // passed with the third look after the first
  shadow_.sample_ = 8;
  const unsigned looks = loop_.looking().looks;
  EXPECT_EQ(sut.conquer(), 240U);
  EXPECT_TRUE(sut.yielded_);
  EXPECT_EQ(counters_.conquerYields, 1U);
  EXPECT_EQ(loop_.looking().looks, looks + 4);
  shadow_.yieldTime_ = 0;
  EXPECT_EQ(sut.conquer(), 3000U);
  EXPECT_FALSE(sut.yielded_);
}

TEST_F(ConquerReader, ABatchThatHasNoTimeTakesAnEntryAllTheSame) {
  fill(0, 3);
  attach();
  EXPECT_TRUE(sut.doResize());
  shadow_.yieldTime_ = 0.5;  // each look at the clock takes a second
  shadow_.sample_ = 0;
  const std::uint64_t before = sut.latestSequence();
  for (int batch = 0; batch < 3; ++batch) sut.conquer();
  EXPECT_EQ(counters_.notificationsConsumed, 3U);
  EXPECT_EQ(sut.conquer(), before);
}

TEST_F(ConquerReader, ABatchIsTracedWithTheTimeThatItTook) {
  fill(0, 3);
  attach();
  Vex::VirtualActivityManager still;
  const Vex::CurrentActivityManager current(still);
  shadow_.store_.onSlot = [&] { still.runFor(0.25); };
  TraceText traces;
  sut.conquer();
  EXPECT_TRUE(
      traces.has("ConquerReader::conquer() Walking conquer queue, sample:8 yieldTime:0 "
                 "currentPos:0 start:1000\n"));
  EXPECT_TRUE(
      traces.has("ConquerReader::conquer() Consumed 3 notifications in 0.75 seconds until "
                 "sequence:30 currentPos:3 yield:0 stop:0\n"))
      << traces.text();
}

TEST_F(ConquerReader, TheStopFlagEndsABatchAfterThePresentEntry) {
  fill(0, 3);
  attach();
  shadow_.store_.onSlot = [this] { sut.stopFlag_ = true; };
  EXPECT_EQ(sut.conquer(), 10U);
  EXPECT_EQ(slots(), (Slots{1}));
}

TEST_F(ConquerReader, AListenerThatDetachesEndsTheBatch) {
  fill(0, 3);
  attach();
  shadow_.store_.onSlot = [this] { sut.detachConquer(); };
  EXPECT_EQ(sut.conquer(), 10U);
  EXPECT_EQ(slots(), (Slots{1}));
  EXPECT_EQ(sut.latestSequence(), 0U);
  EXPECT_FALSE(sut.doResize());
  sut.handleAck();
  EXPECT_EQ(shadow_.resyncs_, 0U);
}

TEST_F(ConquerReader, DamageOfABatchIsReportedToTheMapAndRaised) {
  attach();
  queue_.switchTo(9);
  EXPECT_EQ(damageOf([&] { sut.doProcessNotifications(); }),
            "ConquerTable::getTable() bad tableId: 9");
  EXPECT_EQ(shadow_.map_.reports,
            std::vector<std::string>{"ConquerTable::getTable() bad tableId: 9"});
}

}  // namespace

}  // namespace QuillTest
