// SPDX-License-Identifier: Apache-2.0
//
// The road of a probe through the whole tree: out, back, the interface's way down and up again.
#include "tests/integration/World.h"

namespace Integration {
namespace {

using Platform::Sim::toHex;

const std::string kUpText = "Bringing interface eth2 back up after a loop was detected";

class ProbeRoad : public World {
 protected:
  ProbeRoad() {
    sw.newPort("eth1");
    sw.newPort("eth2");
  }

  void wireLoop() { fabric.wireIs(sw.system.port("eth1"), sw.system.port("eth2")); }
  void start() {
    sw.start();
    settle();
  }
  // Runs until a transmitter's next time, and tells it.
  double runToProbe(const std::string& name) {
    const double due = sw.transmitter(name)->sendPacketTime();
    manager.runUntil(due + kTick);
    return due;
  }

  Switch sw{fabric};
  Tap tap{fabric};
};

TEST_F(ProbeRoad, FirstProbeGoesWithinOneIntervalAndNotWithTheStart) {
  wireLoop();
  sw.start();
  settle();
  EXPECT_TRUE(tap.records().empty());
  for (const char* name : {"eth1", "eth2"}) {
    const double first = sw.transmitter(name)->sendPacketTime();
    EXPECT_GE(first, kStart);
    EXPECT_LT(first, kStart + 1);
  }
  EXPECT_NE(sw.transmitter("eth1")->sendPacketTime(), sw.transmitter("eth2")->sendPacketTime());
}

TEST_F(ProbeRoad, TaggedProbeIsThirtyTwoExactBytes) {
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth1"), station.port(1));
  start();
  runToProbe("eth1");
  const auto sent = tap.records("switch:eth1", true);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(toHex(*sent[0].frame),
            "ffffffffffff"
            "020000000001"
            "8100"
            "e00a"
            "88b7"
            "0a1b2c"
            "0003"
            "01" +
                toHex(intf("eth1").bytes()));
  EXPECT_EQ(station.heard(), 1U);
}

TEST_F(ProbeRoad, ProbeOfTheNativeVlanIsTwentyEightBytesWithoutATag) {
  sw.system.nativeVlanIs("eth1", VlanIdOrNone(10));
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth1"), station.port(1));
  start();
  runToProbe("eth1");
  const auto sent = tap.records("switch:eth1", true);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(toHex(*sent[0].frame),
            "ffffffffffff"
            "020000000001"
            "88b7"
            "0a1b2c"
            "0003"
            "01" +
                toHex(intf("eth1").bytes()));
}

TEST_F(ProbeRoad, UntaggedProbeCountsForTheReceiversOwnNativeVlan) {
  sw.config().vlanEnabledIs(VlanId(20), true);
  sw.system.portVlansIs("eth2", vlans("10,20"));
  sw.system.nativeVlanIs("eth1", VlanIdOrNone(10));
  sw.system.nativeVlanIs("eth2", VlanIdOrNone(20));
  wireLoop();
  start();
  sw.probe("eth1", 10);
  runFor(2 * kDelay);
  EXPECT_EQ(sw.system.packetCounter->counterVlan(VlanIdOrNone(20)).rx, 1U);
  EXPECT_EQ(sw.system.packetCounter->counterVlan(VlanIdOrNone(10)).rx, 0U);
  EXPECT_EQ(sw.system.packetCounter->counterVlan(VlanIdOrNone(10)).tx, 1U);
}

// The whole road in its steps, with the time of each.
TEST_F(ProbeRoad, LoopedProbeTakesTheReceiverDownAndTimeBringsItBack) {
  wireLoop();
  start();
  const auto& status = *sw.intfStatus("eth2");
  sw.probe("eth1");

  // The request has left the queue and is on the wire, inside the call; nothing has come back.
  EXPECT_TRUE(sw.system.transmitStatus->regularPriority().empty());
  ASSERT_EQ(tap.records("switch:eth1", true).size(), 1U);
  EXPECT_EQ(sw.counts("eth1").tx, 1U);
  EXPECT_FALSE(status.disabled());

  const double sent = now();
  manager.runUntil(sent + kDelay);
  EXPECT_EQ(sw.counts("eth2").rx, 1U);
  EXPECT_TRUE(status.disabled());
  EXPECT_EQ(status.disabledAt(), sent + kDelay);
  EXPECT_EQ(status.disabledUntil(), sent + kDelay + 30);
  EXPECT_EQ(sw.system.ringwardCause->intfStatus(intf("eth2")), sent + kDelay);
  EXPECT_TRUE(sw.system.isHeld("eth2"));
  EXPECT_FALSE(sw.disabled("eth1"));
  EXPECT_EQ(sw.transmitter("eth2")->sendPacketTime(), Vex::kNever);
  EXPECT_TRUE(sw.vlanSet("eth2")->vlan(Ringward::VlanSet::kErrdisabled));

  // Down means silent; the other end goes on probing.
  runFor(29);
  EXPECT_TRUE(tap.records("switch:eth2", true).empty());
  EXPECT_GE(tap.records("switch:eth1", true).size(), 28U);
  EXPECT_TRUE(status.disabled());

  fabric.wireDel(sw.system.port("eth1"));
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth2"), station.port(1));
  tap.clear();
  runFor(1 + kTick);
  EXPECT_FALSE(status.disabled());
  EXPECT_EQ(status.disabledAt(), 0);
  EXPECT_EQ(status.disabledUntil(), 0);
  EXPECT_FALSE(sw.inCause("eth2"));
  EXPECT_FALSE(sw.system.isHeld("eth2"));
  EXPECT_FALSE(sw.vlanSet("eth2")->vlan(Ringward::VlanSet::kErrdisabled));
  EXPECT_EQ(logTexts(), std::vector<std::string>{kUpText});

  // A probe at once, at the very time of the return, and the next one a full interval later.
  const auto& history = sw.system.errdisable().history();
  ASSERT_EQ(history.size(), 2U);
  const double up = history[1].time;
  EXPECT_GE(up, sent + kDelay + 30);
  EXPECT_LT(up, sent + kDelay + 30 + kTick);
  auto sentAgain = tap.records("switch:eth2", true);
  ASSERT_EQ(sentAgain.size(), 1U);
  EXPECT_EQ(sentAgain[0].time, up);
  runFor(1);
  sentAgain = tap.records("switch:eth2", true);
  ASSERT_EQ(sentAgain.size(), 2U);
  EXPECT_NEAR(sentAgain[1].time, up + 1, kTick);
}

TEST_F(ProbeRoad, LoopThatIsStillThereTakesAPortDownAgainWithTheFirstProbe) {
  wireLoop();
  start();
  sw.probe("eth1");
  runFor(30 + 2 * kTick);
  const auto& history = sw.system.errdisable().history();
  ASSERT_EQ(history.size(), 3U);
  EXPECT_FALSE(history[1].down);
  EXPECT_TRUE(history[2].down);
  // Up at the deadline, and down again one wire's delay after the probe that goes at once.
  EXPECT_NEAR(history[2].time - history[1].time, kDelay, 1e-9);
  EXPECT_EQ(history[2].intfId, intf("eth1"));  // it hears the probe of the port that came back
}

TEST_F(ProbeRoad, OfTwoEndsOnlyOneGoesDownThoughBothProbesAreOnTheWire) {
  wireLoop();
  start();
  sw.probe("eth1");
  sw.probe("eth2");
  runFor(2 * kDelay);
  EXPECT_EQ(sw.counts("eth1").rx + sw.counts("eth2").rx, 2U);
  EXPECT_NE(sw.disabled("eth1"), sw.disabled("eth2"));
  runFor(5);
  EXPECT_NE(sw.disabled("eth1"), sw.disabled("eth2"));
  EXPECT_EQ(sw.system.errdisable().history().size(), 1U);
}

TEST_F(ProbeRoad, ProbesSentBeforeTheirSenderWentDownDoNothingMore) {
  wireLoop();
  Injector replay(fabric, "replay");
  start();
  sw.probe("eth2");
  runFor(2 * kDelay);  // eth1 is down
  ASSERT_TRUE(sw.disabled("eth1"));
  sw.probe("eth1");  // as if it had been sent a moment earlier
  runFor(2 * kDelay);
  EXPECT_EQ(sw.counts("eth2").rx, 1U);
  EXPECT_FALSE(sw.disabled("eth2"));
}

TEST_F(ProbeRoad, AggressiveModeTakesBothEndsDown) {
  sw.system.mlagStatus->systemIdIs(EthAddr::parse("02:00:00:00:00:aa"));
  sw.system.mlagStatus->mlagStateIs(Mlag::MlagState::secondary);
  wireLoop();
  start();
  sw.probe("eth1");
  sw.probe("eth2");
  runFor(2 * kDelay);
  EXPECT_TRUE(sw.disabled("eth1"));
  EXPECT_TRUE(sw.disabled("eth2"));
}

TEST_F(ProbeRoad, AggressiveModeTakesThePortDownForASenderThatIsUnknownHere) {
  sw.system.mlagStatus->systemIdIs(EthAddr::parse("02:00:00:00:00:aa"));
  sw.system.mlagStatus->mlagStateIs(Mlag::MlagState::secondary);
  SystemConfig other;
  other.name = "peer";
  Switch peer(fabric, other);
  peer.system.mlagStatus->systemIdIs(EthAddr::parse("02:00:00:00:00:aa"));
  peer.system.mlagStatus->mlagStateIs(Mlag::MlagState::primary);
  peer.newPort("eth77");
  fabric.wireIs(sw.system.port("eth1"), peer.system.port("eth77"));
  start();
  peer.start();
  settle();
  peer.probe("eth77");
  runFor(2 * kDelay);
  EXPECT_TRUE(sw.disabled("eth1"));
  // The peer is not aggressive: it knows no eth1 and stays up.
  sw.probe("eth1");
  runFor(2 * kDelay);
  EXPECT_EQ(peer.counts("eth77").rx, 1U);
  EXPECT_FALSE(peer.disabled("eth77"));
}

TEST_F(ProbeRoad, RunningDeadlineIsNotMovedByLaterProbesButTheTimeOfTheLatestIsKept) {
  wireLoop();
  start();
  sw.probe("eth1");
  runFor(2 * kDelay);
  const double until = sw.intfStatus("eth2")->disabledUntil();
  runFor(10);
  sw.probe("eth1");
  const double sent = now();
  manager.runUntil(sent + kDelay);
  EXPECT_EQ(sw.intfStatus("eth2")->disabledAt(), sent + kDelay);
  EXPECT_EQ(sw.intfStatus("eth2")->disabledUntil(), until);
  manager.runUntil(until + kTick);
  EXPECT_FALSE(sw.system.errdisable().history()[1].down);
}

TEST_F(ProbeRoad, DisabledTimeZeroHoldsForGood) {
  sw.config().globalIntfConfig()->disabledTimeIs(0);
  wireLoop();
  start();
  sw.probe("eth1");
  runFor(2 * kDelay);
  EXPECT_TRUE(sw.disabled("eth2"));
  EXPECT_EQ(sw.intfStatus("eth2")->disabledUntil(), 0);
  EXPECT_EQ(sw.receiver("eth2")->bringIntfUpTime(), Vex::kNever);
  sw.config().globalIntfConfig()->transmitIntervalIs(255);
  runFor(30 * 86400.0);  // beyond the span of the timer wheel
  EXPECT_TRUE(sw.disabled("eth2"));
  EXPECT_TRUE(sw.inCause("eth2"));
  EXPECT_TRUE(logTexts().empty());
}

TEST_F(ProbeRoad, ReflectedProbeTakesItsOwnSenderDown) {
  Reflector reflector(fabric, "reflector");
  fabric.wireIs(sw.system.port("eth1"), reflector.port(1));
  start();
  sw.probe("eth1");
  runFor(3 * kDelay);
  EXPECT_TRUE(sw.disabled("eth1"));
  EXPECT_FALSE(sw.disabled("eth2"));
}

TEST_F(ProbeRoad, ProbeThatComesBackOnAnotherVlanCountsForThatVlanAndTakesThePortDown) {
  Reflector rewriter(fabric, "rewriter", Platform::Sim::tagRewriter(VlanIdOrNone(20)));
  fabric.wireIs(sw.system.port("eth1"), rewriter.port(1));
  start();
  sw.probe("eth1");
  runFor(3 * kDelay);
  EXPECT_TRUE(sw.disabled("eth1"));
  EXPECT_EQ(sw.system.packetCounter->counterVlan(VlanIdOrNone(20)).rx, 1U);
}

TEST_F(ProbeRoad, AdminDownModeTakesTheCarrierAndTheReturnProbeFindsTheInterfaceUp) {
  SystemConfig settings;
  settings.name = "other";
  settings.errdisable = ErrdisableMode::adminDown;
  Switch other(fabric, settings);
  other.newPort("eth1");
  other.newPort("eth2");
  fabric.wireIs(other.system.port("eth1"), other.system.port("eth2"));
  other.start();
  settle();
  other.probe("eth1");
  runFor(2 * kDelay);
  EXPECT_TRUE(other.disabled("eth2"));
  EXPECT_FALSE(other.system.port("eth1").carrier());
  EXPECT_FALSE(other.system.intfStatus("eth1")->linkUp());
  EXPECT_TRUE(other.system.intfStatus("eth2")->intfConfig()->adminEnabled());
  EXPECT_TRUE(other.hasPam("eth2"));
  tap.clear();
  manager.runUntil(other.intfStatus("eth2")->disabledUntil() + kTick);
  ASSERT_FALSE(tap.records("other:eth2", true).empty());
  EXPECT_EQ(other.system.device("eth2").counts().sendErrors, 0U);
}

TEST_F(ProbeRoad, OnePairProbesExactlyOneIntervalApart) {
  sw.config().globalIntfConfig()->transmitIntervalIs(5);
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth1"), station.port(1));
  start();
  const double due = sw.transmitter("eth1")->sendPacketTime();
  runFor(1000);
  const auto sent = tap.records("switch:eth1", true);
  ASSERT_GE(sent.size(), 199U);
  EXPECT_GE(sent[0].time, due);
  EXPECT_LT(sent[0].time, due + kTick);
  for (std::size_t i = 1; i < sent.size(); ++i) {
    ASSERT_NEAR(sent[i].time - sent[i - 1].time, 5.0, 1e-6) << "probe " << i;
  }
}

TEST_F(ProbeRoad, ChangedIntervalHoldsFromTheNextExpiryOn) {
  sw.config().globalIntfConfig()->transmitIntervalIs(5);
  Injector station(fabric, "station");
  fabric.wireIs(sw.system.port("eth1"), station.port(1));
  start();
  runToProbe("eth1");
  const double next = sw.transmitter("eth1")->sendPacketTime();
  sw.config().globalIntfConfig()->transmitIntervalIs(2);
  EXPECT_EQ(sw.transmitter("eth1")->sendPacketTime(), next);
  manager.runUntil(next + kTick);
  EXPECT_NEAR(sw.transmitter("eth1")->sendPacketTime(), next + 2, kTick);
}

}  // namespace
}  // namespace Integration
