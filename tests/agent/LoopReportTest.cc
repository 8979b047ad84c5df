// SPDX-License-Identifier: Apache-2.0
#include "agent/LoopReport.h"

#include <gtest/gtest.h>

#include <regex>
#include <vector>

#include "runtime/vex/VirtualActivityManager.h"

namespace Agent {
namespace {

using Platform::Linux::ErrdisableAction;

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
  sut.held(eth1, 7, ErrdisableAction::bridgePort, {});
  manager.runFor(30);
  sut.released(eth1, {});
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("loop: received on eth1, found held down, action bridge-port, until "
                           "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC \\(30 s\\)")))
      << lines[0];
  EXPECT_EQ(lines[1], "recovered: eth1 after 30 s");
}

TEST_F(LoopReportTest, APortWithoutADeadlineIsDownForGood) {
  status->intfStatusIs(eth1);
  sut.held(eth1, 7, ErrdisableAction::adminDown, {});
  EXPECT_EQ(lines, std::vector<std::string>{
                       "loop: received on eth1, found held down, action admin-down, for good"});
}

TEST_F(LoopReportTest, FailuresAreNamedWithTheSystemsReason) {
  const std::error_code error(EPERM, std::system_category());
  sut.held(eth1, 7, ErrdisableAction::adminDown, error);
  sut.released(eth1, error);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "loop: received on eth1, found held down, action admin-down FAILED "
                       "(Operation not permitted): the loop is not broken",
                       "recovered: eth1 after 0 s, but putting it back FAILED: Operation not "
                       "permitted"}));
}

}  // namespace
}  // namespace Agent
