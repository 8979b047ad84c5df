// SPDX-License-Identifier: Apache-2.0
//
// The manager and the VLAN machines that it owns, over real entities. The packet access is the
// test's: it opens and closes it by hand, unless a test lets `desired` lead to it.
#include "engine/VlanIntfSmManager.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "engine/Reinstantiation.h"
#include "runtime/vex/Exception.h"
#include "tests/engine/World.h"

namespace {

using Topology::Library::Vlan::TopoVlan;
using Vlans = std::vector<std::uint32_t>;

class ManagerTest : public testing::Test {
 protected:
  void start() {
    sut = Ringward::vlanIntfSmManagerFactory(w.config, w.vlans, w.pams, w.status, w.queues, w.cause,
                                             w.desired, w.counters, w.wheel, w.brConfig,
                                             w.allIntfStatusDir);
  }
  // A VLAN of the topology, with its ports.
  Vex::Ptr<TopoVlan> vlan(int number, std::initializer_list<Portus::IntfId> ports = {}) {
    auto made = Vex::makePtr<TopoVlan>(vlanOf(number));
    for (const auto& port : ports) made->topoPortIs(port);
    w.vlans->topoVlanIs(made);
    return made;
  }
  // Enabled, known, initialised, with eth1 as a port.
  void startWithVlan10() {
    w.vlans->initDoneIs(true);
    start();
    topo10 = vlan(10, {eth1});
    w.config->vlanEnabledIs(vlanOf(10), true);
  }
  Vlans vlansOf(const Portus::IntfId& intfId) {
    Vlans result;
    const auto set = sut->desiredIntfsWithVlan(intfId);
    if (!set) return result;
    for (auto it = set->vlanIteratorConst(); it; ++it) result.push_back(it.key());
    std::sort(result.begin(), result.end());
    return result;
  }
  bool underDetection(const Portus::IntfId& intfId) {
    const bool has = sut->desiredIntfsWithVlan(intfId) != nullptr;
    EXPECT_EQ(sut->intfRxSm(intfId) != nullptr, has);
    EXPECT_EQ(w.desired->intfDesired(intfId), has);
    return has;
  }
  Vex::Ptr<Ringward::VlanIntfTxSm> transmitter(int number, const Portus::IntfId& intfId) {
    const auto machine = sut->vlanSm(vlanOf(number));
    return machine ? machine->vlanIntfTxSm(intfId) : nullptr;
  }

  World w;
  Portus::IntfId eth1 = w.port("eth1");
  Portus::IntfId eth2 = w.port("eth2");
  Vex::Ptr<TopoVlan> topo10;
  Vex::Ptr<Ringward::VlanIntfSmManager> sut;
};

class VlanIntfSmManager : public ManagerTest {};
class VlanSm : public ManagerTest {};

TEST_F(VlanIntfSmManager, AVlanEnabledBeforeTheTopologyIsReadGetsItsMachineWhenItIs) {
  vlan(10);
  w.config->vlanEnabledIs(vlanOf(10), true);
  start();
  EXPECT_EQ(sut->vlanSm(vlanOf(10)), nullptr);
  w.vlans->initDoneIs(true);
  EXPECT_NE(sut->vlanSm(vlanOf(10)), nullptr);
  EXPECT_TRUE(sut->vlanSm(vlanOf(10))->initialized());
}

TEST_F(VlanIntfSmManager, AVlanEnabledLaterGetsItsMachineAtTheEnablingIfTheTopologyHasIt) {
  w.vlans->initDoneIs(true);
  start();
  vlan(10);
  w.config->vlanEnabledIs(vlanOf(10), true);
  EXPECT_NE(sut->vlanSm(vlanOf(10)), nullptr);
  w.config->vlanEnabledIs(vlanOf(11), true);
  EXPECT_EQ(sut->vlanSm(vlanOf(11)), nullptr);
  vlan(11);
  EXPECT_NE(sut->vlanSm(vlanOf(11)), nullptr);
  w.config->vlanEnabledIs(vlanOf(12), false);
  vlan(12);
  EXPECT_EQ(sut->vlanSm(vlanOf(12)), nullptr);
}

TEST_F(VlanIntfSmManager, DisablingAVlanEndsItsMachineAndLeavesTheInterfacesDesired) {
  startWithVlan10();
  const auto pam = w.openPam(eth1);
  ASSERT_NE(transmitter(10, eth1), nullptr);
  transmitter(10, eth1)->handleSendPacket();
  w.counters->counterVlanIs({vlanOrNone(10), 1, 2, 3});
  w.config->vlanEnabledIs(vlanOf(10), false);
  EXPECT_EQ(sut->vlanSm(vlanOf(10)), nullptr);
  EXPECT_TRUE(underDetection(eth1));
  EXPECT_EQ(vlansOf(eth1), Vlans{10});
  // No doPrepareToDie() of either machine: the request and the VLAN's record stay behind.
  EXPECT_EQ(w.queues->regularPriority().members(), 1U);
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)).rxOther, 3U);
}

TEST_F(VlanIntfSmManager, RemovingTheEntryOfAVlanEndsItsMachine) {
  startWithVlan10();
  w.config->vlanEnabledDel(vlanOf(10));
  EXPECT_EQ(sut->vlanSm(vlanOf(10)), nullptr);
}

TEST_F(VlanIntfSmManager, AVlanThatLeavesTheTopologyLosesItsMachineAtOnce) {
  startWithVlan10();
  w.vlans->topoVlanDel(vlanOf(10));
  EXPECT_EQ(sut->vlanSm(vlanOf(10)), nullptr);
}

TEST_F(VlanIntfSmManager, ASecondNotificationOfAVlanEndsItsMachineAndAThirdBringsItBack) {
  startWithVlan10();
  ASSERT_NE(sut->vlanSm(vlanOf(10)), nullptr);
  w.vlans->topoVlanNotify(vlanOf(10));
  EXPECT_EQ(sut->vlanSm(vlanOf(10)), nullptr);
  w.vlans->topoVlanNotify(vlanOf(10));
  EXPECT_NE(sut->vlanSm(vlanOf(10)), nullptr);
}

TEST_F(VlanIntfSmManager,
       WithTheTopologyReadAlreadyTheSecondPassOfTheStartDeletesWhatTheFirstMade) {
  w.vlans->initDoneIs(true);
  vlan(10, {eth1});
  w.config->vlanEnabledIs(vlanOf(10), true);
  start();
  EXPECT_EQ(sut->vlanSm(vlanOf(10)), nullptr);
  EXPECT_EQ(vlansOf(eth1), Vlans{10});  // from the first pass
}

TEST_F(VlanIntfSmManager, AnInterfaceUnderTheCauseAtTheStartIsWatchedWithoutAVlanOrAStatus) {
  w.cause->intfStatusIs(eth1, 5.0);
  start();
  EXPECT_TRUE(underDetection(eth1));
  EXPECT_EQ(vlansOf(eth1), Vlans{4095});
  EXPECT_EQ(sut->intfRxSm(eth1)->intfStatus(), nullptr);
  EXPECT_EQ(w.status->intfStatus(eth1), nullptr);
  EXPECT_TRUE(sut->initialized());
}

TEST_F(VlanIntfSmManager, ACauseThatClearsOnAnInterfaceWithoutVlansEndsItsDetection) {
  w.cause->intfStatusIs(eth1, 5.0);
  start();
  w.status->intfStatusIs(eth1);
  w.cause->intfStatusDel(eth1);
  EXPECT_FALSE(underDetection(eth1));
  EXPECT_EQ(w.status->intfStatus(eth1), nullptr);
}

TEST_F(VlanIntfSmManager, ACauseThatClearsKeepsAnEnabledInterfaceWithVlans) {
  startWithVlan10();
  w.cause->intfStatusIs(eth1, 5.0);
  EXPECT_EQ(vlansOf(eth1), (Vlans{10, 4095}));
  w.cause->intfStatusDel(eth1);
  EXPECT_EQ(vlansOf(eth1), Vlans{10});
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanIntfSmManager, ACauseThatClearsEndsAnInterfaceThatIsShutDownInSpiteOfItsVlans) {
  startWithVlan10();
  w.cause->intfStatusIs(eth1, 5.0);
  w.adminEnabledIs(eth1, false);
  w.cause->intfStatusDel(eth1);
  EXPECT_FALSE(underDetection(eth1));
  EXPECT_EQ(w.status->intfStatus(eth1), nullptr);
}

TEST_F(VlanIntfSmManager, ACauseThatClearsEndsAnInterfaceThatIsGoneFromTheSystem) {
  startWithVlan10();
  w.cause->intfStatusIs(eth1, 5.0);
  w.allIntfStatusDir->intfStatusDel(eth1);
  w.cause->intfStatusDel(eth1);
  EXPECT_FALSE(underDetection(eth1));
}

TEST_F(VlanIntfSmManager, PacketAccessOfAnUndesiredInterfaceHasNoEffect) {
  start();
  w.openPam(eth1);
  EXPECT_FALSE(underDetection(eth1));
  w.pams->intfPamDel(eth1);
  EXPECT_FALSE(underDetection(eth1));
}

TEST_F(VlanIntfSmManager, PacketAccessThatComesAndGoesReachesTheReceiveMachine) {
  startWithVlan10();
  const auto pam = w.openPam(eth1);
  EXPECT_EQ(sut->intfRxSm(eth1)->pam(), pam);
  w.pams->intfPamDel(eth1);
  EXPECT_EQ(sut->intfRxSm(eth1)->pam(), nullptr);
}

TEST_F(VlanIntfSmManager, PacketAccessThatIsThereAtTheStartReachesTheReceiveMachine) {
  const auto pam = w.openPam(eth1);
  w.cause->intfStatusIs(eth1, 5.0);
  start();
  EXPECT_EQ(sut->intfRxSm(eth1)->pam(), pam);
}

TEST_F(VlanIntfSmManager, TheReceiveMachineHasItsPamBeforeAnyTransmitterIsMade) {
  startWithVlan10();
  bool hadPam = false;
  class Watcher final : public Interface::EthDevPamCollection::NotifieeConst {
   public:
    explicit Watcher(std::function<void()> call) : call_(std::move(call)) {}
    void onIntfPam(const Portus::IntfId& /*intfId*/) override { call_(); }

   private:
    std::function<void()> call_;
  };
  const auto pam = Vex::makePtr<FakePam>(eth1);
  w.pams->intfPamIs(eth1, pam);
  hadPam = sut->intfRxSm(eth1)->pam() == pam && transmitter(10, eth1) != nullptr;
  EXPECT_TRUE(hadPam);
}

TEST_F(VlanIntfSmManager, DesiringAnInterfaceTwiceGivesTheSameSet) {
  start();
  const auto set = sut->desiredIntfsWithVlanIs(eth1);
  EXPECT_TRUE(underDetection(eth1));
  EXPECT_EQ(sut->desiredIntfsWithVlanIs(eth1), set);
  sut->desiredIntfsWithVlanDel(eth1);
  EXPECT_FALSE(underDetection(eth1));
  sut->desiredIntfsWithVlanDel(eth1);  // absent: nothing
}

TEST_F(VlanIntfSmManager, TheEndWalksDownAndLeavesNothing) {
  startWithVlan10();
  w.openPam(eth1);
  transmitter(10, eth1)->handleSendPacket();
  w.counters->counterVlanIs({vlanOrNone(10), 1, 2, 3});
  w.counters->counterIntfIs({eth1, 1, 2, 3});
  w.status->intfStatus(eth1)->disabledIs(true);
  w.cause->intfStatusIs(eth2, 5.0);  // held by the marker alone
  sut->doPrepareToDie();
  EXPECT_FALSE(sut->initialized());
  EXPECT_FALSE(sut->vlanSmIteratorConst());
  EXPECT_FALSE(sut->intfRxSmIteratorConst());
  EXPECT_FALSE(sut->desiredIntfsWithVlanIteratorConst());
  EXPECT_FALSE(w.desired->intfDesiredIteratorConst());
  EXPECT_FALSE(w.status->intfStatusIteratorConst());
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)), Ringward::Status::CounterVlan());
  EXPECT_EQ(w.counters->counterIntf(eth1), Ringward::Status::CounterIntf());
}

TEST_F(VlanIntfSmManager, ATimedReturnOfAnInterfaceWithoutVlansEndsItsDetection) {
  w.config->globalIntfConfig()->disabledTimeIs(30);
  startWithVlan10();
  const auto pam = w.openPam(eth1);
  const auto own = w.status->intfStatus(eth1);
  own->disabledUntilIs(1030.0);
  own->disabledIs(true);
  w.cause->intfStatusIs(eth1, 1000.0);
  sut->desiredIntfsWithVlan(eth1)->vlanDel(10);
  sut->intfRxSm(eth1)->handleInitialized();
  w.manager.runUntil(1030.0);
  EXPECT_FALSE(underDetection(eth1));
  EXPECT_FALSE(own->disabled());
  EXPECT_EQ(w.status->intfStatus(eth1), nullptr);
  EXPECT_FALSE(w.cause->intfStatusHas(eth1));
}

TEST_F(VlanIntfSmManager, AnotherTopoVlanForAPresentMachineIsAReinstantiation) {
  startWithVlan10();
  const auto other = Vex::makePtr<TopoVlan>(vlanOf(10));
  const auto text = textOf<Vex::NameInUseException>([&] { sut->vlanSmIs(vlanOf(10), other); });
  EXPECT_TRUE(
      text.starts_with("Reinstantiating the pointer interface where constructor parameter "
                       "attribute _topoVlan has a different value of "))
      << text;
  EXPECT_TRUE(text.ends_with(" not allowed")) << text;
  EXPECT_EQ(sut->vlanSmIs(vlanOf(10), topo10), sut->vlanSm(vlanOf(10)));
}

TEST_F(VlanIntfSmManager, TheSetAdmitsTheMarkerAndNotifiesChangesOnly) {
  class Watcher final : public Ringward::VlanSet::NotifieeConst {
   public:
    using NotifieeConst::onVlan;
    void onVlan(std::uint32_t id) override { seen.push_back(id); }
    Vlans seen;
  };
  const auto set = Ringward::vlanSetFactory(eth1);
  const auto watcher = Vex::makePtr<Watcher>();
  watcher->notifierIs(set);
  watcher->isRegisteredNotifieeIs(true);
  set->vlanIs(10, true);
  set->vlanIs(10, true);
  set->vlanIs(4095, true);
  set->vlanIs(4095, false);
  set->vlanDel(11);
  set->vlanDel(10);
  EXPECT_EQ(watcher->seen, (Vlans{10, 4095, 4095, 10}));
  EXPECT_EQ(set->members(), 1U);
  EXPECT_FALSE(set->vlan(4095));
  EXPECT_EQ(set->intfId(), eth1);
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(VlanSm, APortWithoutASocketIsDesiredAndGetsItsTransmitterWithTheSocket) {
  startWithVlan10();
  EXPECT_NE(w.status->intfStatus(eth1), nullptr);
  EXPECT_TRUE(underDetection(eth1));
  EXPECT_EQ(vlansOf(eth1), Vlans{10});
  EXPECT_EQ(transmitter(10, eth1), nullptr);
  w.openPam(eth1);
  ASSERT_NE(transmitter(10, eth1), nullptr);
  EXPECT_EQ(transmitter(10, eth1)->intfStatus(), w.status->intfStatus(eth1).get());
  EXPECT_NE(transmitter(10, eth1)->sendPacketTime(), kNever);
}

TEST_F(VlanSm, APortAddedLaterIsFollowed) {
  startWithVlan10();
  w.openPam(eth2);
  topo10->topoPortIs(eth2);
  EXPECT_NE(transmitter(10, eth2), nullptr);
}

TEST_F(VlanSm, AnExcludedInterfaceThatGainsAPortGetsNothing) {
  startWithVlan10();
  w.openPam(eth2);
  w.config->intfExcludeIs(eth2, true);
  topo10->topoPortIs(eth2);
  EXPECT_EQ(transmitter(10, eth2), nullptr);
  EXPECT_FALSE(underDetection(eth2));
  EXPECT_EQ(w.status->intfStatus(eth2), nullptr);
}

TEST_F(VlanSm, TheSystemsOwnExclusionCountsToo) {
  startWithVlan10();
  w.openPam(eth2);
  w.status->sysIntfExcludeIs(eth2, true);
  topo10->topoPortIs(eth2);
  EXPECT_EQ(transmitter(10, eth2), nullptr);
  w.status->sysIntfExcludeDel(eth2);
  EXPECT_NE(transmitter(10, eth2), nullptr);
}

TEST_F(VlanSm, AnExclusionOfFalseDoesNotOverrideTheSystems) {
  startWithVlan10();
  w.openPam(eth2);
  w.config->intfExcludeIs(eth2, false);
  w.status->sysIntfExcludeIs(eth2, true);
  topo10->topoPortIs(eth2);
  EXPECT_EQ(transmitter(10, eth2), nullptr);
}

TEST_F(VlanSm, ExclusionsThatStandApplyBeforeTheFirstTransmitterIsMade) {
  w.openPam(eth1);
  w.config->intfExcludeIs(eth1, true);
  startWithVlan10();
  EXPECT_EQ(transmitter(10, eth1), nullptr);
  EXPECT_FALSE(underDetection(eth1));
}

TEST_F(VlanSm, ExcludingTakesTheVlanOutAndWithTheLastOneTheInterfaceGoes) {
  startWithVlan10();
  w.openPam(eth1);
  transmitter(10, eth1)->handleSendPacket();
  w.config->intfExcludeIs(eth1, true);
  EXPECT_EQ(transmitter(10, eth1), nullptr);
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_FALSE(underDetection(eth1));
  EXPECT_EQ(w.status->intfStatus(eth1), nullptr);
}

TEST_F(VlanSm, ASetThatStillHoldsTheMarkerSurvivesTheExclusion) {
  startWithVlan10();
  w.openPam(eth1);
  w.cause->intfStatusIs(eth1, 5.0);
  w.config->intfExcludeIs(eth1, true);
  EXPECT_TRUE(underDetection(eth1));
  EXPECT_EQ(vlansOf(eth1), Vlans{4095});
  EXPECT_EQ(transmitter(10, eth1), nullptr);
}

TEST_F(VlanSm, AnInterfaceExcludedAndIncludedAgainIsRebuilt) {
  startWithVlan10();
  w.openPam(eth1);
  w.config->intfExcludeIs(eth1, true);
  w.config->intfExcludeIs(eth1, false);
  EXPECT_NE(transmitter(10, eth1), nullptr);
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanSm, AnEnabledInterfaceThatLosesItsSocketLosesItsTransmitterAndKeepsItsSet) {
  startWithVlan10();
  w.openPam(eth1);
  transmitter(10, eth1)->handleSendPacket();
  w.pams->intfPamDel(eth1);
  EXPECT_EQ(transmitter(10, eth1), nullptr);
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_EQ(vlansOf(eth1), Vlans{10});
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanSm, AnInterfaceShutDownLosesItsSetWithItsSocket) {
  startWithVlan10();
  w.openPam(eth1);
  w.adminEnabledIs(eth1, false);
  w.pams->intfPamDel(eth1);
  EXPECT_EQ(transmitter(10, eth1), nullptr);
  EXPECT_FALSE(underDetection(eth1));
}

TEST_F(VlanSm, AnEnabledPortThatLeavesTheVlanStaysDesiredUnderIt) {
  startWithVlan10();
  w.openPam(eth1);
  topo10->topoPortDel(eth1);
  EXPECT_EQ(transmitter(10, eth1), nullptr);
  EXPECT_EQ(vlansOf(eth1), Vlans{10});
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanSm, APortThatLeavesTheVlanOfAnUnknownInterfaceEndsItsDetection) {
  startWithVlan10();
  w.openPam(eth1);
  w.allIntfStatusDir->intfStatusDel(eth1);
  topo10->topoPortDel(eth1);
  EXPECT_FALSE(underDetection(eth1));
}

TEST_F(VlanSm, AnotherSocketForAnInterfaceWithATransmitterChangesNothing) {
  startWithVlan10();
  w.openPam(eth1);
  const auto before = transmitter(10, eth1);
  const double time = before->sendPacketTime();
  w.openPam(eth1);
  EXPECT_EQ(transmitter(10, eth1), before);
  EXPECT_EQ(before->sendPacketTime(), time);
}

TEST_F(VlanSm, BetweenItsPreparationAndItsEndTheMachineFollowsNoPort) {
  startWithVlan10();
  w.openPam(eth1);
  w.openPam(eth2);
  const auto machine = sut->vlanSm(vlanOf(10));
  machine->doPrepareToDie();
  EXPECT_FALSE(machine->initialized());
  EXPECT_FALSE(machine->vlanIntfTxSmIteratorConst());
  topo10->topoPortIs(eth2);
  machine->handleVlanIntf(eth1);
  EXPECT_FALSE(machine->vlanIntfTxSmIteratorConst());
}

TEST_F(VlanSm, PreparationRemovesTheVlansRecordAndTheRequests) {
  startWithVlan10();
  w.openPam(eth1);
  transmitter(10, eth1)->handleSendPacket();
  w.counters->counterVlanIs({vlanOrNone(10), 1, 2, 3});
  sut->vlanSm(vlanOf(10))->doPrepareToDie();
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)), Ringward::Status::CounterVlan());
  EXPECT_FALSE(underDetection(eth1));
}

TEST_F(VlanSm, AnInterfaceOfTwoVlansHasBothInItsSet) {
  startWithVlan10();
  vlan(20, {eth1});
  w.config->vlanEnabledIs(vlanOf(20), true);
  w.openPam(eth1);
  EXPECT_EQ(vlansOf(eth1), (Vlans{10, 20}));
  sut->vlanSm(vlanOf(10))->removeIntf(eth1);
  EXPECT_EQ(vlansOf(eth1), Vlans{20});
  EXPECT_TRUE(underDetection(eth1));
}

TEST_F(VlanSm, AnotherArgumentForAPresentTransmitterIsAReinstantiation) {
  startWithVlan10();
  w.openPam(eth1);
  const auto machine = sut->vlanSm(vlanOf(10));
  const auto again = [&](int number) {
    return machine->vlanIntfTxSmIs(eth1, vlanOf(number), w.config->globalIntfConfig(), w.wheel,
                                   w.status->intfStatus(eth1), w.queues);
  };
  EXPECT_EQ(again(10), transmitter(10, eth1));
  EXPECT_EQ(textOf<Vex::NameInUseException>([&] { again(11); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _vlanId "
            "has a different value of 11 than the current value of 10 not allowed");
}

}  // namespace
