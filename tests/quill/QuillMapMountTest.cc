// SPDX-License-Identifier: Apache-2.0
//
// Handles as their table's writer comes and goes: real directories and sockets, virtual time.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "quill/FenixFile.h"
#include "quill/QuillMap.h"
#include "tests/quill/MapFixture.h"
#include "tests/quill/SystemLogText.h"

namespace QuillTest {
namespace {

using Quill::QuillType;

class QuillMapMountTest : public MapTest {
 protected:
  // Ends the writer and begins another generation of the table with one entry.
  void newGeneration(std::unique_ptr<IntfMap>& writer, const IntfRecord& record) {
    const unsigned before = writer->fenixId();
    writer->controlDetach();
    writer->cleanup();
    writer.reset();
    writer = newWriter();
    ASSERT_NE(writer->fenixId(), before);
    writer->write(record);
  }
  std::string report() const {
    std::ostringstream text;
    text << std::ifstream(path_ + "/corruption-detected").rdbuf();
    return text.str();
  }
};

TEST_F(QuillMapMountTest, AReaderWithoutFilesReturnsAtOnceReadsAsEmptyAndTriesAgainInAMinute) {
  const auto sut = newReader();
  EXPECT_TRUE(sut->initialized());
  EXPECT_EQ(sut->members(), 0U);
  IntfRecord value = intfRecord("eth1", 1);
  Quill::IterHint hint;
  EXPECT_FALSE(sut->first(value, hint));
  EXPECT_EQ(value, IntfRecord{});
  EXPECT_EQ(sut->mountStatus(), 0U);
  loop_.runFor(59.9);
  EXPECT_EQ(sut->readerCounters().remountTimeouts, 0U);
  loop_.runFor(0.2);
  EXPECT_EQ(sut->readerCounters().remountTimeouts, 1U);
  EXPECT_EQ(sut->readerCounters().mounterNotifies, 2U);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(QuillMapMountTest, AHandleMountsWhenItsWriterComes) {
  for (const QuillType mode : {QuillType::reader, QuillType::shadow, QuillType::keyshadow}) {
    const auto sut = newReader(mode);
    const auto writer = newWriter();
    writer->write(intfRecord("eth1", 1));
    settle();
    EXPECT_EQ(sut->mountStatus(), mode == QuillType::reader ? 1U : 2U) << mode;
    EXPECT_EQ(at(*sut, "eth1"), intfRecord("eth1", 1)) << mode;
    writer->write(intfRecord("eth1", 2));
    settle();
    EXPECT_EQ(at(*sut, "eth1"), intfRecord("eth1", 2)) << mode;
    EXPECT_EQ(sut->fenixId(), writer->fenixId()) << mode;
    writer->controlDetach();
    writer->cleanup();
  }
}

TEST_F(QuillMapMountTest, AHandleMountsAtInitIfTheTableStands) {
  const auto writer = newWriter();
  writer->write(intfRecord("eth1", 1));
  for (const QuillType mode : {QuillType::reader, QuillType::shadow, QuillType::keyshadow}) {
    const auto sut = newReader(mode);
    EXPECT_EQ(sut->mountStatus(), mode == QuillType::reader ? 1U : 2U) << mode;
    EXPECT_EQ(sut->members(), 1U) << mode;
    EXPECT_EQ(at(*sut, "eth1"), intfRecord("eth1", 1)) << mode;
    bool found = false;
    EXPECT_EQ(sut->directLookup(Portus::IntfId::fromName("eth1"), found), intfRecord("eth1", 1));
    EXPECT_TRUE(found);
    settle();
  }
}

TEST_F(QuillMapMountTest, AfterANewGenerationTheNextEventMountsItAndStopsTheTimer) {
  for (const QuillType mode : {QuillType::reader, QuillType::shadow}) {
    const auto sut = newReader(mode);
    loop_.runFor(130.0);
    ASSERT_EQ(sut->readerCounters().remountTimeouts, 2U);
    auto writer = newWriter();
    writer->write(intfRecord("eth1", 1));
    settle();
    ASSERT_EQ(at(*sut, "eth1"), intfRecord("eth1", 1));
    EXPECT_EQ(sut->readerCounters().remountTimeouts, 0U);
    const TraceText traces;
    newGeneration(writer, intfRecord("eth2", 2));
    settle();
    EXPECT_TRUE(traces.has("QuillMap::detach() " + path_));
    EXPECT_TRUE(traces.has("QuillMap::attach() attempting to attach " + path_ + " as "));
    EXPECT_TRUE(traces.has("QuillMap::attach() successful"));
    EXPECT_EQ(sut->fenixId(), writer->fenixId());
    EXPECT_EQ(at(*sut, "eth1"), IntfRecord{});
    EXPECT_EQ(at(*sut, "eth2"), intfRecord("eth2", 2));
    const unsigned notifies = sut->readerCounters().mounterNotifies;
    loop_.runFor(600.0);
    EXPECT_EQ(sut->readerCounters().mounterNotifies, notifies) << "the timer still runs";
    EXPECT_EQ(sut->readerCounters().remountTimeouts, 0U);
    writer->controlDetach();
    writer->cleanup();
  }
}

TEST_F(QuillMapMountTest, AShadowTellsEachChangeAndWhatGoesWithTheWriter) {
  const auto sut = newReader(QuillType::shadow);
  auto writer = newWriter();
  writer->write(intfRecord("eth1", 1));
  settle();
  keys_.keys.clear();
  writer->write(intfRecord("eth2", 2));
  settle();
  EXPECT_EQ(keys_.keys, (std::vector<std::string>{"eth2"}));
  keys_.keys.clear();
  newGeneration(writer, intfRecord("eth3", 3));
  settle();
  std::sort(keys_.keys.begin(), keys_.keys.end());
  EXPECT_TRUE(std::ranges::includes(keys_.keys, std::vector<std::string>{"eth1", "eth2", "eth3"}));
  EXPECT_EQ(sut->members(), 1U);
}

TEST_F(QuillMapMountTest, AShadowOutlivesTheLossOfItsConnectionAndConnectsAgain) {
  const auto sut = newReader(QuillType::shadow);
  auto writer = newWriter();
  writer->write(intfRecord("eth1", 1));
  settle();
  ASSERT_EQ(sut->mountStatus(), 2U);
  const unsigned generation = writer->fenixId();
  writer.reset();  // its files stay
  settle();
  EXPECT_EQ(sut->mountStatus(), 1U);
  EXPECT_EQ(at(*sut, "eth1"), intfRecord("eth1", 1));
  writer = newWriter();
  EXPECT_EQ(writer->fenixId(), generation);
  writer->write(intfRecord("eth1", 2));
  loop_.runFor(61.0);
  EXPECT_EQ(sut->mountStatus(), 2U);
  EXPECT_EQ(at(*sut, "eth1"), intfRecord("eth1", 2));
}

TEST_F(QuillMapMountTest, AShadowIsReplacedFromInsideItsOwnLostConnectionAndEndsLater) {
  // The loop looks at descriptors by their numbers: with low ones to spare, the connection gets one
  // below the directory's watch. Its loss is found in one turn and acted on in the next, ahead of
  // what the directory tells then.
  std::vector<int> spare;
  for (int i = 0; i < 16; ++i) spare.push_back(dup(STDERR_FILENO));
  const auto sut = newReader(QuillType::shadow);
  for (const int fd : spare) close(fd);
  auto writer = newWriter();
  writer->write(intfRecord("eth1", 1));
  settle();
  ASSERT_EQ(sut->mountStatus(), 2U);
  writer->controlDetach();
  loop_.runTurn();
  writer->cleanup();
  writer.reset();
  writer = newWriter();
  writer->write(intfRecord("eth2", 2));
  const TraceText traces;
  settle();
  const std::string text = traces.text();
  const std::size_t lost = text.find("eventName: QuillMap::handleDisconnect()");
  const std::size_t mounted = text.find("QuillMap::attach() successful");
  ASSERT_NE(lost, std::string::npos);
  EXPECT_LT(lost, mounted);
  ASSERT_NE(mounted, std::string::npos);
  // The old one's end, told by its reader, comes when the handler has gone on after the mounting.
  const std::size_t ended = text.find("QuillReader::detach() already detached");
  const std::size_t wentOn = text.find("QuillShadow::mountStatus(): 2", mounted);
  ASSERT_NE(wentOn, std::string::npos);
  EXPECT_GT(ended, wentOn);
  EXPECT_EQ(at(*sut, "eth2"), intfRecord("eth2", 2));
  EXPECT_EQ(sut->members(), 1U);
}

TEST_F(QuillMapMountTest, WithNotificationsOffANewGenerationIsMountedWhenTheyComeOnAgain) {
  for (const QuillType mode : {QuillType::reader, QuillType::shadow}) {
    auto writer = newWriter();
    writer->write(intfRecord("eth1", 1));
    const auto sut = newReader(mode);
    settle();
    const unsigned before = sut->fenixId();
    sut->notifying(false);
    newGeneration(writer, intfRecord("eth2", 2));
    settle();
    EXPECT_EQ(sut->fenixId(), before) << mode;
    sut->notifying(true);
    EXPECT_EQ(sut->fenixId(), writer->fenixId()) << mode;
    settle();
    EXPECT_EQ(at(*sut, "eth2"), intfRecord("eth2", 2)) << mode;
    writer->controlDetach();
    writer->cleanup();
  }
}

TEST_F(QuillMapMountTest, AReaderThatMeetsDamageReadsAsEmptyReportsItAndIsMountedAgain) {
  const auto writer = newWriter();
  const IntfRecord record = intfRecord("eth1", 1);
  writer->write(record);
  const auto sut = newReader();
  settle();
  const std::uint32_t slot = slotOfFirst(*writer);
  const std::uint32_t flags = slots_.u32(flagsAt(slot));
  slots_.u32Is(flagsAt(slot), flags & ~1U);
  bool found = false;
  EXPECT_EQ(sut->safeLookup(record.key, found), IntfRecord{});
  EXPECT_FALSE(found);
  EXPECT_EQ(sut->mountStatus(), 0U);
  EXPECT_EQ(report(), "QuillReader::doLookup() slot:" + std::to_string(slot) +
                          " not marked as occupied key:eth1");
  slots_.u32Is(flagsAt(slot), flags);  // it was not the file that is wrong
  const TraceText traces;
  settle();
  EXPECT_TRUE(traces.has("WriterMounter::notify() quill validation ok"));
  EXPECT_EQ(report(), "");
  EXPECT_EQ(sut->mountStatus(), 1U);
  EXPECT_EQ(sut->safeLookup(record.key, found), record);
}

TEST_F(QuillMapMountTest, AReaderThatMeetsDamageOfADeadWritersTableTriesAgainInAMinute) {
  const IntfRecord record = intfRecord("eth1", 1);
  auto writer = newWriter();
  writer->write(record);
  const std::uint64_t flags = flagsAt(slotOfFirst(*writer));
  writer.reset();
  slots_.u32Is(flags, 4);
  const auto sut = newReader();
  settle();
  ASSERT_EQ(sut->mountStatus(), 1U);
  bool found = false;
  EXPECT_EQ(sut->safeLookup(record.key, found), IntfRecord{});
  const SystemLogText systemLog;
  loop_.runFor(59.9);
  EXPECT_EQ(sut->mountStatus(), 0U);
  loop_.runFor(0.2);
  EXPECT_EQ(sut->mountStatus(), 1U);
  EXPECT_EQ(SystemLogText::calls().size(), 3U);
}

TEST_F(QuillMapMountTest, AShadowThatMeetsDamageLetsGoOfTheTableFromInsideItsBatch) {
  const auto writer = newWriter();
  writer->write(intfRecord("eth1", 1));
  const auto sut = newReader(QuillType::shadow);
  settle();
  ASSERT_EQ(sut->mountStatus(), 2U);
  keys_.keys.clear();
  writer->write(intfRecord("eth2", 1));
  const RawFile queue(path_ + "/conquer.1");
  constexpr std::uint64_t kSecondEntry = 52 + 12;
  const std::uint64_t sequence = queue.u64(kSecondEntry);
  ASSERT_EQ(sequence, writer->sequence());
  queue.u64Is(kSecondEntry, 0);
  const TraceText traces;
  loop_.runTurn();
  EXPECT_TRUE(traces.has("QuillMap::corruptionDetected() " + path_)) << traces.text();
  EXPECT_EQ(keys_.keys, (std::vector<std::string>{"eth1"}));
  queue.u64Is(kSecondEntry, sequence);
  settle();
  EXPECT_EQ(sut->mountStatus(), 2U);
  EXPECT_EQ(at(*sut, "eth2"), intfRecord("eth2", 1));
}

TEST_F(QuillMapMountTest, AShadowWithoutANotifierDoesNotMount) {
  const auto writer = newWriter();
  const auto sut = newMap();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->init(QuillType::shadow, false, 0); }),
            "QuillMap::attach() notify not set");
  EXPECT_EQ(sut->members(), 0U);
  sut->notifierIs(&keys_);
  sut->init(QuillType::shadow, false, 0);
  EXPECT_EQ(sut->mountStatus(), 2U);
}

TEST_F(QuillMapMountTest, ATableThatCannotBeMountedLeavesTheHandleAsItWas) {
  std::filesystem::create_directories(path_);
  Quill::FenixFile::write(handler_, path_, 7);
  std::ofstream(path_ + "/slots") << "no table";
  std::ofstream(path_ + "/buckets") << "no table";
  for (const QuillType mode : {QuillType::reader, QuillType::shadow}) {
    const TraceText traces;
    const auto sut = newReader(mode);
    EXPECT_TRUE(traces.has("QuillMap::attach() initialize failed for " + path_));
    EXPECT_EQ(sut->mountStatus(), 0U);
    EXPECT_EQ(sut->members(), 0U);
    loop_.runFor(61.0);
    EXPECT_EQ(sut->readerCounters().remountTimeouts, 1U);
  }
}

TEST_F(QuillMapMountTest, SettingsOutliveEveryMounting) {
  const auto sut = newMap();
  sut->notifierIs(&keys_);
  sut->yieldTimeIs(0.25);
  sut->sampleIs(3);
  sut->init(QuillType::shadow, false, 0);
  const TraceText traces;
  auto writer = newWriter();
  settle();
  newGeneration(writer, intfRecord("eth1", 1));
  settle();
  EXPECT_GE(traces.count("QuillShadow()::yieldTimeIs() yieldTime: 0.25"), 2U);
  EXPECT_GE(traces.count("QuillShadow()::sampleIs() sample: 3"), 2U);
}

TEST_F(QuillMapMountTest, AReaderHasNoConnectionToLose) {
  const auto sut = newReader();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->handleDisconnect(); }),
            "ReaderMounter::handleDisconnect() wrong type:reader");
}

TEST_F(QuillMapMountTest, ADetachedReaderIsNotMountedAgainUntilInit) {
  const auto writer = newWriter();
  writer->write(intfRecord("eth1", 1));
  const auto sut = newReader(QuillType::shadow);
  settle();
  sut->controlDetach();
  writer->write(intfRecord("eth2", 1));
  loop_.runFor(120.0);
  EXPECT_EQ(sut->mountStatus(), 0U);
  EXPECT_EQ(sut->members(), 0U);
  sut->init(QuillType::reader, false, 0);
  EXPECT_EQ(sut->members(), 2U);
}

TEST_F(QuillMapMountTest, DestroyingAHandleTakesItOffTheLoop) {
  auto writer = newWriter();
  for (const QuillType mode : {QuillType::reader, QuillType::shadow}) {
    const TraceText traces;
    auto sut = newReader(mode);
    settle();
    newGeneration(writer, intfRecord("eth1", 1));
    sut.reset();
    EXPECT_TRUE(traces.has("QuillMap::~QuillMap() deleting state"));
    newGeneration(writer, intfRecord("eth2", 1));
    loop_.runFor(120.0);
  }
  EXPECT_EQ(writer->members(), 1U);
}

TEST(QuillMapWithoutLoop, WhatAHandleReplacesEndsAtOnceAndLaterAsSoonAsThereIsALoop) {
  const TemporaryRoot root;
  const std::string path = root.table("counterIntf");
  Vex::VirtualActivityManager loop;
  IntfMap writer(path, "counterIntf");
  const auto newTable = [&](std::string_view key) {
    const Vex::CurrentActivityManager current(loop);
    if (writer.initialized()) {
      writer.controlDetach();
      writer.cleanup();
    }
    writer.init(QuillType::writer, false, 100);
    writer.write(intfRecord(key, 1));
  };
  const auto has = [](const IntfMap& map, std::string_view key) {
    bool found = false;
    return map.lookup(Portus::IntfId::fromName(key), found) == intfRecord(key, 1) && found;
  };
  // An old reader says this when it ends.
  const std::string ended = "QuillReader::detach() already detached";
  newTable("eth1");
  IntfMap sut(path, "counterIntf");
  sut.init(QuillType::reader, false, 0);
  EXPECT_TRUE(has(sut, "eth1"));

  newTable("eth2");
  TraceText traces;
  sut.notifying(true);  // the only occasion to look
  EXPECT_TRUE(has(sut, "eth2"));
  EXPECT_EQ(traces.count(ended), 1U);

  newTable("eth3");
  const Vex::CurrentActivityManager current(loop);
  traces.clear();
  sut.notifying(true);
  EXPECT_TRUE(has(sut, "eth3"));
  EXPECT_EQ(traces.count(ended), 0U);
  loop.runFor(0.0);
  EXPECT_EQ(traces.count(ended), 1U);
}

}  // namespace
}  // namespace QuillTest
