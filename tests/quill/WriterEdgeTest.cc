// SPDX-License-Identifier: Apache-2.0
//
// A writer at the edges of what its files can hold: sizes that cannot be, damage that only a
// particular operation meets, detaching in the middle of something.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "quill/ConquerWriter.h"
#include "quill/SlotWriterTable.h"
#include "tests/quill/WriterFixture.h"

namespace QuillTest {
namespace {

using Quill::CorruptionDetectedException;
using Quill::kNoSlot;

// The largest file that this process may make, for the life of the scope.
class FileLimit {
 public:
  explicit FileLimit(rlim_t bytes) : signal_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
    rlimit small = before_;
    small.rlim_cur = bytes;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  }
  FileLimit(const FileLimit&) = delete;
  FileLimit& operator=(const FileLimit&) = delete;
  ~FileLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, signal_);
  }

 private:
  void (*signal_)(int);
  rlimit before_{};
};

class WriterEdge : public WriterTest {
 protected:
  // The text of what an initialization raises.
  std::string refusal(unsigned maxSlots = 100) {
    return textOfRaised<Sable::Exception>([&] { newWriter(maxSlots)->initialize(); });
  }
  void shrinkAll(std::uintmax_t bytes) const {
    for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
      std::filesystem::resize_file(name_ + "/" + name, bytes);
    }
  }
  // A full queue, the entries of which nobody may prune: its writer waits for a reader.
  std::unique_ptr<NumberWriter> fullQueue() {
    {
      const auto before = writer();
      put(*before, 5, 1);
    }
    file("conquer.1").u32Is(24, 1);
    auto sut = writer();
    for (std::uint32_t i = 0; i < 335; ++i) put(*sut, 5, i);
    EXPECT_EQ(file("conquer.1").u32(48), 336U);
    return sut;
  }
};

TEST_F(WriterEdge, AFileOfAnotherGenerationThatCannotHaveItsSizeIsWantOfRoom) {
  const char* const kinds[] = {"slots", "buckets", "conquer.1"};
  const char* const texts[] = {
      "SlotWriter::attach() failed to resize shared memory to size 4088.",
      "BucketWriter::attach() failed to resize shared memory to size ",
      "ConquerWriter::attachConquer() failed to resize shared memory to size 4088."};
  for (std::size_t i = 0; i < 3; ++i) {
    writer().reset();
    shrinkAll(100);
    file(kinds[i]).u32Is(12, 99);
    std::string text;
    {
      const FileLimit limit(100);
      text = textOfRaised<Sable::MemoryResourceException>([&] { newWriter()->initialize(); });
    }
    EXPECT_TRUE(text.starts_with(texts[i])) << text;
    std::filesystem::remove_all(name_);
  }
}

TEST_F(WriterEdge, BucketsThatNeedMoreThanAFileCanHoldAreRefusedWithAFileAndWithout) {
  writer().reset();
  file("buckets").u32Is(12, 99);
  EXPECT_EQ(refusal(0xFFFFFFFF).substr(0, 62),
            "BucketWriter::attach() failed to resize shared memory to size ");
  std::filesystem::remove_all(name_);
  EXPECT_EQ(refusal(0xFFFFFFFF).substr(0, 46), "BucketWriter::attach() cannot attach to shmem ");
}

TEST_F(WriterEdge, ATableThatIsGivenUpGoesBackToItsFirstSize) {
  {
    const auto before = writer();
    for (std::uint32_t key = 0; key < 500; ++key) put(*before, key, key);
    ASSERT_GT(file("slots").size(), 4096U);
  }
  std::filesystem::resize_file(name_ + "/conquer.1", 9'000);
  for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
    file(name).u32Is(12, 99);
  }
  const TraceText traces;
  const auto sut = writer();
  EXPECT_TRUE(traces.has("ConquerWriter::attachConquer() resize from 9000 to 4088 bytes"));
  EXPECT_TRUE(traces.has("SlotWriter::attach() resize from "));
  EXPECT_EQ(file("conquer.1").size(), 4088U);
  EXPECT_EQ(file("slots").size(), 4088U);
  EXPECT_EQ(keys(*sut), "");
}

TEST_F(WriterEdge, APageTooSmallForAHeaderHoldsNoEntry) {
  EXPECT_EQ(Quill::ConquerWriter<NumberRecord>::firstCount(10), 0U);
}

TEST_F(WriterEdge, ASlotTableThatWouldPassFourGigabytesDoesNotGrow) {
  Quill::Writer::Counters counters;
  const Quill::RootPath path(handler_, name_, true);
  path.makeDirectory();
  Quill::SlotWriterTable<NumberRecord> sut(handler_, path, false, 100, counters, "Owner");
  sut.attach(7);
  file("slots").u32Is(164, kNoSlot);         // nothing is free
  file("slots").u32Is(168 + 4, 0xF0000000);  // so many slots
  sut.attach(7);
  const std::string text = textOfRaised<Sable::MemoryResourceException>([&] { sut.alloc(); });
  EXPECT_TRUE(text.starts_with("SlotWriter::grow() failed to resize shared memory to size "))
      << text;
}

TEST_F(WriterEdge, SlotsThatLostTheirEndDoNotGrowAndThatIsNoWantOfMemory) {
  Quill::Writer::Counters counters;
  const Quill::RootPath path(handler_, name_, true);
  path.makeDirectory();
  Quill::SlotWriterTable<NumberRecord> sut(handler_, path, false, 100, counters, "Owner");
  sut.attach(7);
  std::filesystem::resize_file(name_ + "/slots", 0);
  // Stores go to a page that stands in for the one that is gone.
  const_cast<Quill::SlotTable<NumberRecord>::Header*>(sut.header())
      ->freeSlots.store(kNoSlot, Mem::release);
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut.alloc(); }),
            "SlotWriter: " + name_ + "/slots became shorter than its mapping");
}

TEST_F(WriterEdge, AQueueWithMoreLiveEntriesThanItCountedIsDamageWhenItIsMoved) {
  const auto sut = fullQueue();
  for (const std::uint32_t pos : {100U, 101U}) file("conquer.1").u32Is(52 + 12 * pos + 8, 0);
  file("conquer.2").u32Is(44, 2);  // room for twice the one that is known
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { put(*sut, 5, 999); }),
            "ConquerWriter::compact() more than 1 live notifications");
}

TEST_F(WriterEdge, AQueueThatIsFullAgainWhenItHasBeenMovedIsDamage) {
  const auto sut = fullQueue();
  for (const std::uint32_t pos : {0U, 1U}) file("conquer.1").u32Is(52 + 12 * pos + 8, 0);
  for (const char* const name : {"conquer.1", "conquer.2"}) file(name).u32Is(44, 2);
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { put(*sut, 5, 999); }),
            "ConquerWriter::notify() conquer index out-of-range, pos:2 max:2");
}

TEST_F(WriterEdge, ACycleOnAChainIsDamageForEveryOperation) {
  const auto sut = writer();
  put(*sut, 5, 1);
  put(*sut, 7, 2);
  file("slots").u32Is(slotAt(1) + 4, 0);  // behind 7 comes 5
  const auto damage = [](auto&& action) {
    return textOfRaised<CorruptionDetectedException>(action);
  };
  const auto cycle = [](const char* operation) {
    return std::string("QuillWriter::") + operation +
           "() hash chain cycle detected, slotCount:163 capacity:162";
  };
  EXPECT_EQ(damage([&] { put(*sut, 9, 3); }), cycle("find"));
  EXPECT_EQ(damage([&] { del(*sut, 9); }), cycle("find"));
  EXPECT_EQ(damage([&] { get(*sut, 9); }), cycle("lookup"));
  NumberRecord record;
  Quill::IterHint hint;
  EXPECT_EQ(damage([&] { sut->next({9}, record, hint); }), cycle("next"));
}

TEST_F(WriterEdge, ADirectWriteOfAnOldKeyLeavesNothingBehindAtADetach) {
  auto sut = writer();
  put(*sut, 5, 1);
  const std::string before = file("slots").all();
  sut->directWrite({5});
  sut->detach();
  EXPECT_EQ(file("slots").all().size(), before.size());
  EXPECT_EQ(get(*writer(), 5), "1");
}

TEST_F(WriterEdge, AFileThatLosesItsEndIsDamageWhicheverItIs) {
  for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
    const auto sut = writer(3'000);
    for (std::uint32_t key = 0; key < 1'000; ++key) put(*sut, key, key);
    std::filesystem::resize_file(name_ + "/" + name, 0);
    // Everything is looked at and stored to, so what is gone is met.
    std::string text = "nothing raised";
    for (std::uint32_t key = 0; key < 1'000 && text == "nothing raised"; ++key) {
      text = textOfRaised<CorruptionDetectedException>([&] {
        put(*sut, key, 7);
        get(*sut, key);
      });
    }
    EXPECT_NE(text, "nothing raised") << name;
    // From now on no operation answers, and none takes it for want of memory.
    for (const std::uint32_t key : {3U, 900'000U}) {
      const auto got = textOfRaised<CorruptionDetectedException>([&] { get(*sut, key); });
      const auto written = textOfRaised<CorruptionDetectedException>([&] { put(*sut, key, 1); });
      for (const std::string& each : {got, written}) {
        EXPECT_FALSE(each == "nothing raised" || each.starts_with("another exception"))
            << name << ": " << each;
      }
    }
    EXPECT_FALSE(sut->validate()) << name;
    sut->detach();
    sut->cleanup();
  }
}

TEST_F(WriterEdge, ALocalWriterHasNothingToCleanUp) {
  const auto sut = newWriter(10, true);
  ASSERT_TRUE(sut->initialize());
  put(*sut, 5, 1);
  sut->cleanup();
  EXPECT_EQ(get(*sut, 5), "1");
}

TEST_F(WriterEdge, ATableThatIsNotThereNeedsNoCleanUpAndOneThatCannotBeAskedForIsAnError) {
  const TraceText traces;
  newWriter()->cleanup();
  EXPECT_FALSE(traces.has("removing Quill files"));
  std::ofstream(root_.path() + "/file") << "x";
  NumberWriter(handler_, (root_.path() + "/file/t").c_str(), 10, false, "Test").cleanup();
  EXPECT_FALSE(traces.has("removing Quill files"));
  const std::string tooLong = root_.path() + "/" + std::string(300, 'x');
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                [&] { NumberWriter(handler_, tooLong.c_str(), 10, false, "Test").cleanup(); }),
            "cannot lock the table " + tooLong + ": File name too long");
}

TEST_F(WriterEdge, OfSeveralDamagedHeadersTheFirstIsNamed) {
  {
    const auto before = writer();
    put(*before, 5, 1);
  }
  file("buckets").u32Is(0, 0);
  file("slots").u32Is(0, 0);
  file("conquer.1").u32Is(0, 0);
  const TraceText traces;
  EXPECT_EQ(keys(*writer()), "");
  EXPECT_TRUE(traces.has("validation failed: BucketTable::")) << traces.text();
}

TEST_F(WriterEdge, AFreeSlotBehindTheLastIsDamage) {
  const auto sut = writer();
  put(*sut, 5, 1);
  const std::uint32_t count = sut->capacity();
  file("slots").u32Is(slotAt(count - 1) + 4, count);
  const TraceText traces;
  EXPECT_FALSE(sut->validate());
  EXPECT_TRUE(traces.has("SlotWriter::Slots::operator[] out-of-range index: 162 max:161"));
}

}  // namespace
}  // namespace QuillTest
