// SPDX-License-Identifier: Apache-2.0
//
// The iteration of QuillReader, and reading in tables of any content.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "quill/QuillReader.h"
#include "tests/quill/HandReader.h"

namespace QuillTest {

namespace {

using Quill::CorruptionDetectedException;
using Quill::IterHint;

// --- iteration

TEST_F(QuillReader, IterationGoesByBucketAndThenByKey) {
  table_.insert(4, hookValue(5, 5));
  table_.insert(5, hookValue(910, 5));  // bucket 1 again
  ASSERT_TRUE(sut.initialize());
  EXPECT_EQ(keys(), (std::vector<std::uint32_t>{5, 110, 120, 130, 910, 300}));
  EXPECT_EQ(counters().nextHintMisses, 0U);
}

TEST_F(QuillReader, FirstOfAnEmptyTableIsFalseAndLeavesTheDefaultValue) {
  for (const std::uint32_t key : {110U, 120U, 130U, 300U}) table_.remove(key);
  ASSERT_TRUE(sut.initialize());
  value_ = hookValue(1, 1);
  TraceText traces;
  EXPECT_FALSE(sut.first(value_, hint_));
  EXPECT_EQ(value_, HookValue());
  EXPECT_TRUE(traces.has("QuillReader::first() none found!\n"));
}

TEST_F(QuillReader, FirstGivesTheHintOfItsEntry) {
  ASSERT_TRUE(sut.initialize());
  ASSERT_TRUE(sut.first(value_, hint_));
  EXPECT_EQ(hint_, (IterHint{0, 1}));
  ASSERT_TRUE(sut.first(2, value_, hint_));
  EXPECT_EQ(value_, hookValue(300, 4));
  EXPECT_EQ(hint_, (IterHint{3, 3}));
}

TEST_F(QuillReader, TheLastKeyOfABucketLeadsToTheNextBucketThatIsNotEmpty) {
  ASSERT_TRUE(sut.initialize());
  hint_ = {2, 1};
  ASSERT_TRUE(sut.next({130}, value_, hint_));
  EXPECT_EQ(value_, hookValue(300, 4));
  EXPECT_EQ(hint_, (IterHint{3, 3}));
  EXPECT_EQ(counters().nextHintMisses, 0U);
  hint_ = {};
  ASSERT_TRUE(sut.next({130}, value_, hint_));
  EXPECT_EQ(value_, hookValue(300, 4));
  EXPECT_FALSE(sut.next({300}, value_, hint_));
  table_.insert(4, hookValue(400, 5));
  hint_ = {};
  ASSERT_TRUE(sut.next({300}, value_, hint_));
  EXPECT_EQ(value_, hookValue(400, 5));
}

TEST_F(QuillReader, NextOfARemovedKeyGoesOnWithTheNextGreaterOne) {
  ASSERT_TRUE(sut.initialize());
  hint_ = {1, 1};
  table_.remove(120);
  ASSERT_TRUE(sut.next({120}, value_, hint_));
  EXPECT_EQ(value_, hookValue(130, 3));
  EXPECT_EQ(hint_, (IterHint{2, 1}));
  EXPECT_EQ(counters().nextHintMisses, 1U);
}

TEST_F(QuillReader, AHintOfAnotherKeyIsHarmless) {
  ASSERT_TRUE(sut.initialize());
  for (const IterHint hint : {IterHint{}, IterHint{3, 3}, IterHint{9, 1}, IterHint{16, 1},
                              IterHint{0, 8}, IterHint{2, 1}}) {
    hint_ = hint;
    ASSERT_TRUE(sut.next({110}, value_, hint_)) << hint;
    EXPECT_EQ(value_, hookValue(120, 2)) << hint;
    EXPECT_EQ(hint_, (IterHint{1, 1})) << hint;
  }
  EXPECT_EQ(counters().nextHintMisses, 6U);
}

TEST_F(QuillReader, AHintedLinkThatMovesIsLeftForTheWalk) {
  ASSERT_TRUE(sut.initialize());
  hint_ = {0, 1};
  HookKey::onCompare = [this] { table_.remove(120); };  // while the hinted key is compared
  ASSERT_TRUE(sut.next({110}, value_, hint_));
  EXPECT_EQ(value_, hookValue(130, 3));
  EXPECT_EQ(counters().nextHintMisses, 1U);
}

TEST_F(QuillReader, TheKeyOfNextMayLieInItsValueEvenIfTheTableGrows) {
  ASSERT_TRUE(sut.initialize());
  ASSERT_TRUE(sut.first(value_, hint_));
  table_.grow(64);  // the first attempt is thrown away
  ASSERT_TRUE(sut.next(value_.key, value_, hint_));
  EXPECT_EQ(value_, hookValue(120, 2));
  EXPECT_EQ(counters().nextHintMisses, 0U);
}

TEST_F(QuillReader, ALinkThatMovesUnderNextCostsOneRetry) {
  ASSERT_TRUE(sut.initialize());
  hint_ = {};
  HookKey::onCompare = [this] { table_.insert(7, hookValue(106, 9)); };
  ASSERT_TRUE(sut.next({105}, value_, hint_));
  EXPECT_EQ(value_, hookValue(106, 9));
  EXPECT_EQ(counters().readRetries, 1U);
}

TEST_F(QuillReader, AKeyInTheWrongBucketIsDamageOfFirstAndNext) {
  ASSERT_TRUE(sut.initialize());
  const HookKey wrong{499};
  table_.slot(1).value.copyIn(&wrong, sizeof wrong);
  hint_ = {0, 1};
  EXPECT_EQ(damageOf([&] { sut.next({110}, value_, hint_); }),
            "QuillReader::doNext() corrupt key detected key:499 bucketIndex 1");
  hint_ = {};
  EXPECT_EQ(damageOf([&] { sut.next({110}, value_, hint_); }),
            "QuillReader::doNext() corrupt key detected key:499 bucketIndex:1");
  table_.slot(0).value.copyIn(&wrong, sizeof wrong);
  EXPECT_EQ(damageOf([&] { sut.first(value_, hint_); }),
            "QuillReader::first() corrupt key detected, key:499 bucket:1");
}

TEST_F(QuillReader, AnIterationOverACycleEnds) {
  ASSERT_TRUE(sut.initialize());
  HandTable::linkIs(table_.slot(2).ref, 0);
  EXPECT_EQ(damageOf([&] { keys(); }),
            "QuillReader::doNext() hash chain cycle detected, slotCount:17 capacity:16");
}

// --- anything in the files

// Whatever the files hold: an answer or CorruptionDetectedException, after bounded work.
TEST_F(QuillReader, AnyBytesEndInAnAnswerOrAnException) {
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 engine(seed);
    const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
    const std::string name = root_.table("hostile" + std::to_string(seed));
    HandTable table(handler_, name);
    for (std::uint32_t i = 0; i < 16; ++i) table.insert(i, hookValue(37 * i + 3, i));
    const auto spoil = [&] {
      const unsigned which = random() % 4;
      const std::uint32_t number = random() % 3 == 0 ? random() : random() % 20;
      const Mem::VerU32 word{random() % 3, number};
      if (which == 0) table.head(random() % 8).store(word, Mem::release);
      if (which == 1) table.slot(random() % 16).ref.store(word, Mem::release);
      if (which == 2) table.slot(random() % 16).flags.store(number, Mem::release);
      if (which == 3) table.slot(random() % 16).value.copyIn(&number, sizeof number);
      if (random() % 40 == 0) table.header().numSlots.store(word, Mem::release);
    };
    for (unsigned i = 0; i < 4; ++i) spoil();
    Sut reader(handler_, name.c_str());
    if (!reader.initialize()) continue;
    for (unsigned round = 0; round < 20; ++round) {
      spoil();
      try {
        bool found = false;
        reader.lookup({random() % 600}, found);
        IterHint hint{random() % 17, random() % 9};
        HookValue value;
        reader.next({random() % 600}, value, hint);
        unsigned entries = 0;
        for (bool more = reader.first(value, hint); more;
             more = reader.next(value.key, value, hint)) {
          ASSERT_LE(++entries, 16U * 8U);
        }
      } catch (const CorruptionDetectedException& damage) {
        EXPECT_NE(damage.msg(), "");
      }
    }
  }
}

// A writer that inserts, changes, removes and grows, against a map.
TEST_F(QuillReader, ReadsWhatAMapWouldHold) {
  const unsigned seed = 20231;
  SCOPED_TRACE(seed);
  std::mt19937 engine(seed);
  const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
  const std::string name = root_.table("model");
  HandTable table(handler_, name, 4);
  Sut reader(handler_, name.c_str());
  ASSERT_TRUE(reader.initialize());
  std::map<std::uint32_t, std::uint32_t> slots;                        // by key
  std::map<std::pair<std::uint32_t, std::uint32_t>, HookValue> model;  // by bucket and key
  std::vector<std::uint32_t> unused{0, 1, 2, 3};
  std::uint32_t numSlots = 4;
  for (std::uint32_t round = 1; round <= 2000; ++round) {
    const std::uint32_t key = random() % 1600;
    const HookValue value = hookValue(key, round);
    const auto place = std::pair(key / 100 % HandTable::kBuckets, key);
    if (const auto at = slots.find(key); at == slots.end()) {
      if (unused.empty()) {
        table.grow(numSlots * 2);
        for (std::uint32_t i = numSlots; i < numSlots * 2; ++i) unused.push_back(i);
        numSlots *= 2;
      }
      table.insert(unused.back(), value);
      slots[key] = unused.back();
      unused.pop_back();
      model[place] = value;
    } else if (random() % 2 == 0) {
      table.valueIs(at->second, value);
      model[place] = value;
    } else {
      table.remove(key);
      unused.push_back(at->second);
      slots.erase(at);
      model.erase(place);
    }
    const std::uint32_t asked = random() % 1600;
    bool found = false;
    const HookValue& answer = reader.lookup({asked}, found);
    const auto expected = model.find({asked / 100 % HandTable::kBuckets, asked});
    ASSERT_EQ(found, expected != model.end());
    ASSERT_EQ(answer, found ? expected->second : HookValue());
    if (round % 50 != 0) continue;
    IterHint hint;
    HookValue read;
    auto next = model.begin();
    for (bool more = reader.first(read, hint); more; more = reader.next(read.key, read, hint)) {
      ASSERT_NE(next, model.end());
      ASSERT_EQ(read, (next++)->second);
    }
    ASSERT_EQ(next, model.end());
    ASSERT_EQ(reader.members(), model.size());
  }
  EXPECT_GT(reader.readerCounters().slotResizes, 3U);
}

}  // namespace

}  // namespace QuillTest
