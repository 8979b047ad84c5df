// SPDX-License-Identifier: Apache-2.0
#include "quill/SlotReaderTable.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "tests/quill/HandTable.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

namespace {

class SlotReaderTable : public TableTest {
 protected:
  using Sut = Quill::SlotReaderTable<HookKey, HookValue>;

  HandTable table_{handler_, root_.table("t")};
  Quill::RootPath path_{handler_, root_.table("t"), true};
  Quill::Reader::Counters counters_;
  Sut sut{handler_, path_, counters_};
  HookValue value_;

  std::uint32_t read(std::uint32_t index) { return sut.read(sut.slot(index), value_); }
};

TEST_F(SlotReaderTable, AttachWithoutAFileIsFalse) {
  std::filesystem::remove(table_.path() + "/slots");
  TraceText traces;
  EXPECT_FALSE(sut.attach());
  EXPECT_TRUE(traces.has("SlotReader::attach() no shared memory region\n"));
}

TEST_F(SlotReaderTable, AFileThatCannotBeMappedIsFalse) {
  std::filesystem::remove(table_.path() + "/slots");
  std::filesystem::create_directory(table_.path() + "/slots");
  EXPECT_FALSE(sut.attach());
  EXPECT_EQ(sut.header(), nullptr);
}

TEST_F(SlotReaderTable, CapacityIsTheCountOfTheHeader) {
  EXPECT_EQ(sut.capacity(), 0U);
  ASSERT_TRUE(sut.attach());
  EXPECT_EQ(sut.capacity(), 16U);
  EXPECT_EQ(sut.slots().highest(), 15U);
}

TEST_F(SlotReaderTable, DetachForgetsTheMapping) {
  ASSERT_TRUE(sut.attach());
  sut.detach();
  EXPECT_EQ(sut.capacity(), 0U);
  EXPECT_EQ(sut.header(), nullptr);
  EXPECT_EQ(sut.slots().base(), nullptr);
  EXPECT_FALSE(sut.doResize());
  EXPECT_EQ(damageOf([&] { sut.slot(0); }),
            "SlotReader::Slots::operator[] out-of-range index:0 max:0");
}

TEST_F(SlotReaderTable, AnIndexAboveTheHighestIsRefused) {
  ASSERT_TRUE(sut.attach());
  EXPECT_EQ(damageOf([&] { sut.slot(15); }), "");
  EXPECT_EQ(damageOf([&] { sut.slot(16); }),
            "SlotReader::Slots::operator[] out-of-range index:16 max:15");
}

TEST_F(SlotReaderTable, ATableWithoutSlotsHasNoSlotZero) {
  table_.header().numSlots.store({0, 0}, Mem::release);
  ASSERT_TRUE(sut.attach());
  EXPECT_EQ(damageOf([&] { sut.slot(0); }),
            "SlotReader::Slots::operator[] out-of-range index:0 max:0");
}

TEST_F(SlotReaderTable, AFileShorterThanAHeaderHasNoSlotsAndIsNotValid) {
  std::filesystem::resize_file(table_.path() + "/slots", 10);
  ASSERT_TRUE(sut.attach());
  EXPECT_EQ(sut.capacity(), 0U);
  std::string message;
  EXPECT_FALSE(sut.validate(HandTable::kFenix, message));
  EXPECT_EQ(message, "SlotTable::Header::validate() bad header file size: 10 wanted:208");
}

TEST_F(SlotReaderTable, ValidateTellsTheFirstThingThatIsWrong) {
  ASSERT_TRUE(sut.attach());
  std::string message;
  EXPECT_TRUE(sut.validate(HandTable::kFenix, message));
  EXPECT_FALSE(sut.validate(8, message));
  EXPECT_EQ(message, "SlotTable::validate() bad fenix:7 wanted:8");
}

// What a reader finds that asked for the size of the file just before it grew.
TEST_F(SlotReaderTable, AGrowthBetweenTheSizeAndTheHeaderIsMappedByTheNextResize) {
  table_.header().numSlots.store({1, 200}, Mem::release);
  ASSERT_TRUE(sut.attach());
  EXPECT_EQ(sut.capacity(), 16U);
  table_.growFile(200);
  EXPECT_TRUE(sut.doResize());
  EXPECT_EQ(sut.capacity(), 200U);
  EXPECT_EQ(damageOf([&] { sut.slot(199); }), "");
}

TEST_F(SlotReaderTable, AReadAnswersTheFlagsWithTheValue) {
  table_.insert(3, hookValue(101, 5));
  ASSERT_TRUE(sut.attach());
  EXPECT_EQ(read(3), 5U);  // occupied, written once
  EXPECT_EQ(value_, hookValue(101, 5));
  EXPECT_EQ(read(4) & Quill::kOccupied, 0U);
}

TEST_F(SlotReaderTable, AReadOfAKeyTakesTheKeyAlone) {
  table_.insert(3, hookValue(101, 5));
  ASSERT_TRUE(sut.attach());
  HookKey key;
  EXPECT_NE(sut.read(sut.slot(3), key) & Quill::kOccupied, 0U);
  EXPECT_EQ(key, HookKey{101});
}

TEST_F(SlotReaderTable, AWriterStoppedWithLookasideSetLeavesACompleteValueThere) {
  table_.insert(3, hookValue(101, 5));
  table_.beginValue(3, hookValue(101, 6));
  const std::uint32_t torn[2] = {101, 0xDEAD};
  table_.slot(3).value.copyIn(torn, sizeof torn);  // and went no further
  ASSERT_TRUE(sut.attach());
  EXPECT_NE(read(3) & Quill::kOccupied, 0U);
  EXPECT_EQ(value_, hookValue(101, 6));
  EXPECT_EQ(counters_.lookasideReads, 1U);
  EXPECT_TRUE(sut.compareValue(3, hookValue(101, 6)));
  HookKey key;
  sut.read(sut.slot(3), key);
  EXPECT_EQ(key, HookKey{101});
  EXPECT_EQ(counters_.lookasideReads, 3U);
}

TEST_F(SlotReaderTable, CompareIsTrueForAnEqualValueInAnOccupiedSlotOnly) {
  table_.insert(3, hookValue(101, 5));
  ASSERT_TRUE(sut.attach());
  EXPECT_TRUE(sut.compareValue(3, hookValue(101, 5)));
  EXPECT_FALSE(sut.compareValue(3, hookValue(101, 6)));
  table_.remove(101);
  EXPECT_FALSE(sut.compareValue(3, hookValue(101, 5)));
}

TEST_F(SlotReaderTable, CompareNeverResizes) {
  ASSERT_TRUE(sut.attach());
  table_.grow(64);
  EXPECT_EQ(damageOf([&] { sut.compareValue(40, {}); }),
            "SlotReader::Slots::operator[] out-of-range index:40 max:15");
  EXPECT_EQ(counters_.slotResizes, 0U);
}

// Every word of a value has the same number: a copy with two numbers was mixed from two writes.
// Shows that no such copy is answered, not that the orders are the weakest that do it.
TEST_F(SlotReaderTable, AValueReadWhileItIsWrittenIsNeverMixed) {
  constexpr std::uint32_t kWrites = 2'000'000;
  table_.insert(3, hookValue(101, 0));
  table_.insert(4, hookValue(102, 0));
  ASSERT_TRUE(sut.attach());
  std::thread writer([&] {
    for (std::uint32_t i = 1; i <= kWrites; ++i) {
      table_.valueIs(3, hookValue(101, i));
      table_.valueIs(4, hookValue(102, i));
    }
  });
  std::uint32_t last = 0;
  std::uint32_t mixed = 0;
  std::uint32_t back = 0;
  while (last < kWrites) {
    read(4);
    if (value_.key.number != 102 || value_.a != value_.b || value_.b != value_.c) ++mixed;
    if (value_.a < last) ++back;
    last = value_.a;
  }
  writer.join();
  EXPECT_EQ(mixed, 0U);
  EXPECT_EQ(back, 0U);
}

TEST_F(SlotReaderTable, NothingHappenedIsFalse) {
  ASSERT_TRUE(sut.attach());
  EXPECT_FALSE(sut.doResize());
  EXPECT_EQ(counters_.slotResizes, 0U);
}

TEST_F(SlotReaderTable, AGrowthIsMappedAndCounted) {
  ASSERT_TRUE(sut.attach());
  table_.grow(500);
  table_.insert(499, hookValue(101, 5));
  const void* const before = sut.header();
  TraceText traces;
  EXPECT_TRUE(sut.doResize());
  EXPECT_EQ(sut.capacity(), 500U);
  EXPECT_NE(read(499) & Quill::kOccupied, 0U);
  EXPECT_EQ(value_, hookValue(101, 5));
  EXPECT_EQ(counters_.slotResizes, 1U);
  EXPECT_EQ(counters_.remaps, sut.header() == before ? 0U : 1U);
  EXPECT_TRUE(traces.has("SlotReader::doResize() " + table_.path() + " from 16 slots to 500\n"));
  EXPECT_TRUE(traces.has("SlotReader::doResize() successful\n"));
  EXPECT_FALSE(sut.doResize());
}

TEST_F(SlotReaderTable, ACountThatFellIsDamage) {
  ASSERT_TRUE(sut.attach());
  table_.header().numSlots.store({1, 15}, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.doResize(); }),
            "SlotReader::doResize() header corruption, shrinking from: 16to: 15 not supported.");
  EXPECT_EQ(sut.capacity(), 16U);
}

TEST_F(SlotReaderTable, AFileShorterThanItsCountIsDamage) {
  ASSERT_TRUE(sut.attach());
  table_.header().numSlots.store({1, 17}, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.doResize(); }),
            "SlotReader::doResize() requesting to map " + table_.path() +
                "/slots 17 slots. Requested file resize to 752 but real file size is 720");
}

TEST_F(SlotReaderTable, ACountThatNoFileCanHoldIsDamage) {
  ASSERT_TRUE(sut.attach());
  table_.header().numSlots.store({1, 0xFFFFFFFF}, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.doResize(); }),
            "SlotReader::doResize() requesting to map " + table_.path() +
                "/slots 4294967295 slots. Requested file resize to 137438953648 but real file "
                "size is 720");
}

TEST_F(SlotReaderTable, AFileThatBecameShorterIsToldAndNotBelieved) {
  table_.grow(1000);
  table_.insert(999, hookValue(101, 5));
  ASSERT_TRUE(sut.attach());
  EXPECT_EQ(damageOf([&] { sut.checkTruncated(); }), "");
  std::filesystem::resize_file(table_.path() + "/slots", HandTable::bytes(16));
  read(999);
  const std::string text =
      "SlotReader: " + table_.path() + "/slots became shorter than its mapping";
  EXPECT_EQ(damageOf([&] { sut.checkTruncated(); }), text);
  EXPECT_EQ(damageOf([&] { sut.compareValue(999, HookValue{}); }), text);
}

}  // namespace

}  // namespace QuillTest
