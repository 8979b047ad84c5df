// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LostProbes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/ProbeFrame.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace Platform::Linux {
namespace {

using Bridging::VlanIdOrNone;
using Texts = std::vector<std::string>;

class LostProbesTest : public testing::Test {
 protected:
  LostProbesTest() { brConfig->switchIntfConfigIs(eth1)->nativeVlanIs(VlanIdOrNone(1)); }

  void lose(unsigned vlan, const Portus::IntfId& intfId) {
    const auto pkt = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(*pkt, {{2, 0, 0, 0, 0, 1}, VlanIdOrNone(vlan), intfId}, VlanIdOrNone(1));
    sut.probeLost(intfId, *pkt);
  }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  const Portus::IntfId eth1 = Portus::IntfId::fromName("eth1");
  const Portus::IntfId eth2 = Portus::IntfId::fromName("eth2");
  Vex::Ptr<Bridging::Config> brConfig = Vex::makePtr<Bridging::Config>(Vex::Name("brConfig"));
  Texts resent;
  LostProbes sut{brConfig, [this](const Portus::IntfId& intfId, Bridging::VlanId vlanId) {
                   resent.push_back(intfId.name() + " " + std::to_string(vlanId.value()));
                 }};
};

TEST_F(LostProbesTest, EachLostPairIsSentAgainOnceAndInOrderWhenTheCarrierComes) {
  for (const unsigned vlan : {20U, 10U, 1U, 10U, 4094U}) lose(vlan, eth1);  // VLAN 1 has no tag
  lose(30, eth2);
  EXPECT_EQ(sut.waiting(), 5U);
  EXPECT_EQ(sut.count(), 6U);
  sut.carrierUp(eth1);
  EXPECT_EQ(resent, (Texts{"eth1 1", "eth1 10", "eth1 20", "eth1 4094"}));
  sut.carrierUp(eth1);
  EXPECT_EQ(resent.size(), 4U);
  EXPECT_EQ(sut.waiting(), 1U) << "the other interface's";
}

TEST_F(LostProbesTest, AnInterfaceThatGoesIsForgotten) {
  lose(10, eth1);
  sut.accessDel(eth1);
  sut.carrierUp(eth1);
  EXPECT_EQ(resent, Texts{});
  EXPECT_EQ(sut.waiting(), 0U);
}

TEST_F(LostProbesTest, AnUntaggedProbeOfAPortWithoutANativeVlanBelongsToNoPair) {
  lose(1, eth2);
  EXPECT_EQ(sut.waiting(), 0U);
}

TEST_F(LostProbesTest, WhatIsLostWhileItIsSentAgainWaitsForTheNextCarrier) {
  int rounds = 0;
  LostProbes again(brConfig, [&](const Portus::IntfId& intfId, Bridging::VlanId) {
    ++rounds;
    const auto pkt = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(*pkt, {{2, 0, 0, 0, 0, 1}, VlanIdOrNone(10), intfId}, VlanIdOrNone(1));
    again.probeLost(intfId, *pkt);
  });
  const auto pkt = Portus::globalPktManager()->newPkt();
  Ringward::writeProbe(*pkt, {{2, 0, 0, 0, 0, 1}, VlanIdOrNone(10), eth1}, VlanIdOrNone(1));
  again.probeLost(eth1, *pkt);
  again.carrierUp(eth1);
  EXPECT_EQ(rounds, 1);
  again.carrierUp(eth1);
  EXPECT_EQ(rounds, 2);
}

}  // namespace
}  // namespace Platform::Linux
