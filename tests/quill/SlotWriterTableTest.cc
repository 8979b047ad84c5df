// SPDX-License-Identifier: Apache-2.0
#include "quill/SlotWriterTable.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <csignal>
#include <set>

#include "tests/quill/RawFile.h"
#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

using Quill::CorruptionDetectedException;
using Quill::kNoSlot;
using Quill::RootPath;
using Sable::RuntimeException;
using IntfSlots = Quill::SlotWriterTable<IntfRecord>;
using VlanSlots = Quill::SlotWriterTable<VlanRecord>;
using Copy = Quill::SlotTable<IntfRecord>::HeaderCopy;

class SlotWriterTableTest : public TableTest {
 protected:
  SlotWriterTableTest() { path_.makeDirectory(); }
  std::unique_ptr<IntfSlots> table(std::uint32_t maxSlots, bool local = false,
                                   const std::string& classType = "Owner") {
    return std::make_unique<IntfSlots>(handler_, path_, local, maxSlots, counters_, classType);
  }
  Copy sound() {
    auto made = table(100);
    made->attach(7);
    return Copy(*made->header());
  }
  std::string whyNot(const Copy& header, std::uint32_t size = 4096, std::uint32_t fenix = 7) {
    std::string message;
    return header.validate(size, fenix, message) ? "sound" : message;
  }

  RootPath path_{handler_, root_.table("t"), true};
  RawFile file_{path_.filePath("slots")};
  Quill::Writer::Counters counters_;
};

TEST_F(SlotWriterTableTest, ANewTableHolds97SlotsInOnePage) {
  const auto sut = table(1024);
  EXPECT_FALSE(sut->attach(7)) << "new, not re-formatted";
  EXPECT_EQ(sut->capacity(), 97U);
  EXPECT_EQ(file_.size(), 4096U);
  EXPECT_EQ(file_.bytes(0, 8), "QUILLSLT");
  EXPECT_EQ(file_.u32(8), 4U);
  EXPECT_EQ(file_.u32(12), 7U);
  EXPECT_STREQ(file_.bytes(16, 64).c_str(), "Ringward::Status::CounterIntf");
  EXPECT_STREQ(file_.bytes(80, 64).c_str(), "Owner");
  EXPECT_EQ(file_.u32(144), 20U);
  EXPECT_EQ(file_.u32(148), 40U);
  EXPECT_EQ(file_.u32(152), 1024U);
  EXPECT_EQ(file_.u32(160), 0U);
  EXPECT_EQ(file_.u32(164), 0U);
  EXPECT_EQ(file_.u32(168), 0U);
  EXPECT_EQ(file_.u32(172), 97U);
}

TEST_F(SlotWriterTableTest, TheSecondKindHasItsOwnSizes) {
  VlanSlots sut(handler_, path_, false, 1024, counters_, "Owner");
  sut.attach(7);
  EXPECT_EQ(sut.capacity(), 121U);
  EXPECT_EQ(file_.size(), 208U + 121U * 32U);
  EXPECT_EQ(file_.u32(144), 16U);
  EXPECT_EQ(file_.u32(148), 32U);
}

TEST_F(SlotWriterTableTest, FreshSlotsAreLinkedFromFirstToLast) {
  const auto sut = table(1024);
  sut->attach(7);
  for (std::uint32_t i = 0; i < 97; ++i) {
    const std::uint64_t slot = 216 + 40 * i;
    EXPECT_EQ(file_.u32(slot), 1U) << "version, raised by the free list";
    EXPECT_EQ(file_.u32(slot + 4), i == 96 ? kNoSlot : i + 1);
    EXPECT_EQ(file_.u32(slot + 8), kNoSlot);
    EXPECT_EQ(file_.u32(slot + 12), 0U);
    EXPECT_EQ(file_.bytes(slot + 16, 24), std::string(24, '\0'));
  }
  EXPECT_EQ(file_.u32(176), 0U) << "the look-aside slot is on no list";
  EXPECT_EQ(file_.u32(180), kNoSlot);
}

TEST_F(SlotWriterTableTest, ATableOf97GrowsAtThe98thInsertionByTheRuleOf1Point1) {
  const auto sut = table(97);
  sut->attach(7);
  for (std::uint32_t i = 0; i < 97; ++i) EXPECT_EQ(sut->alloc(), i);
  EXPECT_EQ(sut->capacity(), 97U);
  TraceText traces;
  EXPECT_EQ(sut->alloc(), 97U);
  // ceil(97 x 1.1) = 107 slots need 4,496 bytes; the second page has room for 92 more.
  EXPECT_EQ(sut->capacity(), 199U);
  EXPECT_EQ(file_.size(), 216U + 199U * 40U);
  EXPECT_EQ(file_.u32(168), 1U);
  EXPECT_EQ(file_.u32(172), 199U);
  EXPECT_EQ(file_.u32(164), 98U);
  EXPECT_TRUE(traces.has("SlotWriter::grow() " + path_.rootPath() + " from 97 slots to 199"));
  EXPECT_TRUE(traces.has("SlotWriter::grow() overflowing by 102 slots"));
}

TEST_F(SlotWriterTableTest, BelowItsSizeATableDoublesAndFillsTheLastPage) {
  const auto sut = table(1000);
  sut->attach(7);
  for (int i = 0; i < 98; ++i) sut->alloc();
  // 194 slots need 7,976 bytes: five more fit into the second page.
  EXPECT_EQ(sut->capacity(), 199U);
  EXPECT_EQ(IntfSlots::grownCount(199, 1000, 4096), 404U);
  EXPECT_EQ(IntfSlots::grownCount(900, 1000, 4096), 1018U) << "doubled at most to the size";
  EXPECT_EQ(IntfSlots::grownCount(1000, 1000, 4096), 1121U);
}

TEST_F(SlotWriterTableTest, TheFirstSizeHoldsAtLeastOneSlotWhateverThePage) {
  EXPECT_EQ(IntfSlots::firstCount(4096), 97U);
  EXPECT_EQ(IntfSlots::firstCount(65536), 1633U);
  EXPECT_EQ(IntfSlots::firstCount(256), 1U);
  EXPECT_EQ(IntfSlots::firstCount(100), 1U);
  EXPECT_EQ(IntfSlots::firstCount(296), 2U);
}

TEST_F(SlotWriterTableTest, GrowthKeepsEverythingAndCountsAMove) {
  const auto sut = table(97);
  sut->attach(7);
  const IntfRecord record = intfRecord("eth5", 5, 6, 7);
  sut->slots()[5].value.copyIn(&record);
  // Something right behind the region: it cannot grow in place.
  char* const behind =
      static_cast<char*>(const_cast<void*>(static_cast<const void*>(sut->header()))) + 4096;
  void* const block =
      mmap(behind, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  for (int i = 0; i < 98; ++i) sut->alloc();
  if (block != MAP_FAILED) munmap(block, 4096);
  IntfRecord back;
  sut->slots()[5].value.copyOut(&back);
  EXPECT_EQ(back, record);
  EXPECT_EQ(counters_.slotRemaps, 1U);
  EXPECT_EQ(counters_.slotsAllocated, 98U);
}

TEST_F(SlotWriterTableTest, NoMemoryToGrowLeavesTheTableWhole) {
  const auto sut = table(97);
  sut->attach(7);
  for (int i = 0; i < 97; ++i) sut->alloc();
  const std::string before = file_.all();
  struct rlimit limit {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  struct rlimit small = limit;
  small.rlim_cur = 4096;
  const auto signalBefore = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const std::string text = textOfRaised<Sable::MemoryResourceException>([&] { sut->alloc(); });
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, signalBefore);
  EXPECT_EQ(
      text,
      "SlotWriter::grow() failed to resize shared memory to size 8176 - the system may be out of "
      "memory.");
  EXPECT_EQ(file_.all(), before);
  EXPECT_EQ(sut->alloc(), 97U) << "and goes on when there is memory";
}

TEST_F(SlotWriterTableTest, AnotherFenixShrinksALargeFileToOnePageAndLosesEverything) {
  auto sut = table(97);
  sut->attach(7);
  for (int i = 0; i < 98; ++i) sut->alloc();
  sut->detach();
  EXPECT_EQ(sut->capacity(), 0U);
  TraceText traces;
  EXPECT_TRUE(sut->attach(8));
  EXPECT_TRUE(traces.has("SlotWriter::attach() resize from 8176 to 4096 bytes"));
  EXPECT_TRUE(traces.has("SlotWriter::attach() re-formatted "));
  EXPECT_EQ(file_.size(), 4096U);
  EXPECT_EQ(sut->capacity(), 97U);
  EXPECT_EQ(sut->occupiedSlots(), 0U);
}

TEST_F(SlotWriterTableTest, TheSameFenixKeepsTheSize) {
  auto sut = table(97);
  sut->attach(7);
  for (int i = 0; i < 98; ++i) sut->alloc();
  sut->detach();
  TraceText traces;
  EXPECT_FALSE(sut->attach(7));
  EXPECT_TRUE(traces.has("SlotWriter::attach() to existing "));
  EXPECT_EQ(sut->capacity(), 199U);
  EXPECT_EQ(sut->occupiedSlots(), 98U);
}

TEST_F(SlotWriterTableTest, ANameOf64CharactersIsRefusedAndOneOf63Passes) {
  EXPECT_EQ(
      textOfRaised<Sable::InvalidInitializeException>(
          [&] { table(97, true, std::string(64, 'c'))->attach(7); }),
      "SlotTable::Header() class typename: " + std::string(64, 'c') + " exceeds 64 characters");
  EXPECT_FALSE(table(97, true, std::string(63, 'c'))->attach(7));
}

struct LongName {
  static constexpr std::string_view kTypeName =
      "0123456789012345678901234567890123456789012345678901234567890123";
  Number key;
  friend bool operator==(const LongName&, const LongName&) = default;
};

TEST_F(SlotWriterTableTest, AValueTypesNameOf64CharactersIsRefused) {
  Quill::SlotWriterTable<LongName> sut(handler_, path_, true, 97, counters_, "");
  EXPECT_EQ(
      textOfRaised<Sable::InvalidInitializeException>([&] { sut.attach(7); }),
      "SlotTable::Header() value typename "
      "0123456789012345678901234567890123456789012345678901234567890123 exceeds 64 characters");
}

TEST_F(SlotWriterTableTest, AFileThatCannotBeMappedIsNamed) {
  std::filesystem::create_directory(path_.filePath("slots"));
  const auto sut = table(97);
  const std::string text = textOfRaised<Sable::InvalidInitializeException>([&] { sut->attach(7); });
  EXPECT_EQ(
      text.rfind(
          "SlotWriter::attach() cannot attach to shmem " + path_.filePath("slots") + " size:", 0),
      0U)
      << text;
  EXPECT_NE(text.find(": Is a directory"), std::string::npos) << text;
}

TEST_F(SlotWriterTableTest, AnIndexAboveTheHighestIsCorruption) {
  const auto sut = table(97, true);
  sut->attach(7);
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut->slots()[97]; }),
            "SlotWriter::Slots::operator[] out-of-range index: 97 max:96");
  sut->detach();
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut->slots()[0]; }),
            "SlotWriter::Slots::operator[] out-of-range index: 0 max:0");
}

TEST_F(SlotWriterTableTest, FreeSlotsNeedARangeAndAnEmptyList) {
  const auto sut = table(97, true);
  sut->attach(7);
  EXPECT_EQ(textOfRaised<RuntimeException>([&] { sut->addFreeSlots(5, 5); }),
            "SlotWriterTable::addFreeSlots() bad index range, start: 5 end: 5");
  EXPECT_EQ(textOfRaised<RuntimeException>([&] { sut->addFreeSlots(0, 5); }),
            "SlotWriterTable::addFreeSlots() free-list is not empty");
}

TEST_F(SlotWriterTableTest, AFreedSlotIsTheNextToBeUsed) {
  const auto sut = table(97);
  sut->attach(7);
  EXPECT_EQ(sut->alloc(), 0U);
  EXPECT_EQ(sut->alloc(), 1U);
  const std::uint32_t version = file_.u32(216);
  sut->free(0);
  EXPECT_EQ(file_.u32(216), version + 1);
  EXPECT_EQ(file_.u32(216 + 4), 2U);
  EXPECT_EQ(file_.u32(164), 0U);
  EXPECT_EQ(sut->occupiedSlots(), 1U);
  EXPECT_EQ(sut->alloc(), 0U);
}

// Each failing test has its text, and the first that fails speaks.
TEST_F(SlotWriterTableTest, HeadersAreCheckedInTheirOrder) {
  const Copy good = sound();
  EXPECT_EQ(whyNot(good), "sound");
  EXPECT_EQ(whyNot(good, 215),
            "SlotTable::Header::validate() bad header file size: 215 wanted:216");
  Copy bad = good;
  bad.magic = 0x1234;
  EXPECT_EQ(whyNot(bad), "SlotTable::Header::validate() bad magic: 1234");
  bad = good;
  bad.version = 5;
  EXPECT_EQ(whyNot(bad), "SlotTable::Header::validate() bad version: 5");
  EXPECT_EQ(whyNot(good, 4096, 8), "SlotTable::validate() bad fenix:7 wanted:8");
  bad = good;
  bad.maxSlots = 101;
  EXPECT_EQ(whyNot(bad),
            "SlotTable::Header::validate() checksum fail: " + std::to_string(bad.computedHash()) +
                " != " + std::to_string(bad.hash));
  bad = good;
  bad.occupiedSlots = 98;
  EXPECT_EQ(whyNot(bad), "SlotTable::Header::validate() bad occupiedSlots: 98 num slots: 0:97");
  bad = good;
  bad.freeSlots = 97;
  EXPECT_EQ(whyNot(bad), "SlotTable::Header::validate() bad freeSlots: 97 slots: 97");
  EXPECT_EQ(whyNot(good, 4095),
            "SlotTable::Header::validate() bad shmem size:4095 wanted:4096 for 97 slots");
  bad = good;
  bad.numSlots.value = 0xFFFFFFFE;
  EXPECT_EQ(
      whyNot(bad),
      "SlotTable::Header::validate() bad shmem size:4096 wanted:171798691976 for 4294967294 slots");
}

TEST_F(SlotWriterTableTest, FreeSlotsEqualToTheCountFailsAndOccupiedEqualToItPasses) {
  Copy header = sound();
  header.freeSlots = 97;
  EXPECT_EQ(whyNot(header), "SlotTable::Header::validate() bad freeSlots: 97 slots: 97");
  header.freeSlots = kNoSlot;
  header.occupiedSlots = 97;
  EXPECT_EQ(whyNot(header), "sound");
}

TEST_F(SlotWriterTableTest, AFenixOfZeroIsNotChecked) {
  Copy header = sound();
  header.fenix = 12345;
  EXPECT_EQ(whyNot(header, 4096, 0), "sound");
}

TEST_F(SlotWriterTableTest, TheChecksumIsTheSumOverTheConstantFields) {
  const Copy header = sound();
  const std::uint32_t sum =
      Quill::Util::hash(file_.bytes(16, 64)) + Quill::Util::hash(file_.bytes(80, 64)) +
      Quill::Util::hash(file_.bytes(144, 4)) + Quill::Util::hash(file_.bytes(148, 4)) +
      Quill::Util::hash(file_.bytes(152, 4));
  EXPECT_EQ(header.hash, sum);
}

}  // namespace QuillTest
