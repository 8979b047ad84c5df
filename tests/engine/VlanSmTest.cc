// SPDX-License-Identifier: Apache-2.0
//
// The machine of one VLAN, made by its own factory over a manager that has no VLANs: what it does
// with ports, exclusions and packet access, and how it ends. How the manager makes and drops it is
// told in VlanIntfSmManagerTest.cc.
#include "engine/VlanSm.h"

#include <gtest/gtest.h>

#include "engine/VlanIntfSmManager.h"
#include "runtime/vex/Exception.h"
#include "tests/engine/World.h"

namespace {

using Topology::Library::Vlan::TopoVlan;

class VlanMachine : public testing::Test {
 protected:
  VlanMachine() {
    manager = Ringward::vlanIntfSmManagerFactory(w.config, w.vlans, w.pams, w.status, w.queues,
                                                 w.cause, w.desired, w.counters, w.wheel,
                                                 w.brConfig, w.allIntfStatusDir);
    w.counters->counterVlanIs({vlanOrNone(10), 1, 2, 3});
  }
  void start() {
    sut = Ringward::vlanSmFactory(vlanOf(10), topo, w.config, w.pams, w.status, w.queues,
                                  w.counters, manager.get(), w.wheel);
  }
  bool underDetection(const Portus::IntfId& intfId) const {
    return manager->intfRxSm(intfId) && w.status->intfStatus(intfId);
  }

  World w;
  Portus::IntfId eth1 = w.port("eth1");
  Vex::Ptr<TopoVlan> topo = Vex::makePtr<TopoVlan>(vlanOf(10));
  Vex::Ptr<Ringward::VlanIntfSmManager> manager;
  Vex::Ptr<Ringward::VlanSm> sut;
};

TEST_F(VlanMachine, IsOpenWithItsPortsWhenItsFactoryReturns) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  EXPECT_TRUE(sut->initialized());
  EXPECT_TRUE(sut->hasNotificationActive());
  ASSERT_NE(sut->vlanIntfTxSm(eth1), nullptr);
  EXPECT_TRUE(sut->vlanIntfTxSm(eth1)->initialized());
  EXPECT_EQ(sut->vlanIntfTxSm(eth1)->vlanId(), vlanOf(10));
  EXPECT_EQ(sut->vlanIntfTxSm(eth1)->globalIntfConfig(), w.config->globalIntfConfig());
}

TEST_F(VlanMachine, APortBeforeItsSocketIsDesiredAndWaitsForIt) {
  start();
  topo->topoPortIs(eth1);
  EXPECT_TRUE(underDetection(eth1));
  EXPECT_TRUE(w.desired->intfDesired(eth1));
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), nullptr);
  w.openPam(eth1);
  EXPECT_NE(sut->vlanIntfTxSm(eth1), nullptr);
}

TEST_F(VlanMachine, AnExcludedPortGetsNothing) {
  w.openPam(eth1);
  w.config->intfExcludeIs(eth1, true);
  start();
  topo->topoPortIs(eth1);
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), nullptr);
  EXPECT_FALSE(underDetection(eth1));
  EXPECT_EQ(manager->desiredIntfsWithVlan(eth1), nullptr);
}

TEST_F(VlanMachine, ExclusionOfTheLastVlanEndsTheInterfaceAndItsReturnRebuildsIt) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  w.config->intfExcludeIs(eth1, true);
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), nullptr);
  EXPECT_EQ(manager->intfRxSm(eth1), nullptr);
  EXPECT_EQ(w.status->intfStatus(eth1), nullptr);
  w.config->intfExcludeDel(eth1);
  EXPECT_NE(sut->vlanIntfTxSm(eth1), nullptr);
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanMachine, ExclusionTakesTheVlanOutOfASetThatStaysForOthers) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  const auto set = manager->desiredIntfsWithVlan(eth1);
  set->vlanIs(20, true);
  w.status->sysIntfExcludeIs(eth1, true);
  EXPECT_FALSE(set->vlan(10));
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanMachine, ALostSocketKeepsTheSetOfAnEnabledInterfaceAndEndsThatOfAShutOne) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  w.pams->intfPamDel(eth1);
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), nullptr);
  ASSERT_NE(manager->desiredIntfsWithVlan(eth1), nullptr);
  EXPECT_TRUE(manager->desiredIntfsWithVlan(eth1)->vlan(10));
  w.openPam(eth1);
  ASSERT_NE(sut->vlanIntfTxSm(eth1), nullptr);
  w.adminEnabledIs(eth1, false);
  w.pams->intfPamDel(eth1);
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), nullptr);
  EXPECT_EQ(manager->desiredIntfsWithVlan(eth1), nullptr);
}

TEST_F(VlanMachine, ASocketThatIsReplacedChangesNothing) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  const auto before = sut->vlanIntfTxSm(eth1);
  w.openPam(eth1);
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), before);
}

TEST_F(VlanMachine, AfterItsPreparationItFollowsNoInput) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  sut->vlanIntfTxSm(eth1)->handleSendPacket();
  sut->doPrepareToDie();
  EXPECT_FALSE(sut->initialized());
  EXPECT_FALSE(sut->vlanIntfTxSmIteratorConst());
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_FALSE(w.counters->counterVlanIteratorConst());
  EXPECT_EQ(w.status->intfStatus(eth1), nullptr);
  topo->topoPortDel(eth1);
  topo->topoPortIs(eth1);
  sut->handleVlanIntf();
  w.openPam(eth1);
  EXPECT_FALSE(sut->vlanIntfTxSmIteratorConst());
  EXPECT_EQ(manager->desiredIntfsWithVlan(eth1), nullptr);
}

TEST_F(VlanMachine, DroppedWithoutPreparationItLeavesRequestsCountersAndTheSet) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  sut->vlanIntfTxSm(eth1)->handleSendPacket();
  sut = nullptr;
  EXPECT_EQ(w.queues->regularPriority().members(), 1U);
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)).rxOther, 3U);
  EXPECT_TRUE(underDetection(eth1));
  EXPECT_EQ(topo->notifieeCount(), 0U);
  topo->topoPortDel(eth1);
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanMachine, NotificationThatComesBackReplaysNothing) {
  start();
  w.openPam(eth1);
  sut->hasNotificationActiveIs(false);
  topo->topoPortIs(eth1);
  sut->hasNotificationActiveIs(true);
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), nullptr);
  sut->handleVlanIntf();
  EXPECT_NE(sut->vlanIntfTxSm(eth1), nullptr);
}

TEST_F(VlanMachine, EachArgumentOfAPresentTransmitterMustBeTheSame) {
  w.openPam(eth1);
  topo->topoPortIs(eth1);
  start();
  const auto present = sut->vlanIntfTxSm(eth1);
  const auto config = w.config->globalIntfConfig();
  const auto status = w.status->intfStatus(eth1);
  EXPECT_EQ(sut->vlanIntfTxSmIs(eth1, vlanOf(10), config, w.wheel, status, w.queues), present);
  const auto startOf = [](std::string_view attribute) {
    return "Reinstantiating the pointer interface where constructor parameter attribute " +
           std::string(attribute) + " has a different value of ";
  };
  const auto check = [&](std::string_view attribute, auto call) {
    const auto text = textOf<Vex::NameInUseException>(call);
    EXPECT_TRUE(text.starts_with(startOf(attribute))) << text;
    EXPECT_NE(text.find(" than the current value of "), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with(" not allowed")) << text;
  };
  check("_vlanId",
        [&] { sut->vlanIntfTxSmIs(eth1, vlanOf(11), config, w.wheel, status, w.queues); });
  check("_globalIntfConfig", [&] {
    const auto other = Ringward::Config::globalIntfConfigFactory("other");
    sut->vlanIntfTxSmIs(eth1, vlanOf(10), other, w.wheel, status, w.queues);
  });
  check("_sendPacketTimer", [&] {
    const auto other =
        Vex::makePtr<Helm::TimerWheel>(nullptr, nullptr, 10U, 60480000U, true, 1024U);
    sut->vlanIntfTxSmIs(eth1, vlanOf(10), config, other, status, w.queues);
  });
  check("_intfStatus", [&] {
    const auto other = Ringward::Status::intfStatusFactory(eth1);
    sut->vlanIntfTxSmIs(eth1, vlanOf(10), config, w.wheel, other, w.queues);
  });
  check("_transmitStatus", [&] {
    const auto other = Ringward::Status::transmitStatusFactory("other");
    sut->vlanIntfTxSmIs(eth1, vlanOf(10), config, w.wheel, status, other);
  });
  EXPECT_EQ(sut->vlanIntfTxSm(eth1), present);
}

TEST_F(VlanMachine, ANullArgumentIsARangeException) {
  const auto text = textOf<Vex::RangeException>([&] {
    Ringward::vlanSmFactory(vlanOf(10), nullptr, w.config, w.pams, w.status, w.queues, w.counters,
                            manager.get(), w.wheel);
  });
  EXPECT_EQ(text, "null ValidPtr");
}

}  // namespace
