// SPDX-License-Identifier: Apache-2.0
//
// How link messages change the table of links; the socket side is tested on real interfaces in
// tests/lab/LinkLabTest.cc. The message sequences are those that a kernel sends.
#include "platform/linux/LinkMonitor.h"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_bridge.h>
#include <sys/socket.h>

#include "platform/linux/LinkTable.h"

namespace Platform::Linux {
namespace {

using Type = LinkMessage::Type;

LinkMessage newLink(int ifindex, const char* name) {
  LinkMessage message;
  message.ifindex = ifindex;
  message.name = name;
  message.flags = IFF_UP | IFF_LOWER_UP;
  message.arpType = 1;
  message.mtu = 1500;
  message.operState = std::uint8_t{6};
  message.carrier = true;
  message.kind = "veth";
  return message;
}

LinkMessage newSlave(int ifindex, const char* name, int master, std::uint8_t state) {
  LinkMessage message = newLink(ifindex, name);
  message.master = master;
  message.slaveKind = "bridge";
  message.slaveBridgePortState = state;
  return message;
}

LinkMessage newPort(int ifindex, int master, std::uint8_t state) {
  LinkMessage message;
  message.family = AF_BRIDGE;
  message.ifindex = ifindex;
  message.name = "ignored";
  message.master = master;
  message.bridgePortState = state;
  return message;
}

LinkMessage gone(int ifindex, std::uint8_t family = AF_UNSPEC) {
  LinkMessage message;
  message.type = Type::kDel;
  message.family = family;
  message.ifindex = ifindex;
  return message;
}

BridgeVlans vlans(std::size_t vlan) {
  BridgeVlans result;
  result.members.set(vlan);
  return result;
}

TEST(LinkTable, FirstMessageMakesTheLink) {
  LinkTable sut;
  const auto change = sut.messageIs(newLink(3, "e0"));
  ASSERT_TRUE(change && change->now);
  EXPECT_FALSE(change->before);
  EXPECT_EQ(change->now->ifindex, 3);
  EXPECT_EQ(change->now->name, "e0");
  EXPECT_TRUE(change->now->adminUp());
  EXPECT_TRUE(change->now->carrier);
  EXPECT_EQ(change->now->master, 0);
  EXPECT_EQ(sut.link(3), change->now);
}

TEST(LinkTable, RepeatedMessageIsNoChangeWhateverItsMaskSays) {
  LinkTable sut;
  sut.messageIs(newLink(3, "e0"));
  LinkMessage again = newLink(3, "e0");
  again.changeMask = 0xFFFFFFFF;
  EXPECT_FALSE(sut.messageIs(again));
}

TEST(LinkTable, CarrierChangesWithAChangeMaskOfZero) {
  LinkTable sut;
  sut.messageIs(newLink(3, "e0"));
  LinkMessage lost = newLink(3, "e0");
  lost.changeMask = 0;
  lost.carrier = false;
  lost.flags = IFF_UP;
  const auto change = sut.messageIs(lost);
  ASSERT_TRUE(change && change->now && change->before);
  EXPECT_TRUE(change->before->carrier);
  EXPECT_FALSE(change->now->carrier);
}

TEST(LinkTable, CarrierIsTakenFromTheFlagsWhereTheAttributeIsMissing) {
  LinkTable sut;
  LinkMessage message = newLink(3, "e0");
  message.carrier.reset();
  EXPECT_TRUE(sut.messageIs(message)->now->carrier);
  message.flags = IFF_UP;
  EXPECT_FALSE(sut.messageIs(message)->now->carrier);
}

TEST(LinkTable, RenameKeepsTheIndex) {
  LinkTable sut;
  sut.messageIs(newLink(3, "e0"));
  const auto change = sut.messageIs(newLink(3, "uplink"));
  ASSERT_TRUE(change && change->now && change->before);
  EXPECT_EQ(change->before->name, "e0");
  EXPECT_EQ(change->now->name, "uplink");
  EXPECT_EQ(sut.links().size(), 1U);
}

TEST(LinkTable, NameMayMoveToAnotherIndex) {
  LinkTable sut;
  sut.messageIs(newLink(3, "e0"));
  sut.messageIs(newLink(4, "e0"));
  EXPECT_EQ(sut.links().size(), 2U);
}

TEST(LinkTable, DeletionTakesTheLinkOut) {
  LinkTable sut;
  sut.messageIs(newLink(3, "e0"));
  const auto change = sut.messageIs(gone(3));
  ASSERT_TRUE(change && change->before);
  EXPECT_EQ(change->now, nullptr);
  EXPECT_EQ(change->before->name, "e0");
  EXPECT_EQ(sut.link(3), nullptr);
  EXPECT_FALSE(sut.messageIs(gone(3))) << "of an unknown link";
}

TEST(LinkTable, DeletionOfTheBridgeFamilyMeansLeftTheBridge) {
  LinkTable sut;
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING));
  LinkMessage port = newPort(3, 9, BR_STATE_FORWARDING);
  port.vlans = vlans(5);
  sut.messageIs(port);
  const auto change = sut.messageIs(gone(3, AF_BRIDGE));
  ASSERT_TRUE(change && change->now);
  EXPECT_EQ(change->now->name, "e0");
  EXPECT_EQ(change->now->master, 0);
  EXPECT_EQ(change->now->slaveKind, "");
  EXPECT_FALSE(change->now->bridgePortState);
  EXPECT_FALSE(change->now->vlans);
  EXPECT_FALSE(sut.messageIs(newLink(3, "e0"))) << "the message that follows tells nothing new";
}

TEST(LinkTable, DeletionOfTheBridgeFamilyLeavesOtherMastersAlone) {
  LinkTable sut;
  LinkMessage member = newLink(3, "e0");
  member.master = 9;
  member.slaveKind = "bond";
  sut.messageIs(member);
  EXPECT_FALSE(sut.messageIs(gone(3, AF_BRIDGE)));
  EXPECT_EQ(sut.link(3)->master, 9);
}

TEST(LinkTable, BridgeMessageChangesNothingButTheBridgesOwnData) {
  LinkTable sut;
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING));
  LinkMessage port = newPort(3, 9, BR_STATE_DISABLED);
  port.flags = 0;
  port.operState = std::uint8_t{2};
  const auto change = sut.messageIs(port);
  ASSERT_TRUE(change && change->now);
  EXPECT_EQ(change->now->bridgePortState, BR_STATE_DISABLED);
  EXPECT_EQ(change->now->name, "e0");
  EXPECT_TRUE(change->now->carrier);
  EXPECT_TRUE(change->now->adminUp());
  EXPECT_EQ(change->now->operState, 6);
}

TEST(LinkTable, BridgeMessageOfAnUnknownLinkMakesNone) {
  LinkTable sut;
  EXPECT_FALSE(sut.messageIs(newPort(3, 9, BR_STATE_FORWARDING)));
  EXPECT_TRUE(sut.links().empty());
}

TEST(LinkTable, PortStateOfALinkMessageCountsUntilTheBridgeHasSpoken) {
  LinkTable sut;
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_LEARNING));
  EXPECT_EQ(sut.link(3)->bridgePortState, BR_STATE_LEARNING);
  sut.messageIs(newPort(3, 9, BR_STATE_FORWARDING));
  EXPECT_FALSE(sut.messageIs(newSlave(3, "e0", 9, BR_STATE_LEARNING))) << "one step behind";
  EXPECT_EQ(sut.link(3)->bridgePortState, BR_STATE_FORWARDING);
}

TEST(LinkTable, MoveToAnotherBridgeForgetsTheOldPort) {
  LinkTable sut;
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING));
  LinkMessage port = newPort(3, 9, BR_STATE_FORWARDING);
  port.vlans = vlans(5);
  sut.messageIs(port);
  const auto change = sut.messageIs(newSlave(3, "e0", 10, BR_STATE_DISABLED));
  ASSERT_TRUE(change && change->now);
  EXPECT_EQ(change->now->master, 10);
  EXPECT_EQ(change->now->bridgePortState, BR_STATE_DISABLED);
  EXPECT_FALSE(change->now->vlans);
}

TEST(LinkTable, LeavingTheMasterEndsThePortState) {
  LinkTable sut;
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING));
  const auto change = sut.messageIs(newLink(3, "e0"));
  ASSERT_TRUE(change && change->now);
  EXPECT_EQ(change->now->master, 0);
  EXPECT_FALSE(change->now->bridgePortState);
}

TEST(LinkTable, PortMessageWithoutVlansEndsThem) {
  LinkTable sut;
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING));
  LinkMessage port = newPort(3, 9, BR_STATE_FORWARDING);
  port.vlans = vlans(5);
  sut.messageIs(port);
  EXPECT_TRUE(sut.link(3)->vlans->members[5]);
  EXPECT_FALSE(sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING)));
  ASSERT_TRUE(sut.messageIs(newPort(3, 9, BR_STATE_FORWARDING)));
  EXPECT_FALSE(sut.link(3)->vlans);
}

TEST(LinkTable, AdapterThatAnswersForTheBridgeFamilyDoesNotEndThePort) {
  LinkTable sut;
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING));
  LinkMessage port = newPort(3, 9, BR_STATE_FORWARDING);
  port.vlans = vlans(5);
  sut.messageIs(port);
  LinkMessage adapter = newPort(3, 9, 0);
  adapter.bridgePortState.reset();
  EXPECT_FALSE(sut.messageIs(adapter));
}

TEST(LinkTable, OtherFamiliesAreIgnored) {
  LinkTable sut;
  sut.messageIs(newLink(3, "e0"));
  LinkMessage other = newLink(3, "e1");
  other.family = AF_INET6;
  EXPECT_FALSE(sut.messageIs(other));
  EXPECT_FALSE(sut.messageIs(gone(3, AF_INET6)));
  EXPECT_EQ(sut.link(3)->name, "e0");
}

TEST(LinkTable, MessageWithoutANameIsAFragmentThatChangesNothing) {
  LinkTable sut;
  LinkMessage fragment = newLink(3, "");
  fragment.name.reset();
  EXPECT_FALSE(sut.messageIs(fragment));
  sut.messageIs(newSlave(3, "e0", 9, BR_STATE_FORWARDING));
  EXPECT_FALSE(sut.messageIs(fragment));
  EXPECT_EQ(sut.link(3)->master, 9);
}

TEST(LinkTable, LinksThatADumpDoesNotNameAreTakenOutOneByOne) {
  LinkTable sut;
  for (int ifindex = 1; ifindex <= 5; ++ifindex) sut.messageIs(newLink(ifindex, "e"));
  sut.dumpBegin(AF_UNSPEC);
  sut.messageIs(newLink(2, "e"));
  sut.messageIs(newLink(4, "renamed"));
  sut.messageIs(newLink(6, "e"));
  std::vector<int> deleted;
  while (const auto change = sut.unseenDel(AF_UNSPEC)) {
    EXPECT_EQ(change->now, nullptr);
    deleted.push_back(change->before->ifindex);
  }
  EXPECT_EQ(deleted, (std::vector<int>{1, 3, 5}));
  EXPECT_EQ(sut.links().size(), 3U);
}

TEST(LinkTable, ADumpThatBeginsInTheMiddleOfASweepIsSweptFromTheBeginning) {
  LinkTable sut;
  const auto namedAllBut = [&sut](int unnamed) {
    sut.dumpBegin(AF_UNSPEC);
    for (int ifindex = 1; ifindex <= 4; ++ifindex) {
      if (ifindex != unnamed) sut.messageIs(newLink(ifindex, "e"));
    }
  };
  namedAllBut(0);
  EXPECT_FALSE(sut.unseenDel(AF_UNSPEC));
  namedAllBut(3);
  ASSERT_TRUE(sut.unseenDel(AF_UNSPEC));
  namedAllBut(2);
  const auto change = sut.unseenDel(AF_UNSPEC);
  ASSERT_TRUE(change);
  EXPECT_EQ(change->before->ifindex, 2);
  EXPECT_FALSE(sut.unseenDel(AF_UNSPEC));
  EXPECT_EQ(sut.links().size(), 3U);
}

TEST(LinkTable, SweepOfOneFamilyLeavesNothingOutOfThatOfTheOther) {
  LinkTable sut;
  sut.messageIs(newSlave(2, "e0", 9, BR_STATE_FORWARDING));
  sut.messageIs(newLink(3, "e1"));
  sut.dumpBegin(AF_UNSPEC);
  sut.dumpBegin(AF_BRIDGE);
  sut.messageIs(newSlave(2, "e0", 9, BR_STATE_FORWARDING));
  ASSERT_TRUE(sut.unseenDel(AF_UNSPEC));
  EXPECT_FALSE(sut.unseenDel(AF_UNSPEC));
  const auto change = sut.unseenDel(AF_BRIDGE);
  ASSERT_TRUE(change && change->now);
  EXPECT_EQ(change->now->ifindex, 2);
}

TEST(LinkTable, LinkDeletedAndMadeAgainDuringADumpStays) {
  LinkTable sut;
  sut.messageIs(newLink(2, "e"));
  sut.dumpBegin(AF_UNSPEC);
  sut.messageIs(gone(2));
  sut.messageIs(newLink(2, "e"));
  EXPECT_FALSE(sut.unseenDel(AF_UNSPEC));
  EXPECT_NE(sut.link(2), nullptr);
}

TEST(LinkTable, PortsThatADumpDoesNotNameLoseTheirPortDataOnly) {
  LinkTable sut;
  sut.messageIs(newSlave(2, "e0", 9, BR_STATE_FORWARDING));
  sut.messageIs(newSlave(3, "e1", 9, BR_STATE_FORWARDING));
  sut.messageIs(newLink(4, "e2"));
  sut.dumpBegin(AF_BRIDGE);
  sut.messageIs(newPort(3, 9, BR_STATE_DISABLED));
  const auto change = sut.unseenDel(AF_BRIDGE);
  ASSERT_TRUE(change && change->now);
  EXPECT_EQ(change->now->ifindex, 2);
  EXPECT_FALSE(change->now->bridgePortState);
  EXPECT_EQ(change->now->master, 9);
  EXPECT_FALSE(sut.unseenDel(AF_BRIDGE));
  EXPECT_EQ(sut.link(3)->bridgePortState, BR_STATE_DISABLED);
  EXPECT_EQ(sut.links().size(), 3U);
}

class SilentListener : public LinkMonitor::Listener {
 public:
  void linkIs(const LinkInfo&, const LinkInfo*) override {}
  void linkDel(const LinkInfo&) override {}
};

TEST(LinkMonitor, IsEmptyAndDoesNothingBeforeItsStart) {
  SilentListener listener;
  LinkMonitor sut(listener);
  EXPECT_EQ(sut.fd(), -1);
  EXPECT_FALSE(sut.process(10));
  EXPECT_TRUE(sut.table().links().empty());
}

}  // namespace
}  // namespace Platform::Linux
