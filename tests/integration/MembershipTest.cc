// SPDX-License-Identifier: Apache-2.0
//
// Which interfaces and VLANs are under detection as ports, VLANs, exclusions and the operator's
// wishes change.
#include "tests/integration/World.h"

namespace Integration {
namespace {

constexpr std::uint32_t kMarker = Ringward::VlanSet::kErrdisabled;

class Membership : public World {
 protected:
  Membership() {
    sw.newPort("eth1", "10,20");
    sw.newPort("eth2", "10,20");
  }
  void start() {
    sw.start();
    settle();
  }
  void takeDownEth2() {
    fabric.wireIs(sw.system.port("eth1"), sw.system.port("eth2"));
    sw.probe("eth1");
    runFor(2 * kDelay);
    ASSERT_TRUE(sw.disabled("eth2"));
    fabric.wireDel(sw.system.port("eth1"));
  }
  // Everything that the engine has for an interface while it is under detection, or nothing of it.
  void expectUnderDetection(const std::string& name, bool expected, const char* when) {
    EXPECT_EQ(static_cast<bool>(sw.vlanSet(name)), expected) << name << " " << when;
    EXPECT_EQ(static_cast<bool>(sw.receiver(name)), expected) << name << " " << when;
    EXPECT_EQ(sw.engine->pamDesiredIntfDir()->intfDesired(intf(name)), expected)
        << name << " " << when;
    EXPECT_EQ(sw.hasPam(name), expected) << name << " " << when;
    EXPECT_EQ(static_cast<bool>(sw.intfStatus(name)), expected) << name << " " << when;
  }
  Vex::Ptr<Ringward::VlanSm> vlanSm(unsigned vlan) { return sw.manager().vlanSm(VlanId(vlan)); }

  Switch sw{fabric};
};

TEST_F(Membership, VlanEnabledBeforeTheTopologyIsReadyWaitsForIt) {
  sw.start();
  EXPECT_FALSE(sw.engine->topoLibVlanState()->initDone());
  EXPECT_FALSE(vlanSm(10));
  EXPECT_FALSE(sw.vlanSet("eth1"));
  settle();
  EXPECT_TRUE(vlanSm(10));
  EXPECT_TRUE(sw.transmitter("eth1"));
  EXPECT_EQ(sw.receiver("eth1")->pam(), sw.engine->ethDevPamCollection()->intfPam(intf("eth1")));
  expectUnderDetection("eth1", true, "after the first pass");
}

TEST_F(Membership, VlanEnabledAfterTheTopologyIsReadyHasItsMachineAtOnce) {
  start();
  EXPECT_FALSE(vlanSm(20));
  sw.config().vlanEnabledIs(VlanId(20), true);
  EXPECT_TRUE(vlanSm(20));
  EXPECT_TRUE(sw.transmitter("eth1", 20));
  EXPECT_TRUE(sw.vlanSet("eth1")->vlan(20));
}

TEST_F(Membership, VlanEnabledThatTheBridgeDoesNotHaveWaitsForIt) {
  sw.system.vlansIs(vlans("10"));
  sw.config().vlanEnabledIs(VlanId(20), true);
  start();
  EXPECT_FALSE(vlanSm(20));
  sw.system.vlansIs(vlans("10,20"));
  EXPECT_FALSE(vlanSm(20));  // the topology looks at its inputs in the next turn
  settle();
  EXPECT_TRUE(vlanSm(20));
  EXPECT_TRUE(sw.transmitter("eth1", 20));
}

TEST_F(Membership, VlanEntryOfValueFalseEnablesNothing) {
  sw.config().vlanEnabledIs(VlanId(20), false);
  start();
  EXPECT_FALSE(vlanSm(20));
}

TEST_F(Membership, VlanTurnedOffEndsItsMachineAndItsInterfacesStayDesired) {
  start();
  sw.config().vlanEnabledIs(VlanId(10), false);
  EXPECT_FALSE(vlanSm(10));
  EXPECT_FALSE(sw.transmitter("eth1"));
  EXPECT_TRUE(sw.vlanSet("eth1")->vlan(10));
  expectUnderDetection("eth1", true, "after its VLAN was turned off");
  Tap tap(fabric);
  runFor(5);
  EXPECT_TRUE(tap.records().empty());
  EXPECT_EQ(sw.counts("eth1").tx, 0U);
  sw.config().vlanEnabledIs(VlanId(10), true);
  EXPECT_TRUE(sw.transmitter("eth1"));
}

TEST_F(Membership, RemovedVlanEntryEndsTheMachineLikeValueFalse) {
  start();
  sw.config().vlanEnabledDel(VlanId(10));
  EXPECT_FALSE(vlanSm(10));
  EXPECT_TRUE(sw.vlanSet("eth1"));
}

TEST_F(Membership, VlanThatLeavesTheBridgeEndsItsMachineAndComesBackWithIt) {
  start();
  sw.system.vlansIs(vlans("20"));
  settle();
  EXPECT_FALSE(vlanSm(10));
  expectUnderDetection("eth1", true, "without the VLAN");
  sw.system.vlansIs(vlans("10,20"));
  settle();
  EXPECT_TRUE(vlanSm(10));
  EXPECT_TRUE(sw.transmitter("eth1"));
}

TEST_F(Membership, SecondNotificationOfAVlanEndsItsMachineAndTheThirdBringsItBack) {
  start();
  const auto before = vlanSm(10);
  sw.engine->topoLibVlanState()->topoVlanNotify(VlanId(10));
  EXPECT_FALSE(vlanSm(10));
  EXPECT_TRUE(sw.vlanSet("eth1")->vlan(10));
  sw.engine->topoLibVlanState()->topoVlanNotify(VlanId(10));
  EXPECT_TRUE(vlanSm(10));
  EXPECT_NE(vlanSm(10), before);
  EXPECT_TRUE(sw.transmitter("eth1"));
}

TEST_F(Membership, PortThatLeavesAVlanWhileItIsWantedUpKeepsTheVlanInItsSet) {
  start();
  sw.system.portVlansIs("eth1", vlans("20"));
  settle();
  EXPECT_FALSE(sw.transmitter("eth1"));
  EXPECT_TRUE(sw.vlanSet("eth1")->vlan(10));
  expectUnderDetection("eth1", true, "outside the VLAN");
  sw.system.portVlansIs("eth1", vlans("10"));
  settle();
  EXPECT_TRUE(sw.transmitter("eth1"));
}

TEST_F(Membership, PortInTwoVlansHasATransmitterForEachAndOneReceiver) {
  sw.config().vlanEnabledIs(VlanId(20), true);
  start();
  EXPECT_TRUE(sw.transmitter("eth1", 10));
  EXPECT_TRUE(sw.transmitter("eth1", 20));
  EXPECT_EQ(sw.vlanSet("eth1")->members(), 2U);
  EXPECT_EQ(sw.system.device("eth1").pams(), 1U);
}

TEST_F(Membership, NewPortComesUnderDetectionAndARemovedOneGoes) {
  start();
  sw.newPort("eth3");
  settle();
  expectUnderDetection("eth3", true, "after it came");
  EXPECT_TRUE(sw.transmitter("eth3"));
  sw.system.portDel("eth3");
  EXPECT_FALSE(sw.transmitter("eth3"));
  expectUnderDetection("eth3", false, "after it went");
  settle();
  runFor(3);
  sw.newPort("eth3", "10", VlanIdOrNone(10));
  settle();
  expectUnderDetection("eth3", true, "after it came back");
  // Its configuration is the new one.
  Tap tap(fabric);
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth3"), station.port(1));
  sw.probe("eth3");
  EXPECT_EQ(tap.records("switch:eth3", true).at(0).frame->size(), 28U);
}

TEST_F(Membership, PortThatGoesAndComesBackWithinOneTurnIsUnderDetectionAgain) {
  start();
  sw.system.portDel("eth1");
  sw.newPort("eth1", "10,20");
  settle();
  expectUnderDetection("eth1", true, "after its return");
  EXPECT_TRUE(sw.transmitter("eth1"));
}

TEST_F(Membership, RemovedPortThatIsErrdisabledLeavesNothingBehind) {
  start();
  takeDownEth2();
  sw.system.portDel("eth2");
  EXPECT_FALSE(sw.inCause("eth2"));
  expectUnderDetection("eth2", false, "after it went");
  runFor(60);
  EXPECT_EQ(logTexts().size(), 1U);
}

TEST_F(Membership, ShutPortLosesEverythingAndGetsItBackWhenRaised) {
  sw.config().vlanEnabledIs(VlanId(20), true);
  start();
  sw.system.adminEnabledIs("eth1", false);
  for (const unsigned vlan : {10U, 20U}) EXPECT_FALSE(sw.transmitter("eth1", vlan));
  expectUnderDetection("eth1", false, "after the shut");
  settle();
  expectUnderDetection("eth1", false, "a turn after the shut");
  sw.system.adminEnabledIs("eth1", true);
  settle();
  expectUnderDetection("eth1", true, "after it was raised");
  for (const unsigned vlan : {10U, 20U}) {
    EXPECT_TRUE(sw.transmitter("eth1", vlan));
    EXPECT_TRUE(sw.vlanSet("eth1")->vlan(vlan));
  }
}

TEST_F(Membership, PortThatIsShutFromTheStartIsNotTouchedUntilItIsRaised) {
  sw.system.adminEnabledIs("eth1", false);
  start();
  expectUnderDetection("eth1", false, "while shut");
  sw.system.adminEnabledIs("eth1", true);
  settle();
  expectUnderDetection("eth1", true, "after it was raised");
}

TEST_F(Membership, ShuttingAnErrdisabledPortClearsItsErrdisable) {
  start();
  takeDownEth2();
  sw.system.adminEnabledIs("eth2", false);
  EXPECT_FALSE(sw.inCause("eth2"));
  expectUnderDetection("eth2", false, "after the shut");
  EXPECT_EQ(logTexts().size(), 1U);
  sw.system.adminEnabledIs("eth2", true);
  settle();
  expectUnderDetection("eth2", true, "after it was raised");
  EXPECT_FALSE(sw.disabled("eth2"));
  EXPECT_FALSE(sw.system.isHeld("eth2"));
}

TEST_F(Membership, ExclusionBeforeTheStartKeepsThePortOut) {
  sw.config().intfExcludeIs(intf("eth1"), true);
  start();
  expectUnderDetection("eth1", false, "while excluded");
  expectUnderDetection("eth2", true, "beside it");
  sw.config().intfExcludeIs(intf("eth1"), false);
  expectUnderDetection("eth1", true, "after it was included");
  EXPECT_TRUE(sw.transmitter("eth1"));
}

TEST_F(Membership, ExclusionTakesThePortOutAndInclusionRebuildsIt) {
  sw.config().vlanEnabledIs(VlanId(20), true);
  start();
  for (int round = 0; round < 3; ++round) {
    sw.config().intfExcludeIs(intf("eth1"), true);
    for (const unsigned vlan : {10U, 20U}) EXPECT_FALSE(sw.transmitter("eth1", vlan));
    expectUnderDetection("eth1", false, "while excluded");
    sw.config().intfExcludeDel(intf("eth1"));
    for (const unsigned vlan : {10U, 20U}) EXPECT_TRUE(sw.transmitter("eth1", vlan));
    expectUnderDetection("eth1", true, "after it was included");
  }
}

TEST_F(Membership, ExcludedPortThatGainsAVlanGetsNothing) {
  sw.config().intfExcludeIs(intf("eth3"), true);
  start();
  sw.newPort("eth3");
  settle();
  expectUnderDetection("eth3", false, "while excluded");
}

TEST_F(Membership, ExclusionEntryOfValueFalseExcludesNothing) {
  sw.config().intfExcludeIs(intf("eth1"), false);
  start();
  expectUnderDetection("eth1", true, "with an entry of value false");
}

TEST_F(Membership, ExcludedErrdisabledPortIsHeldByItsMarkerAndComesBackAtItsTime) {
  sw.config().vlanEnabledIs(VlanId(20), true);
  start();
  takeDownEth2();
  const double until = sw.intfStatus("eth2")->disabledUntil();
  sw.config().intfExcludeIs(intf("eth2"), true);
  for (const unsigned vlan : {10U, 20U}) EXPECT_FALSE(sw.transmitter("eth2", vlan));
  ASSERT_TRUE(sw.vlanSet("eth2"));
  EXPECT_EQ(sw.vlanSet("eth2")->members(), 1U);
  EXPECT_TRUE(sw.vlanSet("eth2")->vlan(kMarker));
  expectUnderDetection("eth2", true, "under its marker");
  EXPECT_TRUE(sw.disabled("eth2"));
  manager.runUntil(until - kTick);
  EXPECT_TRUE(sw.system.isHeld("eth2"));
  manager.runUntil(until + kTick);
  EXPECT_FALSE(sw.system.isHeld("eth2"));
  expectUnderDetection("eth2", false, "after its marker has gone");
  EXPECT_EQ(logTexts().size(), 1U);
}

TEST_F(Membership, ErrdisabledPortWhoseVlanIsTurnedOffComesBackAtItsTime) {
  start();
  takeDownEth2();
  const double until = sw.intfStatus("eth2")->disabledUntil();
  sw.config().vlanEnabledIs(VlanId(10), false);
  EXPECT_TRUE(sw.system.isHeld("eth2"));
  manager.runUntil(until + kTick);
  EXPECT_FALSE(sw.system.isHeld("eth2"));
  EXPECT_FALSE(sw.vlanSet("eth2")->vlan(kMarker));
  EXPECT_TRUE(sw.vlanSet("eth2")->vlan(10));
}

TEST_F(Membership, ShutPortThatItsVlanStillHoldsIsLetGoWhenTheCauseClears) {
  start();
  takeDownEth2();
  sw.config().vlanEnabledIs(VlanId(10), false);  // with its machine goes what would follow the shut
  sw.system.adminEnabledIs("eth2", false);
  ASSERT_TRUE(sw.vlanSet("eth2")->vlan(10));
  EXPECT_TRUE(sw.inCause("eth2"));
  manager.runUntil(sw.intfStatus("eth2")->disabledUntil() + kTick);
  EXPECT_FALSE(sw.inCause("eth2"));
  expectUnderDetection("eth2", false, "after the cause cleared");
}

TEST_F(Membership, InterfaceUnderTheCauseAtEnableIsHeldByItsMarkerAlone) {
  sw.newPort("eth9", "");
  sw.system.ringwardCause->intfStatusIs(intf("eth9"), 1.0);
  start();
  ASSERT_TRUE(sw.vlanSet("eth9"));
  EXPECT_EQ(sw.vlanSet("eth9")->members(), 1U);
  EXPECT_TRUE(sw.vlanSet("eth9")->vlan(kMarker));
  ASSERT_TRUE(sw.receiver("eth9"));
  EXPECT_FALSE(sw.receiver("eth9")->intfStatus());
  sw.system.ringwardCause->intfStatusDel(intf("eth9"));
  expectUnderDetection("eth9", false, "after the cause cleared");
}

TEST_F(Membership, InterfaceUnderTheCauseAtEnableThatAVlanWantsGoesDownAndComesBackLikeAnyOther) {
  sw.system.ringwardCause->intfStatusIs(intf("eth2"), 1.0);
  start();
  ASSERT_TRUE(sw.transmitter("eth2"));
  sw.system.ringwardCause->intfStatusDel(intf("eth2"));
  expectUnderDetection("eth2", true, "after the cause cleared");
  takeDownEth2();
  manager.runUntil(sw.intfStatus("eth2")->disabledUntil() + kTick);
  EXPECT_FALSE(sw.disabled("eth2"));
}

TEST_F(Membership, DisabledPortGetsASilentTransmitterForAVlanThatComes) {
  start();
  takeDownEth2();
  sw.config().vlanEnabledIs(VlanId(20), true);
  ASSERT_TRUE(sw.transmitter("eth2", 20));
  EXPECT_EQ(sw.transmitter("eth2", 20)->sendPacketTime(), Vex::kNever);
  EXPECT_LT(sw.transmitter("eth1", 20)->sendPacketTime(), Vex::kNever);
}

TEST_F(Membership, ReturnOfAnInterfaceProbesEachOfItsVlansAtOnce) {
  sw.config().vlanEnabledIs(VlanId(20), true);
  start();
  takeDownEth2();
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth2"), station.port(1));
  Tap tap(fabric);
  manager.runUntil(sw.intfStatus("eth2")->disabledUntil() + kTick);
  const auto sent = tap.records("switch:eth2", true);
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].time, sent[1].time);
  EXPECT_NE(Platform::Sim::tagOf(*sent[0].frame), Platform::Sim::tagOf(*sent[1].frame));
}

}  // namespace
}  // namespace Integration
