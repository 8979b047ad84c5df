// SPDX-License-Identifier: Apache-2.0
#include "quill/ReaderMounter.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>

#include "quill/FenixFile.h"
#include "tests/quill/FakeMountable.h"
#include "tests/quill/SystemLogText.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {
namespace {

using Quill::QuillType;
using Quill::ReaderMounter;

class ReaderMounterTest : public TableTest {
 protected:
  // What stands in the table's directory before the mounter looks.
  void diskIs(unsigned id) {
    const std::string path = root_.table(name_);
    std::filesystem::create_directories(path);
    Quill::FenixFile::write(handler_, path, id);
  }
  // A handle that has `fenix` mounted, and its mounter.
  void handleIs(QuillType mode, unsigned fenix, unsigned status) {
    sut_.reset();
    map_ = std::make_unique<FakeMountable>(root_.table(name_), mode);
    map_->fenix = fenix;
    map_->status = status;
    sut_.emplace(handler_, *map_);
  }
  // What attach() finds from now on.
  void mountingGives(unsigned fenix, unsigned status) {
    map_->onAttach = [this, fenix, status] {
      map_->fenix = fenix;
      map_->status = status;
    };
  }

  std::string name_ = "table";
  std::unique_ptr<FakeMountable> map_;
  std::optional<ReaderMounter> sut_;
};

TEST_F(ReaderMounterTest, NoGenerationAnywhereMountsNothingAndTriesAgainInAMinute) {
  handleIs(QuillType::reader, 0, 0);
  sut_->notify("occasion");
  EXPECT_EQ(map_->calls, "");
  EXPECT_TRUE(sut_->remountArmed());
  loop_.runFor(59.9);
  EXPECT_EQ(sut_->remountTimeouts(), 0U);
  loop_.runFor(0.2);
  EXPECT_EQ(sut_->remountTimeouts(), 1U);
  EXPECT_EQ(sut_->notifyCount(), 2U);
}

TEST_F(ReaderMounterTest, AReaderThatHasTheGenerationIsLeftAlone) {
  diskIs(7);
  handleIs(QuillType::reader, 7, 1);
  sut_->notify("occasion");
  EXPECT_EQ(map_->calls, "");
  EXPECT_FALSE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, AConnectedShadowOfTheGenerationIsLeftAlone) {
  diskIs(7);
  handleIs(QuillType::shadow, 7, 2);
  sut_->notify("occasion");
  EXPECT_EQ(map_->calls, "");
  EXPECT_FALSE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, AShadowWithoutConnectionTriesToConnectEachMinute) {
  diskIs(7);
  for (const QuillType mode : {QuillType::shadow, QuillType::keyshadow}) {
    handleIs(mode, 7, 1);
    sut_->notify("occasion");
    EXPECT_EQ(map_->calls, "attach ");
    loop_.runFor(60.1);
    EXPECT_EQ(map_->calls, "attach attach ");
    EXPECT_TRUE(sut_->remountArmed());
  }
}

TEST_F(ReaderMounterTest, ANewGenerationIsMountedInPlaceOfTheOldOne) {
  diskIs(8);
  handleIs(QuillType::reader, 7, 1);
  mountingGives(8, 1);
  sut_->notify("fenix");
  EXPECT_EQ(map_->calls, "detach attach ");
  EXPECT_FALSE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, AGenerationIsMountedWhereNoneWas) {
  diskIs(8);
  handleIs(QuillType::shadow, 0, 0);
  mountingGives(8, 2);
  sut_->notify("fenix");
  EXPECT_EQ(map_->calls, "attach ");
  EXPECT_FALSE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, AGenerationThatIsGoneIsLetGo) {
  handleIs(QuillType::shadow, 7, 2);
  sut_->notify("fenix");
  EXPECT_EQ(map_->calls, "detach attach ");
  EXPECT_TRUE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, AReportOfDamageIsCountedAndNothingElse) {
  diskIs(8);
  handleIs(QuillType::reader, 7, 1);
  const TraceText traces;
  sut_->notify("corruption-detected");
  EXPECT_EQ(sut_->notifyCount(), 1U);
  EXPECT_EQ(map_->calls, "");
  EXPECT_FALSE(sut_->remountArmed());
  EXPECT_EQ(traces.text(), "");
}

TEST_F(ReaderMounterTest, WithNotificationsOffNothingIsMountedAndTheTimerStaysAsItIs) {
  handleIs(QuillType::reader, 0, 0);
  sut_->notify("occasion");
  diskIs(8);
  map_->notifying = false;
  const TraceText traces;
  sut_->notify("fenix");
  EXPECT_EQ(map_->calls, "");
  EXPECT_TRUE(sut_->remountArmed());
  EXPECT_TRUE(traces.has(
      "ReaderMounter::notify() ignoring notify because quillMap notifications are off."));
  map_->notifying = true;
  mountingGives(8, 1);
  sut_->notify("Notifications enabled");
  EXPECT_EQ(map_->calls, "attach ");
  EXPECT_FALSE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, ADecisionIsTracedWithBothGenerations) {
  diskIs(8);
  handleIs(QuillType::keyshadow, 7, 2);
  const TraceText traces;
  sut_->notify("occasion");
  EXPECT_TRUE(
      traces.has("QuillMap::ReaderMounter::notify() eventName: occasion fenixId: 8 "
                 "quillMap.fenixId: 7 mode: keyshadow"));
  EXPECT_TRUE(traces.has("QuillMap::ReaderMounter::notify() arming remount timer"));
}

TEST_F(ReaderMounterTest, RetriesGoOnForEverAndOnlyTheFirstIsAnnounced) {
  handleIs(QuillType::reader, 0, 0);
  const TraceText traces;
  sut_->notify("occasion");
  loop_.runFor(100 * 60.0 + 1.0);
  EXPECT_EQ(sut_->remountTimeouts(), 100U);
  EXPECT_EQ(traces.count("ReaderMounter::timeout() start retrying to mount " + root_.table(name_) +
                         ". This message can be safely ignored if the writer is not running."),
            1U);
  EXPECT_EQ(traces.count("eventName: remount timeout"), 100U);
}

TEST_F(ReaderMounterTest, AMountingAtATimeoutIsToldToTheSystemLogWithTheTimeouts) {
  const SystemLogText systemLog;
  handleIs(QuillType::reader, 0, 0);
  sut_->notify("occasion");
  loop_.runFor(130.0);
  ASSERT_EQ(sut_->remountTimeouts(), 2U);
  // The file comes by another way than the directory's events: here nobody runs the loop between.
  map_->notifying = false;
  diskIs(8);
  loop_.runTurn();
  map_->notifying = true;
  mountingGives(8, 1);
  const TraceText traces;
  loop_.runFor(60.0);
  const std::string text =
      "CANARY: " + root_.table(name_) + " ReaderMounter::timeout() remounted after 3 timeouts";
  EXPECT_TRUE(traces.has(text));
  EXPECT_EQ(SystemLogText::calls(),
            (std::vector<std::string>{"open null 9 168", "7 " + text + " -> " + text, "close"}));
  EXPECT_EQ(sut_->remountTimeouts(), 0U);
  EXPECT_FALSE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, APercentSignInATablesNameIsNoPartOfTheFormat) {
  const SystemLogText systemLog;
  name_ = "load\n%s%n";
  const std::string text = "CANARY: " + root_.path() +
                           "/load%0A%25s%25n ReaderMounter::timeout() remounted after 1 "
                           "timeouts";
  handleIs(QuillType::reader, 0, 0);
  sut_->notify("occasion");
  map_->fenix = 8;  // so that the handle differs from the empty disk
  mountingGives(8, 1);
  loop_.runFor(60.0);
  ASSERT_EQ(SystemLogText::calls().size(), 3U);
  EXPECT_TRUE(SystemLogText::calls()[1].ends_with(" -> " + text)) << SystemLogText::calls()[1];
}

TEST_F(ReaderMounterTest, WhatMountingRaisesReachesWhoeverNotifiedAndTheTimerIsArmed) {
  diskIs(8);
  handleIs(QuillType::reader, 0, 0);
  map_->onAttach = [] { throw std::runtime_error("no memory"); };
  EXPECT_THROW(sut_->notify("fenix"), std::runtime_error);
  EXPECT_TRUE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, WhatMountingRaisesAtATimeoutEndsThereAndIsTriedAgain) {
  diskIs(8);
  handleIs(QuillType::reader, 0, 0);
  map_->onAttach = [] { throw std::runtime_error("no memory"); };
  sut_->onEvent("fenix");
  const TraceText traces;
  loop_.runFor(121.0);
  EXPECT_EQ(map_->calls, "attach attach attach ");
  EXPECT_EQ(traces.count("ReaderMounter::onEvent() remount timeout caught: no memory"), 2U);
}

TEST_F(ReaderMounterTest, AnEventInsideAMountingDoesNotMountAgain) {
  diskIs(8);
  handleIs(QuillType::shadow, 0, 0);
  map_->onAttach = [this] { sut_->notify("QuillMap::handleDisconnect()"); };
  sut_->notify("fenix");
  EXPECT_EQ(map_->calls, "attach ");
  EXPECT_EQ(sut_->notifyCount(), 2U);
  EXPECT_TRUE(sut_->remountArmed());
}

TEST_F(ReaderMounterTest, AChangeOfTheDirectoryIsHeard) {
  handleIs(QuillType::reader, 0, 0);
  sut_->notify("occasion");
  mountingGives(8, 1);
  diskIs(8);
  loop_.runFor(0.1);
  EXPECT_EQ(map_->calls, "attach ");
  EXPECT_FALSE(sut_->remountArmed());
}

TEST(ReaderMounterWithoutLoop, MountsWhenNotifiedAndDoesNotWatch) {
  const TemporaryRoot root;
  Sable::Platform::DebugHandler handler("test");
  std::filesystem::create_directories(root.table("table"));
  Quill::FenixFile::write(handler, root.table("table"), 8);
  FakeMountable map(root.table("table"), QuillType::reader);
  const TraceText traces;
  ReaderMounter sut(handler, map);
  EXPECT_TRUE(traces.has("ReaderMounter unable to initialize mounterSm"));
  sut.notify("occasion");
  EXPECT_EQ(map.calls, "attach ");
  EXPECT_FALSE(sut.remountArmed());
}

}  // namespace
}  // namespace QuillTest
