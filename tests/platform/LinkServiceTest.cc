// SPDX-License-Identifier: Apache-2.0
//
// On the links of whatever namespace the test runs in: reading them needs no rights.
#include "platform/linux/LinkService.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

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
  // The virtual manager knows no descriptors, so the answers of the kernel, which stand in the
  // socket when the request returns, are read by the deferred task and the timer alone.
  void runFor(double seconds) { manager.runFor(seconds); }

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
  EXPECT_EQ(manager.nextDue(), Vex::kNever) << "no timer while all is well";
}

TEST_F(LinkServiceTest, AFailedDumpIsAskedForAgainWithGrowingPausesUntilItSucceeds) {
  ASSERT_EQ(sut.start(), std::error_code());
  const std::size_t told = names.names.size();
  // Something that is no socket, in the socket's place: every request fails.
  const Fd socket(::fcntl(sut.fd(), F_DUPFD_CLOEXEC, 0));
  const Fd nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
  ASSERT_GE(::dup2(nothing.get(), sut.fd()), 0);
  sut.resync();
  runFor(0);
  EXPECT_FALSE(sut.inSync());
  for (const double pause : {0.1, 0.2, 0.4, 0.8, 1.6, 3.2, 6.4, 10.0, 10.0}) {
    EXPECT_NEAR(manager.nextDue() - manager.now(), pause, 0.02);
    runFor(manager.nextDue() - manager.now());
    EXPECT_FALSE(sut.inSync());
  }
  ASSERT_GE(::dup2(socket.get(), sut.fd()), 0);
  for (int turn = 0; turn < 100 && !sut.inSync(); ++turn) {
    runFor(LinkService::kLongestPause);
    pollfd waiting{sut.fd(), POLLIN, 0};
    ASSERT_GE(::poll(&waiting, 1, 0), 0);
  }
  EXPECT_TRUE(sut.inSync());
  EXPECT_EQ(sut.statistics().resyncs, 1U);
  EXPECT_EQ(names.names.size(), told) << "nothing has changed, so nothing is told";
  EXPECT_TRUE(names.gone.empty());
  runFor(0);
  EXPECT_EQ(manager.nextDue(), Vex::kNever);
}

}  // namespace
}  // namespace Platform::Linux
