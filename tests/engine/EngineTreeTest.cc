// SPDX-License-Identifier: Apache-2.0
//
// The whole tree of machines under Ringward::GlobalSm, with the real topology library and
// packet-access managers; only the devices and the time are the test's. What happens between
// machines, and what happens when a reaction takes the tree down while it stands on it.
#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "engine/GlobalSm.h"
#include "engine/ProbeFrame.h"
#include "tests/engine/World.h"

namespace {

const Portus::EthAddr kBridge(0x02, 0, 0, 0, 0, 0xB0);

class EngineTree : public testing::Test {
 protected:
  EngineTree() {
    brTopoConfig->vlansIs(Bridging::VlanBitmap::parse("1-4094"));
    w.brConfig->bridgeMacAddrIs(kBridge);
    w.config->globalIntfConfig()->disabledTimeIs(30);
  }
  // A port that carries VLAN 10, with a device behind it.
  Vex::Ptr<FakeDevice> port(std::string_view name) {
    const auto intfId = w.port(name);
    const auto behind = Vex::makePtr<FakeDevice>();
    ethDir->ethIntfStatusIs(intfId, w.allIntfStatusDir->intfStatus(intfId));
    localDir->intfStatusLocalIs(intfId, Vex::makePtr<Interface::IntfStatusLocal>(behind));
    brTopoStatus->intfVlansIs(intfId, Bridging::VlanBitmap::parse("10"));
    return behind;
  }
  void disable() { w.config->globalEnabledIs(false); }
  // Enabled, with one port in one VLAN, up to its first transmitter.
  void SetUp() override {
    device = port("eth1");
    w.config->vlanEnabledIs(vlanOf(10), true);
    w.config->globalEnabledIs(true);
    sut = Ringward::globalSmFactory(w.config, w.status, Vex::makePtr<Mlag::Status>("mlag"),
                                    w.queues, brTopoConfig, brTopoStatus, w.brConfig, ethDir,
                                    w.allIntfStatusDir, localDir, w.cause, w.counters);
    w.manager.runFor(0.0);
    ASSERT_NE(transmitter(), nullptr);
  }
  Vex::Ptr<Ringward::VlanIntfTxSm> transmitter() const {
    return sut->vlanIntfTxSm(vlanOf(10), intfOf("eth1"));
  }
  void receiveOwnProbe() {
    auto pkt = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(*pkt, {kBridge, vlanOrNone(10), intfOf("eth1")}, vlanOrNone(1));
    device->pam->receive(pkt->bytes());
  }
  // Runs `call` each time that an entry of the status comes or goes.
  template <class Call>
  auto onIntfStatus(Call call) {
    class Watcher final : public Ringward::Status::Status::NotifieeConst {
     public:
      explicit Watcher(Call c) : call_(std::move(c)) {}
      using NotifieeConst::onIntfStatus;
      void onIntfStatus(const Portus::IntfId& /*intfId*/) override { call_(); }

     private:
      Call call_;
    };
    auto watcher = Vex::makePtr<Watcher>(std::move(call));
    watcher->notifierIs(w.status);
    watcher->isRegisteredNotifieeIs(true);
    return watcher;
  }

  World w;
  Vex::Ptr<Bridging::Topology::Config> brTopoConfig =
      Vex::makePtr<Bridging::Topology::Config>("topoConfig");
  Vex::Ptr<Bridging::Topology::Status> brTopoStatus =
      Vex::makePtr<Bridging::Topology::Status>("topoStatus");
  Vex::Ptr<Interface::EthIntfStatusDir> ethDir = Vex::makePtr<Interface::EthIntfStatusDir>("eth");
  Vex::Ptr<Interface::AllIntfStatusLocalDir> localDir =
      Vex::makePtr<Interface::AllIntfStatusLocalDir>("local");
  Vex::Ptr<FakeDevice> device;
  Vex::Ptr<Ringward::GlobalSm> sut;
};

TEST_F(EngineTree, AProbeGoesOutEachIntervalWithTheSourceAddressOfTheBridge) {
  w.manager.runFor(50.5);
  ASSERT_GE(device->pam->sent.size(), 10U);
  ASSERT_LE(device->pam->sent.size(), 11U);
  const Frame expected{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0,    0,    0,    0,
                       0xB0, 0x81, 0x00, 0xE0, 0x0A, 0x88, 0xB7, 0x0A, 0x1B, 0x2C, 0,
                       3,    1,    0x20, 0x80, 0,    0,    0,    0,    0,    0x05};
  EXPECT_EQ(device->pam->sent.back(), expected);
}

TEST_F(EngineTree, TheFlagOfAPairIsClearedBeforeItsRegularProbeGoesOut) {
  std::vector<bool> flags;
  device->pam->onTx = [&] { flags.push_back(transmitter()->packetInQueue()); };
  transmitter()->handleSendPacket();
  EXPECT_EQ(flags, std::vector<bool>{false});
  EXPECT_FALSE(transmitter()->packetInQueue());
}

TEST_F(EngineTree, AHighProbeLeavesTheFlagOfItsPair) {
  transmitter()->packetInQueueIs(true);
  w.queues->highPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(device->pam->sent.size(), 1U);
  EXPECT_TRUE(transmitter()->packetInQueue());
}

TEST_F(EngineTree, ADisabledInterfaceProbesAtOnceWhenItComesBack) {
  receiveOwnProbe();
  EXPECT_TRUE(w.status->intfStatus(intfOf("eth1"))->disabled());
  EXPECT_EQ(transmitter()->sendPacketTime(), kNever);
  w.manager.runUntil(1029.9);
  EXPECT_TRUE(device->pam->sent.empty());
  w.manager.runUntil(1030.0);
  EXPECT_EQ(device->pam->sent.size(), 1U);
  EXPECT_EQ(transmitter()->sendPacketTime(), 1035.0);
}

TEST_F(EngineTree, DisablingBringsInterfacesUpAndLeavesNoTrace) {
  receiveOwnProbe();
  EXPECT_TRUE(w.cause->intfStatusHas(intfOf("eth1")));
  disable();
  EXPECT_FALSE(w.cause->intfStatusHas(intfOf("eth1")));
  EXPECT_FALSE(w.status->intfStatusIteratorConst());
  EXPECT_FALSE(sut->pamDesiredIntfDir()->intfDesiredIteratorConst());
  EXPECT_FALSE(sut->ethDevPamCollection()->intfPamIteratorConst());
  EXPECT_EQ(w.logIds(), std::vector<std::string>{"RINGWARD_INTF_UP"});
}

TEST_F(EngineTree, RequestsLeftBehindByAVlanThatEndedGoAtTheDisabling) {
  w.config->transmitConfig()->rateLimitIs(1);
  w.queues->highPriorityEnq(pairOf("eth9", 10));  // uses up the window
  transmitter()->handleSendPacket();
  w.config->vlanEnabledIs(vlanOf(10), false);
  EXPECT_EQ(w.queues->regularPriority().members(), 1U);
  disable();
  EXPECT_TRUE(w.queues->regularPriority().empty());
}

TEST_F(EngineTree, OnlyWhatTheFilterAdmitsIsProbed) {
  const auto loopback = port("lo");
  const auto peer = port("peerbond1");
  const auto channel = port("po7");
  w.manager.runFor(0.0);
  EXPECT_TRUE(loopback->configs.empty());
  EXPECT_TRUE(peer->configs.empty());
  EXPECT_EQ(channel->configs.size(), 1U);
}

TEST_F(EngineTree, AnExclusionClosesThePacketAccessAndItsEndOpensItAgain) {
  w.config->intfExcludeIs(intfOf("eth1"), true);
  EXPECT_EQ(sut->ethDevPamCollection()->intfPam(intfOf("eth1")), nullptr);
  EXPECT_EQ(transmitter(), nullptr);
  w.config->intfExcludeIs(intfOf("eth1"), false);
  EXPECT_NE(sut->ethDevPamCollection()->intfPam(intfOf("eth1")), nullptr);
  EXPECT_NE(transmitter(), nullptr);
  EXPECT_EQ(device->configs.size(), 2U);
}

TEST_F(EngineTree, DisablingAgainFromInsideTheDisablingEndsWell) {
  const auto watcher = onIntfStatus([&] { sut->handleGlobalEnabled(); });
  disable();
  EXPECT_FALSE(w.status->running());
  EXPECT_EQ(sut->vlanIntfSmManager(), nullptr);
  EXPECT_FALSE(w.status->intfStatusIteratorConst());
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(EngineTree, DisablingFromInsideTheMakingOfAnInterfaceEndsWell) {
  const auto watcher = onIntfStatus([&] { disable(); });
  port("eth2");
  w.manager.runFor(0.0);
  EXPECT_FALSE(w.status->running());
  EXPECT_EQ(sut->vlanIntfSmManager(), nullptr);
  EXPECT_EQ(sut->transmitSm(), nullptr);
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(EngineTree, DisablingFromInsideATransmissionEndsWell) {
  const auto pam = device->pam;
  pam->onTx = [&] { disable(); };
  for (int i = 0; i < 5; ++i) w.queues->regularPriorityEnq(pairOf("eth9", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_FALSE(w.status->running());
  EXPECT_EQ(pam->sent.size(), 1U);
  EXPECT_TRUE(w.queues->regularPriority().empty());
}

TEST_F(EngineTree, LettingTheTreeGoFromInsideATransmissionEndsWell) {
  const auto pam = device->pam;
  w.config->transmitConfig()->rateLimitIs(1);
  w.queues->highPriorityEnq(pairOf("eth9", 10));
  for (int i = 0; i < 3; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  pam->onTx = [&] { sut = nullptr; };
  w.config->transmitConfig()->rateLimitIs(0);
  EXPECT_GE(pam->sent.size(), 1U);
}

}  // namespace
