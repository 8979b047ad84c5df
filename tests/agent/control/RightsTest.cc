// SPDX-License-Identifier: Apache-2.0
#include "agent/control/Rights.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace Agent {
namespace {

// A group that exists on every system, and is nobody's by accident.
constexpr const char* kGroup = "nogroup";

gid_t gidOf(const char* name) {
  const group* const entry = getgrnam(name);
  return entry != nullptr ? entry->gr_gid : 0;
}

TEST(SystemRightsTest, TheKernelTellsWhoThePeerIs) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const SystemRights sut("");
  const auto who = sut.peer(ends[0]);
  ASSERT_TRUE(who.has_value());
  EXPECT_EQ(who->pid, getpid());
  EXPECT_EQ(who->uid, geteuid());
  EXPECT_EQ(who->gid, getegid());
  std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
  ASSERT_EQ(getgroups(static_cast<int>(groups.size()), groups.data()),
            static_cast<int>(groups.size()));
  std::vector<gid_t> told = who->groups;
  std::sort(told.begin(), told.end());
  std::sort(groups.begin(), groups.end());
  EXPECT_EQ(told, groups);
  close(ends[0]);
  close(ends[1]);
}

TEST(SystemRightsTest, WhatIsNoSocketHasNoPeer) {
  EXPECT_FALSE(SystemRights("").peer(-1).has_value());
}

TEST(SystemRightsTest, RootTheAgentsUserAndTheGroupMayWriteAndNobodyElse) {
  constexpr uid_t kOwn = 4241;  // neither root nor, if that is another, who runs this test
  const SystemRights sut(kGroup, kOwn);
  const gid_t group = gidOf(kGroup);
  EXPECT_TRUE(sut.mayWrite({1, 0, 0, {}}));
  EXPECT_TRUE(sut.mayWrite({1, kOwn, 1, {}}));
  EXPECT_FALSE(SystemRights(kGroup, 0).mayWrite({1, kOwn, 1, {}}));
  EXPECT_TRUE(sut.mayWrite({1, 4242, group, {}}));
  EXPECT_TRUE(sut.mayWrite({1, 4242, 1, {7, group}}));
  EXPECT_FALSE(sut.mayWrite({1, 4242, 1, {7, 8}}));
  EXPECT_EQ(sut.reason({1, 4242, 1, {}}), "user 4242 is neither root nor in the group nogroup");
}

TEST(SystemRightsTest, TheAgentsUserIsTheOneThatTheProcessRunsAs) {
  EXPECT_TRUE(SystemRights("").mayWrite({1, geteuid(), 1, {}}));
}

TEST(SystemRightsTest, AGroupThatIsNotThereHasNoMembers) {
  const SystemRights missing("no-such-group-here");
  EXPECT_FALSE(missing.mayWrite({1, 4242, 0, {0}}));
  EXPECT_EQ(missing.reason({1, 4242, 1, {}}),
            "user 4242 is neither root nor in the group no-such-group-here, which does not exist");
  const SystemRights none("");
  EXPECT_FALSE(none.mayWrite({1, 4242, 0, {0}}));
  EXPECT_EQ(none.reason({1, 4242, 1, {}}),
            "user 4242 is not root, and no group may change anything");
}

}  // namespace
}  // namespace Agent
