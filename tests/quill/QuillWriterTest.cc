// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillWriter.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

#include "tests/quill/WriterFixture.h"

namespace QuillTest {

using Quill::CorruptionDetectedException;
using Quill::IterHint;
using Quill::kNoSlot;
using Quill::QuillType;

class QuillWriterTest : public WriterTest {};

TEST_F(QuillWriterTest, WhatIsWrittenIsFoundUntilItIsRemoved) {
  const auto sut = writer();
  put(*sut, 5, 50);
  put(*sut, 1005, 60);
  EXPECT_EQ(get(*sut, 5), "50");
  EXPECT_EQ(get(*sut, 1005), "60");
  EXPECT_EQ(sut->members(), 2U);
  put(*sut, 5, 51);
  EXPECT_EQ(get(*sut, 5), "51");
  EXPECT_EQ(sut->members(), 2U);
  NumberRecord old;
  EXPECT_TRUE(sut->remove({5}, old));
  EXPECT_EQ(old.data, 51U);
  EXPECT_EQ(get(*sut, 5), "none");
  EXPECT_FALSE(sut->remove({5}, old));
  EXPECT_EQ(sut->members(), 1U);
}

TEST_F(QuillWriterTest, AMissAnswersTheAddressOfTheEmptyValue) {
  const auto sut = writer();
  bool found = true;
  const NumberRecord& first = sut->lookup({5}, found);
  EXPECT_FALSE(found);
  EXPECT_EQ(first, NumberRecord());
  const NumberRecord& second = sut->lookup({6}, found);
  EXPECT_EQ(&first, &second);
}

TEST_F(QuillWriterTest, WritingAnExistingKeyWithoutOverwriteChangesNoByte) {
  const auto sut = writer();
  put(*sut, 5, 50);
  const std::string before = allFiles();
  const std::uint64_t sequence = sut->sequence();
  const NumberRecord* const stored = sut->write({{5}, 99}, false);
  EXPECT_EQ(stored->data, 50U);
  EXPECT_EQ(allFiles(), before);
  EXPECT_EQ(sut->sequence(), sequence);
}

TEST_F(QuillWriterTest, WritingANewKeyWithoutOverwriteInserts) {
  const auto sut = writer();
  EXPECT_EQ(sut->write({{5}, 50}, false)->data, 50U);
  EXPECT_EQ(get(*sut, 5), "50");
}

TEST_F(QuillWriterTest, TwoWritesRaiseTheCountByOneEachAndLeaveLookasideClear) {
  const auto sut = writer();
  put(*sut, 5, 50);
  EXPECT_EQ(flagsOf(0), 1U | 1U << 2);
  put(*sut, 5, 51);
  EXPECT_EQ(flagsOf(0), 1U | 2U << 2);
  put(*sut, 5, 52);
  EXPECT_EQ(flagsOf(0), 1U | 3U << 2);
  EXPECT_EQ(file("slots").u32(176 + 16 + 4), 52U) << "the last update went by way of lookaside";
}

TEST_F(QuillWriterTest, ARemovalClearsOccupiedAndLeavesTheCountAndTheBytes) {
  const auto sut = writer();
  put(*sut, 5, 50);
  put(*sut, 5, 51);
  const std::uint32_t flags = flagsOf(0);
  EXPECT_TRUE(del(*sut, 5));
  EXPECT_EQ(flagsOf(0), flags & ~1U);
  EXPECT_EQ(file("slots").u32(slotAt(0) + 16), 5U);
  EXPECT_EQ(file("slots").u32(slotAt(0) + 20), 51U);
  EXPECT_EQ(file("slots").u32(164), 0U) << "and heads the free list";
}

TEST_F(QuillWriterTest, EveryChangeOfALinkRaisesItsVersion) {
  const auto sut = writer();
  const std::uint64_t head = 24;  // of bucket 0
  put(*sut, 5, 0);
  EXPECT_EQ(file("buckets").u64(head), 0x0000000000000001U);
  put(*sut, 3, 0);
  EXPECT_EQ(file("buckets").u64(head), 0x0000000100000002U);
  del(*sut, 3);
  EXPECT_EQ(file("buckets").u64(head), 0x0000000000000003U);
  del(*sut, 5);
  EXPECT_EQ(file("buckets").u64(head), 0xFFFFFFFF00000004U) << "never reset";
}

TEST_F(QuillWriterTest, AHeadsVersionWrapsAt32Bits) {
  auto sut = writer();
  file("buckets").u64Is(24, 0xFFFFFFFFFFFFFFFF);
  put(*sut, 5, 50);
  EXPECT_EQ(file("buckets").u64(24), 0x0000000000000000U);
  EXPECT_EQ(get(*sut, 5), "50");
}

TEST_F(QuillWriterTest, ChainsAreSortedAndIterationFollowsBucketsAndKeys) {
  const auto sut = writer();
  for (const std::uint32_t key : {7U, 3U, 2001U, 5U, 1000U, 2000U}) put(*sut, key, key);
  EXPECT_EQ(keys(*sut), "3 5 7 1000 2000 2001 ");
}

TEST_F(QuillWriterTest, IterationOverNothingAnswersFalse) {
  const auto sut = writer();
  EXPECT_EQ(keys(*sut), "");
}

TEST_F(QuillWriterTest, NextGoesOnFromAKeyThatHasBeenRemoved) {
  const auto sut = writer();
  for (const std::uint32_t key : {3U, 5U, 7U, 1000U}) put(*sut, key, key);
  NumberRecord record;
  IterHint hint;
  ASSERT_TRUE(sut->first(record, hint));
  ASSERT_TRUE(sut->next(record.key, record, hint));
  EXPECT_EQ(record.key.value, 5U);
  EXPECT_TRUE(del(*sut, 5));
  ASSERT_TRUE(sut->next(record.key, record, hint));
  EXPECT_EQ(record.key.value, 7U);
  EXPECT_TRUE(del(*sut, 7));
  ASSERT_TRUE(sut->next(record.key, record, hint));
  EXPECT_EQ(record.key.value, 1000U);
  EXPECT_FALSE(sut->next(record.key, record, hint));
}

TEST_F(QuillWriterTest, AHintToASlotThatWasUsedAgainDoesNoHarm) {
  const auto sut = writer();
  for (const std::uint32_t key : {3U, 1005U, 1007U}) put(*sut, key, key);
  NumberRecord record;
  IterHint hint;
  ASSERT_TRUE(sut->first(record, hint));
  del(*sut, 3);
  put(*sut, 1003, 0);  // in the slot of 3, in another chain
  ASSERT_TRUE(sut->next({1003}, record, hint));
  EXPECT_EQ(record.key.value, 1005U);
}

TEST_F(QuillWriterTest, ADetachedWriterIsNotSound) {
  const auto sut = newWriter();
  TraceText traces;
  EXPECT_FALSE(sut->validate());
  EXPECT_TRUE(traces.has("validation failed: the table is not attached"));
}

TEST_F(QuillWriterTest, ALocalTableHasNoFilesToCheck) {
  const auto sut = newWriter(100, true);
  ASSERT_TRUE(sut->initialize());
  EXPECT_TRUE(sut->validateFiles());
  EXPECT_TRUE(sut->validate());
}

TEST_F(QuillWriterTest, AnInventedHintDoesNoHarm) {
  const auto sut = writer();
  for (const std::uint32_t key : {3U, 5U, 1000U}) put(*sut, key, key);
  for (const IterHint invented :
       {IterHint{}, IterHint{0, 7}, IterHint{90, 0}, IterHint{1, 0xFFFF}}) {
    IterHint hint = invented;
    NumberRecord record;
    ASSERT_TRUE(sut->next({4}, record, hint)) << hint;
    EXPECT_EQ(record.key.value, 5U);
  }
}

TEST_F(QuillWriterTest, AnInsertionThatRemapsKeepsItsLinkWhetherHeadOrSlot) {
  for (const bool head : {true, false}) {
    const auto sut = newWriter(10, true);
    ASSERT_TRUE(sut->initialize());
    const unsigned capacity = sut->capacity();
    for (std::uint32_t i = 0; i < capacity; ++i) put(*sut, 2 * i, i);
    // Something right behind the region: it has to move.
    const auto* base = reinterpret_cast<const char*>(sut->write({{0}, 0}, true)) - kHeader - 16;
    void* const behind = const_cast<char*>(base) + Mem::pageSize_;
    void* const block = mmap(behind, Mem::pageSize_, PROT_NONE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    const std::uint32_t key = head ? 5000 : 2 * capacity - 3;
    put(*sut, key, 77);
    if (block != MAP_FAILED) munmap(block, Mem::pageSize_);
    EXPECT_EQ(sut->writerCounters().slotRemaps, 1U);
    EXPECT_EQ(get(*sut, key), "77");
    for (std::uint32_t i = 1; i < capacity; ++i) EXPECT_EQ(get(*sut, 2 * i), std::to_string(i));
    EXPECT_TRUE(sut->validate());
  }
}

TEST_F(QuillWriterTest, ADirectWriteIsInvisibleUntilItsCommit) {
  const auto sut = writer();
  put(*sut, 5, 50);
  const std::uint64_t sequence = sut->sequence();
  const Quill::DirectTarget target = sut->directWrite({5});
  EXPECT_EQ(target.slot, 0U);
  EXPECT_EQ(file("slots").u32(176 + 16), 5U) << "the key in lookaside";
  EXPECT_EQ(file("slots").u32(176 + 20), 0U) << "the rest zero";
  const NumberRecord record{{5}, 51};
  Mem::Atomics::copyIn(target.address, &record, sizeof record);
  EXPECT_EQ(get(*sut, 5), "50");
  EXPECT_EQ(flagsOf(0), 5U);
  EXPECT_EQ(sut->sequence(), sequence);
  sut->directCommit();
  EXPECT_EQ(get(*sut, 5), "51");
  EXPECT_EQ(flagsOf(0), 9U);
  EXPECT_EQ(sut->sequence(), sequence + 1);
}

TEST_F(QuillWriterTest, ADirectWriteOfANewKeyIsLinkedAtItsCommit) {
  const auto sut = writer();
  put(*sut, 7, 70);
  const Quill::DirectTarget target = sut->directWrite({5});
  EXPECT_EQ(target.slot, 1U);
  EXPECT_EQ(get(*sut, 5), "none");
  EXPECT_EQ(keys(*sut), "7 ");
  sut->directCommit();
  EXPECT_EQ(get(*sut, 5), "0");
  EXPECT_EQ(flagsOf(1), 5U);
  EXPECT_EQ(keys(*sut), "5 7 ");
  EXPECT_TRUE(sut->validate());
  const auto counters = sut->writerCounters();
  EXPECT_EQ(counters.directWrites, 1U);
  EXPECT_EQ(counters.directCommits, 1U);
}

TEST_F(QuillWriterTest, WhileADirectWriteIsOpenNothingElseMayChange) {
  const auto sut = writer();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->directCommit(); }),
            "QuillWriter::directCommit() no direct write is open");
  sut->directWrite({5});
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { put(*sut, 6, 0); }),
            "QuillWriter::write() while a direct write of slot 0 is open");
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { del(*sut, 6); }),
            "QuillWriter::remove() while a direct write of slot 0 is open");
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->directWrite({6}); }),
            "QuillWriter::directWrite() while a direct write of slot 0 is open");
  sut->directCommit();
  EXPECT_EQ(get(*sut, 5), "0");
}

TEST_F(QuillWriterTest, ADirectWriteThatIsNeverCommittedCostsNothing) {
  auto sut = writer();
  put(*sut, 7, 70);
  sut->directWrite({5});
  sut.reset();
  TraceText traces;
  sut = writer();
  EXPECT_FALSE(traces.has(" will be lost"));
  EXPECT_EQ(keys(*sut), "7 ");
}

TEST_F(QuillWriterTest, DamageMetByAnOperationIsNamedAndTheTableLeftAsItIs) {
  const auto sut = writer();
  put(*sut, 5, 50);
  put(*sut, 7, 70);
  NumberRecord record;
  IterHint hint;
  const auto texts = [&](auto&& damage, auto&& repair) {
    damage();
    const std::string before = allFiles();
    std::string all = textOfRaised<CorruptionDetectedException>([&] { put(*sut, 8, 0); }) + "\n" +
                      textOfRaised<CorruptionDetectedException>([&] { get(*sut, 8); }) + "\n" +
                      textOfRaised<CorruptionDetectedException>([&] {
                        hint = {};
                        sut->next({6}, record, hint);
                      });
    EXPECT_EQ(allFiles(), before);
    repair();
    return all;
  };
  const RawFile slots = file("slots");
  const std::uint64_t link = slots.u64(slotAt(0));
  EXPECT_EQ(texts([&] { slots.u32Is(slotAt(1) + 12, 4); }, [&] { slots.u32Is(slotAt(1) + 12, 5); }),
            "QuillWriter::find() slot: 1 not marked as occupied\n"
            "QuillWriter::lookup() slot: 1 not marked as occupied\n"
            "QuillWriter::lookup() slot: 1 not marked as occupied");
  EXPECT_EQ(
      texts([&] { slots.u32Is(slotAt(1) + 16, 1007); }, [&] { slots.u32Is(slotAt(1) + 16, 7); }),
      "QuillWriter::find() corrupt key detected, slot: 1\n"
      "QuillWriter::lookup() corrupt key detected, slot: 1\n"
      "QuillWriter::find() corrupt key detected, slot: 1");
  EXPECT_EQ(texts([&] { slots.u32Is(slotAt(0) + 4, 0); }, [&] { slots.u64Is(slotAt(0), link); }),
            "QuillWriter::find() hash chain cycle detected, slotCount:163 capacity:162\n"
            "QuillWriter::lookup() hash chain cycle detected, slotCount:163 capacity:162\n"
            "QuillWriter::next() hash chain cycle detected, slotCount:163 capacity:162");
  EXPECT_EQ(texts([&] { slots.u32Is(slotAt(0) + 4, 162); }, [&] { slots.u64Is(slotAt(0), link); }),
            "SlotWriter::Slots::operator[] out-of-range index: 162 max:161\n"
            "SlotWriter::Slots::operator[] out-of-range index: 162 max:161\n"
            "SlotWriter::Slots::operator[] out-of-range index: 162 max:161");
  EXPECT_EQ(keys(*sut), "5 7 ");
}

TEST_F(QuillWriterTest, DamageMetByFirstIsNamed) {
  const auto sut = writer();
  put(*sut, 1005, 50);
  NumberRecord record;
  IterHint hint;
  file("slots").u32Is(slotAt(0) + 12, 4);
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut->first(record, hint); }),
            "QuillWriter::first() slot: 0 from bucket: 1 not marked as occupied");
  file("slots").u32Is(slotAt(0) + 12, 5);
  file("slots").u32Is(slotAt(0) + 16, 5);
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut->first(record, hint); }),
            "QuillWriter::first() corrupt key detected, slot: 0");
}

TEST_F(QuillWriterTest, AFileThatShrinksUnderTheWriterIsAnError) {
  const auto sut = writer(10);
  put(*sut, 5, 50);
  std::filesystem::resize_file(name_ + "/slots", 0);
  const std::string text = textOfRaised<CorruptionDetectedException>([&] {
    for (std::uint32_t key = 0; key < 10; ++key) put(*sut, key, key);
  });
  EXPECT_NE(text, "nothing raised");
}

TEST_F(QuillWriterTest, SizesAreThoseOfTheTable) {
  const auto sut = writer(1000);
  EXPECT_EQ(sut->maxSize(), 1000U);
  EXPECT_EQ(sut->capacity(), 162U);
  EXPECT_EQ(sut->members(), 0U);
  EXPECT_EQ(sut->type(), QuillType::writer);
  EXPECT_EQ(sut->mountStatus(), 1U);
  EXPECT_EQ(sut->rootPath(), name_);
  EXPECT_EQ(sut->quillName(), "t");
  EXPECT_EQ(sut->fenixId(), Quill::FenixFile::read(handler_, name_));
}

TEST_F(QuillWriterTest, WhatOnlyReadersHaveIsNotTheWriters) {
  const auto sut = writer();
  EXPECT_FALSE(sut->resize());
  EXPECT_EQ(textOfRaised<Sable::UnimplementedException>([&] { sut->readerCounters(); }),
            "readerCounters() not implemented");
  put(*sut, 5, 50);
  bool found = false;
  EXPECT_EQ(sut->directLookup({5}, found).data, 50U);
  EXPECT_TRUE(found);
}

TEST_F(QuillWriterTest, ALocalTableHasNoFilesAndIsNeverMounted) {
  const auto sut = newWriter(100, true);
  ASSERT_TRUE(sut->initialize());
  put(*sut, 5, 50);
  EXPECT_EQ(get(*sut, 5), "50");
  EXPECT_EQ(sut->mountStatus(), 0U);
  EXPECT_EQ(sut->fenixId(), static_cast<unsigned>(getpid()));
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
  sut->detach();
  ASSERT_TRUE(sut->initialize());
  EXPECT_EQ(keys(*sut), "") << "memory of its own begins anew";
}

TEST_F(QuillWriterTest, InitializingTwiceIsOnce) {
  const auto sut = writer();
  put(*sut, 5, 50);
  EXPECT_TRUE(sut->initialize());
  EXPECT_EQ(get(*sut, 5), "50");
}

TEST_F(QuillWriterTest, ASecondWriterIsToldWhoOwnsTheTable) {
  const auto sut = writer();
  const auto second = newWriter();
  const std::string text =
      textOfRaised<Sable::InvalidInitializeException>([&] { second->initialize(); });
  EXPECT_EQ(text, "WriterKickSm::createKickSocket() " + name_ +
                      " is owned by quill_tests:" + std::to_string(getpid()));
  put(*sut, 5, 50);
  EXPECT_EQ(get(*sut, 5), "50");
}

TEST_F(QuillWriterTest, ADetachedWriterMayBeInitializedAgain) {
  const auto sut = writer();
  put(*sut, 5, 50);
  sut->detach();
  EXPECT_EQ(sut->mountStatus(), 0U);
  EXPECT_EQ(sut->members(), 0U);
  ASSERT_TRUE(sut->initialize());
  EXPECT_EQ(get(*sut, 5), "50");
  EXPECT_EQ(sut->sequence(), 1U);
}

TEST_F(QuillWriterTest, CleanupRemovesTheFilesAndTheDirectory) {
  const auto sut = writer();
  put(*sut, 5, 50);
  sut->detach();
  TraceText traces;
  sut->cleanup();
  EXPECT_TRUE(traces.has("QuillWriter::cleanup() removing Quill files " + name_));
  EXPECT_FALSE(std::filesystem::exists(name_));
  sut->cleanup();
}

TEST_F(QuillWriterTest, CleanupOfAnAttachedTableUsesTheLockThatIsHeldAndKeepsIt) {
  const auto sut = writer();
  TraceText traces;
  sut->cleanup();
  EXPECT_FALSE(traces.has("Util::AutoLock lock: "));
  EXPECT_FALSE(traces.has("Util::~AutoLock releasing lock: "));
  EXPECT_FALSE(std::filesystem::exists(name_));
  put(*sut, 5, 50);
  EXPECT_EQ(get(*sut, 5), "50") << "the mapping lives on";
  sut->detach();
}

TEST_F(QuillWriterTest, CleanupIsRefusedWhileAnotherWriterLives) {
  const auto owner = writer();
  const auto other = newWriter();
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { other->cleanup(); }),
            "table " + name_ + " is owned by quill_tests:" + std::to_string(getpid()));
  EXPECT_TRUE(std::filesystem::exists(name_ + "/slots"));
}

TEST_F(QuillWriterTest, ValidateFilesClearsAReadersComplaintAndNamesWhatIsMissing) {
  const auto sut = writer();
  Quill::Util::writeCorruptionFile(handler_, name_, "something");
  EXPECT_TRUE(sut->validateFiles());
  EXPECT_FALSE(std::filesystem::exists(name_ + "/corruption-detected"));
  const auto missing = [&](const char* name) {
    const std::string path = name_ + "/" + name;
    std::filesystem::rename(path, path + ".away");
    std::string text = textOfRaised<CorruptionDetectedException>([&] { sut->validateFiles(); });
    std::filesystem::rename(path + ".away", path);
    return text;
  };
  EXPECT_EQ(missing("buckets"),
            "ValidatorBase::validateFile() wrong size " + name_ + "/buckets size:0 expected:4096");
  EXPECT_EQ(missing("slots"),
            "ValidatorBase::validateFile() wrong size " + name_ + "/slots size:0 expected:4088");
  EXPECT_EQ(missing("conquer.1"), "ConquerWriter::validateFile(): conquer.1 validation failed");
  EXPECT_EQ(missing("conquer.2"), "ConquerWriter::validateFile(): conquer.2 validation failed");
  EXPECT_NE(missing("kick"), "nothing raised");
  EXPECT_NE(missing("fenix"), "nothing raised");
  EXPECT_TRUE(sut->validateFiles());
}

TEST_F(QuillWriterTest, TheTwoKindsOfCountersStandInTheirFiles) {
  IntfWriter sut(handler_, root_.table("intf").c_str(), 97, false, "Owner");
  ASSERT_TRUE(sut.initialize());
  for (int i = 0; i < 97; ++i) sut.write(intfRecord("eth" + std::to_string(i), 1, 2, 3), true);
  EXPECT_EQ(sut.capacity(), 97U);
  sut.write(intfRecord("eth97", 1), true);
  EXPECT_EQ(sut.capacity(), 199U);
  EXPECT_EQ(sut.members(), 98U);
  EXPECT_TRUE(sut.validate());
}

}  // namespace QuillTest
