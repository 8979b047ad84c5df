// SPDX-License-Identifier: Apache-2.0
#include "quill/ConquerWriter.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <vector>

#include "tests/quill/KickPeer.h"
#include "tests/quill/WriterFixture.h"

namespace QuillTest {

using Quill::Conquer;
using Quill::CorruptionDetectedException;
using Quill::kNoSlot;
using Writer = Quill::ConquerWriter<NumberRecord>;

class ConquerWriterTest : public WriterTest {
 protected:
  // The entry at `pos` of a queue file: sequence and slot.
  std::pair<std::uint64_t, std::uint32_t> entry(const char* name, std::uint32_t pos) const {
    const RawFile raw = file(name);
    const std::uint64_t at = 52 + 12 * pos;
    return {raw.u64(at), raw.u32(at + 8)};
  }
  std::uint32_t currentPos(const char* name) const { return file(name).u32(48); }
  std::uint32_t capacity(const char* name) const { return file(name).u32(44); }
  std::uint64_t minSeq() const { return file("conquer.1").u64(16); }
  // Version and id of the current table.
  std::pair<std::uint32_t, std::uint32_t> currentTable() const {
    return {file("conquer.1").u32(32), file("conquer.1").u32(36)};
  }
};

TEST_F(ConquerWriterTest, ANewTableHas336EntriesIn4088Bytes) {
  const auto sut = writer();
  EXPECT_EQ(Writer::firstCount(4096), 336U);
  for (const char* const name : {"conquer.1", "conquer.2"}) {
    EXPECT_EQ(file(name).size(), 4088U);
    EXPECT_EQ(file(name).bytes(0, 8), "QUILLCQR");
    EXPECT_EQ(file(name).u32(8), 6U);
    EXPECT_EQ(file(name).u32(12), sut->fenixId());
    EXPECT_EQ(file(name).u64(16), 0U);
    EXPECT_EQ(file(name).u32(24), 0U);
    EXPECT_EQ(file(name).u64(32), 0U);
    EXPECT_EQ(file(name).u32(40), 1U) << "the version of the capacity starts at 1";
    EXPECT_EQ(capacity(name), 336U);
    EXPECT_EQ(currentPos(name), 0U) << "legal, with no first sequence";
  }
}

TEST_F(ConquerWriterTest, EveryChangeIsOneEntryAndTheOlderOneOfItsSlotATombstone) {
  const auto sut = writer();
  put(*sut, 5, 50);
  put(*sut, 7, 70);
  put(*sut, 5, 51);
  EXPECT_EQ(entry("conquer.1", 0), std::pair(std::uint64_t{1}, kNoSlot));
  EXPECT_EQ(entry("conquer.1", 1), std::pair(std::uint64_t{2}, 1U));
  EXPECT_EQ(entry("conquer.1", 2), std::pair(std::uint64_t{3}, 0U));
  EXPECT_EQ(currentPos("conquer.1"), 3U);
  EXPECT_EQ(conquerSlotOf(0), 2U);
  EXPECT_EQ(conquerSlotOf(1), 1U);
  del(*sut, 7);
  EXPECT_EQ(entry("conquer.1", 1), std::pair(std::uint64_t{2}, kNoSlot));
  EXPECT_EQ(entry("conquer.1", 3), std::pair(std::uint64_t{4}, 1U));
  const auto counters = sut->writerCounters();
  EXPECT_EQ(counters.notificationsSent, 4U);
  EXPECT_EQ(counters.tombstones, 2U);
  EXPECT_EQ(counters.lastSequence, 4U);
  EXPECT_EQ(sut->sequence(), 4U);
}

TEST_F(ConquerWriterTest, The337thOf337KeysCompactsFirstAndCarriesOneEntryOver) {
  const auto sut = writer(1000);
  for (std::uint32_t i = 0; i < 336; ++i) put(*sut, i, i);
  EXPECT_EQ(currentTable(), std::pair(0U, 0U));
  TraceText traces;
  put(*sut, 336, 336);
  EXPECT_TRUE(traces.has(
      "ConquerWriter::prune() pruning up to minSeq:336 (old minSeq:0) current sequence: 336"));
  EXPECT_TRUE(traces.has("ConquerWriter::compact() pruning slot 334"));
  EXPECT_TRUE(traces.has("ConquerWriter::compact() compacting slot 335 to slot 0"));
  EXPECT_EQ(minSeq(), 336U);
  EXPECT_EQ(currentTable(), std::pair(1U, 1U));
  EXPECT_EQ(currentPos("conquer.2"), 2U);
  EXPECT_EQ(entry("conquer.2", 0), std::pair(std::uint64_t{336}, 335U));
  EXPECT_EQ(entry("conquer.2", 1), std::pair(std::uint64_t{337}, 336U));
  EXPECT_EQ(conquerSlotOf(0), kNoSlot);
  EXPECT_EQ(conquerSlotOf(335), 0U);
  EXPECT_EQ(sut->writerCounters().compactions, 1U);
  EXPECT_EQ(sut->writerCounters().prunes, 1U);
  EXPECT_TRUE(sut->validate());
}

TEST_F(ConquerWriterTest, OneKeyWritten337TimesLeavesTwoEntries) {
  const auto sut = writer();
  for (std::uint32_t i = 0; i < 337; ++i) put(*sut, 5, i);
  EXPECT_EQ(sut->writerCounters().tombstones, 336U);
  EXPECT_EQ(currentTable(), std::pair(1U, 1U));
  EXPECT_EQ(currentPos("conquer.2"), 2U);
  EXPECT_EQ(entry("conquer.2", 0), std::pair(std::uint64_t{336}, kNoSlot));
  EXPECT_EQ(entry("conquer.2", 1), std::pair(std::uint64_t{337}, 0U));
}

TEST_F(ConquerWriterTest, EachCompactionRaisesTheGenerationAndChangesTheTable) {
  const auto sut = writer();
  std::pair<std::uint32_t, std::uint32_t> before = currentTable();
  for (std::uint32_t i = 0; i < 2000; ++i) {
    put(*sut, i % 7, i);
    const auto now = currentTable();
    if (now != before) {
      EXPECT_EQ(now.first, before.first + 1);
      EXPECT_EQ(now.second, 1 - before.second);
      before = now;
    }
  }
  EXPECT_GE(before.first, 5U);
  EXPECT_EQ(sut->writerCounters().compactions, before.first);
  EXPECT_TRUE(sut->validate());
}

// Readers that are counted in the header, but have not come back, hold everything.
TEST_F(ConquerWriterTest, WhileReadersAreWaitedForACompactionDropsTombstonesOnly) {
  writer(1000).reset();
  file("conquer.1").u32Is(24, 1);
  const auto sut = writer(1000);
  ASSERT_TRUE(sut->waitingForReaders());
  TraceText traces;
  for (std::uint32_t i = 0; i < 336; ++i) put(*sut, i, i);
  for (std::uint32_t i = 0; i < 10; ++i) put(*sut, i, i);
  EXPECT_TRUE(traces.has("ConquerWriter::prune() cannot prune, waiting for readers"));
  EXPECT_EQ(minSeq(), 0U);
  EXPECT_EQ(currentPos("conquer.2"), 346U);
  EXPECT_EQ(entry("conquer.2", 0).first, 1U);
  // Twice the 336 live entries, and what the last page has room for.
  EXPECT_EQ(Writer::grownCount(336, 4096), 678U);
  EXPECT_EQ(capacity("conquer.2"), 678U);
  EXPECT_EQ(file("conquer.2").size(), 56U + 678U * 12U);
  EXPECT_EQ(file("conquer.2").u32(40), 2U);
  EXPECT_TRUE(
      traces.has("ConquerWriter::grow() " + name_ + "/conquer.2 from 336 to 678 notifications"));
  EXPECT_EQ(sut->writerCounters().conquerGrows, 1U);
}

TEST_F(ConquerWriterTest, ReadersThatNeverComeBackAreWaitedForOnlySoLong) {
  writer().reset();
  file("conquer.1").u32Is(24, 3);
  const auto sut = writer();
  ASSERT_TRUE(sut->waitingForReaders());
  EXPECT_EQ(file("conquer.1").u32(24), 3U) << "the former count stays meanwhile";
  loop_.runFor(89.0);
  EXPECT_TRUE(sut->waitingForReaders());
  loop_.runFor(2.0);
  EXPECT_FALSE(sut->waitingForReaders());
  EXPECT_EQ(file("conquer.1").u32(24), 0U);
}

// A limit on the size of files stands for a full file system: both refuse the space.
class NoSpace {
 public:
  explicit NoSpace(rlim_t size) : signalBefore_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
    struct rlimit small = before_;
    small.rlim_cur = size;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  }
  NoSpace(const NoSpace&) = delete;
  NoSpace& operator=(const NoSpace&) = delete;
  ~NoSpace() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, signalBefore_);
  }

 private:
  void (*signalBefore_)(int);
  struct rlimit before_ {};
};

TEST_F(ConquerWriterTest, AQueueThatCannotGrowRefusesTheChangeAndTriesAgainAtTheNext) {
  writer(1000).reset();
  file("conquer.1").u32Is(24, 1);  // a reader is waited for: nothing may be pruned
  const auto sut = writer(1000);
  for (std::uint32_t i = 0; i < 336; ++i) put(*sut, i, i);
  const std::string before = allFiles();
  {
    const NoSpace full(4088);
    for (int again = 0; again < 3; ++again) {
      const std::string text =
          "ConquerWriter::grow() failed to resize shared memory to size 8192 - the "
          "system may be out of memory.";
      EXPECT_EQ(textOfRaised<Sable::MemoryResourceException>([&] { put(*sut, 5, 99); }), text);
      EXPECT_EQ(textOfRaised<Sable::MemoryResourceException>([&] { put(*sut, 400, 4); }), text);
      EXPECT_EQ(textOfRaised<Sable::MemoryResourceException>([&] { del(*sut, 5); }), text);
    }
    EXPECT_EQ(allFiles(), before) << "the changes did not happen";
    EXPECT_EQ(get(*sut, 5), "5");
    EXPECT_EQ(get(*sut, 400), "none");
  }
  put(*sut, 400, 4);
  EXPECT_EQ(capacity("conquer.2"), 678U);
  EXPECT_EQ(currentPos("conquer.2"), 337U);
  EXPECT_TRUE(sut->validate());
}

// What a compaction dropped before it found no memory must not be dropped, and counted, once more.
TEST_F(ConquerWriterTest, WhatACompactionWithoutMemoryHasDroppedIsTakenBack) {
  const auto sut = writer(1000);
  for (std::uint32_t i = 0; i < 500; ++i) put(*sut, i, i);  // conquer.2 is current, half full
  KickPeer reader = KickPeer::connected(name_ + "/kick");
  reader.send(hello());
  reader.send(sequenceBytes(400));
  loop_.runTurn();
  loop_.runTurn();
  ASSERT_EQ(sut->connectedReaders(), 1U);
  std::uint32_t next = 500;
  while (currentPos("conquer.2") < 336) put(*sut, next++, 0);
  {
    const NoSpace full(4088);
    for (int again = 0; again < 5; ++again) {
      EXPECT_NE(textOfRaised<Sable::MemoryResourceException>([&] { put(*sut, next, 0); }),
                "nothing raised");
    }
  }
  for (std::uint32_t i = 0; i < 2000; ++i) put(*sut, i % 300, i);
  EXPECT_TRUE(sut->validate());
  EXPECT_LE(capacity("conquer.1"), 2000U) << "the count of live entries is still right";
}

TEST_F(ConquerWriterTest, AReportThatDoesNotGoBeyondMinSeqPrunesNothing) {
  const auto sut = writer(1000);
  for (std::uint32_t i = 0; i < 10; ++i) put(*sut, i, i);
  KickPeer reader = KickPeer::connected(name_ + "/kick");
  reader.send(hello());
  reader.send(sequenceBytes(10));
  loop_.runTurn();
  loop_.runTurn();
  ASSERT_EQ(sut->connectedReaders(), 1U);
  for (std::uint32_t i = 10; i < 337; ++i) put(*sut, i, i);
  EXPECT_EQ(minSeq(), 10U);
  EXPECT_EQ(sut->writerCounters().prunes, 1U);
  TraceText traces;
  for (std::uint32_t i = 0; sut->writerCounters().compactions < 2; ++i) put(*sut, 500 + i, i);
  EXPECT_TRUE(traces.has("ConquerWriter::prune() cannot prune, minSeq:10 lowestSequence:10"));
  EXPECT_EQ(minSeq(), 10U);
  EXPECT_EQ(sut->writerCounters().prunes, 1U);
}

class Cut : public testing::Test {
 protected:
  static std::uint32_t cut(const std::vector<std::uint64_t>& sequences, std::uint64_t minSeq) {
    std::vector<Conquer::Entry> entries(sequences.size());
    for (std::size_t i = 0; i < sequences.size(); ++i) entries[i].sequenceIs(sequences[i]);
    return Writer::cut(entries.data(), static_cast<std::uint32_t>(entries.size()), minSeq);
  }
};

TEST_F(Cut, NothingIsDroppedWithoutMinSeqOrBelowTheFirst) {
  EXPECT_EQ(cut({}, 5), 0U);
  EXPECT_EQ(cut({1, 2, 3}, 0), 0U);
  EXPECT_EQ(cut({4, 5, 6}, 3), 0U);
}

TEST_F(Cut, TheFirstGoesWithMinSeqAndTheLastStays) {
  EXPECT_EQ(cut({4, 5, 6}, 4), 1U);
  EXPECT_EQ(cut({4, 5, 6}, 6), 2U);
  EXPECT_EQ(cut({4}, 4), 1U);
}

TEST_F(Cut, AMinSeqBeyondTheLastDropsOne) { EXPECT_EQ(cut({4, 5, 6}, 7), 1U); }

TEST_F(Cut, AnEntryInBetweenGoesWithAllBeforeIt) {
  const std::vector<std::uint64_t> all{10, 20, 30, 40, 50, 60, 70};
  EXPECT_EQ(cut(all, 20), 2U);
  EXPECT_EQ(cut(all, 30), 3U);
  EXPECT_EQ(cut(all, 40), 4U);
  EXPECT_EQ(cut(all, 60), 6U);
}

// The rule as it stands: on one side of a gap the entry above minSeq goes too, on the other not.
TEST_F(Cut, AGapLeavesByTheSideFromWhichItIsFound) {
  const std::vector<std::uint64_t> all{10, 20, 30, 40, 50, 60, 70};
  EXPECT_EQ(cut(all, 45), 5U) << "from below: 50, above minSeq, goes along";
  EXPECT_EQ(cut(all, 35), 3U) << "from above: 30 is the last to go";
  EXPECT_EQ(cut(all, 15), 1U);
  EXPECT_EQ(cut(all, 65), 7U);
}

TEST_F(ConquerWriterTest, DamageInTheQueueIsNamedBeforeAnythingChanges) {
  const auto sut = writer();
  put(*sut, 5, 50);
  put(*sut, 7, 70);
  const auto raised = [&] {
    const std::string before = file("conquer.1").all();
    std::string text = textOfRaised<CorruptionDetectedException>([&] { put(*sut, 5, 51); });
    EXPECT_EQ(file("conquer.1").all(), before);
    return text;
  };
  file("slots").u32Is(slotAt(0) + 8, 336);
  EXPECT_EQ(raised(), "ConquerWriter::notify() conquer index out-of-range, tomb:336 max:336");
  file("slots").u32Is(slotAt(0) + 8, 1);
  EXPECT_EQ(raised(), "ConquerWriter::notify() conquer slot mismatch, slot:1 index:0");
}

TEST_F(ConquerWriterTest, AFileThatCannotBeMappedIsNamed) {
  std::filesystem::create_directories(name_ + "/conquer.1");
  const auto sut = newWriter();
  const std::string text =
      textOfRaised<Sable::InvalidInitializeException>([&] { sut->initialize(); });
  EXPECT_EQ(text.rfind("ConquerWriter::attachConquer() cannot attach to shmem " + name_ +
                           "/conquer.1 of size:",
                       0),
            0U)
      << text;
}

class ConquerHeader : public ConquerWriterTest {
 protected:
  ConquerHeader() : writer_(writer()) {}
  std::string whyNot(std::uint32_t size, std::uint32_t fenix) {
    std::string header = file("conquer.1").bytes(0, 56);
    alignas(8) char copy[56];
    std::memcpy(copy, header.data(), sizeof copy);
    std::string message;
    return reinterpret_cast<const Conquer::Header*>(copy)->validate(size, fenix, message) ? "sound"
                                                                                          : message;
  }
  std::unique_ptr<NumberWriter> writer_;
};

TEST_F(ConquerHeader, IsCheckedInOrder) {
  const std::uint32_t fenix = writer_->fenixId();
  const std::string id = std::to_string(fenix);
  EXPECT_EQ(whyNot(4088, fenix), "sound");
  EXPECT_EQ(whyNot(55, fenix), "ConquerTable::validate() bad header file size: 55 wanted:56");
  EXPECT_EQ(whyNot(4088, 0), "ConquerTable::validate() bad fenix:" + id + " wanted:0")
      << "an argument of 0 is not waved through";
  EXPECT_EQ(whyNot(4087, fenix),
            "ConquerTable::validate() bad shmem size:4087 wanted:4088 for 336 notifications");
  file("conquer.1").u32Is(36, 2);
  EXPECT_EQ(whyNot(4088, fenix), "ConquerTable::validate() bad tableId:2");
  file("conquer.1").u32Is(8, 5);
  EXPECT_EQ(whyNot(4088, fenix), "ConquerTable::validate() bad version: 5 conquer version: 6");
  file("conquer.1").u64Is(0, 0xFEED);
  EXPECT_EQ(whyNot(4088, fenix), "ConquerTable::validate() bad magic: feed");
}

}  // namespace QuillTest
