// SPDX-License-Identifier: Apache-2.0
//
// The bridge's configuration and the two inputs of the topology library.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "runtime/bridging/Config.h"
#include "runtime/bridging/TopologyStatus.h"
#include "tests/runtime/PlatformEntities.h"

namespace {

using namespace RuntimeTest;
using Bridging::VlanBitmap;
using Bridging::VlanIdOrNone;
using Vex::makePtr;
using Strings = std::vector<std::string>;

struct ConfigTeller final : Bridging::Config::NotifieeConst, Teller {
  void onBridgeMacAddr() override { tell("bridgeMacAddr"); }
  void onSwitchIntfConfig(const Portus::IntfId& id) override { tell("switchIntfConfig", id); }
};
struct PortTeller final : Bridging::SwitchIntfConfig::NotifieeConst, Teller {
  void onNativeVlan() override { tell("nativeVlan"); }
};
struct TopoConfigTeller final : Bridging::Topology::Config::NotifieeConst, Teller {
  void onVlans() override { tell("vlans"); }
  void onInternalVlans() override { tell("internalVlans"); }
};
struct TopoStatusTeller final : Bridging::Topology::Status::NotifieeConst, Teller {
  void onIntfVlans(const Portus::IntfId& id) override { tell("intfVlans", id); }
};

TEST(BridgingConfig, TellsOfTheBridgeAddressOncePerChange) {
  const auto sut = makePtr<Bridging::Config>("brConfig");
  const auto told = watch<ConfigTeller>(sut);
  EXPECT_EQ(sut->bridgeMacAddr(), Portus::EthAddr());
  const auto address = Portus::EthAddr::parse("02:00:00:00:00:01");
  sut->bridgeMacAddrIs(address);
  sut->bridgeMacAddrIs(address);
  EXPECT_EQ(sut->bridgeMacAddr(), address);
  EXPECT_EQ(told->log, Strings{"bridgeMacAddr"});
}

TEST(BridgingConfig, APortIsMadeOnceAndTold) {
  const auto sut = makePtr<Bridging::Config>("brConfig");
  const auto told = watch<ConfigTeller>(sut);
  EXPECT_EQ(sut->switchIntfConfig(intf("eth1")), nullptr);
  const auto port = sut->switchIntfConfigIs(intf("eth1"));
  EXPECT_EQ(sut->switchIntfConfigIs(intf("eth1")), port);
  EXPECT_EQ(sut->switchIntfConfig(intf("eth1")), port);
  EXPECT_EQ(port->intfId(), intf("eth1"));
  EXPECT_EQ(told->log, Strings{"switchIntfConfig eth1"});
  sut->switchIntfConfigDel(port->intfId());
  sut->switchIntfConfigDel(intf("eth1"));
  EXPECT_EQ(told->log.size(), 2U);
  EXPECT_EQ(sut->switchIntfConfig(intf("eth1")), nullptr);
}

TEST(BridgingConfig, APortIsNamedByItsKey) {
  const auto sut = makePtr<Bridging::Config>("brConfig");
  const auto port = sut->switchIntfConfigIs(intf("eth1"));
  EXPECT_EQ(port->name(), "");
  EXPECT_EQ(port->fullName(), "brConfig/switchIntfConfig[eth1]");
  sut->switchIntfConfigDel(intf("eth1"));
  EXPECT_EQ(port->parent(), nullptr);
}

TEST(BridgingConfig, APortThatOutlivesTheBridgeHasNoParent) {
  auto sut = makePtr<Bridging::Config>("brConfig");
  const auto port = sut->switchIntfConfigIs(intf("eth1"));
  sut.reset();
  EXPECT_EQ(port->parent(), nullptr);
  EXPECT_EQ(port->fullName(), "[eth1]");
}

TEST(SwitchIntfConfig, StartsWithNativeVlan1AndTellsOncePerChange) {
  const auto sut = makePtr<Bridging::SwitchIntfConfig>(intf("eth1"));
  const auto told = watch<PortTeller>(sut);
  EXPECT_EQ(sut->nativeVlan(), VlanIdOrNone(1));
  sut->nativeVlanIs(VlanIdOrNone(1));
  EXPECT_EQ(told->log, Strings{});
  sut->nativeVlanIs(VlanIdOrNone());
  EXPECT_EQ(sut->nativeVlan(), VlanIdOrNone(0));
  EXPECT_EQ(told->log, Strings{"nativeVlan"});
}

TEST(TopologyConfig, TellsOfEachSetOncePerChange) {
  const auto sut = makePtr<Bridging::Topology::Config>("config");
  const auto told = watch<TopoConfigTeller>(sut);
  EXPECT_TRUE(sut->vlans().empty());
  sut->vlansIs(VlanBitmap::parse("1-10"));
  sut->vlansIs(VlanBitmap::parse("1-10"));
  sut->internalVlansIs(VlanBitmap::parse("4000"));
  EXPECT_EQ(sut->vlans(), VlanBitmap::parse("1-10"));
  EXPECT_EQ(sut->internalVlans(), VlanBitmap::parse("4000"));
  EXPECT_EQ(told->log, (Strings{"vlans", "internalVlans"}));
}

TEST(TopologyStatus, TellsOfThePortWhoseVlansChange) {
  const auto sut = makePtr<Bridging::Topology::Status>("status");
  const auto told = watch<TopoStatusTeller>(sut);
  EXPECT_EQ(sut->intfVlans(intf("eth1")), nullptr);
  sut->intfVlansIs(intf("eth1"), VlanBitmap());  // a port without VLANs is a port
  ASSERT_NE(sut->intfVlans(intf("eth1")), nullptr);
  sut->intfVlansIs(intf("eth1"), VlanBitmap::parse("5"));
  sut->intfVlansIs(intf("eth1"), VlanBitmap::parse("5"));
  EXPECT_EQ(*sut->intfVlans(intf("eth1")), VlanBitmap::parse("5"));
  sut->intfVlansDel(sut->intfVlansIteratorConst().key());  // a key that goes with its entry
  sut->intfVlansDel(intf("eth1"));
  EXPECT_EQ(told->log, (Strings{"intfVlans eth1", "intfVlans eth1", "intfVlans eth1"}));
}

}  // namespace
