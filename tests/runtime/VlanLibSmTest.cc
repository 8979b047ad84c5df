// SPDX-License-Identifier: Apache-2.0
#include "runtime/topology/VlanLibSm.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "runtime/topology/LibSm.h"
#include "runtime/vex/VirtualActivityManager.h"
#include "tests/runtime/PlatformEntities.h"

namespace {

using namespace RuntimeTest;
using Bridging::VlanBitmap;
using Bridging::VlanId;
using Topology::Library::LibSm;
using Topology::Library::LibState;
using namespace Topology::Library::Vlan;
using Vex::makePtr;
using Vex::Ptr;
using Strings = std::vector<std::string>;

struct VlanTeller final : LibVlanState::NotifieeConst, Teller {
  void onTopoVlan(const VlanId& vlanId) override { tell("vlan " + std::to_string(vlanId.value())); }
  void onInitDone() override { tell("initDone"); }
};
struct PortTeller final : TopoVlan::NotifieeConst, Teller {
  void onTopoPort(const Portus::IntfId& id) override { tell("port", id); }
};

class VlanLibSmTest : public testing::Test {
 protected:
  void port(const char* name, const char* vlans) {
    state->intfVlansIs(intf(name), VlanBitmap::parse(vlans));
  }
  void vlans(const char* list) { state->vlansIs(VlanBitmap::parse(list)); }
  bool has(int vlan, const char* name) const {
    const auto topoVlan = vlanState->topoVlan(VlanId(vlan));
    return topoVlan && topoVlan->topoPort(intf(name)) != nullptr;
  }
  Strings take() { return std::exchange(told->log, Strings{}); }

  const Ptr<LibState> state = makePtr<LibState>("topoLibState");
  const Ptr<LibVlanState> vlanState = makePtr<LibVlanState>("libVlanState");
  const Ptr<VlanTeller> told = watch<VlanTeller>(vlanState);
  Ptr<VlanLibSm> sut = makePtr<VlanLibSm>(state, vlanState);
};

TEST_F(VlanLibSmTest, ANewVlanIsPublishedWithItsPortsInIt) {
  port("eth1", "5");
  port("eth2", "5,6");
  EXPECT_EQ(take(), Strings{});
  std::uint32_t portsWhenTold = 0;
  told->handler = [&] {
    for (const char* name : {"eth1", "eth2"}) portsWhenTold += has(5, name) ? 1U : 0U;
  };
  vlans("5");
  EXPECT_EQ(take(), Strings{"vlan 5"});
  EXPECT_EQ(portsWhenTold, 2U);
  EXPECT_EQ(vlanState->topoVlan(VlanId(6)), nullptr);
}

TEST_F(VlanLibSmTest, AVlanThatGoesTellsOfItselfAlone) {
  port("eth1", "5");
  vlans("5");
  const auto vlan = vlanState->topoVlan(VlanId(5));
  const auto ports = watch<PortTeller>(vlan);
  (void)take();
  vlans("");
  EXPECT_EQ(take(), Strings{"vlan 5"});
  EXPECT_EQ(ports->log, Strings{});
  EXPECT_EQ(vlanState->topoVlan(VlanId(5)), nullptr);
  EXPECT_EQ(vlan->parent(), nullptr);
}

TEST_F(VlanLibSmTest, APortThatComesOrGoesTellsOnceInEachVlanConcerned) {
  vlans("5-7");
  const auto five = watch<PortTeller>(vlanState->topoVlan(VlanId(5)));
  const auto six = watch<PortTeller>(vlanState->topoVlan(VlanId(6)));
  const auto seven = watch<PortTeller>(vlanState->topoVlan(VlanId(7)));
  (void)take();
  port("eth1", "5-6");
  port("eth1", "6-7");
  EXPECT_EQ(five->log, (Strings{"port eth1", "port eth1"}));
  EXPECT_EQ(six->log, Strings{"port eth1"});
  EXPECT_EQ(seven->log, Strings{"port eth1"});
  EXPECT_FALSE(has(5, "eth1"));
  EXPECT_TRUE(has(6, "eth1"));
  state->intfVlansDel(intf("eth1"));
  EXPECT_EQ(six->log.size(), 2U);
  EXPECT_EQ(seven->log.size(), 2U);
  EXPECT_EQ(five->log.size(), 2U);
  EXPECT_EQ(take(), Strings{});
}

TEST_F(VlanLibSmTest, AVlanThatReturnsIsAnotherEntity) {
  vlans("5");
  const auto first = vlanState->topoVlan(VlanId(5));
  vlans("");
  vlans("5");
  EXPECT_NE(vlanState->topoVlan(VlanId(5)), first);
  EXPECT_EQ(take().size(), 3U);
}

TEST_F(VlanLibSmTest, VlansAreToldInAscendingOrderAndThoseThatGoFirst) {
  vlans("3,100,4094");
  EXPECT_EQ(take(), (Strings{"vlan 3", "vlan 100", "vlan 4094"}));
  vlans("2,100");
  EXPECT_EQ(take(), (Strings{"vlan 3", "vlan 4094", "vlan 2"}));
}

TEST_F(VlanLibSmTest, InitDoneIsPassedOnOnce) {
  state->initDoneIs(true);
  EXPECT_EQ(take(), Strings{"initDone"});
  EXPECT_TRUE(vlanState->initDone());
}

TEST_F(VlanLibSmTest, TakesInWhatStandsWhenItIsMade) {
  sut.reset();
  port("eth1", "5");
  vlans("5");
  state->initDoneIs(true);
  EXPECT_EQ(take(), Strings{});
  sut = makePtr<VlanLibSm>(state, vlanState);
  EXPECT_EQ(take(), (Strings{"vlan 5", "initDone"}));
  EXPECT_TRUE(has(5, "eth1"));
}

TEST_F(VlanLibSmTest, TopoVlansAreNamedByTheirNumber) {
  vlans("5");
  EXPECT_EQ(vlanState->topoVlan(VlanId(5))->fullName(), "libVlanState/topoVlan[5]");
}

TEST_F(VlanLibSmTest, AVlanThatOutlivesTheStateHasNoParent) {
  auto alone = makePtr<LibVlanState>("alone");
  alone->topoVlanIs(makePtr<TopoVlan>(VlanId(5)));
  const auto vlan = alone->topoVlan(VlanId(5));
  alone.reset();
  EXPECT_EQ(vlan->parent(), nullptr);
  EXPECT_EQ(vlan->fullName(), "[5]");
}

TEST_F(VlanLibSmTest, APortCanBeRemovedByTheKeyThatGoesWithIt) {
  const auto vlan = makePtr<TopoVlan>(VlanId(5));
  const auto ports = watch<PortTeller>(vlan);
  vlan->topoPortIs(intf("eth1"));
  vlan->topoPortIs(intf("eth1"));
  vlan->topoPortDel(vlan->topoPort(intf("eth1"))->fwkKey());
  vlan->topoPortDel(intf("eth1"));
  EXPECT_EQ(ports->log, (Strings{"port eth1", "port eth1"}));
}

TEST_F(VlanLibSmTest, MayEndWhileItPublishes) {
  told->handler = [&] { sut.reset(); };
  vlans("1-3");
  EXPECT_EQ(take(), (Strings{"vlan 1", "vlan 2", "vlan 3"}));
  EXPECT_EQ(state->notifieeCount(), 0U);
}

// Both machines together.
class TopologyTest : public testing::Test {
 protected:
  Vex::VirtualActivityManager manager;
  const Vex::CurrentActivityManager current{manager};
  const Ptr<Bridging::Topology::Config> config = makePtr<Bridging::Topology::Config>("config");
  const Ptr<Bridging::Topology::Status> status = makePtr<Bridging::Topology::Status>("status");
  const Ptr<Interface::EthIntfStatusDir> dir = makePtr<Interface::EthIntfStatusDir>("eth");
  const Ptr<LibState> state = makePtr<LibState>("topoLibState");
  const Ptr<LibVlanState> vlanState = makePtr<LibVlanState>("libVlanState");
  const Ptr<LibSm> libSm = makePtr<LibSm>("topoLibSm", config, status, nullptr, nullptr, state, 1U,
                                          false, true, std::uint64_t{0});
  const Ptr<VlanLibSm> vlanLibSm = makePtr<VlanLibSm>(state, vlanState);
  const Ptr<VlanTeller> told = watch<VlanTeller>(vlanState);
};

TEST_F(TopologyTest, AVlanWhosePortsComeInTheSameTurnIsToldOnceWithItsPorts) {
  libSm->ethIntfStatusDirIs(dir);
  manager.runTurn();
  EXPECT_EQ(std::exchange(told->log, Strings{}), Strings{"initDone"});
  config->vlansIs(VlanBitmap::parse("7"));  // ahead of its ports
  for (const char* name : {"eth1", "eth2"}) {
    dir->ethIntfStatusIs(intf(name), newIntfStatus(intf(name)));
    status->intfVlansIs(intf(name), VlanBitmap::parse("7"));
  }
  std::uint32_t portsWhenTold = 0;
  told->handler = [&] {
    const auto vlan = vlanState->topoVlan(VlanId(7));
    for (auto it = vlan->topoPortIteratorConst(); it; ++it) ++portsWhenTold;
  };
  manager.runTurn();
  EXPECT_EQ(told->log, Strings{"vlan 7"});
  EXPECT_EQ(portsWhenTold, 2U);
}

TEST_F(TopologyTest, AVlanThatVanishesAndReturnsWithinOneTurnIsSilentAndAPortIsNot) {
  libSm->ethIntfStatusDirIs(dir);
  dir->ethIntfStatusIs(intf("eth1"), newIntfStatus(intf("eth1")));
  status->intfVlansIs(intf("eth1"), VlanBitmap::parse("7"));
  config->vlansIs(VlanBitmap::parse("7"));
  manager.runTurn();
  const auto vlan = vlanState->topoVlan(VlanId(7));
  const auto ports = watch<PortTeller>(vlan);
  told->log.clear();
  config->vlansIs(VlanBitmap());
  status->intfVlansDel(intf("eth1"));
  config->vlansIs(VlanBitmap::parse("7"));
  status->intfVlansIs(intf("eth1"), VlanBitmap::parse("7"));
  manager.runTurn();
  EXPECT_EQ(told->log, Strings{});
  EXPECT_EQ(ports->log, (Strings{"port eth1", "port eth1"}));
  EXPECT_EQ(vlanState->topoVlan(VlanId(7)), vlan);
}

TEST_F(TopologyTest, FourThousandVlansOnSixtyFourPortsAreToldOnceEach) {
  constexpr std::uint32_t kPorts = 64;
  constexpr std::uint32_t kVlans = 4094;
  const VlanBitmap all = VlanBitmap::parse("1-4094");
  std::vector<Portus::IntfId> ports;
  for (std::uint32_t n = 1; n <= kPorts; ++n) ports.push_back(intf("eth" + std::to_string(n)));
  libSm->ethIntfStatusDirIs(dir);
  config->vlansIs(all);
  for (const auto& id : ports) {
    dir->ethIntfStatusIs(id, newIntfStatus(id));
    status->intfVlansIs(id, all);
  }
  manager.runTurn();
  ASSERT_EQ(told->log.size(), kVlans + 1);
  EXPECT_EQ(told->log.back(), "initDone");
  std::vector<Ptr<PortTeller>> tellers;
  for (auto it = vlanState->topoVlanIteratorConst(); it; ++it) {
    std::uint32_t count = 0;
    for (auto member = it->topoPortIteratorConst(); member; ++member) ++count;
    ASSERT_EQ(count, kPorts);
    tellers.push_back(watch<PortTeller>(vlanState->topoVlan(it.key())));
  }
  ASSERT_EQ(tellers.size(), kVlans);

  told->log.clear();
  status->intfVlansDel(ports[20]);
  manager.runTurn();
  EXPECT_EQ(told->log, Strings{});
  for (const auto& teller : tellers) ASSERT_EQ(teller->log, Strings{"port eth21"});
}

}  // namespace
