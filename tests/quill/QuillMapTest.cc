// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillMap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "quill/Util.h"
#include "tests/quill/MapFixture.h"

namespace QuillTest {
namespace {

using Quill::QuillType;

class QuillMapTest : public MapTest {
 protected:
  // A local table as if it were damaged: the flags of the slot of a stored value.
  static void damage(const IntfRecord* stored) {
    auto* const flags =
        reinterpret_cast<char*>(const_cast<IntfRecord*>(stored)) - sizeof(std::uint32_t);
    *flags = static_cast<char>(*flags & ~1);
  }
};

TEST_F(QuillMapTest, BeforeInitEveryUseIsAnExceptionAndSettingsAreKept) {
  const auto sut = newMap();
  const std::string text = "QuillMap name: " + path_ + " used before init()";
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->members(); }), text);
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->mountStatus(); }), text);
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->controlDetach(); }), text);
  sut->notifying(false);
  sut->sampleIs(3);
  sut->yieldTimeIs(0.5);
  EXPECT_FALSE(sut->notifyingOn());
}

TEST_F(QuillMapTest, ASecondInitOfALocalHandleIsAcceptedAndChangesNothing) {
  const auto sut = newMap();
  sut->init(QuillType::writer, true, 50);
  sut->write(intfRecord("eth1", 1));
  const TraceText traces;
  sut->init(QuillType::shadow, true, 70);
  EXPECT_EQ(sut->maxSize(), 50U);
  EXPECT_EQ(sut->mode(), QuillType::writer);
  EXPECT_EQ(at(*sut, "eth1"), intfRecord("eth1", 1));
  EXPECT_TRUE(traces.has("QuillMap::init() name:" + path_ + " mode:shadow isLocal:1 size:70"));
  EXPECT_TRUE(traces.has("QuillMap::init() name: " + path_ +
                         " already initialized with mode: writer size: 50 local: 1"));
}

TEST_F(QuillMapTest, ALocalHandleIsAWriterWhateverItsMode) {
  const auto sut = newMap();
  sut->init(QuillType::keyshadow, true, 50);
  EXPECT_EQ(sut->mode(), QuillType::keyshadow);
  EXPECT_EQ(sut->type(), QuillType::writer);
  sut->write(intfRecord("eth1", 1));
  EXPECT_EQ(sut->members(), 1U);
  EXPECT_EQ(sut->mounter(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(QuillMapTest, AWriterOfSizeZeroIsRefusedLocalOrNot) {
  for (const bool isLocal : {true, false}) {
    const auto sut = newMap();
    EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                  [&] { sut->init(QuillType::writer, isLocal, 0); }),
              "QuillMap::init() 0 is not a valid initialization size for collection " + path_ +
                  " in writer mode");
    EXPECT_FALSE(sut->initialized());
  }
}

TEST_F(QuillMapTest, ASecondInitOfASharedHandleMustAskForTheSame) {
  const auto sut = newWriter(100);
  sut->write(intfRecord("eth1", 1));
  sut->init(QuillType::writer, false, 100);
  EXPECT_EQ(sut->members(), 1U);
  const std::string text = "QuillMap::init() name: " + path_ +
                           " already initialized with mode: writer size: 100 local: 0";
  const auto raised = [&](QuillType mode, bool isLocal, unsigned size) {
    return textOfRaised<Sable::InvalidInitializeException>([&] { sut->init(mode, isLocal, size); });
  };
  EXPECT_EQ(raised(QuillType::writer, false, 101), text);
  EXPECT_EQ(raised(QuillType::reader, false, 100), text);
  EXPECT_EQ(raised(QuillType::writer, true, 100), text);
  EXPECT_EQ(sut->members(), 1U);
}

TEST_F(QuillMapTest, TheSizeOfASecondInitCountsForWritersOnly) {
  const auto sut = newReader();
  sut->init(QuillType::reader, false, 12);
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                [&] { sut->init(QuillType::shadow, false, 0); }),
            "QuillMap::init() name: " + path_ +
                " already initialized with mode: reader size: 0 local: 0");
}

TEST_F(QuillMapTest, AModeThatIsNoneIsRefusedAndTheHandleMayBeInitializedAgain) {
  const auto sut = newMap();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>(
                [&] { sut->init(static_cast<QuillType>(9), false, 1); }),
            "QuillMap::init() not a valid reader type:writer");
  EXPECT_EQ(sut->members(), 0U);
  sut->init(QuillType::writer, false, 100);
  EXPECT_EQ(sut->mountStatus(), 1U);
}

TEST_F(QuillMapTest, AWriterThatFindsAnotherOneReadsAsEmptyAndMayTryAgain) {
  auto other = newWriter();
  const auto sut = newMap();
  EXPECT_THROW(sut->init(QuillType::writer, false, 100), Sable::InvalidInitializeException);
  EXPECT_FALSE(sut->initialized());
  EXPECT_EQ(at(*sut, "eth1"), IntfRecord{});
  other.reset();
  sut->init(QuillType::writer, false, 100);
  EXPECT_EQ(sut->mountStatus(), 1U);
}

TEST_F(QuillMapTest, ANameThatCannotBeADirectorysIsRefusedAndTheHandleReadsAsEmpty) {
  for (const QuillType mode : {QuillType::writer, QuillType::reader}) {
    IntfMap sut("/tables/../etc", "counterIntf");
    EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { sut.init(mode, false, 100); }),
              "table path /tables/../etc: must be a directory's absolute path without \"..\"");
    EXPECT_EQ(sut.members(), 0U);
  }
}

TEST_F(QuillMapTest, TracesUnderTheHashOfItsNameItsShortNameAndItsMode) {
  // A name whose hash has a zero in front, to see it kept.
  std::string name = "a";
  while ((Quill::Util::hash(name) & 0xffffU) >= 0x1000) name += 'a';
  char digits[5];
  std::snprintf(digits, sizeof digits, "%04x", Quill::Util::hash(name) & 0xffffU);
  ASSERT_EQ(digits[0], '0');
  IntfMap sut(name, "counterIntf");
  sut.init(QuillType::reader, true, 10);
  const TraceText traces;
  sut.validate();
  EXPECT_TRUE(traces.has("Quill-" + std::string(digits) +
                         "-counterIntf-reader: QuillMap::validate() " + name))
      << traces.text();
}

TEST_F(QuillMapTest, ForwardedOperationsAreTracedWithTheTablesPath) {
  const auto sut = newWriter();
  const TraceText traces;
  sut->validate(), sut->validateFiles(), sut->mountStatus(), sut->sequence(), sut->fenixId();
  sut->resize(), sut->maxSize(), sut->capacity(), sut->rootPath(), sut->quillName();
  sut->writerCounters(), sut->cleanup();
  for (const char* const operation :
       {"validate", "validateFiles", "mountStatus", "sequence", "fenixId", "resize", "maxSize",
        "capacity", "rootPath", "quillName", "writerCounters", "cleanup"}) {
    EXPECT_TRUE(traces.has("QuillMap::" + std::string(operation) + "() " + path_)) << operation;
  }
}

TEST_F(QuillMapTest, TheClassTypeStandsInTheTablesHeader) {
  class Named final : public IntfMap {
   public:
    using IntfMap::IntfMap;
    std::string classType() const override { return "Ringward::Status::PacketCounter"; }
  };
  Named sut(path_, "counterIntf");
  sut.init(QuillType::writer, false, 100);
  EXPECT_STREQ(slots_.bytes(80, 64).c_str(), "Ringward::Status::PacketCounter");
}

TEST_F(QuillMapTest, OwnerNamesTheProcessThatWrites) {
  const auto sut = newWriter();
  EXPECT_EQ(sut->owner(),
            std::string(program_invocation_short_name) + ":" + std::to_string(getpid()));
}

TEST_F(QuillMapTest, RemovalsGiveWhatTheyTookOutOrADefault) {
  const auto sut = newMap();
  sut->init(QuillType::writer, true, 50);
  const IntfRecord record = intfRecord("eth1", 1, 2, 3);
  sut->safeWrite(record);
  EXPECT_EQ(sut->safeRemove(record.key), record);
  EXPECT_EQ(sut->removed(), record);
  EXPECT_EQ(sut->safeRemove(record.key), IntfRecord{});
  sut->write(record);
  IntfRecord old;
  EXPECT_TRUE(sut->remove(record.key, old));
  EXPECT_EQ(old, record);
  EXPECT_FALSE(sut->remove(record.key, old));
}

TEST_F(QuillMapTest, AValueIsFilledInInPlaceAndCommitted) {
  const auto sut = newMap();
  sut->init(QuillType::writer, true, 50);
  const IntfRecord record = intfRecord("eth1", 1, 2, 3);
  const Quill::DirectTarget target = sut->directWrite(record.key);
  std::memcpy(target.address, static_cast<const void*>(&record), sizeof record);
  EXPECT_EQ(sut->members(), 1U);
  sut->directCommit();
  bool found = false;
  EXPECT_EQ(sut->safeLookup(record.key, found), record);
  EXPECT_TRUE(found);
}

TEST_F(QuillMapTest, AWriterThatMeetsDamageRaisesItUnderTheTablesPath) {
  const auto sut = newWriter();
  const IntfRecord record = intfRecord("eth1", 1);
  sut->write(record);
  const std::uint32_t slot = slotOfFirst(*sut);
  slots_.u32Is(flagsAt(slot), 4);
  const std::string place = "QuillMap::corruptionDetected() " + path_ +
                            " QuillWriter::%() slot: " + std::to_string(slot) +
                            " not marked as occupied";
  const auto text = [&](const char* operation) {
    return std::string(place).replace(place.find('%'), 1, operation);
  };
  bool found = false;
  using Damage = Quill::CorruptionDetectedException;
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->safeLookup(record.key, found); }), text("lookup"));
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->safeWrite(record); }), text("find"));
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->safeRemove(record.key); }), text("find"));
  EXPECT_EQ(sut->mountStatus(), 1U);
}

TEST_F(QuillMapTest, AChangeOfADamagedTableByNoWriterEndsInNoMansLand) {
  const IntfRecord record = intfRecord("eth1", 1);
  const auto sut = newMap();
  sut->init(QuillType::reader, true, 50);
  damage(sut->write(record));
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->safeWrite(record); }),
            "QuillMap::safeWrite() in no man's land");
  EXPECT_EQ(sut->members(), 0U);
  EXPECT_EQ(textOfRaised<Sable::NoPermissionException>([&] { sut->safeWrite(record); }),
            "write to read-only Quill table");
  const auto other = newMap();
  other->init(QuillType::reader, true, 50);
  damage(other->write(record));
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { other->safeRemove(record.key); }),
            "QuillMap::safeRemove() in no man's land");
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(QuillMapTest, OtherExceptionsPassTheGuards) {
  const auto sut = newReader();
  const IntfRecord record = intfRecord("eth1", 1);
  EXPECT_THROW(sut->safeWrite(record), Sable::NoPermissionException);
  EXPECT_THROW(sut->safeRemove(record.key), Sable::NoPermissionException);
  EXPECT_THROW(sut->directCommit(), Sable::NoPermissionException);
}

TEST_F(QuillMapTest, ATimeThatIsNoneIsRefused) {
  const auto sut = newMap();
  EXPECT_THROW(sut->yieldTimeIs(std::numeric_limits<double>::quiet_NaN()), Vex::RangeException);
  try {
    sut->yieldTimeIs(-1.5);
    ADD_FAILURE() << "nothing raised";
  } catch (const Vex::RangeException& error) {
    EXPECT_STREQ(error.what(),
                 ("yieldTime of table " + path_ + ": -1.5 seconds: must be 0 or more").c_str());
  }
}

TEST_F(QuillMapTest, ADetachedHandleReadsAsEmptyCleansUpAndMayBeInitializedAgain) {
  const auto sut = newWriter();
  sut->write(intfRecord("eth1", 1));
  sut->controlDetach();
  sut->controlDetach();
  EXPECT_EQ(sut->mountStatus(), 0U);
  EXPECT_EQ(sut->members(), 0U);
  EXPECT_EQ(sut->mounter(), nullptr);
  EXPECT_FALSE(sut->initialized());
  EXPECT_TRUE(std::filesystem::exists(path_ + "/slots"));
  sut->init(QuillType::writer, false, 100);
  EXPECT_EQ(at(*sut, "eth1"), intfRecord("eth1", 1));
  sut->controlDetach();
  sut->cleanup();
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(QuillMapTest, DefaultLocalTableHasAHundredSlotsAndNoFiles) {
  class Handle final : public IntfMap {
   public:
    using IntfMap::IntfMap;
    void begin() { implementationIs(createDefaultLocalWriter(debugHandler())); }
  };
  Handle sut(path_, "counterIntf");
  sut.begin();
  EXPECT_EQ(sut.maxSize(), 100U);
  sut.write(intfRecord("eth1", 1));
  EXPECT_EQ(sut.members(), 1U);
  EXPECT_FALSE(std::filesystem::exists(path_));
  sut.init(QuillType::writer, false, 200);
  EXPECT_EQ(sut.members(), 0U);
  EXPECT_EQ(sut.maxSize(), 200U);
}

}  // namespace
}  // namespace QuillTest
