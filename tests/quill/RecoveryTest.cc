// SPDX-License-Identifier: Apache-2.0
//
// What a writer finds when it comes back: the check of a table and the attach that rests on it.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "quill/Validator.h"
#include "tests/quill/WriterFixture.h"

namespace QuillTest {

using Quill::kNoSlot;

class Recovery : public WriterTest {
 protected:
  // A table with 5, 7 and 1005 in it and 6 removed, left by its writer.
  void leaveTable() {
    const auto before = writer();
    for (const std::uint32_t key : {5U, 6U, 7U, 1005U}) put(*before, key, key * 10);
    del(*before, 6);
    fenix_ = before->fenixId();
  }
  // The first thing that the check finds wrong after `damage`, and that the table is then given up.
  std::string foundAfter(const std::function<void()>& damage) {
    leaveTable();
    damage();
    TraceText traces;
    const auto sut = writer();
    const std::string all = traces.text();
    EXPECT_EQ(keys(*sut), "");
    EXPECT_EQ(sut->fenixId(), fenix_ + 1);
    EXPECT_TRUE(
        traces.has("QuillWriter::attach() failed, all entries from " + name_ + " will be lost"));
    EXPECT_TRUE(traces.has("QuillWriter::attach(): re-formatted successfully"));
    sut->detach();
    sut->cleanup();
    const std::string intro = "Validator::validate() Quill " + name_ + " validation failed: ";
    const std::size_t at = all.find(intro);
    if (at == std::string::npos) return "nothing found";
    return all.substr(at + intro.size(), all.find('\n', at) - at - intro.size());
  }

  std::uint32_t fenix_ = 0;
};

TEST_F(Recovery, LookasideOnAFreeSlotDoesNotStayWithItsNextUse) {
  leaveTable();
  file("slots").u32Is(slotAt(1) + 12, 2);  // 6 was here
  const auto sut = writer();
  EXPECT_EQ(sut->fenixId(), fenix_);
  put(*sut, 6, 60);
  EXPECT_EQ(file("slots").u32(slotAt(1) + 12) & 3U, 1U);
  del(*sut, 6);
  sut->detach();
  file("slots").u32Is(slotAt(1) + 12, 2);
  const auto again = writer();
  again->directWrite({6});
  again->directCommit();
  EXPECT_EQ(file("slots").u32(slotAt(1) + 12) & 3U, 1U);
}

TEST_F(Recovery, AnEmptyNewTablePassesWithSequenceZero) {
  TraceText traces;
  const auto sut = writer();
  EXPECT_FALSE(traces.has(" will be lost"));
  EXPECT_TRUE(traces.has("QuillWriter::attach() success " + name_ +
                         " capacity: 162 fenixId: " + std::to_string(sut->fenixId())));
  EXPECT_EQ(sut->sequence(), 0U);
  EXPECT_TRUE(sut->validate());
}

TEST_F(Recovery, FilesOfTheirOwnFenixAreTakenOverWhole) {
  leaveTable();
  const std::string before = allFiles();
  TraceText traces;
  const auto sut = writer();
  EXPECT_FALSE(traces.has(" will be lost"));
  EXPECT_EQ(allFiles(), before);
  EXPECT_EQ(keys(*sut), "5 7 1005 ");
  EXPECT_EQ(get(*sut, 7), "70");
  EXPECT_EQ(sut->fenixId(), fenix_);
  EXPECT_EQ(sut->sequence(), 5U) << "that of the last entry";
  put(*sut, 8, 80);
  EXPECT_EQ(sut->sequence(), 6U);
  EXPECT_TRUE(sut->validate());
}

TEST_F(Recovery, ANotificationForARemovedSlotPassesBothWalks) {
  leaveTable();
  EXPECT_NE(conquerSlotOf(1), kNoSlot) << "slot 1 held 6 and is free now";
  EXPECT_TRUE(writer()->validate());
}

TEST_F(Recovery, AWriterKilledInsideAWriteLeavesLookasideSetAndTheTableIsGivenUp) {
  EXPECT_EQ(foundAfter([&] { file("slots").u32Is(slotAt(0) + 12, flagsOf(0) + 2); }),
            "Validator::markOccupied() stuck LOOKASIDE bit: 0x7");
}

TEST_F(Recovery, WithoutConquer2WhileConquer1IsCurrentNothingIsLost) {
  leaveTable();
  std::filesystem::remove(name_ + "/conquer.2");
  TraceText traces;
  const auto sut = writer();
  EXPECT_FALSE(traces.has(" will be lost"));
  EXPECT_EQ(keys(*sut), "5 7 1005 ");
  EXPECT_TRUE(std::filesystem::exists(name_ + "/conquer.2"));
}

TEST_F(Recovery, WithoutConquer2WhileItIsCurrentTheTableIsGivenUp) {
  const auto loseCurrent = [&](std::uint32_t formerReaders) {
    file("conquer.1").u32Is(24, formerReaders);
    const auto more = writer();
    for (std::uint32_t i = 0; i < 400; ++i) put(*more, 5, i);
    ASSERT_EQ(file("conquer.1").u32(36), 1U);
    more->detach();
    std::filesystem::remove(name_ + "/conquer.2");
  };
  EXPECT_EQ(foundAfter([&] { loseCurrent(1); }),
            "Validator::markOccupied() slot:0 bad conquer index:72 size:0")
      << "waiting for a reader, nothing was pruned";
  EXPECT_EQ(foundAfter([&] { loseCurrent(0); }), "ConquerWriter::validate() minSeq:336 sequence:0");
}

TEST_F(Recovery, TheFenixOfBucketsAloneLeadsToAReFormatOfAllFour) {
  leaveTable();
  file("buckets").u32Is(12, 99);
  TraceText traces;
  const auto sut = writer();
  EXPECT_EQ(sut->fenixId(), fenix_ + 1);
  EXPECT_EQ(keys(*sut), "");
  for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
    EXPECT_EQ(file(name).u32(12), fenix_ + 1) << name;
  }
  EXPECT_EQ(Quill::FenixFile::read(handler_, name_), fenix_ + 1);
}

TEST_F(Recovery, AFenixIdNeverBecomesZero) {
  {
    const auto before = writer();
    before->detach();
    before->cleanup();
  }
  std::filesystem::create_directories(name_);
  Quill::FenixFile::write(handler_, name_, 0xFFFFFFFF);
  {
    const auto first = writer();
    EXPECT_EQ(first->fenixId(), 0xFFFFFFFFU);
  }
  file("buckets").u32Is(12, 99);
  EXPECT_EQ(writer()->fenixId(), 1U);
}

TEST_F(Recovery, AFreshIdIsNoneOfThoseInTheFilesThatLostTheirFenix) {
  leaveTable();
  // Ids are given out in turn: the next two are those of files that are here.
  std::filesystem::remove(name_ + "/fenix");
  for (const char* const name : {"slots", "buckets"}) file(name).u32Is(12, fenix_ + 1);
  for (const char* const name : {"conquer.1", "conquer.2"}) file(name).u32Is(12, fenix_ + 2);
  const auto sut = writer();
  EXPECT_EQ(keys(*sut), "") << "files without fenix are given up";
  EXPECT_NE(sut->fenixId(), fenix_);
  EXPECT_NE(sut->fenixId(), fenix_ + 1);
  EXPECT_NE(sut->fenixId(), fenix_ + 2);
  EXPECT_EQ(Quill::FenixFile::read(handler_, name_), sut->fenixId());
}

TEST_F(Recovery, SoundFilesUnderTheNextFreshIdAreGivenUpAllTheSame) {
  leaveTable();
  std::filesystem::remove(name_ + "/fenix");
  for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
    file(name).u32Is(12, fenix_ + 1);
  }
  EXPECT_EQ(keys(*writer()), "");
}

TEST_F(Recovery, ADirectoryInPlaceOfConquer2LeavesFenixAndTheTableAlone) {
  leaveTable();
  std::filesystem::remove(name_ + "/conquer.2");
  std::filesystem::create_directory(name_ + "/conquer.2");
  const auto others = [this] {
    return file("slots").all() + file("buckets").all() + file("conquer.1").all();
  };
  const std::string before = others();
  EXPECT_THROW(newWriter()->initialize(), Sable::Exception);
  EXPECT_EQ(Quill::FenixFile::read(handler_, name_), fenix_);
  EXPECT_EQ(others(), before);
  EXPECT_EQ(Quill::FenixFile::idsIn(name_), (std::vector<unsigned>{fenix_, fenix_, fenix_}));
  std::filesystem::remove(name_ + "/conquer.2");
  const auto sut = writer();
  EXPECT_EQ(sut->fenixId(), fenix_);
  EXPECT_EQ(keys(*sut), "5 7 1005 ");
}

TEST_F(Recovery, OccupiedSlotsOffByOneIsFound) {
  EXPECT_EQ(foundAfter([&] { file("slots").u32Is(160, 4); }),
            "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:4 count:3");
}

// Slots: 0 holds 5, 1 is free, 2 holds 7, 3 holds 1005. Queue: 5, -, 7, 1005, slot 1.
TEST_F(Recovery, EveryKindOfDamageHasItsText) {
  const auto slots = [&] { return file("slots"); };
  const auto queue = [&] { return file("conquer.1"); };
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(0) + 12, 4); }),
            "QuillWriter::first() slot: 0 from bucket: 0 not marked as occupied");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(2) + 12, 4); }),
            "QuillWriter::find() slot: 2 not marked as occupied");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(2) + 4, 0); }),
            "Validator::markOccupied() duplicate slot: 0");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(0) + 8, 9); }),
            "Validator::markOccupied() slot:0 bad conquer index:9 size:5");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(0) + 8, 2); }),
            "Validator::markOccupied() slot:0 bad notification:2 slot:2");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(164, 2); }),
            "Validator::walkFreeSlots() corrupted free slot not marked as empty: 2");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(1) + 4, 163); }),
            "Validator::walkFreeSlots() corrupted free slot detected with out of bound index: 163");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(1) + 4, 162); }),
            "SlotWriter::Slots::operator[] out-of-range index: 162 max:161");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(5) + 4, 1); }),
            "Validator::walkFreeSlots() duplicate freeSlot detected: 1");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(1) + 8, 5); }),
            "Validator::walkFreeSlots() slot index:1 has out of range conquer slot: 5");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(1) + 8, 2); }),
            "Validator::walkFreeSlots() slot index:1 has slot:2 with wrong conquer slot:2");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(5) + 4, kNoSlot); }),
            "Validator::doValidate() bad slotCount:6 occupiedSlots:3 freeSlots:3");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(0) + 8, kNoSlot); }),
            "Validator::doValidate() occupied slot:0 on deleted notification:0");
  EXPECT_EQ(foundAfter([&] { queue().u32Is(52 + 8, kNoSlot); }),
            "Validator::markOccupied() slot:0 bad notification:0 slot:4294967295");
  EXPECT_EQ(foundAfter([&] { queue().u32Is(52 + 12 + 8, 0); }),
            "Validator::doValidate() occupied slot:0 on deleted notification:1");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(slotAt(1) + 8, kNoSlot); }),
            "Validator::doValidate() conquer pos:4 has slot:1 with wrong conquerSlot:4294967295");
  EXPECT_EQ(foundAfter([&] { queue().u32Is(48, 337); }),
            "ConquerWriter::validate() table->currentPos:337 out of range: 336");
  EXPECT_EQ(foundAfter([&] { queue().u64Is(52, 0); }),
            "ConquerWriter::validate() pos:0 prevSeq:0 bad order: 0");
  EXPECT_EQ(foundAfter([&] { queue().u64Is(52 + 24, 2); }),
            "ConquerWriter::validate() pos:2 prevSeq:2 bad order: 2");
  EXPECT_EQ(foundAfter([&] { queue().u64Is(52 + 48, 0xFFFFFFFFFFFFFFFF); }),
            "ConquerWriter::validate() pos:4 sequence:18446744073709551615");
  EXPECT_EQ(foundAfter([&] { queue().u64Is(16, 6); }),
            "ConquerWriter::validate() minSeq:6 sequence:5");
  EXPECT_EQ(foundAfter([&] { slots().u32Is(152, 5); }).substr(0, 45),
            "SlotTable::Header::validate() checksum fail: ");
  EXPECT_EQ(foundAfter([&] { queue().u32Is(36, 2); }), "ConquerTable::validate() bad tableId:2");
}

// Nothing that stands in the files may end the process, whatever it costs the table.
TEST_F(Recovery, FilesOfAnyLengthAndContentsAreTakenOverOrGivenUp) {
  for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
    for (const std::size_t size : {0U, 1U, 15U, 16U, 55U, 100U, 199U, 215U, 4087U, 5000U}) {
      leaveTable();
      std::filesystem::resize_file(name_ + "/" + name, size);
      const auto sut = writer();
      put(*sut, 9, 90);
      EXPECT_EQ(get(*sut, 9), "90") << name << " " << size;
      EXPECT_TRUE(sut->validate()) << name << " " << size;
    }
  }
  for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
    for (std::uint64_t offset = 16; offset < 240; offset += 4) {
      leaveTable();
      file(name).u32Is(offset, 0xFFFFFFFF);
      const auto sut = writer();
      put(*sut, 9, 90);
      EXPECT_EQ(get(*sut, 9), "90") << name << " " << offset;
    }
  }
}

}  // namespace QuillTest
