// SPDX-License-Identifier: Apache-2.0
//
// The simulated world itself: the tests above it are worth what it is worth.
#include "platform/sim/Fabric.h"

#include <functional>
#include <memory>
#include <utility>

#include "tests/integration/World.h"

namespace Integration {
namespace {

using Platform::Sim::broadcastFrame;
using Platform::Sim::newFrame;
using Platform::Sim::Port;

const EthAddr kStation(0x02, 0, 0, 0, 1, 1);
const EthAddr kOther(0x02, 0, 0, 0, 1, 2);

// Writes down what it is told.
class Listener final : public Platform::Sim::Receiver {
 public:
  explicit Listener(Vex::VirtualActivityManager& manager) : manager_(manager) {}
  void onFrame(Port& /*port*/, const Platform::Sim::FramePtr& frame) override {
    times.push_back(manager_.now());
    frames.push_back(*frame);
    if (then) then();
  }
  void onCarrier(Port& /*port*/, bool carrier) override { carriers.push_back(carrier); }

  std::vector<double> times;
  std::vector<Frame> frames;
  std::vector<bool> carriers;
  std::function<void()> then;

 private:
  Vex::VirtualActivityManager& manager_;
};

Frame unicast(const EthAddr& destination, const EthAddr& source) {
  Frame frame = broadcastFrame(source);
  std::copy(destination.bytes().begin(), destination.bytes().end(), frame.begin());
  return frame;
}

class FabricTest : public World {
 protected:
  Listener left{manager};
  Listener right{manager};
  std::unique_ptr<Port> a = std::make_unique<Port>(fabric, "a", left);
  std::unique_ptr<Port> b = std::make_unique<Port>(fabric, "b", right);
  const Platform::Sim::FramePtr frame = newFrame(broadcastFrame(kStation));
};

TEST_F(FabricTest, FrameArrivesAfterTheDelayAndNeverInsideTheCall) {
  fabric.wireIs(*a, *b, {0.25});
  a->send(frame);
  EXPECT_TRUE(right.times.empty());
  runFor(0.2);
  EXPECT_TRUE(right.times.empty());
  runFor(0.1);
  EXPECT_EQ(right.times, std::vector<double>{kStart + 0.25});
  EXPECT_EQ(right.frames[0], *frame);
  EXPECT_TRUE(left.times.empty());
}

TEST_F(FabricTest, FramesOfOneTimeArriveInTheOrderOfSending) {
  fabric.wireIs(*a, *b);
  for (std::uint8_t i = 0; i < 100; ++i) a->send(newFrame(Frame{i}));
  runFor(1);
  ASSERT_EQ(right.frames.size(), 100U);
  for (std::uint8_t i = 0; i < 100; ++i) EXPECT_EQ(right.frames[i], Frame{i});
}

TEST_F(FabricTest, FrameIsLostIfTheWireIsDownAbsentOrAnEndIsOffWhenItArrives) {
  a->send(frame);
  EXPECT_EQ(a->counts().lost, 1U);
  fabric.wireIs(*a, *b);
  a->send(frame);
  fabric.wireUpIs(*b, false);
  runFor(1);
  EXPECT_EQ(a->counts().lost, 2U);
  fabric.wireUpIs(*b, true);
  a->send(frame);
  b->enabledIs(false);
  runFor(1);
  b->enabledIs(true);
  EXPECT_EQ(a->counts().lost, 3U);
  a->send(frame);
  fabric.wireDel(*b);
  runFor(1);
  EXPECT_TRUE(right.times.empty());
  EXPECT_EQ(a->counts().sent, 3U);
}

TEST_F(FabricTest, PortThatEndsTakesItsWireAlong) {
  fabric.wireIs(*a, *b);
  a->send(frame);
  b->send(frame);
  b.reset();
  runFor(1);
  EXPECT_TRUE(left.times.empty());
  EXPECT_FALSE(a->wired());
}

TEST_F(FabricTest, ReceiverMayEndItsOwnPort) {
  fabric.wireIs(*a, *b);
  right.then = [this] { b.reset(); };
  a->send(frame);
  a->send(frame);
  runFor(1);
  EXPECT_EQ(right.times.size(), 1U);
}

TEST_F(FabricTest, CarrierIsToldToBothEndsOnceForEachChange) {
  fabric.wireIs(*a, *b);
  a->enabledIs(false);
  b->enabledIs(false);
  b->enabledIs(true);
  a->enabledIs(true);
  fabric.wireUpIs(*a, false);
  fabric.wireUpIs(*a, false);
  fabric.wireDel(*a);
  EXPECT_EQ(left.carriers, (std::vector<bool>{true, false, true, false}));
  EXPECT_EQ(right.carriers, left.carriers);
}

TEST_F(FabricTest, QueuedFramesLeaveAtTheRateAndSurplusIsDropped) {
  Port slow(fabric, "slow", left, {100, 5});
  fabric.wireIs(slow, *b, {0.001});
  for (int i = 0; i < 20; ++i) slow.sendQueued(frame);
  EXPECT_EQ(slow.counts().dropped, 15U);
  runFor(1);
  ASSERT_EQ(right.times.size(), 5U);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_NEAR(right.times[i], kStart + 0.001 + 0.01 * static_cast<double>(i), 1e-9);
  }
}

TEST_F(FabricTest, FrameSentDirectlyPassesTheQueue) {
  Port slow(fabric, "slow", left, {1, 5});
  fabric.wireIs(slow, *b);
  slow.sendQueued(newFrame(Frame{1}));
  slow.sendQueued(newFrame(Frame{2}));
  slow.send(newFrame(Frame{3}));
  runFor(5);
  EXPECT_EQ(right.frames, (std::vector<Frame>{{1}, {3}, {2}}));
}

TEST_F(FabricTest, LossTakesAboutItsShare) {
  fabric.wireIs(*a, *b, {kDelay, 0.25});
  for (int i = 0; i < 10'000; ++i) a->send(frame);
  runFor(1);
  EXPECT_NEAR(static_cast<double>(right.times.size()), 7500, 200);
  EXPECT_EQ(right.times.size() + a->counts().lost, 10'000U);
}

TEST_F(FabricTest, BadSettingsAreRefused) {
  EXPECT_THROW(fabric.wireIs(*a, *b, {0}), Vex::RangeException);
  EXPECT_THROW(fabric.wireIs(*a, *b, {1e-20}), Vex::RangeException);
  EXPECT_THROW(fabric.wireIs(*a, *b, {0.1, 1.5}), Vex::RangeException);
  EXPECT_THROW(fabric.wireIs(*a, *b, {0.1, -0.5}), Vex::RangeException);
  EXPECT_THROW(fabric.wireIs(*a, *a), Vex::RangeException);
  EXPECT_THROW(Port(fabric, "c", left, {0, 5}), Vex::RangeException);
  EXPECT_THROW(Port(fabric, "c", left, {5, 0}), Vex::RangeException);
  Hub hub(fabric, "hub", 2);
  EXPECT_THROW(hub.port(0), Vex::RangeException);
  EXPECT_THROW(hub.port(3), Vex::RangeException);
}

TEST_F(FabricTest, TapHasBothEndsOfEachFrame) {
  Tap tap(fabric);
  Tap probes(fabric, Tap::Keep::probes);
  fabric.wireIs(*a, *b, {0.5});
  a->send(frame);
  runFor(1);
  ASSERT_EQ(tap.records().size(), 2U);
  EXPECT_EQ(tap.records("a", true).at(0).time, kStart);
  EXPECT_EQ(tap.records("b", false).at(0).time, kStart + 0.5);
  EXPECT_TRUE(probes.records().empty());
}

TEST_F(FabricTest, LearningSwitchSendsToAKnownStationAlone) {
  LearningSwitch sut(fabric, "sut", 3);
  Listener third(manager);
  Port c(fabric, "c", third);
  fabric.wireIs(*a, sut.port(1));
  fabric.wireIs(*b, sut.port(2));
  fabric.wireIs(c, sut.port(3));
  a->send(newFrame(unicast(kOther, kStation)));  // to nobody known
  runFor(1);
  EXPECT_EQ(right.frames.size(), 1U);
  EXPECT_EQ(third.frames.size(), 1U);
  b->send(newFrame(unicast(kStation, kOther)));
  runFor(1);
  EXPECT_EQ(left.frames.size(), 1U);
  EXPECT_EQ(third.frames.size(), 1U);
  b->send(newFrame(unicast(kOther, kStation)));  // the station has moved, and is where it came from
  runFor(1);
  EXPECT_EQ(left.frames.size(), 1U);
  EXPECT_EQ(right.frames.size(), 1U);
}

TEST(FrameTags, TagsArePutInChangedAndTakenOff) {
  using namespace Platform::Sim;
  const Frame bare = broadcastFrame(kStation);
  EXPECT_EQ(tagOf(bare), std::nullopt);
  const Frame tagged = withTag(bare, 10);
  EXPECT_EQ(tagged.size(), bare.size() + 4);
  EXPECT_EQ(tagOf(tagged), 10);
  EXPECT_EQ(tagOf(withTag(tagged, 20)), 20);
  EXPECT_EQ(withTag(tagged, 20).size(), tagged.size());
  EXPECT_EQ(withoutTag(tagged), bare);
  EXPECT_EQ(withoutTag(bare), bare);
  EXPECT_EQ(sourceOf(tagged), kStation);
  EXPECT_EQ(destinationOf(tagged), EthAddr::broadcast());
  Frame priority = tagged;
  priority[14] |= 0xE0;
  EXPECT_EQ(withTag(priority, 20)[14], 0xE0);
  EXPECT_EQ(withTag(Frame{1, 2}, 20), (Frame{1, 2}));
  EXPECT_EQ(tagOf(Frame{}), std::nullopt);
  EXPECT_FALSE(isProbe(Frame{}));
}

class SystemTest : public World {
 protected:
  static SystemConfig bridging(ErrdisableMode mode = ErrdisableMode::bridgePort) {
    SystemConfig config;
    config.forwarding = true;
    config.errdisable = mode;
    return config;
  }
  struct Station {
    Station(Vex::VirtualActivityManager& manager, Fabric& fabric, Port& port)
        : listener(manager), end(fabric, port.name() + "-station", listener) {
      fabric.wireIs(port, end);
    }
    Listener listener;
    Port end;
  };
};

TEST_F(SystemTest, BridgeFloodsWithinAVlanWithTheTagOfEachPort) {
  System sut(fabric, bridging());
  Station one(manager, fabric, sut.newPort("eth1", vlans("10"), VlanIdOrNone(1)));
  Station two(manager, fabric, sut.newPort("eth2", vlans("10"), VlanIdOrNone(10)));
  Station three(manager, fabric, sut.newPort("eth3", vlans("10,20"), VlanIdOrNone(20)));
  Station four(manager, fabric, sut.newPort("eth4", vlans("20"), VlanIdOrNone(20)));
  const Frame tagged = broadcastFrame(kStation, VlanIdOrNone(10));
  one.end.send(newFrame(tagged));
  runFor(1);
  EXPECT_TRUE(one.listener.frames.empty());
  EXPECT_EQ(two.listener.frames, std::vector<Frame>{broadcastFrame(kStation)});
  EXPECT_EQ(three.listener.frames, std::vector<Frame>{tagged});
  EXPECT_TRUE(four.listener.frames.empty());
  // An untagged frame belongs to the native VLAN, here one that the port does not carry.
  one.end.send(newFrame(broadcastFrame(kStation)));
  runFor(1);
  EXPECT_EQ(two.listener.frames.size(), 1U);
}

TEST_F(SystemTest, HeldBridgePortNeitherTakesNorGivesButItsPacketAccessHears) {
  System sut(fabric, bridging());
  Station one(manager, fabric, sut.newPort("eth1", vlans("10"), VlanIdOrNone(1)));
  Station two(manager, fabric, sut.newPort("eth2", vlans("10"), VlanIdOrNone(1)));
  sut.ringwardCause->intfStatusIs(intf("eth2"), now());
  EXPECT_TRUE(sut.isHeld("eth2"));
  EXPECT_TRUE(two.end.carrier());
  auto& device = const_cast<Platform::Sim::SimDevice&>(sut.device("eth2"));
  sut.sourceGuardIs(false);
  const auto pam = device.newPam(intf("eth2"), {});
  one.end.send(newFrame(broadcastFrame(kStation, VlanIdOrNone(10))));
  two.end.send(newFrame(broadcastFrame(kOther, VlanIdOrNone(10))));
  runFor(1);
  EXPECT_TRUE(one.listener.frames.empty());
  EXPECT_TRUE(two.listener.frames.empty());
  EXPECT_EQ(pam->readableCount(), 1U);
  sut.ringwardCause->intfStatusDel(intf("eth2"));
  one.end.send(newFrame(broadcastFrame(kStation, VlanIdOrNone(10))));
  runFor(1);
  EXPECT_EQ(two.listener.frames.size(), 1U);
}

TEST_F(SystemTest, MonitorModeChangesNothing) {
  System sut(fabric, bridging(ErrdisableMode::monitor));
  Station one(manager, fabric, sut.newPort("eth1", vlans("10"), VlanIdOrNone(1)));
  Station two(manager, fabric, sut.newPort("eth2", vlans("10"), VlanIdOrNone(1)));
  sut.ringwardCause->intfStatusIs(intf("eth2"), now());
  EXPECT_TRUE(sut.isHeld("eth2"));
  one.end.send(newFrame(broadcastFrame(kStation, VlanIdOrNone(10))));
  runFor(1);
  EXPECT_EQ(two.listener.frames.size(), 1U);
}

TEST_F(SystemTest, InterfaceThatIsOffHasNoCarrierUntilBothOperatorAndErrdisableAgree) {
  System sut(fabric, bridging(ErrdisableMode::adminDown));
  Station one(manager, fabric, sut.newPort("eth1", vlans("10"), VlanIdOrNone(1)));
  EXPECT_TRUE(sut.intfStatus("eth1")->linkUp());
  sut.adminEnabledIs("eth1", false);
  EXPECT_FALSE(one.end.carrier());
  sut.ringwardCause->intfStatusIs(intf("eth1"), now());
  sut.adminEnabledIs("eth1", true);
  EXPECT_FALSE(one.end.carrier());
  EXPECT_FALSE(sut.intfStatus("eth1")->linkUp());
  sut.ringwardCause->intfStatusDel(intf("eth1"));
  EXPECT_TRUE(one.end.carrier());
  EXPECT_EQ(one.listener.carriers, (std::vector<bool>{true, false, true}));
}

TEST_F(SystemTest, PacketQueueIsBoundedAndGivesFramesInOrder) {
  System sut(fabric);
  Station one(manager, fabric, sut.newPort("eth1", vlans("10"), VlanIdOrNone(1)));
  sut.sourceGuardIs(false);
  auto& device = const_cast<Platform::Sim::SimDevice&>(sut.device("eth1"));
  const auto pam = device.newPam(intf("eth1"), {});
  for (int i = 0; i < 1500; ++i) {
    one.end.send(newFrame(Frame{static_cast<std::uint8_t>(i & 255), 1}));
  }
  runFor(1);
  EXPECT_EQ(device.counts().delivered, 1024U);
  EXPECT_EQ(device.counts().overflows, 476U);
  for (int i = 0; i < 1024; ++i) ASSERT_EQ(pam->rxPkt()->data()[0], i & 255);
  EXPECT_FALSE(pam->rxPkt());
}

TEST_F(SystemTest, SendingThroughAnInterfaceThatIsGoneIsCountedAndHarmless) {
  System sut(fabric);
  sut.newPort("eth1", vlans("10"), VlanIdOrNone(1));
  const auto local = sut.allIntfStatusLocalDir->intfStatusLocal(intf("eth1"));
  const auto pam = local->device()->newPam(intf("eth1"), {});
  sut.portDel("eth1");
  const auto pkt = Portus::globalPktManager()->newPkt();
  pkt->headReserve(28);
  pam->txPkt(pkt);
  pam->txPkt(nullptr);
  const auto& device = static_cast<const Platform::Sim::SimDevice&>(*local->device());
  EXPECT_EQ(device.counts().sendErrors, 1U);
  EXPECT_FALSE(local->device()->newPam(intf("eth1"), {}));
}

TEST_F(SystemTest, UnknownAndDoublePortsAreRefused) {
  System sut(fabric);
  sut.newPort("eth1", vlans("10"), VlanIdOrNone(1));
  EXPECT_THROW(sut.newPort("eth1", vlans("10"), VlanIdOrNone(1)), Vex::RangeException);
  EXPECT_THROW(sut.port("eth2"), Vex::RangeException);
  EXPECT_THROW(sut.newPort(std::string(100, 'x'), vlans("10"), VlanIdOrNone(1)),
               Vex::RangeException);
  sut.portDel("eth2");
}

TEST_F(SystemTest, PortGoesFromAllInterfacesFirst) {
  class Watch final : public Observer<Bridging::Topology::Status> {
   public:
    Watch(const Vex::Ptr<Bridging::Topology::Status>& status, System& system)
        : Observer(status), system_(system) {}
    void onIntfVlans(const IntfId& id) override {
      seen += system_.allIntfStatusDir->intfStatus(id) ? 'A' : '-';
      seen += system_.ethIntfStatusDir->ethIntfStatus(id) ? 'E' : '-';
      seen += system_.brConfig->switchIntfConfig(id) ? 'S' : '-';
      seen += system_.allIntfStatusLocalDir->intfStatusLocal(id) ? 'L' : '-';
    }
    std::string seen;

   private:
    System& system_;
  };
  System sut(fabric);
  const auto watch = Vex::makePtr<Watch>(sut.brTopoStatus, sut);
  sut.newPort("eth1", vlans("10"), VlanIdOrNone(1));
  sut.portDel("eth1");
  EXPECT_EQ(watch->seen, "AESL-ESL");
}

}  // namespace
}  // namespace Integration
