// SPDX-License-Identifier: Apache-2.0
//
// Shadow stores and what their listeners do; and a long run of random changes against a plain map.
#include <gtest/gtest.h>

#include <map>
#include <random>

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

using ValueSlot = Quill::ValueShadowSlot<TestKey, TestRecord, FakeMap>;
using ValueStore = Quill::ShadowStore<TestKey, TestRecord, ValueSlot, FakeMap, FakeTable>;
using KeyStore = Quill::KeyShadowStore<TestKey, TestRecord, FakeMap, FakeTable>;

class ShadowStoreListenerTest : public QuillTest::TableTest {
 protected:
  ShadowStoreListenerTest() {
    name_.makeDirectory();
    Quill::FenixFile::write(handler_, name_.rootPath(), 7);
    sut_ = std::make_unique<ValueStore>(handler_, name_, table_, counters_, &map_);
    EXPECT_TRUE(sut_->initialize());
  }
  void put(unsigned slot, const TestRecord& value) {
    table_.put(slot, value);
    sut_->doSlot(slot, false);
  }
  bool found(std::uint32_t number) const {
    bool there = false;
    sut_->lookup({number, 0}, there);
    return there;
  }
  // From now on the notification of `number` flushes the store, as a detached handle does.
  void flushAt(unsigned number) {
    map_.notifier_.onNotify = [this, number](const TestKey& key) {
      if (key.number != number) return;
      map_.notifier_.onNotify = nullptr;
      sut_->flush();
    };
  }

  Quill::RootPath name_{handler_, root_.table("t"), true};
  FakeTable table_{100};
  FakeMap map_;
  Quill::Reader::Counters counters_;
  std::unique_ptr<ValueStore> sut_;
};

TEST_F(ShadowStoreListenerTest, ARemovalIsCompleteWhenItsKeyIsNotified) {
  put(0, record(1, 10));
  bool there = true;
  map_.notifier_.onNotify = [&](const TestKey& key) { there = found(key.number); };
  table_.take(0);
  sut_->doSlot(0, false);
  EXPECT_FALSE(there);
  put(0, record(1, 11));
  EXPECT_TRUE(there);
}

TEST_F(ShadowStoreListenerTest, TheOldKeyOfAReusedSlotIsGoneWhenItIsNotified) {
  put(0, record(1, 10));
  std::vector<std::pair<unsigned, bool>> seen;
  map_.notifier_.onNotify = [&](const TestKey& key) {
    seen.emplace_back(key.number, found(key.number));
  };
  put(0, record(2, 20));
  EXPECT_EQ(seen, (std::vector<std::pair<unsigned, bool>>{{1, false}, {2, true}}));
}

TEST_F(ShadowStoreListenerTest, ADetachFromTheNotificationOfANewKeyLeavesAnEmptyStore) {
  put(0, record(1, 10));
  flushAt(2);
  put(1, record(2, 20));
  EXPECT_EQ(map_.notifier_.keys, (Keys{1, 2, 1, 2}));
  EXPECT_EQ(counters_.occupied, 0U);
  EXPECT_FALSE(found(1) || found(2));
}

TEST_F(ShadowStoreListenerTest, ADetachFromTheNotificationOfAReusedSlotDoesNotBringTheNewKeyIn) {
  put(0, record(1, 10));
  put(5, record(5, 50));
  flushAt(1);
  put(0, record(2, 20));
  EXPECT_EQ(map_.notifier_.keys, (Keys{1, 5, 1, 5})) << "nobody was told of 2";
  EXPECT_EQ(counters_.occupied, 0U);
  EXPECT_FALSE(found(2));
}

TEST_F(ShadowStoreListenerTest, ADetachFromTheNotificationOfARemovalDoesNotShrink) {
  put(0, record(1, 10));
  put(1, record(2, 20));
  flushAt(1);
  table_.take(0);
  sut_->doSlot(0, false);
  EXPECT_EQ(counters_.occupied, 0U);
  EXPECT_EQ(counters_.shadowShrinks, 0U);
  EXPECT_EQ(map_.notifier_.keys, (Keys{1, 2, 1, 2}));
}

TEST_F(ShadowStoreListenerTest, ADetachInsideAFlushNotifiesEachKeyOnce) {
  for (unsigned i = 0; i < 5; ++i) put(i, record(i + 1, i));
  map_.notifier_.keys.clear();
  flushAt(2);
  sut_->flush();
  EXPECT_EQ(map_.notifier_.keys, (Keys{1, 2, 3, 4, 5}));
}

TEST_F(ShadowStoreListenerTest, AnExceptionOfTheReaderLeavesTheStoreAsItWas) {
  put(0, record(1, 10));
  map_.notifier_.keys.clear();
  table_.put(0, record(2, 20));
  table_.damage = "damage";
  EXPECT_THROW(sut_->doSlot(0, false), Quill::CorruptionDetectedException);
  EXPECT_TRUE(found(1));
  sut_->flush();
  EXPECT_EQ(map_.notifier_.keys, Keys{1}) << "the key that the listener knows";
}

TEST_F(ShadowStoreListenerTest, AListenerThatRaisesLeavesAStoreThatWorks) {
  map_.notifier_.onNotify = [](const TestKey&) { throw std::runtime_error("listener"); };
  EXPECT_THROW(put(0, record(1, 10)), std::runtime_error);
  map_.notifier_.onNotify = nullptr;
  EXPECT_TRUE(found(1));
  put(1, record(2, 20));
  EXPECT_TRUE(found(2));
}

TEST_F(ShadowStoreListenerTest, AStoreThatEndsInsideItsNotificationIsAnAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  map_.notifier_.onNotify = [&](const TestKey&) { sut_.reset(); };
  EXPECT_DEATH(put(0, record(1, 10)), "a shadow store ends inside its own notification");
}

TEST_F(ShadowStoreListenerTest, AStoreThatIsFedInsideItsNotificationIsAnAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  map_.notifier_.onNotify = [&](const TestKey&) { sut_->doSlot(1, false); };
  EXPECT_DEATH(put(0, record(1, 10)), "a shadow store is fed inside its own notification");
}

// --- against a plain map

// A writer that puts keys into slots as it likes, and news of slots that arrive late, in order,
// each perhaps twice. A listener looks each notified key up. When all news have arrived, the store
// holds what the table holds, and the listener knows what the store knows.
template <class Store>
class RandomRun {
 public:
  RandomRun(unsigned seed, Sable::Platform::DebugHandler& handler, const Quill::RootPath& name)
      : random_(seed), sut_(handler, name, table_, counters_, &map_) {
    EXPECT_TRUE(sut_.initialize());
    map_.notifier_.onNotify = [this](const TestKey& key) {
      bool found = false;
      const TestRecord& value = sut_.lookup(key, found);
      if (found) {
        seen_[key.number] = value;
      } else {
        seen_.erase(key.number);
      }
    };
  }

  void run() {
    for (unsigned round = 0; round < 60; ++round) {
      // Phases of growth and of decline, so that the store grows and shrinks.
      const unsigned removals = round % 12 < 6 ? 25 : 98;
      for (unsigned i = 0; i < 150; ++i) change(removals);
      if (round % 12 == 11) removeAll();
      if (round % 20 == 19) table_.slotsAre(static_cast<unsigned>(table_.slots.size()) * 2);
      if (round % 7 == 6) {
        news_.clear();  // missed: everything is gone over again
        for (auto i = static_cast<unsigned>(table_.slots.size()); i-- > 0;) sut_.doSlot(i, true);
      }
      while (!news_.empty()) deliver();
      check();
      if (testing::Test::HasFailure()) return;
    }
    EXPECT_GT(counters_.slotMoves, 0U);
    EXPECT_GT(counters_.shadowShrinks, 0U);
    EXPECT_GT(counters_.shadowGrows, 4U);
  }

 private:
  unsigned below(unsigned end) { return static_cast<unsigned>(random_() % end); }

  void change(unsigned removals) {
    const TestKey key{below(300), 0};
    const TestKey hashed{key.number, key.number * 7 % 13};
    const auto there = places_.find(key.number);
    if (below(100) < removals) {
      if (there == places_.end()) return;
      table_.take(there->second);
      news_.push_back(there->second);
      places_.erase(there);
    } else {
      const unsigned slot = there == places_.end() ? freeSlot() : there->second;
      if (slot == Quill::kNoSlot) return;
      table_.put(slot, {hashed, below(3), 0, 0});
      news_.push_back(slot);
      places_[key.number] = slot;
    }
    if (below(3) == 0 && !news_.empty()) deliver();
  }

  void removeAll() {
    for (const auto& [number, slot] : places_) {
      table_.take(slot);
      news_.push_back(slot);
    }
    places_.clear();
  }

  unsigned freeSlot() {
    for (unsigned i = 0; i < 20; ++i) {
      const unsigned slot = below(static_cast<unsigned>(table_.slots.size()));
      if (!table_.slots[slot].occupied) return slot;
    }
    return Quill::kNoSlot;
  }

  void deliver() {
    sut_.doSlot(news_.front(), false);
    if (below(4) != 0) news_.erase(news_.begin());
  }

  void check() {
    std::map<std::pair<unsigned, unsigned>, TestRecord> expected;
    std::map<unsigned, TestRecord> expectedSeen;
    for (const auto& slot : table_.slots) {
      if (!slot.occupied) continue;
      expected[{slot.value.key.hash() % table_.buckets, slot.value.key.number}] = slot.value;
      expectedSeen[slot.value.key.number] = slot.value;
    }
    ASSERT_EQ(counters_.occupied, expected.size());
    auto at = expected.begin();
    TestRecord value;
    Quill::IterHint hint;
    for (bool more = sut_.first(0, value, hint); more; more = sut_.next(value.key, value, hint)) {
      ASSERT_NE(at, expected.end());
      ASSERT_EQ(value, at->second);
      bool found = false;
      ASSERT_EQ(sut_.lookup(value.key, found), at->second);
      ASSERT_TRUE(found);
      ++at;
    }
    ASSERT_EQ(at, expected.end());
    ASSERT_EQ(counters_.nextHintMisses, 0U);
    ASSERT_EQ(seen_, expectedSeen);
  }

  std::mt19937 random_;
  FakeTable table_{60, 5};
  FakeMap map_;
  Quill::Reader::Counters counters_;
  Store sut_;
  std::map<unsigned, unsigned> places_;  // key to slot
  std::vector<unsigned> news_;
  std::map<unsigned, TestRecord> seen_;  // what the listener knows
};

TEST_F(ShadowStoreListenerTest, HoldsAndTellsWhatTheTableHoldsAfterAnyChanges) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(Quill::textOf("seed ", seed));
    RandomRun<ValueStore>(seed, handler_, name_).run();
  }
}

TEST_F(ShadowStoreListenerTest, TheKeyFormHoldsAndTellsWhatTheTableHoldsAfterAnyChanges) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(Quill::textOf("seed ", seed));
    RandomRun<KeyStore>(seed, handler_, name_).run();
  }
}

}  // namespace
