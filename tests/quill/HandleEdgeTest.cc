// SPDX-License-Identifier: Apache-2.0
//
// Handles, readers and shadows between two states: mounted for the second time, detached, without a
// mounter, with a table under them that went another way.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "quill/QuillMap.h"
#include "tests/quill/MapFixture.h"
#include "tests/quill/ShadowTable.h"
#include "tests/quill/SteppingLoop.h"
#include "tests/quill/WriterFixture.h"

namespace QuillTest {
namespace {

using Quill::CorruptionDetectedException;
using Quill::QuillType;

class HandleEdge : public MapTest {};

TEST_F(HandleEdge, AHandleKnowsItsNamesAndWhetherItIsLocal) {
  class Moving : public IntfMap {
   public:
    using IntfMap::IntfMap;
    void namesAre(std::string full, std::string brief) {
      fullNameIs(std::move(full));
      shortNameIs(std::move(brief));
    }
  };
  Moving sut("a", "b");
  sut.namesAre(path_, "counterIntf");
  EXPECT_EQ(sut.fullName(), path_);
  EXPECT_EQ(sut.shortName(), "counterIntf");
  EXPECT_TRUE(sut.isLocal());
  sut.init(QuillType::reader, false, 0);
  EXPECT_FALSE(sut.isLocal());
}

TEST_F(HandleEdge, WithoutAMounterSettingsAreKeptAndNothingIsMounted) {
  const auto local = newMap();
  local->init(QuillType::writer, true, 10);
  local->notifying(true);
  EXPECT_THROW(local->readerCounters(), Sable::UnimplementedException);
  const auto reader = newReader();
  reader->controlDetach();
  reader->notifying(true);
  EXPECT_EQ(reader->mountStatus(), 0U);
  EXPECT_EQ(reader->mounter(), nullptr);
  EXPECT_EQ(reader->readerCounters().mounterNotifies, 0U);
}

TEST_F(HandleEdge, ADetachedShadowHasNothingLeftToLose) {
  const auto writer = newWriter();
  const auto sut = newReader(QuillType::shadow);
  settle();
  sut->controlDetach();
  sut->handleDisconnect();
  sut->corruptionDetected("as a test says");
  EXPECT_TRUE(std::filesystem::exists(path_ + "/corruption-detected"));
  loop_.runFor(130.0);
  EXPECT_EQ(sut->mountStatus(), 0U);
}

TEST_F(HandleEdge, EachKindOfShadowConnectsAgainToAWriterThatCameBack) {
  for (const QuillType mode : {QuillType::shadow, QuillType::keyshadow}) {
    auto writer = newWriter();
    writer->write(intfRecord("eth1", 1));
    const auto sut = newReader(mode);
    settle();
    ASSERT_EQ(sut->mountStatus(), 2U);
    writer.reset();
    settle();
    EXPECT_EQ(sut->mountStatus(), 1U);
    writer = newWriter();
    loop_.runFor(61.0);
    EXPECT_EQ(sut->mountStatus(), 2U) << mode;
    writer->controlDetach();
    writer->cleanup();
  }
}

TEST_F(HandleEdge, AShadowThatIsAheadOfItsWriterLetsGoAndMountsAnew) {
  auto writer = newWriter();
  for (std::uint32_t i = 1; i <= 3; ++i) writer->write(intfRecord("eth1", i));
  const std::uint32_t slot = slotOfFirst(*writer);
  const auto sut = newReader(QuillType::shadow);
  settle();
  ASSERT_EQ(sut->sequence(), 3U);
  writer.reset();
  settle();
  // The same table, as it was two changes ago.
  const RawFile queue(path_ + "/conquer.1");
  queue.u32Is(48, 1);
  queue.u32Is(52 + 8, slot);
  slots_.u32Is(flagsAt(slot) - 4, 0);
  const TraceText traces;
  writer = newWriter();
  settle();
  loop_.runFor(130.0);
  EXPECT_TRUE(traces.has("QuillShadow::doInitialize() bad reader sequence:3 writer sequence:1"));
  EXPECT_EQ(sut->mountStatus(), 2U);
  EXPECT_EQ(at(*sut, "eth1"), at(*writer, "eth1"));
}

TEST_F(HandleEdge, ACommitInADamagedTableByNoWriterEndsInNoMansLand) {
  const IntfRecord record = intfRecord("eth1", 1);
  const auto sut = newMap();
  sut->init(QuillType::reader, true, 50);
  auto* const stored = reinterpret_cast<char*>(const_cast<IntfRecord*>(sut->write(record)));
  static_cast<void>(sut->directWrite(record.key));
  // The slot's place in the queue, which stands ahead of flags and value.
  stored[-7] = 0x7F;
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->directCommit(); }),
            "QuillMap::directCommit() in no man's land");
}

// Readers and shadows without a handle.
class ReaderEdge : public WriterTest {
 protected:
  using Reader = Quill::QuillReader<Number, NumberRecord>;
  std::unique_ptr<Reader> reader() {
    auto made = std::make_unique<Reader>(handler_, name_.c_str());
    EXPECT_TRUE(made->initialize());
    return made;
  }
};

TEST_F(ReaderEdge, EveryOperationSeesAGrowthThatItMeets) {
  const auto table = writer();
  put(*table, 1, 1);
  const auto iterating = reader();
  const auto byNumber = reader();
  const auto looking = reader();
  for (std::uint32_t key = 0; key < 400; ++key) put(*table, key, key);
  NumberRecord record;
  Quill::IterHint hint;
  EXPECT_TRUE(iterating->first(record, hint));
  EXPECT_EQ(record.key.value, 0U);
  EXPECT_EQ(iterating->capacity(), table->capacity());
  EXPECT_TRUE(byNumber->getValue(0, record));
  EXPECT_EQ(byNumber->capacity(), table->capacity());
  Number key;
  bool found = false;
  EXPECT_TRUE(looking->getKey(0, key));
  EXPECT_EQ(looking->lookup({399}, found).data, 399U);
  EXPECT_TRUE(found);
}

TEST_F(ReaderEdge, SlotsThatAreNotAttachedAreNotSound) {
  const Quill::RootPath path(handler_, name_, true);
  Quill::Reader::Counters counters;
  const Quill::SlotReaderTable<Number, NumberRecord> sut(handler_, path, counters);
  std::string message;
  EXPECT_FALSE(sut.validate(1, message));
  EXPECT_EQ(message, "SlotTable::Header::validate() bad header file size: 0 wanted:200");
}

TEST_F(ReaderEdge, ASlotFileTooShortForItsHeaderIsNotMounted) {
  writer().reset();
  std::filesystem::resize_file(name_ + "/slots", 100);
  Reader sut(handler_, name_.c_str());
  const TraceText traces;
  EXPECT_FALSE(sut.initialize());
  EXPECT_TRUE(traces.has("QuillReader::initialize() slots validate() failed"));
}

class ShadowEdge : public ShadowTableTest {};

TEST_F(ShadowEdge, AShadowThatIsNotMountedReadsAsEmpty) {
  newShadow();
  TestRecord value = entry(5, 1);
  Quill::IterHint hint;
  EXPECT_FALSE(shadow_->next(entry(5, 1).key, value, hint));
  EXPECT_EQ(value, TestRecord{});
  value = entry(5, 1);
  EXPECT_FALSE(shadow_->first(value, hint));
  EXPECT_EQ(value, TestRecord{});
  bool found = true;
  EXPECT_EQ(shadow_->lookup(entry(5, 1).key, found), TestRecord{});
  EXPECT_FALSE(found);
  EXPECT_FALSE(shadow_->resize());
}

TEST_F(ShadowEdge, DamageInTheFirstCopyDetachesTheShadowAlsoWhereTheHandleDoesNot) {
  for (std::uint32_t number = 1; number <= 200; ++number) write(number, number);
  map_.onCorruption = nullptr;
  newShadow();
  // The file loses its end when the copy has begun.
  map_.notifier_.onNotify = [this](const TestKey&) {
    std::filesystem::resize_file(name_ + "/slots", 0);
  };
  EXPECT_FALSE(shadow_->initialize());
  EXPECT_EQ(
      map_.reports,
      (std::vector<std::string>{"SlotReader::doResize() header corruption, shrinking from: " +
                                std::to_string(writer_->capacity()) + "to: 0 not supported."}));
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  EXPECT_EQ(shadow_->members(), 0U) << "what was copied is told as gone";
}

TEST_F(ShadowEdge, ATableWithChangesAndNoSlotsIsRefused) {
  write(1, 1);
  const RawFile file(name_ + "/slots");
  file.u32Is(160, 0);
  file.u32Is(164, Quill::kNoSlot);
  file.u32Is(168 + 4, 0);
  newShadow();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { shadow_->initialize(); }),
            "QuillShadow::initialized() slot capacity must be greater than 0");
  EXPECT_EQ(shadow_->mountStatus(), 0U);
}

TEST_F(ShadowEdge, AListenerThatDetachesTheShadowInItsFirstBatchEndsIt) {
  write(1, 1);
  newShadow();
  bool wrote = false;
  map_.notifier_.onNotify = [&](const TestKey& key) {
    if (!wrote) {
      wrote = true;
      write(9, 9);  // in a slot that the copy has passed: the queue tells of it
    } else if (key.number == 9) {
      shadow_->detach();
    }
  };
  EXPECT_FALSE(shadow_->initialize());
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  EXPECT_EQ(shadow_->members(), 0U);
}

TEST_F(ShadowEdge, AListenerThatDetachesTheShadowInItsFirstCopyEndsIt) {
  write(1, 1);
  write(2, 2);
  newShadow();
  map_.notifier_.onNotify = [this](const TestKey&) { shadow_->detach(); };
  EXPECT_FALSE(shadow_->initialize());
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  EXPECT_EQ(shadow_->members(), 0U);
  map_.notifier_.onNotify = nullptr;
  shadow_->notifying(true);  // as a handle says each time
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_EQ(shadow_->members(), 2U);
}

TEST_F(ShadowEdge, AListenerThatDetachesTheShadowInsideTheFlushEndsItOnce) {
  for (std::uint32_t number = 1; number <= 5; ++number) write(number, number);
  attach();
  notified();
  map_.notifier_.onNotify = [this](const TestKey&) { shadow_->detach(); };
  shadow_->detach();
  EXPECT_FALSE(notified().empty());
  EXPECT_EQ(shadow_->mountStatus(), 0U);
  map_.notifier_.onNotify = nullptr;
  shadow_->notifying(true);  // as a handle says each time
  EXPECT_TRUE(shadow_->initialize());
  EXPECT_EQ(shadow_->members(), 5U);
}

// A walk whose slots fail: what a shadow's walk calls.
struct FailingStore {
  void doSlot(unsigned slotIndex, bool) {
    if (fail) fail();
    visited.push_back(slotIndex);
  }
  std::vector<unsigned> visited;
  std::function<void()> fail;
};

struct FailingShadow {
  FailingStore* store() { return &store_; }
  FakeMap* map() { return &map_; }
  bool initialized() const { return true; }
  double yieldTime() const { return 0.05; }
  unsigned sample() const { return 2; }
  void syncComplete() { ++completions; }

  FailingStore store_;
  FakeMap map_;
  unsigned completions = 0;
};

TEST(SyncerEdge, ASlotThatFailsIsTriedAgainByTheLoopAndRaisedToWhoeverBegan) {
  SteppingLoop loop;
  const Vex::CurrentActivityManager current(loop);
  Sable::Platform::DebugHandler handler("test");
  const std::function<void()> failures[] = {[] { throw Sable::RuntimeException("as a test says"); },
                                            [] { throw std::bad_alloc(); }};
  for (const auto& failure : failures) {
    FailingShadow shadow;
    Quill::Reader::Counters counters;
    Quill::Syncer<FailingShadow> sut(handler, &shadow, counters);
    shadow.store_.fail = failure;
    EXPECT_THROW(sut.sync(3, false), std::exception);
    EXPECT_TRUE(shadow.store_.visited.empty());
    // In the loop: the walk gives way after two slots, then one fails.
    shadow.store_.fail = nullptr;
    loop.steppingClock().step = 1.0;
    EXPECT_TRUE(sut.sync(5, true));
    EXPECT_EQ(shadow.store_.visited.size(), 2U);
    shadow.store_.fail = failure;
    const TraceText traces;
    EXPECT_TRUE(loop.runTurn());
    EXPECT_EQ(shadow.store_.visited.size(), 2U);
    shadow.store_.fail = nullptr;
    for (unsigned i = 0; i < 100 && shadow.completions == 0; ++i) loop.runTurn();
    EXPECT_EQ(shadow.store_.visited, (std::vector<unsigned>{4, 3, 2, 1, 0}));
    EXPECT_EQ(shadow.completions, 1U);
    // Given up by what fails: nothing is tried again.
    shadow.store_.visited.clear();
    EXPECT_TRUE(sut.sync(5, true));
    shadow.store_.fail = [&] {
      sut.abandon();
      failure();
    };
    EXPECT_TRUE(loop.runTurn());
    shadow.store_.fail = nullptr;
    for (unsigned i = 0; i < 100; ++i) loop.runTurn();
    EXPECT_EQ(shadow.store_.visited.size(), 2U);
    EXPECT_EQ(shadow.completions, 1U);
  }
}

}  // namespace
}  // namespace QuillTest
