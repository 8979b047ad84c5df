// SPDX-License-Identifier: Apache-2.0
//
// The real scheduler, in threads of their own, since the policy belongs to the thread that asks.
#include "agent/Scheduling.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <functional>
#include <thread>

namespace Agent {
namespace {

bool isRealtime() { return (sched_getscheduler(0) & ~SCHED_RESET_ON_FORK) == SCHED_RR; }

void inThread(const std::function<void(ProcessScheduling&)>& scenario) {
  bool allowed = true;
  std::thread([&] {
    ProcessScheduling sut;
    allowed = !sut.schedulingIs(Scheduling::realtime);
    if (allowed) scenario(sut);
  }).join();
  if (!allowed) GTEST_SKIP() << "this user may not have real-time threads";
}

TEST(ProcessScheduling, IsWhatIsAskedFor) {
  inThread([](ProcessScheduling& sut) {
    EXPECT_TRUE(sut.realtime());
    EXPECT_TRUE(isRealtime());
    EXPECT_FALSE(sut.schedulingIs(Scheduling::normal));
    EXPECT_FALSE(sut.realtime());
    EXPECT_FALSE(isRealtime());
  });
}

TEST(ProcessScheduling, GivesWayWhileAFloodLastsAndStaysARealtimeProcessByItsConfiguration) {
  inThread([](ProcessScheduling& sut) {
    sut.floodIs(true);
    EXPECT_FALSE(isRealtime());
    EXPECT_TRUE(sut.realtime());
    sut.floodIs(false);
    EXPECT_TRUE(isRealtime());
  });
}

TEST(ProcessScheduling, AReloadInAFloodLeavesTheProcessorsToOthersUntilItIsOver) {
  inThread([](ProcessScheduling& sut) {
    sut.floodIs(true);
    EXPECT_FALSE(sut.schedulingIs(Scheduling::normal));
    EXPECT_FALSE(sut.schedulingIs(Scheduling::realtime));
    EXPECT_FALSE(isRealtime()) << "the flood has begun before";
    sut.floodIs(false);
    EXPECT_TRUE(isRealtime());
  });
}

TEST(ProcessScheduling, AFloodIsNothingToAnOrdinaryProcess) {
  inThread([](ProcessScheduling& sut) {
    EXPECT_FALSE(sut.schedulingIs(Scheduling::normal));
    for (const bool flood : {true, false}) {
      sut.floodIs(flood);
      EXPECT_FALSE(isRealtime()) << flood;
    }
  });
}

}  // namespace
}  // namespace Agent
