// SPDX-License-Identifier: Apache-2.0
#include "agent/SelfCheck.h"

#include "tests/integration/World.h"

namespace Agent {
namespace {

using Integration::intf;
using Integration::Switch;
using Integration::VlanId;
using Integration::vlans;

// A device that refuses packet access for a while, as a system without free descriptors does.
class Refusing final : public Portus::Device {
 public:
  explicit Refusing(Vex::Ptr<Portus::Device> device) : device_(std::move(device)) {}
  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId,
                               const Portus::PamConfig& config) override {
    return refuses ? nullptr : device_->newPam(intfId, config);
  }
  bool refuses = true;

 private:
  const Vex::Ptr<Portus::Device> device_;
};

class SelfCheckTest : public Integration::World {
 protected:
  SelfCheckTest() {
    sw.newPort("eth1", "10,20");
    sw.newPort("eth2", "10,20");
    sw.config().vlanEnabledIs(VlanId(20), true);
    sw.config().globalIntfConfig()->transmitIntervalIs(kInterval);
  }

  void start() {
    sw.start();
    settle();
    sut = std::make_unique<SelfCheck>(manager, wheel, *sw.engine, sw.config(),
                                      *sw.system.allIntfStatusLocalDir,
                                      [this] { return std::exchange(actionsToHeal, {}); });
    logs.clear();
  }
  void wholeTree() {
    for (const char* const port : {"eth1", "eth2"}) {
      EXPECT_TRUE(sw.transmitter(port, 10)) << port;
      EXPECT_TRUE(sw.transmitter(port, 20)) << port;
    }
  }

  static constexpr std::uint8_t kInterval = 5;
  Switch sw{fabric};
  Vex::Ptr<Helm::TimerWheel> wheel = Vex::makePtr<Helm::TimerWheel>(
      Vex::Ptr<Vex::ActivityConfig>(), Vex::Ptr<Vex::Clock const>(), 10U, 1024U, true, 64U);
  std::vector<Portus::IntfId> actionsToHeal;
  std::unique_ptr<SelfCheck> sut;
};

TEST_F(SelfCheckTest, LooksTwiceInEachIntervalAndLeavesAWholeTreeAlone) {
  start();
  const auto machine = sw.manager().vlanSm(VlanId(10));
  runFor(10 * kInterval + 1);
  EXPECT_EQ(sut->counts(), (SelfCheck::Counts{.rounds = 20}));
  EXPECT_EQ(sw.manager().vlanSm(VlanId(10)), machine);
  EXPECT_TRUE(logTexts().empty());
}

TEST_F(SelfCheckTest, AVlanThatLostItsMachineHasOneAgainWithinTwoIntervals) {
  start();
  const auto other = sw.manager().vlanSm(VlanId(20));
  // Two messages for a VLAN that has its machine end it; a topology must not send them.
  sw.engine->vlanIntfSmManager()->handleVlanConfigEnabled(VlanId(10));
  ASSERT_FALSE(sw.manager().vlanSm(VlanId(10)));
  runFor(2 * kInterval);
  wholeTree();
  EXPECT_EQ(sw.manager().vlanSm(VlanId(20)), other) << "what was whole is left alone";
  EXPECT_EQ(sut->counts().vlanMachines, 1U);
  EXPECT_EQ(logTexts(),
            std::vector<std::string>{"Self-check: VLAN 10 had no machine; this is being healed"});
}

TEST_F(SelfCheckTest, AFaultThatIsOverByTheSecondLookIsLeftAlone) {
  start();
  sw.engine->vlanIntfSmManager()->handleVlanConfigEnabled(VlanId(10));
  runFor(0.5 * kInterval + 0.1);  // one look
  sw.engine->vlanIntfSmManager()->handleVlanConfigEnabled(VlanId(10));
  const auto machine = sw.manager().vlanSm(VlanId(10));
  ASSERT_TRUE(machine);
  runFor(4 * kInterval);
  EXPECT_EQ(sw.manager().vlanSm(VlanId(10)), machine);
  EXPECT_EQ(sut->counts().vlanMachines, 0U);
}

TEST_F(SelfCheckTest, APortThatLostItsTransmitterHasOneAgain) {
  start();
  sw.manager().vlanSm(VlanId(20))->vlanIntfTxSmDel(intf("eth2"));
  ASSERT_FALSE(sw.transmitter("eth2", 20));
  runFor(2 * kInterval);
  wholeTree();
  EXPECT_EQ(sut->counts().transmitters, 1U);
  EXPECT_EQ(logTexts(),
            std::vector<std::string>{
                "Self-check: port eth2 had no transmitter in VLAN 20; this is being healed"});
}

TEST_F(SelfCheckTest, APortWithoutPacketAccessIsHealedAsSoonAsItCanBeAndToldOnce) {
  const auto local = sw.system.allIntfStatusLocalDir->intfStatusLocal(intf("eth1"));
  const auto device = Vex::makePtr<Refusing>(local->device());
  sw.system.allIntfStatusLocalDir->intfStatusLocalIs(
      intf("eth1"), Vex::makePtr<Interface::IntfStatusLocal>(device));
  start();
  ASSERT_FALSE(sw.hasPam("eth1"));
  runFor(5 * kInterval);
  EXPECT_FALSE(sw.hasPam("eth1"));
  EXPECT_GT(sut->counts().packetAccess, 3U) << "tried in every round";
  EXPECT_EQ(logTexts(), std::vector<std::string>{
                            "Self-check: port eth1 had no packet access; this is being healed"});
  device->refuses = false;
  runFor(kInterval);
  EXPECT_TRUE(sw.hasPam("eth1"));
  wholeTree();
  const auto healed = sut->counts().packetAccess;
  runFor(5 * kInterval);
  EXPECT_EQ(sut->counts().packetAccess, healed);
}

TEST_F(SelfCheckTest, ExcludedPortsAndDisabledVlansLackNothing) {
  sw.config().intfExcludeIs(intf("eth1"), true);
  sw.config().vlanEnabledIs(VlanId(20), false);
  start();
  runFor(4 * kInterval);
  EXPECT_EQ(sut->counts(), (SelfCheck::Counts{.rounds = 8}));
}

TEST_F(SelfCheckTest, ActionsThatWereMadeAgainAreToldAndCounted) {
  start();
  actionsToHeal = {intf("eth2")};
  runFor(2 * kInterval);
  EXPECT_EQ(sut->counts().actions, 1U);
  EXPECT_EQ(logTexts(),
            std::vector<std::string>{"Self-check: held port eth2 was in service again without a "
                                     "message; this is being healed"});
}

TEST_F(SelfCheckTest, RestsWhileNothingIsProbedAndGoesOnWhenItIsWoken) {
  start();
  for (const char* const port : {"eth1", "eth2"}) sw.intfStatus(port)->disabledIs(true);
  runFor(kInterval);
  const auto rounds = sut->counts().rounds;
  runFor(100 * kInterval);
  EXPECT_EQ(sut->counts().rounds, rounds);
  sw.intfStatus("eth1")->disabledIs(false);
  sut->wake();
  runFor(10 * kInterval);
  EXPECT_GE(sut->counts().rounds, rounds + 19);
  sw.config().globalEnabledIs(false);
  runFor(kInterval);
  const auto last = sut->counts().rounds;
  runFor(100 * kInterval);
  EXPECT_EQ(sut->counts().rounds, last);
}

}  // namespace
}  // namespace Agent
