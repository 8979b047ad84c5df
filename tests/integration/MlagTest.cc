// SPDX-License-Identifier: Apache-2.0
//
// The multi-chassis pair: whose address the probes carry, how eagerly interfaces go down, and how
// the peer link stays out of detection.
#include "tests/integration/World.h"

namespace Integration {
namespace {

const EthAddr kBridge = EthAddr::parse("02:00:00:00:00:01");
const EthAddr kPair = EthAddr::parse("02:00:00:00:00:aa");

class MlagPair : public World {
 protected:
  MlagPair() {
    sw.newPort("eth1");
    sw.newPort("Port-Channel1");
    sw.newPort("Port-Channel2");
  }
  void start() {
    sw.start();
    settle();
  }
  void peerLinkIs(const std::string& name) {
    sw.system.mlagStatus->peerLinkIntfIs(sw.system.intfStatus(name));
  }

  Switch sw{fabric};
};

TEST_F(MlagPair, StateDecidesSourceAddressAndAggressiveness) {
  sw.system.mlagStatus->systemIdIs(kPair);
  start();
  using Mlag::MlagState;
  struct Case {
    MlagState state;
    EthAddr source;
    bool aggressive;
  };
  for (const Case& expected :
       {Case{MlagState::primary, kPair, false}, Case{MlagState::secondary, kPair, true},
        Case{MlagState::inactive, kBridge, false}, Case{MlagState::secondary, kPair, true},
        Case{MlagState::connecting, kBridge, false}, Case{MlagState::primary, kPair, false},
        Case{MlagState::disabled, kBridge, false}}) {
    sw.system.mlagStatus->mlagStateIs(expected.state);
    EXPECT_EQ(sw.status().srcAddr(), expected.source) << static_cast<int>(expected.state);
    EXPECT_EQ(sw.status().aggressiveDisable(), expected.aggressive)
        << static_cast<int>(expected.state);
  }
}

TEST_F(MlagPair, ChangesOfTheAddressesReachTheProbes) {
  Tap tap(fabric);
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth1"), station.port(1));
  start();
  const auto sourceOfProbe = [&] {
    tap.clear();
    sw.probe("eth1");
    return Platform::Sim::sourceOf(*tap.records("switch:eth1", true).at(0).frame);
  };
  EXPECT_EQ(sourceOfProbe(), kBridge);
  const EthAddr other = EthAddr::parse("02:00:00:00:00:02");
  sw.system.brConfig->bridgeMacAddrIs(other);
  EXPECT_EQ(sourceOfProbe(), other);
  sw.system.mlagStatus->mlagStateIs(Mlag::MlagState::primary);
  sw.system.mlagStatus->systemIdIs(kPair);
  EXPECT_EQ(sourceOfProbe(), kPair);
  sw.system.brConfig->bridgeMacAddrIs(kBridge);
  EXPECT_EQ(sourceOfProbe(), kPair);
}

TEST_F(MlagPair, PeerLinkThatIsThereAtTheStartIsNeverProbed) {
  peerLinkIs("Port-Channel1");
  start();
  EXPECT_FALSE(sw.transmitter("Port-Channel1"));
  EXPECT_FALSE(sw.vlanSet("Port-Channel1"));
  EXPECT_FALSE(sw.hasPam("Port-Channel1"));
  EXPECT_FALSE(sw.intfStatus("Port-Channel1"));
  EXPECT_TRUE(sw.transmitter("Port-Channel2"));
}

TEST_F(MlagPair, PeerLinkThatComesLaterIsTakenOut) {
  start();
  ASSERT_TRUE(sw.transmitter("Port-Channel1"));
  peerLinkIs("Port-Channel1");
  EXPECT_FALSE(sw.transmitter("Port-Channel1"));
  EXPECT_FALSE(sw.receiver("Port-Channel1"));
  EXPECT_FALSE(sw.hasPam("Port-Channel1"));
  EXPECT_FALSE(sw.intfStatus("Port-Channel1"));
}

TEST_F(MlagPair, PeerLinkThatMovesGivesTheOldInterfaceBack) {
  peerLinkIs("Port-Channel1");
  start();
  peerLinkIs("Port-Channel2");
  EXPECT_FALSE(sw.status().sysIntfExcludeHas(intf("Port-Channel1")));
  EXPECT_TRUE(sw.status().sysIntfExclude(intf("Port-Channel2")));
  EXPECT_EQ(sw.engine->oldPeer(), intf("Port-Channel2"));
  EXPECT_TRUE(sw.transmitter("Port-Channel1"));
  EXPECT_TRUE(sw.hasPam("Port-Channel1"));
  EXPECT_FALSE(sw.transmitter("Port-Channel2"));
}

TEST_F(MlagPair, PeerLinkThatVanishesIsRememberedAndItsReturnExcludesItAgain) {
  peerLinkIs("Port-Channel1");
  start();
  sw.system.mlagStatus->peerLinkIntfIs(nullptr);
  EXPECT_FALSE(sw.status().sysIntfExcludeHas(intf("Port-Channel1")));
  EXPECT_EQ(sw.engine->oldPeer(), intf("Port-Channel1"));
  EXPECT_TRUE(sw.transmitter("Port-Channel1"));
  peerLinkIs("Port-Channel1");
  EXPECT_TRUE(sw.status().sysIntfExclude(intf("Port-Channel1")));
  EXPECT_FALSE(sw.transmitter("Port-Channel1"));
}

TEST_F(MlagPair, OperatorsExclusionHoldsWhenThePeerLinkMovesAway) {
  peerLinkIs("Port-Channel1");
  sw.config().intfExcludeIs(intf("Port-Channel1"), true);
  start();
  peerLinkIs("Port-Channel2");
  EXPECT_FALSE(sw.transmitter("Port-Channel1"));
}

TEST_F(MlagPair, PortChannelOfThePeerAndOtherKindsAreNoPortsAtAll) {
  for (const char* name : {"PeerPort-Channel3", "Vlan10", "lo"}) sw.newPort(name);
  start();
  for (const char* name : {"PeerPort-Channel3", "Vlan10", "lo"}) {
    EXPECT_FALSE(sw.transmitter(name)) << name;
    EXPECT_FALSE(sw.vlanSet(name)) << name;
  }
}

TEST_F(MlagPair, ExcludedPeerLinkDoesNotGoDownWhenALoopReachesIt) {
  peerLinkIs("Port-Channel1");
  fabric.wireIs(sw.system.port("eth1"), sw.system.port("Port-Channel1"));
  start();
  runFor(10);
  EXPECT_TRUE(sw.system.errdisable().history().empty());
}

}  // namespace
}  // namespace Integration
