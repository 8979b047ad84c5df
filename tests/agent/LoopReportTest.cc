// SPDX-License-Identifier: Apache-2.0
#include "agent/LoopReport.h"

#include <gtest/gtest.h>

#include <regex>
#include <vector>

#include "runtime/vex/VirtualActivityManager.h"

namespace Agent {
namespace {

using Platform::Linux::ErrdisableAction;
using Hold = Platform::Linux::Errdisable::Hold;

Hold holdBy(ErrdisableAction action, std::error_code error = {}, unsigned attempts = 0) {
  Hold hold;
  hold.ifindex = 7;
  hold.action = action;
  hold.error = error;
  hold.attempts = attempts;
  return hold;
}

class LoopReportTest : public testing::Test {
 protected:
  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  Vex::Ptr<Bridging::Config> brConfig = Vex::makePtr<Bridging::Config>(Vex::Name("brConfig"));
  Vex::Ptr<Platform::Linux::PacketAccess> access =
      Vex::makePtr<Platform::Linux::PacketAccess>(manager, true);
  std::vector<std::string> lines;
  LoopReport sut{status, brConfig, *access,
                 [this](std::string_view line) { lines.emplace_back(line); }};
  const Portus::IntfId eth1 = Portus::IntfId::fromName("eth1");
};

TEST_F(LoopReportTest, TellsTheDeadlineAndHowLongThePortWasDown) {
  status->intfStatusIs(eth1)->disabledUntilIs(Vex::now() + 30);
  sut.held(eth1, holdBy(ErrdisableAction::bridgePort));
  manager.runFor(30);
  sut.released(eth1, holdBy(ErrdisableAction::bridgePort));
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("loop: received on eth1, found held down, action bridge-port, until "
                           "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC \\(30 s\\)")))
      << lines[0];
  EXPECT_EQ(lines[1], "recovered: eth1 after 30 s");
}

TEST_F(LoopReportTest, APortWithoutADeadlineIsDownForGood) {
  status->intfStatusIs(eth1);
  sut.held(eth1, holdBy(ErrdisableAction::adminDown));
  EXPECT_EQ(lines, std::vector<std::string>{
                       "loop: received on eth1, found held down, action admin-down, for good"});
}

TEST_F(LoopReportTest, FailuresAreNamedWithTheSystemsReason) {
  const std::error_code error(EPERM, std::system_category());
  sut.held(eth1, holdBy(ErrdisableAction::adminDown, error));
  sut.heldAtLast(eth1, holdBy(ErrdisableAction::adminDown, {}, 3));
  sut.released(eth1, holdBy(ErrdisableAction::adminDown, error));
  sut.releasedAtLast(eth1, holdBy(ErrdisableAction::adminDown, {}, 2));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "loop: received on eth1, found held down, action admin-down FAILED "
                       "(Operation not permitted): the loop is not broken; trying again",
                       "held at last: eth1, action admin-down after 3 failed attempts, for good",
                       "recovered: eth1 after 0 s, but putting it back FAILED (Operation not "
                       "permitted); trying again",
                       "put back at last: eth1 after 2 failed attempts"}));
}

}  // namespace
}  // namespace Agent
