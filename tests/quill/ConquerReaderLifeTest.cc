// SPDX-License-Identifier: Apache-2.0
//
// ConquerReader: growth of the queue, events, attaching, and queues of any content.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "quill/ConquerReader.h"
#include "quill/Util.h"
#include "tests/quill/HandQueueReader.h"

namespace QuillTest {

namespace {

using Quill::kNoSlot;
using Slots = std::vector<unsigned>;

// --- growth

TEST_F(ConquerReader, TheWholeQueueIsMappedAtItsFirstNeed) {
  queue_.grow(0, 1000);
  fill(0, 900);
  attach();
  TraceText traces;
  EXPECT_EQ(sut.conquer(), 9000U);
  EXPECT_EQ(counters_.conquerResizes, 1U);
  EXPECT_TRUE(
      traces.has("ConquerReaer::doResize() " + queue_.file(0) + " from 0 notifications to 1000\n"));
  EXPECT_TRUE(traces.has("ConquerReader::doResize() successful\n"));
  EXPECT_EQ(slots().size(), 900U);
}

TEST_F(ConquerReader, ATableThatGrewIsMappedAnewAndThePositionSearchedAgain) {
  fill(0, 336);
  attach();
  EXPECT_EQ(sut.conquer(), 3360U);
  queue_.grow(0, 1000);
  queue_.append(3370, 5);
  const std::uint32_t swaps = counters_.queueSwaps;
  EXPECT_EQ(sut.conquer(), 3370U);
  EXPECT_EQ(counters_.conquerResizes, 2U);
  EXPECT_EQ(counters_.queueSwaps, swaps + 1);
  EXPECT_EQ(slots().size(), 337U);
  EXPECT_FALSE(sut.doResize());
}

TEST_F(ConquerReader, AQueueFileShorterThanItsCapacityIsDamage) {
  fill(0, 1);
  attach();
  queue_.header(0).table.notifications.store({2, 1000}, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.conquer(); }),
            "ConquerReader::doResize() requesting to map " + queue_.file(0) +
                " 1000 conquer notifications. Requested file resize to 12056 but real file size "
                "is 4088");
}

TEST_F(ConquerReader, AQueueFileThatBecameShorterIsNotBelieved) {
  queue_.grow(0, 1000);
  fill(0, 900);
  attach();
  const std::string text = "ConquerReader: " + queue_.file(0) + " became shorter than its mapping";
  sut.conquer();
  EXPECT_EQ(sut.latestSequence(), 9000U);
  std::filesystem::resize_file(queue_.file(0), 4096);
  EXPECT_EQ(damageOf([&] { sut.latestSequence(); }), text);
  from(5000);
  EXPECT_EQ(damageOf([&] { sut.conquer(); }), text);
}

TEST_F(ConquerReader, AQueueFileThatWasCutAndGrewAgainIsDamageAndNotWantOfMemory) {
  queue_.grow(0, 1000);
  fill(0, 900);
  attach();
  const std::string text = "ConquerReader: " + queue_.file(0) + " became shorter than its mapping";
  sut.conquer();
  std::filesystem::resize_file(queue_.file(0), 4096);
  EXPECT_EQ(damageOf([&] { sut.latestSequence(); }), text);
  std::filesystem::resize_file(queue_.file(0), 40000);
  queue_.header(0).table.notifications.store({9, 2000}, Mem::release);
  EXPECT_EQ(damageOf([&] { sut.doResize(); }), text);
}

TEST_F(ConquerReader, AnEmptyTableIsNotBelievedIfItsFileBecameShorter) {
  queue_.switchTo(1);
  attach();
  EXPECT_EQ(sut.conquer(), 0U);
  from(0);
  std::filesystem::resize_file(queue_.file(1), 0);
  EXPECT_EQ(damageOf([&] { sut.conquer(); }),
            "ConquerReader: " + queue_.file(1) + " became shorter than its mapping");
}

TEST_F(ConquerReader, LatestSequenceIsThatOfTheNewestEntryOfTheCurrentTable) {
  attach();
  EXPECT_EQ(sut.latestSequence(), 0U);
  fill(0, 5);
  EXPECT_EQ(sut.latestSequence(), 50U);
  queue_.entomb(4);
  EXPECT_EQ(sut.latestSequence(), 50U);
  queue_.append(1, 60, 3);
  queue_.switchTo(1);
  EXPECT_EQ(sut.latestSequence(), 60U);
}

// --- events

TEST_F(ConquerReader, AWriterThatPrunedPastTheReaderMakesItSynchronise) {
  attach();
  sut.enabledIs(false);
  counters_.lastConsumedSequence = 9;
  queue_.header(0).minSeq.store(10, Mem::release);
  TraceText traces;
  sut.handleAck();
  EXPECT_EQ(shadow_.resyncs_, 1U);
  EXPECT_FALSE(sut.enabled());
  EXPECT_TRUE(traces.has("ConquerReader::handleAck() minSeq:10 seq:9\n"));
}

// Where the newest entry was looked up before minSeq, a writer that appended and began to compact
// in between pruned unnoticed.
TEST_F(ConquerReader, WhatIsPrunedWhileTheReaderLooksForItsPlaceIsMissed) {
  queue_.grow(0, 1000);
  fill(0, 800);
  attach();
  EXPECT_TRUE(sut.doResize());
  TouchHook hook(queue_.file(0), 8192, [&] {
    queue_.append(0, 8010, 5);
    queue_.header(0).minSeq.store(8010, Mem::release);
  });
  EXPECT_FALSE(take());
  EXPECT_TRUE(hook.touched());
  EXPECT_EQ(shadow_.resyncs_, 1U);
}

TEST_F(ConquerReader, AWriterThatPrunedNothingUnseenLetsTheReaderFollow) {
  fill(0, 5);
  ASSERT_TRUE(sut.initialize());
  counters_.lastConsumedSequence = 30;
  queue_.header(0).minSeq.store(30, Mem::release);
  sut.handleAck();
  EXPECT_TRUE(sut.enabled());
  EXPECT_EQ(shadow_.resyncs_, 0U);
  EXPECT_EQ(slots(), (Slots{4, 5}));
}

TEST_F(ConquerReader, NothingIsFollowedUntilEnabled) {
  fill(0, 5);
  ASSERT_TRUE(sut.initialize());
  sut.handleEnabled();
  EXPECT_EQ(slots(), Slots());
  sut.enabledIs(true);
  sut.handleEnabled();
  EXPECT_EQ(slots(), (Slots{1, 2, 3, 4, 5}));
}

TEST_F(ConquerReader, AConnectionIsCountedAndALostOneToldToTheMap) {
  attach();
  TraceText traces;
  sut.connected_ = true;
  sut.handleConnected();
  EXPECT_EQ(counters_.connections, 1U);
  EXPECT_TRUE(traces.has("ConquerReader::handleConnected() connections: 1\n"));
  EXPECT_EQ(shadow_.map_.disconnects, 0U);
  sut.connected_ = false;
  sut.handleConnected();
  EXPECT_EQ(counters_.connections, 1U);
  EXPECT_EQ(shadow_.map_.disconnects, 1U);
}

// --- attaching

// Beside the fixture, under which a loop is current.
TEST(ConquerReaderAlone, InitializeWithoutALoopRaises) {
  const TemporaryRoot root;
  Sable::Platform::DebugHandler handler("test");
  HandQueue queue(handler, root.table("t"));
  const Quill::RootPath path(handler, root.table("t"), true);
  Quill::Reader::Counters counters;
  Quill::QuillShadow<HookKey, HookValue, QueueMap> shadow;
  Quill::ConquerReader<HookKey, HookValue, QueueMap> sut(handler, path, counters, shadow);
  try {
    sut.initialize();
    ADD_FAILURE() << "did not raise";
  } catch (const Sable::RuntimeException& exception) {
    EXPECT_EQ(exception.msg(), "ConquerReader::initialize(): ReaderKickSm not initialized");
  }
}

TEST_F(ConquerReader, MissingFilesAreFalseWithoutAReport) {
  const std::array<std::pair<std::string, std::string>, 3> files{
      {{"conquer.1",
        "ConquerReader::attach() " + queue_.file(0) + " no shared memory region yet\n"},
       {"conquer.2",
        "ConquerReader::attach() " + queue_.file(1) + " no shared memory region yet\n"},
       {"fenix",
        "ConquerReader::initialize(): " + queue_.path() + " failed to read fenix file\n"}}};
  for (const auto& [file, text] : files) {
    const std::string path = queue_.path() + "/" + file;
    std::filesystem::rename(path, path + ".away");
    TraceText traces;
    EXPECT_FALSE(sut.initialize());
    EXPECT_TRUE(traces.has(text)) << traces.text();
    EXPECT_EQ(traces.has("ConquerReader::initialize() attach failed\n"), file != "fenix");
    EXPECT_FALSE(std::filesystem::exists(queue_.path() + "/corruption-detected"));
    std::filesystem::rename(path + ".away", path);
  }
  EXPECT_TRUE(sut.initialize());
}

TEST_F(ConquerReader, AHeaderThatIsNotValidIsFalseAndReported) {
  for (const std::uint32_t id : {0U, 1U}) {
    queue_.header(id).version.store(5 - id, Mem::release);
    TraceText traces;
    EXPECT_FALSE(sut.initialize());
    const std::string reason =
        "ConquerTable::validate() bad version: " + std::to_string(5 - id) + " conquer version: 6";
    EXPECT_TRUE(traces.has("ConquerReader::initialize(): " + queue_.path() +
                           " validate failed, reason: " + reason + "\n"));
    EXPECT_EQ(Quill::Util::fileRead(handler_, queue_.path() + "/corruption-detected", false),
              reason);
    queue_.header(id).version.store(6, Mem::release);
  }
  EXPECT_TRUE(sut.initialize());
}

TEST_F(ConquerReader, AFileShorterThanAHeaderIsNotValid) {
  std::filesystem::resize_file(queue_.file(1), 10);
  EXPECT_FALSE(sut.initialize());
  EXPECT_EQ(Quill::Util::fileRead(handler_, queue_.path() + "/corruption-detected", false),
            "ConquerTable::validate() bad header file size: 10 wanted:56");
}

// --- anything in the files

// Whatever the files hold: an answer or CorruptionDetectedException, after bounded work.
TEST_F(ConquerReader, AnyBytesEndInAnAnswerOrAnException) {
  fill(0, 100);
  for (unsigned seed = 1; seed <= 2000; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 engine(seed);
    const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
    if (!sut.initialize()) {
      for (const std::uint32_t id : {0U, 1U}) {
        queue_.header(id).currentTable.store({0, id}, Mem::release);
        queue_.header(id).table.notifications.store({1, 336}, Mem::release);
      }
      continue;
    }
    from(random() % 1200);
    for (unsigned round = 0; round < 4; ++round) {
      const std::uint32_t number = random() % 3 == 0 ? random() : random() % 400;
      const std::uint32_t id = random() % 2;
      switch (random() % 5) {
        case 0:
          queue_.entry(id, random() % 336).sequenceIs(number);
          break;
        case 1:
          queue_.entry(id, random() % 336).slot.store(number, Mem::release);
          break;
        case 2:
          queue_.header(id).table.currentPos.store(number, Mem::release);
          break;
        case 3:
          queue_.header(0).currentTable.store({random() % 4, number % 3}, Mem::release);
          break;
        case 4:
          queue_.header(id).table.notifications.store({random() % 3, number}, Mem::release);
          break;
      }
      shadow_.store_.slots.clear();
      try {
        sut.conquer();
        sut.latestSequence();
      } catch (const Quill::CorruptionDetectedException& damage) {
        EXPECT_NE(damage.msg(), "");
      }
      ASSERT_LE(slots().size(), 400U);
    }
  }
}

// A writer that notifies and compacts, against the set of slots that changed since the last batch.
TEST_F(ConquerReader, EverySlotThatChangedIsVisited) {
  const unsigned seed = 4711;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  attach();
  std::uint64_t sequence = 0;
  std::set<unsigned> changed;
  for (unsigned round = 0; round < 20'000; ++round) {
    const std::uint32_t id = queue_.current();
    if (queue_.used(id) == 336) {
      const std::uint32_t other = 1 - id;
      queue_.header(other).table.currentPos.store(0, Mem::release);
      for (std::uint32_t pos = 0; pos < 336; ++pos) {
        Quill::Conquer::Entry& entry = queue_.entry(id, pos);
        const std::uint32_t slot = entry.slot.load(Mem::relaxed);
        if (slot != kNoSlot) queue_.append(other, entry.sequence(), slot);
      }
      queue_.switchTo(other);
    }
    const auto slot = static_cast<std::uint32_t>(random() % 100);
    for (std::uint32_t pos = 0; pos < queue_.used(queue_.current()); ++pos) {
      if (queue_.entry(queue_.current(), pos).slot.load(Mem::relaxed) == slot) queue_.entomb(pos);
    }
    queue_.append(++sequence, slot);
    changed.insert(slot);
    if (random() % 60 != 0) continue;
    shadow_.store_.slots.clear();
    ASSERT_EQ(sut.conquer(), sequence);
    ASSERT_EQ(std::set<unsigned>(slots().begin(), slots().end()), changed);
    ASSERT_EQ(slots().size(), changed.size());
    changed.clear();
  }
  EXPECT_GT(counters_.queueSwaps, 50U);
}

}  // namespace

}  // namespace QuillTest
