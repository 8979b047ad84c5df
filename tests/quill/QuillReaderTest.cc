// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillReader.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/quill/HandReader.h"
#include "tests/quill/Records.h"

template class Quill::QuillReader<Portus::IntfId, QuillTest::IntfRecord>;
template class Quill::QuillReader<Bridging::VlanIdOrNone, QuillTest::VlanRecord>;

namespace QuillTest {

namespace {

using Quill::IterHint;

// --- lookup

TEST_F(QuillReader, AKeyThatIsThereIsFound) {
  ASSERT_TRUE(sut.initialize());
  EXPECT_TRUE(find(130));
  EXPECT_EQ(value_, hookValue(130, 3));
  EXPECT_EQ(counters().readRetries, 0U);
}

TEST_F(QuillReader, AnEmptyChainAnswersNotFoundWithoutLookingAtASlot) {
  ASSERT_TRUE(sut.initialize());
  EXPECT_FALSE(find(200));
  EXPECT_EQ(value_, HookValue());
  EXPECT_EQ(HookKey::compares, 0U);
}

TEST_F(QuillReader, AKeySmallerThanItsChainAnswersNotFoundAfterOneSlot) {
  ASSERT_TRUE(sut.initialize());
  table_.slot(1).flags.store(0, Mem::release);  // looking at it would be an error
  EXPECT_FALSE(find(105));
  EXPECT_EQ(value_, HookValue());
}

TEST_F(QuillReader, AKeyBetweenTwoAndOneBehindTheLastAreNotFound) {
  ASSERT_TRUE(sut.initialize());
  EXPECT_FALSE(find(125));
  EXPECT_FALSE(find(199));
}

TEST_F(QuillReader, AKeyMayLieInTheAnswerOfTheLastLookup) {
  ASSERT_TRUE(sut.initialize());
  bool found = false;
  const HookValue& answer = sut.lookup({130}, found);
  sut.lookup(answer.key, found);
  EXPECT_TRUE(found);
  EXPECT_EQ(answer, hookValue(130, 3));
}

TEST_F(QuillReader, ManyKeysAtOnceAreAnsweredAsOneByOne) {
  ASSERT_TRUE(sut.initialize());
  std::vector<HookKey> keys;
  for (std::uint32_t key = 100; key < 200; ++key) keys.push_back({key});
  std::vector<HookValue> values(keys.size());
  const auto found = std::make_unique<bool[]>(keys.size());
  unsigned numFound = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    bool one = false;
    sut.lookup(keys[i], one);
    numFound += one ? 1 : 0;
  }
  ASSERT_GE(numFound, 3U);
  EXPECT_EQ(
      sut.lookupMany(keys.data(), static_cast<unsigned>(keys.size()), values.data(), found.get()),
      numFound);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    bool one = false;
    EXPECT_EQ(values[i], sut.lookup(keys[i], one)) << i;
    EXPECT_EQ(found[i], one) << i;
  }
  EXPECT_EQ(sut.lookupMany(nullptr, 0, nullptr, nullptr), 0U);
}

TEST_F(QuillReader, ManyKeysMeetDamageAndADetachedTableAsOneDoes) {
  ASSERT_TRUE(sut.initialize());
  const std::array<HookKey, 2> keys{HookKey{130}, HookKey{110}};
  std::array<HookValue, 2> values;
  std::array<bool, 2> found{};
  table_.slot(1).flags.store(0, Mem::release);
  EXPECT_THROW(sut.lookupMany(keys.data(), 2, values.data(), found.data()),
               Quill::CorruptionDetectedException);
  sut.detach();
  EXPECT_EQ(sut.lookupMany(keys.data(), 2, values.data(), found.data()), 0U);
  EXPECT_EQ(values[1], HookValue());
}

TEST_F(QuillReader, ALinkThatChangesDuringTheReadCostsOneRetryAndGivesTheRightResult) {
  ASSERT_TRUE(sut.initialize());
  HookKey::onCompare = [this] {
    table_.remove(110);
    table_.insert(7, hookValue(110, 9));
  };
  EXPECT_TRUE(find(110));
  EXPECT_EQ(value_, hookValue(110, 9));
  EXPECT_EQ(counters().readRetries, 1U);
}

TEST_F(QuillReader, ASlotReusedForAnotherChainUnderTheWalkIsNotFollowed) {
  ASSERT_TRUE(sut.initialize());
  HookKey::onCompare = [this] {  // the walk stands on 110, on its way to 130
    table_.remove(110);
    table_.insert(0, hookValue(400, 9));
  };
  EXPECT_TRUE(find(130));
  EXPECT_EQ(value_, hookValue(130, 3));
  EXPECT_EQ(counters().readRetries, 1U);
}

TEST_F(QuillReader, AMissIsTakenOnlyFromALinkThatStood) {
  ASSERT_TRUE(sut.initialize());
  HookKey::onCompare = [this] { table_.insert(7, hookValue(105, 9)); };
  EXPECT_TRUE(find(105));
  EXPECT_EQ(counters().readRetries, 1U);
}

TEST_F(QuillReader, AKeyRemovedUnderTheWalkIsNotFound) {
  ASSERT_TRUE(sut.initialize());
  HookKey::onCompare = [this] { table_.remove(110); };
  EXPECT_FALSE(find(110));
  EXPECT_EQ(counters().readRetries, 1U);
}

// The walk stands on 110 when 120, the next one, goes; its link is looked at before and after.
TEST_F(QuillReader, AFreeSlotBehindALinkThatMovedIsOnlyARace) {
  ASSERT_TRUE(sut.initialize());
  unsigned rounds = 0;
  std::function<void()> again = [&] {
    if (++rounds == 2) {
      table_.remove(120);
    } else {
      HookKey::onCompare = again;
    }
  };
  HookKey::onCompare = again;
  EXPECT_TRUE(find(130));
  EXPECT_EQ(counters().readRetries, 1U);
}

TEST_F(QuillReader, AFreeSlotBehindALinkThatStandsIsDamage) {
  ASSERT_TRUE(sut.initialize());
  table_.slot(1).flags.store(0, Mem::release);
  EXPECT_EQ(damageOf([&] { find(130); }),
            "QuillReader::doLookup() slot:1 not marked as occupied key:130");
  IterHint hint{0, 1};
  EXPECT_EQ(damageOf([&] { sut.next({110}, value_, hint); }),
            "QuillReader::doNext() slot:1 not marked as occupied key:110");
  hint = {};
  EXPECT_EQ(damageOf([&] { sut.next({110}, value_, hint); }),
            "QuillReader::doNext() slot:1 not marked as occupied key:110");
  table_.slot(0).flags.store(0, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.first(value_, hint); }),
            "QuillReader::first() slot:0 not marked as occupied key:110");
}

TEST_F(QuillReader, AChainLongerThanTheCapacityIsACycle) {
  ASSERT_TRUE(sut.initialize());
  HandTable::linkIs(table_.slot(2).ref, 0);
  EXPECT_EQ(damageOf([&] { find(199); }),
            "QuillReader::doLookup() hash chain cycle detected, slotCount:17 capacity:16");
  IterHint hint;
  EXPECT_EQ(damageOf([&] { sut.next({199}, value_, hint); }),
            "QuillReader::doNext() hash chain cycle detected, slotCount:17 capacity:16");
}

TEST_F(QuillReader, AChainOfAsManySlotsAsTheCapacityIsNone) {
  for (std::uint32_t i = 4; i < 16; ++i) table_.insert(i, hookValue(130 + i, i));
  table_.remove(300);
  table_.insert(3, hookValue(160, 5));
  ASSERT_TRUE(sut.initialize());
  EXPECT_FALSE(find(199));
  EXPECT_EQ(damageOf([&] { find(199); }), "");
}

TEST_F(QuillReader, ALinkBeyondTheMappedCountIsDamageIfTheTableHasNotGrown) {
  ASSERT_TRUE(sut.initialize());
  HandTable::linkIs(table_.head(2), 16);
  const std::string text = "SlotReader::Slots::operator[] out-of-range index:16 max:15";
  EXPECT_EQ(damageOf([&] { find(210); }), text);
  EXPECT_EQ(damageOf([&] { sut.first(2, value_, hint_); }), text);
  EXPECT_EQ(damageOf([&] { sut.getValue(16, value_); }), text);
  HookKey key;
  EXPECT_EQ(damageOf([&] { sut.getKey(16, key); }), text);
  EXPECT_EQ(counters().slotResizes, 0U);
}

TEST_F(QuillReader, ALinkBeyondTheMappedCountIsFollowedIfTheTableHasGrown) {
  ASSERT_TRUE(sut.initialize());
  table_.grow(200);
  table_.insert(150, hookValue(210, 5));
  EXPECT_TRUE(find(210));
  EXPECT_EQ(counters().slotResizes, 1U);
  EXPECT_EQ(sut.capacity(), 200U);
}

TEST_F(QuillReader, AGrowthDuringALookupHasItDoneAgainOnTheNewMapping) {
  ASSERT_TRUE(sut.initialize());
  HookKey::onCompare = [this] {
    table_.grow(200);
    table_.insert(150, hookValue(125, 5));  // behind the slot on which the walk stands
    HookKey::compares = 0;
  };
  EXPECT_TRUE(find(110));
  EXPECT_EQ(value_, hookValue(110, 1));
  EXPECT_EQ(counters().slotResizes, 1U);
  EXPECT_EQ(counters().readRetries, 0U);
  EXPECT_GE(HookKey::compares, 3U);  // one left of the first attempt, two of the second
}

TEST_F(QuillReader, DamageDuringAGrowthIsNotBelieved) {
  ASSERT_TRUE(sut.initialize());
  table_.slot(0).flags.store(0, Mem::release);
  table_.grow(200);
  EXPECT_EQ(damageOf([&] { find(110); }),
            "QuillReader::doLookup() slot:0 not marked as occupied key:110");
  EXPECT_EQ(counters().slotResizes, 1U);  // it was looked at a second time
}

TEST_F(QuillReader, AHeaderThatShrinksIsDamage) {
  ASSERT_TRUE(sut.initialize());
  table_.header().numSlots.store({1, 2}, Mem::release);
  EXPECT_EQ(damageOf([&] { find(110); }),
            "SlotReader::doResize() header corruption, shrinking from: 16to: 2 not supported.");
}

TEST_F(QuillReader, AWriterStoppedInTheMiddleOfAStoreStopsNobody) {
  table_.beginValue(1, hookValue(120, 77));
  ASSERT_TRUE(sut.initialize());
  EXPECT_TRUE(find(120));
  EXPECT_EQ(value_, hookValue(120, 77));
  EXPECT_EQ(keys(), (std::vector<std::uint32_t>{110, 120, 130, 300}));
  EXPECT_GE(counters().lookasideReads, 2U);
}

TEST_F(QuillReader, ResizeFollowsAGrowth) {
  ASSERT_TRUE(sut.initialize());
  EXPECT_FALSE(sut.resize());
  table_.grow(64);
  EXPECT_TRUE(sut.resize());
  EXPECT_EQ(sut.capacity(), 64U);
}

// --- slots by index

TEST_F(QuillReader, GetValueAndGetKeyAnswerWhetherTheSlotIsOccupied) {
  ASSERT_TRUE(sut.initialize());
  HookKey key;
  EXPECT_TRUE(sut.getValue(1, value_));
  EXPECT_EQ(value_, hookValue(120, 2));
  EXPECT_TRUE(sut.getKey(1, key));
  EXPECT_EQ(key, HookKey{120});
  table_.remove(120);
  EXPECT_FALSE(sut.getValue(1, value_));
  EXPECT_EQ(value_, hookValue(120, 2));  // what a removal leaves behind
  EXPECT_FALSE(sut.getKey(1, key));
  EXPECT_EQ(key, HookKey{120});
}

TEST_F(QuillReader, ASlotBeyondTheMappedCountIsReadIfTheTableHasGrown) {
  ASSERT_TRUE(sut.initialize());
  table_.grow(200);
  table_.insert(150, hookValue(210, 5));
  EXPECT_TRUE(sut.getValue(150, value_));
  EXPECT_EQ(value_, hookValue(210, 5));
}

// --- life

TEST_F(QuillReader, InitializeTellsWhatItAttachedTo) {
  TraceText traces;
  EXPECT_EQ(sut.mountStatus(), 0U);
  ASSERT_TRUE(sut.initialize());
  ASSERT_TRUE(sut.initialize());
  EXPECT_EQ(traces.count("QuillReader::initialize() success " + table_.path() +
                         " capacity: 16 fenixId: 7\n"),
            1U);
  EXPECT_EQ(sut.mountStatus(), 1U);
  EXPECT_EQ(sut.fenixId(), 7U);
  EXPECT_EQ(sut.type(), Quill::QuillType::reader);
  EXPECT_EQ(sut.members(), 4U);
  EXPECT_EQ(sut.maxSize(), 1000U);
  EXPECT_EQ(sut.capacity(), 16U);
  EXPECT_EQ(sut.numBuckets(), 8U);
  EXPECT_EQ(sut.quillName(), "t");
  EXPECT_EQ(sut.rootPath(), table_.path());
}

TEST_F(QuillReader, MissingFilesAreFalseWithoutAReport) {
  const std::array<std::pair<const char*, const char*>, 3> files{
      {{"buckets", "QuillReader::initialize() buckets.attach() failed\n"},
       {"slots", "QuillReader::initialize() slots attach() failed\n"},
       {"fenix", " failed to read fenix file\n"}}};
  for (const auto& [file, text] : files) {
    const std::string path = table_.path() + "/" + file;
    std::filesystem::rename(path, path + ".away");
    TraceText traces;
    EXPECT_FALSE(sut.initialize());
    EXPECT_TRUE(traces.has(text)) << traces.text();
    EXPECT_FALSE(std::filesystem::exists(reportPath()));
    std::filesystem::rename(path + ".away", path);
  }
  EXPECT_TRUE(sut.initialize());
}

TEST_F(QuillReader, ABucketHeaderThatIsNotValidIsFalseAndReported) {
  table_.bucketHeader().fenix.store(8, Mem::release);
  TraceText traces;
  EXPECT_FALSE(sut.initialize());
  EXPECT_TRUE(traces.has("QuillReader::initialize() buckets.validate() failed\n"));
  EXPECT_EQ(report(), "BucketTable::validate() bad fenix:8 wanted:7");
  EXPECT_EQ(sut.mountStatus(), 0U);
  EXPECT_EQ(sut.numBuckets(), 0U);
}

TEST_F(QuillReader, ASlotHeaderThatIsNotValidIsFalseAndReported) {
  table_.header().fenix.store(8, Mem::release);
  TraceText traces;
  EXPECT_FALSE(sut.initialize());
  EXPECT_TRUE(traces.has("QuillReader::initialize() slots validate() failed\n"));
  EXPECT_EQ(report(), "SlotTable::validate() bad fenix:8 wanted:7");
  EXPECT_EQ(sut.capacity(), 0U);
}

TEST_F(QuillReader, ADetachedReaderFindsNothing) {
  ASSERT_TRUE(sut.initialize());
  TraceText traces;
  sut.detach();
  EXPECT_TRUE(traces.has("QuillReader::detach() " + table_.path() + " detached\n"));
  EXPECT_FALSE(find(110));
  EXPECT_EQ(value_, HookValue());
  EXPECT_TRUE(traces.has("QuillReader::doLookup() bucket table detached\n"));
  EXPECT_FALSE(sut.first(value_, hint_));
  EXPECT_FALSE(sut.next({110}, value_, hint_));
  EXPECT_EQ(sut.members(), 0U);
  EXPECT_EQ(sut.maxSize(), 0U);
  EXPECT_EQ(sut.mountStatus(), 0U);
  traces.clear();
  sut.detach();
  EXPECT_TRUE(traces.has("QuillReader::detach() already detached\n"));
  ASSERT_TRUE(sut.initialize());
  EXPECT_TRUE(find(110));
}

TEST_F(QuillReader, AFileThatBecameShorterIsNotBelieved) {
  table_.grow(1000);
  table_.insert(999, hookValue(210, 5));
  ASSERT_TRUE(sut.initialize());
  std::filesystem::resize_file(table_.path() + "/slots", HandTable::bytes(16));
  const std::string text =
      "SlotReader: " + table_.path() + "/slots became shorter than its mapping";
  EXPECT_EQ(damageOf([&] { find(210); }), text);
  EXPECT_EQ(damageOf([&] { sut.getValue(500, value_); }), text);
  std::filesystem::resize_file(table_.path() + "/buckets", 0);
  EXPECT_NE(damageOf([&] { find(110); }), "");
}

TEST_F(QuillReader, ABucketFileThatBecameShorterIsNotBelieved) {
  ASSERT_TRUE(sut.initialize());
  std::filesystem::resize_file(table_.path() + "/buckets", 0);
  EXPECT_EQ(damageOf([&] { find(210); }),
            "BucketReader: " + table_.path() + "/buckets became shorter than its mapping");
}

}  // namespace

}  // namespace QuillTest
