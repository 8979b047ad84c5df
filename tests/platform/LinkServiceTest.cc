// SPDX-License-Identifier: Apache-2.0
//
// On the links of whatever namespace the test runs in: reading them needs no rights.
#include "platform/linux/LinkService.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "runtime/vex/VirtualActivityManager.h"

namespace Platform::Linux {
namespace {

class Names final : public LinkMonitor::Listener {
 public:
  void linkIs(const LinkInfo& now, const LinkInfo*) override { names.push_back(now.name); }
  void linkDel(const LinkInfo& last) override { gone.push_back(last.name); }
  std::vector<std::string> names;
  std::vector<std::string> gone;
};

class LinkServiceTest : public testing::Test {
 protected:
  // How often a timer was due in that time.
  std::uint64_t wakeUpsIn(double seconds) {
    const std::uint64_t before = manager.wakeUps();
    manager.runFor(seconds);
    return manager.wakeUps() - before;
  }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Vex::Ptr<Helm::TimerWheel> wheel = Vex::makePtr<Helm::TimerWheel>(
      Vex::Ptr<Vex::ActivityConfig>(), Vex::Ptr<Vex::Clock const>(), 10U, 64U, true, 64U);
  Names names;
  LinkService sut{manager, wheel, names};
};

TEST_F(LinkServiceTest, ReadsTheLinksAtTheStartAndRestsThen) {
  ASSERT_EQ(sut.start(), std::error_code());
  EXPECT_NE(std::find(names.names.begin(), names.names.end(), "lo"), names.names.end());
  EXPECT_TRUE(sut.inSync());
  EXPECT_EQ(wakeUpsIn(1000), 0U) << "no timer while all is well";
}

TEST_F(LinkServiceTest, AFailedDumpIsAskedForAgainWithGrowingPausesUntilItSucceeds) {
  ASSERT_EQ(sut.start(), std::error_code());
  const std::size_t told = names.names.size();
  // Something that is no socket, in the socket's place: every request fails.
  const Fd socket(::fcntl(sut.fd(), F_DUPFD_CLOEXEC, 0));
  const Fd nothing(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  ASSERT_GE(::dup2(nothing.get(), sut.fd()), 0);
  sut.resync();
  EXPECT_EQ(wakeUpsIn(0.05), 0U);
  EXPECT_FALSE(sut.inSync());
  EXPECT_EQ(wakeUpsIn(25), 8U) << "after 0.1, 0.3, 0.7, 1.5, 3.1, 6.3, 12.7 and 22.7 seconds";
  EXPECT_EQ(wakeUpsIn(100), 10U) << "every 10 seconds";
  EXPECT_FALSE(sut.inSync());
  ASSERT_GE(::dup2(socket.get(), sut.fd()), 0);
  manager.runFor(LinkService::kLongestPause);
  EXPECT_TRUE(sut.inSync());
  EXPECT_EQ(sut.statistics().resyncs, 1U);
  EXPECT_EQ(names.names.size(), told) << "nothing has changed, so nothing is told";
  EXPECT_TRUE(names.gone.empty());
  EXPECT_EQ(wakeUpsIn(1000), 0U);
}

}  // namespace
}  // namespace Platform::Linux
