// SPDX-License-Identifier: Apache-2.0
#include "quill/ShadowStore.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <optional>

#include "quill/FenixFile.h"
#include "quill/KeyShadowStore.h"
#include "tests/quill/ShadowFixture.h"
#include "tests/quill/TestTable.h"

namespace {

using QuillTest::FakeMap;
using QuillTest::FakeTable;
using QuillTest::Keys;
using QuillTest::record;
using QuillTest::TestKey;
using QuillTest::TestRecord;
using QuillTest::TraceText;

using ValueSlot = Quill::ValueShadowSlot<TestKey, TestRecord, FakeMap>;
using KeySlot = Quill::KeyShadowSlot<TestKey, TestRecord, FakeMap>;
using ValueStore = Quill::ShadowStore<TestKey, TestRecord, ValueSlot, FakeMap, FakeTable>;
using KeyStore = Quill::KeyShadowStore<TestKey, TestRecord, FakeMap, FakeTable>;

static_assert(sizeof(ValueSlot) == (sizeof(void*) == 4 ? 28 : 40));
static_assert(sizeof(KeySlot) == (sizeof(void*) == 4 ? 16 : 24));

// Occupies the page behind a region while it lives, so that the region must move to grow.
class Obstacle {
 public:
  explicit Obstacle(std::uintptr_t end)
      // NOLINTNEXTLINE(performance-no-int-to-ptr): an address that nothing lies at yet
      : base_(mmap(reinterpret_cast<void*>(end), Mem::pageSize_, PROT_NONE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0)) {}
  Obstacle(const Obstacle&) = delete;
  Obstacle& operator=(const Obstacle&) = delete;
  ~Obstacle() {
    if (base_ != MAP_FAILED) munmap(base_, Mem::pageSize_);
  }

 private:
  void* base_;  // MAP_FAILED: something lies there already, which is as good
};

class ShadowStoreTest : public QuillTest::TableTest {
 protected:
  ShadowStoreTest() {
    name_.makeDirectory();
    Quill::FenixFile::write(handler_, name_.rootPath(), 7);
    EXPECT_TRUE(sut_.initialize());
    EXPECT_TRUE(keys_.initialize());
  }

  Keys notified() { return map_.notifier_.taken(); }
  Keys keysNotified() { return keyMap_.notifier_.taken(); }

  // What a shadow's reader finds, as "k1=10".
  template <class Store>
  static std::string valueIn(const Store& store, std::uint32_t number, std::uint32_t bucket = 0) {
    bool found = true;
    const TestRecord& value = store.lookup({number, bucket}, found);
    if (!found) {
      EXPECT_EQ(value, TestRecord());
      return "none";
    }
    return Quill::textOf(value);
  }
  // Every entry in order, each with its bucket.
  template <class Store>
  static std::string contentOf(const Store& store) {
    std::string all;
    TestRecord value;
    Quill::IterHint hint;
    bool there = store.first(0, value, hint);
    while (there) {
      all += Quill::textOf(value, "@", hint.bucket, " ");
      there = store.next(value.key, value, hint);
    }
    EXPECT_EQ(value, TestRecord());
    return all;
  }
  void put(unsigned slot, const TestRecord& value) {
    table_.put(slot, value);
    sut_.doSlot(slot, false);
    keys_.doSlot(slot, false);
  }
  void take(unsigned slot) {
    table_.take(slot);
    sut_.doSlot(slot, false);
    keys_.doSlot(slot, false);
  }

  Quill::RootPath name_{handler_, root_.table("t"), true};
  FakeTable table_{100};
  FakeMap map_;
  FakeMap keyMap_;
  Quill::Reader::Counters counters_;
  Quill::Reader::Counters keyCounters_;
  ValueStore sut_{handler_, name_, table_, counters_, &map_};
  KeyStore keys_{handler_, name_, table_, keyCounters_, &keyMap_};
};

TEST_F(ShadowStoreTest, BeginsEmptyAndTakesItsSizeFromTheReaderWithTheFirstSlot) {
  EXPECT_EQ(sut_.numSlots(), 0U);
  put(3, record(1, 10));
  EXPECT_EQ(sut_.numSlots(), 100U);
  EXPECT_EQ(counters_.shadowGrows, 1U);
  EXPECT_EQ(counters_.occupied, 1U);
  EXPECT_EQ(counters_.patches, 0U);
  EXPECT_EQ(notified(), Keys{1});
  EXPECT_EQ(keysNotified(), Keys{1});
}

TEST_F(ShadowStoreTest, AFreeSlotThatWasNeverKnownIsDeadAndNotifiesNothing) {
  put(3, record(1, 10));
  notified();
  const TraceText traces;
  sut_.doSlot(50, false);
  EXPECT_TRUE(traces.has("ShadowStore::doSlot() updated: 1 compare: 0 slotIndex:50 not found\n"));
  EXPECT_TRUE(traces.has("ShadowStore::remove() dead slot 50\n"));
  EXPECT_FALSE(traces.has("tryShrink"));
  EXPECT_EQ(notified(), Keys{});
  EXPECT_EQ(counters_.shadowShrinks, 0U);
  EXPECT_EQ(counters_.occupied, 1U);
  keys_.doSlot(50, false);
  EXPECT_EQ(keysNotified(), Keys{1});
}

TEST_F(ShadowStoreTest, ASlotUsedForAnotherKeyNotifiesTheOldKeyAndThenTheNewOne) {
  put(5, record(1, 10, 1));
  notified();
  keysNotified();
  put(5, record(2, 20, 3));
  EXPECT_EQ(notified(), (Keys{1, 2}));
  EXPECT_EQ(keysNotified(), (Keys{1, 2}));
  EXPECT_EQ(contentOf(sut_), "k2=20@3 ");
  EXPECT_EQ(contentOf(keys_), "k2=20@3 ");
  EXPECT_EQ(counters_.occupied, 1U);
}

TEST_F(ShadowStoreTest, AKeyThatMovedToAnotherSlotTakesItsPlaceInTheChain) {
  put(5, record(2, 20));
  put(6, record(1, 10));
  put(7, record(3, 30));
  notified();
  keysNotified();
  table_.take(5);
  table_.put(9, record(2, 20));
  sut_.doSlot(9, false);
  keys_.doSlot(9, false);
  EXPECT_EQ(counters_.slotMoves, 1U);
  EXPECT_EQ(counters_.occupied, 3U);
  EXPECT_EQ(notified(), Keys{}) << "the value is the same";
  EXPECT_EQ(keysNotified(), Keys{2}) << "without values it cannot be told";
  EXPECT_EQ(contentOf(sut_), "k1=10@0 k2=20@0 k3=30@0 ");
  const TraceText traces;
  sut_.doSlot(5, false);
  keys_.doSlot(5, false);
  EXPECT_EQ(traces.count("ShadowStore::remove() dead slot 5\n"), 2U);
  EXPECT_EQ(notified(), Keys{});
  EXPECT_EQ(keysNotified(), Keys{});
  EXPECT_EQ(contentOf(sut_), "k1=10@0 k2=20@0 k3=30@0 ");
}

TEST_F(ShadowStoreTest, AKeyThatMovedWithAnotherValueIsNotified) {
  put(5, record(2, 20));
  notified();
  table_.take(5);
  table_.put(40, record(2, 21));
  const TraceText traces;
  sut_.doSlot(40, false);
  EXPECT_TRUE(traces.has("ShadowStore::write() value updated\n"));
  EXPECT_EQ(notified(), Keys{2});
  EXPECT_EQ(valueIn(sut_, 2), "k2=21");
  EXPECT_EQ(sut_.slotCounters().nonZeroCounters(), 2U) << "slot 40 counts, slot 5 does not";
}

TEST_F(ShadowStoreTest, GrowthToAMovedBaseKeepsEveryChain) {
  for (unsigned i = 0; i < 100; ++i) put(i, record(1000 - i, i, i % 4));
  const auto run = [&](auto& store, auto& counters, std::uintptr_t base, std::size_t slotSize) {
    const std::string before = contentOf(store);
    const auto size = static_cast<unsigned>(100 * slotSize);
    const Obstacle obstacle(base + Mem::roundUpToWholePage(size));
    const TraceText traces;
    store.doSlot(20'000, false);
    EXPECT_EQ(counters.patches, 1U);
    EXPECT_EQ(counters.shadowGrows, 2U);
    EXPECT_EQ(store.numSlots(), 30'000U);
    EXPECT_EQ(traces.count("ShadowStore::patch() Patching slots in bucket "), 4U);
    EXPECT_EQ(contentOf(store), before);
    for (unsigned i = 0; i < 100; ++i) {
      ASSERT_EQ(valueIn(store, 1000 - i, i % 4), Quill::textOf("k", 1000 - i, "=", i));
    }
  };
  table_.slotsAre(30'000);
  bool found = false;
  const auto* const content = &sut_.lookup(table_.slots[0].value.key, found);
  run(sut_, counters_, reinterpret_cast<std::uintptr_t>(content) & ~(Mem::pageSize_ - 1UL),
      sizeof(ValueSlot));
  // The links are right too: every slot leaves its chain.
  for (unsigned i = 0; i < 100; i += 2) take(i);
  EXPECT_EQ(counters_.occupied, 50U);
  for (unsigned i = 0; i < 100; ++i) {
    ASSERT_EQ(valueIn(sut_, 1000 - i, i % 4),
              i % 2 == 0 ? "none" : Quill::textOf("k", 1000 - i, "=", i));
  }
}

TEST_F(ShadowStoreTest, GrowthWithoutAMoveCountsNoPatch) {
  put(0, record(1, 10));
  table_.slotsAre(101);  // within the same page
  sut_.doSlot(100, false);
  EXPECT_EQ(sut_.numSlots(), 101U);
  EXPECT_EQ(counters_.shadowGrows, 2U);
  EXPECT_EQ(counters_.patches, 0U);
  EXPECT_EQ(valueIn(sut_, 1), "k1=10");
}

TEST_F(ShadowStoreTest, AQuarterInUseShrinksAndOneMoreDoesNot) {
  for (unsigned i = 0; i < 27; ++i) put(i, record(i + 1, i));
  const TraceText traces;
  table_.take(26);
  sut_.doSlot(26, false);
  EXPECT_EQ(counters_.occupied, 26U);
  EXPECT_EQ(sut_.numSlots(), 100U) << "26 of 100";
  EXPECT_FALSE(traces.has("tryShrink"));
  table_.take(25);
  sut_.doSlot(25, false);
  EXPECT_EQ(sut_.numSlots(), 32U) << "25 of 100";
  EXPECT_EQ(counters_.shadowShrinks, 1U);
  EXPECT_TRUE(traces.has(
      "ShadowStore::tryShrink() shadow slot occupancy <= 25% and can shrink to 32 slots.\n"));
  EXPECT_TRUE(
      traces.has("ShadowStore::tryShrink() skip shrinking of shadow table to 32 slots "
                 "because shared memory has grown to 100 slots\n"));
  EXPECT_TRUE(traces.has("ShadowStore::shrink() resize shadow slots from 100 to 32\n"));
  EXPECT_TRUE(traces.has("ShadowStore::shrink() complete.\n"));
  EXPECT_EQ(valueIn(sut_, 25), "k25=24");
}

TEST_F(ShadowStoreTest, AHighSlotInUseKeepsTheStoreFromShrinking) {
  put(70, record(1, 10));
  put(2, record(2, 20));
  take(2);
  EXPECT_EQ(sut_.numSlots(), 100U) << "the bound is 128";
  EXPECT_EQ(counters_.shadowShrinks, 0U);
  EXPECT_EQ(valueIn(sut_, 1), "k1=10");
}

TEST_F(ShadowStoreTest, RemovingTheLastEntryShrinksToNothingAndAWriteGrowsAgain) {
  put(60, record(1, 10));
  take(60);
  EXPECT_EQ(sut_.numSlots(), 0U);
  EXPECT_EQ(keys_.numSlots(), 0U);
  EXPECT_EQ(counters_.shadowShrinks, 1U);
  EXPECT_EQ(contentOf(sut_), "");
  EXPECT_EQ(notified(), (Keys{1, 1}));
  put(61, record(2, 20));
  EXPECT_EQ(sut_.numSlots(), 100U);
  EXPECT_EQ(counters_.shadowGrows, 2U);
  EXPECT_EQ(counters_.patches, 0U) << "there was no base to move";
  EXPECT_EQ(contentOf(sut_), "k2=20@0 ");
  EXPECT_EQ(contentOf(keys_), "k2=20@0 ");
}

TEST_F(ShadowStoreTest, AComparePassOverAnUnchangedTableCopiesAndNotifiesNothing) {
  for (unsigned i = 0; i < 10; ++i) put(i, record(i + 1, i, i % 3));
  notified();
  keysNotified();
  table_.valueReads = 0;
  for (unsigned i = 10; i-- > 0;) sut_.doSlot(i, true);
  EXPECT_EQ(notified(), Keys{});
  EXPECT_EQ(table_.valueReads, 0U);
  for (unsigned i = 10; i-- > 0;) keys_.doSlot(i, true);
  EXPECT_EQ(keysNotified(), (Keys{10, 9, 8, 7, 6, 5, 4, 3, 2, 1}));
}

TEST_F(ShadowStoreTest, AComparePassNotifiesWhatDiffersAndOnlyThat) {
  for (unsigned i = 0; i < 6; ++i) put(i, record(i + 1, i));
  notified();
  table_.take(1);                // removed
  table_.put(2, record(3, 99));  // changed
  table_.put(4, record(50, 0));  // another key
  table_.put(7, record(70, 0));  // new
  for (unsigned i = 100; i-- > 0;) sut_.doSlot(i, true);
  EXPECT_EQ(notified(), (Keys{70, 5, 50, 3, 2}));
  EXPECT_EQ(contentOf(sut_), "k1=0@0 k3=99@0 k4=3@0 k6=5@0 k50=0@0 k70=0@0 ");
}

TEST_F(ShadowStoreTest, WithoutCompareAnUnchangedSlotIsNotifiedAgain) {
  put(4, record(1, 10));
  put(4, record(1, 10));
  EXPECT_EQ(notified(), (Keys{1, 1}));
  EXPECT_EQ(counters_.shadowWrites, 2U);
  EXPECT_EQ(counters_.occupied, 1U);
}

TEST_F(ShadowStoreTest, EntriesInTheFirst32Of64SlotsShrinkTheStoreTo32) {
  table_.slotsAre(64);
  table_.mapped = 64;
  for (unsigned i = 0; i < 17; ++i) put(i * 31 / 16, record(i + 1, i));
  ASSERT_EQ(sut_.numSlots(), 64U);
  take(0);
  EXPECT_EQ(counters_.occupied, 16U);
  EXPECT_EQ(sut_.numSlots(), 32U);
}

TEST_F(ShadowStoreTest, ASlotBeyondTheWritersCountIsPassedOver) {
  const TraceText traces;
  sut_.doSlot(100, false);
  EXPECT_TRUE(
      traces.has("ShadowStore::doSlot() skip growing of shadow table to accomodate slotIndex:100 "
                 "because shared memory has shrunk to 100 slots\n"));
  EXPECT_EQ(sut_.numSlots(), 0U);
  table_.attached = false;
  sut_.doSlot(0, false);
  EXPECT_TRUE(
      traces.has("ShadowStore::doSlot() skip growing of shadow table to accomodate slotIndex:0 "
                 "because shared memory has shrunk to 0 slots\n"));
  EXPECT_EQ(notified(), Keys{});
}

TEST_F(ShadowStoreTest, ASlotThatTheReaderNeverLearnedOfIsDiscarded) {
  put(0, record(1, 10));
  notified();
  table_.slotsAre(200);
  table_.put(150, record(2, 20));
  table_.lateGrowth = true;
  const TraceText traces;
  sut_.doSlot(150, false);
  EXPECT_TRUE(
      traces.has("ShadowStore::grow() complete. Never learned of slotIndex:150 so it is "
                 "safe to ignore.\n"));
  EXPECT_TRUE(traces.has("ShadowStore::doSlot() discarding notification for slotIndex:150\n"));
  EXPECT_EQ(sut_.numSlots(), 100U);
  sut_.doSlot(150, false);
  EXPECT_EQ(notified(), Keys{2}) << "the next notification repairs it";
}

TEST_F(ShadowStoreTest, AMappingThatShrankIsAnError) {
  put(0, record(1, 10));
  table_.slotsAre(102);
  table_.mapped = 90;  // the store has 100
  table_.lateGrowth = true;
  try {
    sut_.doSlot(101, false);
    ADD_FAILURE() << "nothing raised";
  } catch (const Sable::RuntimeException& error) {
    EXPECT_EQ(error.msg(), "ShadowStore::grow() mapped memory unexpectedly shrank");
  }
  EXPECT_EQ(valueIn(sut_, 1), "k1=10");
}

TEST_F(ShadowStoreTest, ShrinkingFindsAWriterThatShrankTheTable) {
  put(0, record(1, 10));
  put(40, record(2, 20));
  table_.slotsAre(80);  // the reader still knows of 100
  table_.take(40);
  try {
    sut_.doSlot(40, false);
    ADD_FAILURE() << "nothing raised";
  } catch (const Sable::RuntimeException& error) {
    EXPECT_EQ(error.msg(),
              "Writer shrank the slot table! Enable third shadow slot shrink condition");
  }
  EXPECT_EQ(notified(), (Keys{1, 2, 2}));
}

TEST_F(ShadowStoreTest, FlushNotifiesEveryKeyOnceAndKeepsTheMemory) {
  for (unsigned i = 0; i < 30; ++i) put(i, record(i + 1, i, i % 4));
  notified();
  table_.attached = false;
  table_.damage = "nobody reads the table";
  std::vector<bool> foundInside;
  map_.notifier_.onNotify = [&](const TestKey& key) {
    bool found = true;
    sut_.lookup(key, found);
    foundInside.push_back(found);
  };
  const TraceText traces;
  sut_.flush();
  Keys all;
  for (unsigned i = 1; i <= 30; ++i) all.push_back(i);
  EXPECT_EQ(notified(), all);
  EXPECT_EQ(foundInside, std::vector<bool>(30, false));
  EXPECT_EQ(counters_.occupied, 0U);
  EXPECT_EQ(sut_.numSlots(), 100U);
  EXPECT_EQ(sut_.slotCounters().nonZeroCounters(), 0U);
  EXPECT_EQ(counters_.shadowShrinks, 0U);
  EXPECT_TRUE(traces.has("ShadowStore::flush() slotIndex 29 key: k30\n"));
  sut_.flush();
  EXPECT_EQ(notified(), Keys{});
}

TEST_F(ShadowStoreTest, WithoutANotifierChangesAreKeptAllTheSame) {
  map_.notifierPointer = nullptr;
  put(0, record(1, 10));
  EXPECT_EQ(contentOf(sut_), "k1=10@0 ");
}

TEST_F(ShadowStoreTest, WithoutBucketsItDoesNotInitializeAndFindsNothing) {
  FakeTable none(10, 0);
  Quill::Reader::Counters counters;
  ValueStore sut(handler_, name_, none, counters, &map_);
  const TraceText traces;
  EXPECT_FALSE(sut.initialize());
  EXPECT_TRUE(traces.has("ShadowStore::initialize() bucketsMem_.attachAs() Failed\n"));
  EXPECT_EQ(valueIn(sut, 1), "none");
  TestRecord value = record(1, 1);
  Quill::IterHint hint{0, 0};
  EXPECT_FALSE(sut.first(0, value, hint));
  EXPECT_FALSE(sut.next({1, 0}, value, hint));
  sut.flush();
}

// --- reading

TEST_F(ShadowStoreTest, LookupFindsEachPlaceOfAChainAndNothingBetween) {
  put(0, record(20, 2));
  put(1, record(10, 1));
  put(2, record(30, 3));
  EXPECT_EQ(valueIn(sut_, 10), "k10=1");
  EXPECT_EQ(valueIn(sut_, 20), "k20=2");
  EXPECT_EQ(valueIn(sut_, 30), "k30=3");
  for (const unsigned absent : {5U, 15U, 25U, 35U}) EXPECT_EQ(valueIn(sut_, absent), "none");
  EXPECT_EQ(valueIn(sut_, 10, 1), "none") << "another bucket";
}

TEST_F(ShadowStoreTest, FirstSkipsEmptyBucketsAndEndsBehindTheLast) {
  put(0, record(7, 70, 2));
  TestRecord value;
  Quill::IterHint hint;
  EXPECT_TRUE(sut_.first(0, value, hint));
  EXPECT_EQ(hint, (Quill::IterHint{0, 2}));
  EXPECT_TRUE(sut_.first(2, value, hint));
  EXPECT_FALSE(sut_.first(3, value, hint));
  EXPECT_EQ(value, TestRecord());
  value = record(1, 1);
  EXPECT_FALSE(sut_.first(4, value, hint));
  EXPECT_EQ(value, TestRecord());
}

TEST_F(ShadowStoreTest, NextGoesOnFromAKeyThatIsGone) {
  put(0, record(1, 10));
  put(1, record(2, 20));
  put(2, record(3, 30));
  put(3, record(4, 40, 3));
  TestRecord value;
  Quill::IterHint hint;
  ASSERT_TRUE(sut_.first(0, value, hint));
  ASSERT_TRUE(sut_.next({1, 0}, value, hint));
  EXPECT_EQ(value, record(2, 20));
  EXPECT_EQ(counters_.nextHintMisses, 0U);
  for (unsigned i = 10; i < 60; ++i) put(i, record(i + 100, 0, 1));  // no shrinking below
  take(1);
  ASSERT_TRUE(sut_.next({2, 0}, value, hint));
  EXPECT_EQ(value, record(3, 30));
  EXPECT_EQ(hint, (Quill::IterHint{2, 0}));
  EXPECT_EQ(counters_.nextHintMisses, 1U);
}

TEST_F(ShadowStoreTest, AnyHintIsHarmless) {
  put(0, record(1, 10));
  put(1, record(2, 20, 1));
  for (const Quill::IterHint bad :
       {Quill::IterHint{}, Quill::IterHint{0, 99}, Quill::IterHint{99, 0}, Quill::IterHint{1, 1},
        Quill::IterHint{100, 3}}) {
    TestRecord value;
    Quill::IterHint hint = bad;
    counters_.nextHintMisses = 0;
    EXPECT_TRUE(sut_.next({1, 0}, value, hint));
    EXPECT_EQ(value, record(2, 20, 1));
    EXPECT_EQ(hint, (Quill::IterHint{1, 1}));
    EXPECT_EQ(counters_.nextHintMisses, 1U) << bad;
  }
}

TEST_F(ShadowStoreTest, TheKeyFormReadsTheValueFromTheTable) {
  put(0, record(1, 10));
  table_.put(0, record(1, 11));  // no news of it yet
  EXPECT_EQ(valueIn(keys_, 1), "k1=11");
  EXPECT_EQ(valueIn(sut_, 1), "k1=10");
}

TEST_F(ShadowStoreTest, TheKeyFormPassesOverASlotThatHoldsAnotherKey) {
  put(0, record(1, 10));
  put(1, record(2, 20));
  put(2, record(3, 30, 2));
  table_.put(0, record(9, 90));
  EXPECT_EQ(valueIn(keys_, 1), "none");
  EXPECT_EQ(keyCounters_.staleKeyReads, 1U);
  table_.take(1);
  EXPECT_EQ(valueIn(keys_, 2), "none");
  EXPECT_EQ(keyCounters_.staleKeyReads, 2U);
  EXPECT_EQ(contentOf(keys_), "k3=30@2 ");
  table_.take(2);
  EXPECT_EQ(contentOf(keys_), "");
}

TEST_F(ShadowStoreTest, TheKeyFormFindsNothingOnADetachedReader) {
  put(0, record(1, 10));
  table_.attached = false;
  EXPECT_EQ(valueIn(keys_, 1), "none");
  EXPECT_EQ(valueIn(sut_, 1), "k1=10");
}

TEST_F(ShadowStoreTest, TheKeyFormNeedsTheFileOfTheGenerationUntilItIsFlushed) {
  const Quill::RootPath empty(handler_, root_.table("empty"), true);
  FakeMap map;
  Quill::Reader::Counters counters;
  KeyStore sut(handler_, empty, table_, counters, &map);
  const TraceText traces;
  EXPECT_FALSE(sut.initialize());
  EXPECT_TRUE(traces.has(
      "KeyShadowStore::initialize() failed to map fenix: " + empty.filePath("fenix") + "\n"));
  put(0, record(1, 10));
  keysNotified();
  keys_.flush();
  EXPECT_TRUE(traces.has("KeyShadowStore::flush()\n"));
  EXPECT_EQ(keysNotified(), Keys{1});
}

}  // namespace
