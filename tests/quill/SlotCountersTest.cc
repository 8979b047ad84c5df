// SPDX-License-Identifier: Apache-2.0
#include "quill/SlotCounters.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

namespace {

using QuillTest::IntfRecord;
using SlotCounters = Quill::SlotCounters<IntfRecord>;

class SlotCountersTest : public QuillTest::TableTest {
 protected:
  SlotCounters sut_{handler_};
};

TEST_F(SlotCountersTest, ShiftHalvesTheSlotsOfAPage) {
  // 97 slots of 40 bytes behind a header of 216 bytes.
  EXPECT_EQ(SlotCounters::shiftFor(4096), 5U);
  EXPECT_EQ(SlotCounters::shiftFor(65536), 9U);
  // (216 + 40 * 4): four slots.
  EXPECT_EQ(SlotCounters::shiftFor(376), 1U);
  EXPECT_EQ(SlotCounters::shiftFor(375), 0U);
}

TEST_F(SlotCountersTest, ShiftIsZeroForAPageThatHoldsNoSlot) {
  EXPECT_EQ(SlotCounters::shiftFor(0), 0U);
  EXPECT_EQ(SlotCounters::shiftFor(216), 0U);
  EXPECT_EQ(SlotCounters::shiftFor(217), 0U);
  EXPECT_EQ(SlotCounters::shiftFor(216 + 40), 0U);
}

TEST_F(SlotCountersTest, EachPowerOfTwoHasACounterAndTheFirstTakesWhatLiesBelow) {
  ASSERT_EQ(sut_.shift(), 5U);
  const auto counterOf = [this](unsigned slot) {
    sut_.slotIs(slot);
    unsigned found = SlotCounters::kCounters;
    for (unsigned k = 0; k < SlotCounters::kCounters; ++k) {
      if (sut_.counter(k) != 0) found = k;
    }
    EXPECT_EQ(sut_.nonZeroCounters(), 1U << found);
    sut_.slotDel(slot);
    return found;
  };
  EXPECT_EQ(counterOf(0), 0U);
  EXPECT_EQ(counterOf(31), 0U);
  EXPECT_EQ(counterOf(32), 1U);
  EXPECT_EQ(counterOf(63), 1U);
  EXPECT_EQ(counterOf(64), 2U);
  EXPECT_EQ(counterOf(127), 2U);
  EXPECT_EQ(counterOf(128), 3U);
  EXPECT_EQ(counterOf(0xFFFFFFFE), 27U);
}

TEST_F(SlotCountersTest, TheBitOfACounterGoesWithItsLastSlot) {
  sut_.slotIs(40);
  sut_.slotIs(50);
  sut_.slotDel(40);
  EXPECT_EQ(sut_.nonZeroCounters(), 2U);
  sut_.slotDel(50);
  EXPECT_EQ(sut_.nonZeroCounters(), 0U);
}

TEST_F(SlotCountersTest, LargestOccupiedIsTheEndOfTheHighestCounter) {
  EXPECT_EQ(sut_.largestOccupied(), 0U);
  sut_.slotIs(0);
  EXPECT_EQ(sut_.largestOccupied(), 32U);
  sut_.slotIs(32);
  EXPECT_EQ(sut_.largestOccupied(), 64U);
  sut_.slotIs(1000);
  EXPECT_EQ(sut_.largestOccupied(), 1024U);
  sut_.slotIs(0xFFFFFFFE);
  EXPECT_EQ(sut_.largestOccupied(), 0xFFFFFFFFU);
}

TEST_F(SlotCountersTest, LargestOccupiedTracesMaskAndResult) {
  sut_.slotIs(3);
  sut_.slotIs(70);
  const QuillTest::TraceText traces;
  EXPECT_EQ(sut_.largestOccupied(), 128U);
  EXPECT_TRUE(traces.has("SlotCounters::largestOccupied() nonZeroCounters_:0x5\n"));
  EXPECT_TRUE(traces.has("SlotCounters::largestOccupied() shrinkable to newNumSlots:128 msb:2\n"));
}

TEST_F(SlotCountersTest, LargestOccupiedIsAboveEverySlotAndBelowTwiceTheHighest) {
  std::set<unsigned> slots;
  unsigned random = 12345;
  for (unsigned round = 0; round < 2000; ++round) {
    random = random * 1664525 + 1013904223;
    const unsigned slot = (random >> 8) % 5000;
    if (slots.insert(slot).second) {
      sut_.slotIs(slot);
    } else {
      slots.erase(slot);
      sut_.slotDel(slot);
    }
    const unsigned bound = sut_.largestOccupied();
    if (slots.empty()) {
      ASSERT_EQ(bound, 0U);
    } else {
      ASSERT_GT(bound, *slots.rbegin());
      ASSERT_LE(bound, std::max(32U, *slots.rbegin() * 2));
    }
  }
}

}  // namespace
