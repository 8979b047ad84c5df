// SPDX-License-Identifier: Apache-2.0
#include "engine/CountPacket.h"

#include <gtest/gtest.h>

#include "engine/EngineLogs.h"
#include "engine/RingwardIntfFilter.h"
#include "tests/engine/World.h"

namespace {

using Ringward::CounterKind;
using Ringward::countPacket;
using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;

class CountPacket : public testing::Test {
 protected:
  void count(CounterKind kind) { countPacket(kind, intf, vlanOrNone(10), *w.counters); }
  World w;
  Portus::IntfId intf = intfOf("eth1");
};

TEST_F(CountPacket, TheFirstEventOfAKeyCountsOne) {
  count(CounterKind::rx);
  EXPECT_EQ(w.counters->counterIntf(intf), (CounterIntf{intf, 0, 1, 0}));
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)), (CounterVlan{vlanOrNone(10), 0, 1, 0}));
}

TEST_F(CountPacket, OnlyTheKindCountedLastIsCarriedOver) {
  count(CounterKind::tx);
  count(CounterKind::tx);
  EXPECT_EQ(w.counters->counterIntf(intf), (CounterIntf{intf, 2, 0, 0}));
  count(CounterKind::rx);
  EXPECT_EQ(w.counters->counterIntf(intf), (CounterIntf{intf, 0, 1, 0}));
  w.counters->counterIntfIs({intf, 5, 2, 1});
  count(CounterKind::rx);
  EXPECT_EQ(w.counters->counterIntf(intf), (CounterIntf{intf, 0, 3, 0}));
  w.counters->counterVlanIs({vlanOrNone(10), 5, 2, 1});
  count(CounterKind::rxOther);
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)), (CounterVlan{vlanOrNone(10), 0, 0, 2}));
}

TEST_F(CountPacket, AKindOutsideTheThreeWritesZeros) {
  w.counters->counterIntfIs({intf, 5, 2, 1});
  count(static_cast<CounterKind>(3));
  EXPECT_EQ(w.counters->counterIntf(intf), (CounterIntf{intf, 0, 0, 0}));
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)), (CounterVlan{vlanOrNone(10), 0, 0, 0}));
}

TEST_F(CountPacket, CountsWrapAt32Bits) {
  w.counters->counterIntfIs({intf, 0xFFFFFFFF, 0, 0});
  count(CounterKind::tx);
  EXPECT_EQ(w.counters->counterIntf(intf).tx, 0U);
}

TEST_F(CountPacket, AFrameWithoutAVlanGoesIntoTheRecordOfKeyZero) {
  countPacket(CounterKind::rxOther, intf, {}, *w.counters);
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(0)), (CounterVlan{vlanOrNone(0), 0, 0, 1}));
  EXPECT_FALSE(!w.counters->counterIntf(intf));
}

TEST_F(CountPacket, AfterAClearTheFirstEventCountsOneAgain) {
  count(CounterKind::rx);
  count(CounterKind::rx);
  w.counters->counterVlanDelAll();
  w.counters->counterIntfDelAll();
  EXPECT_EQ(w.counters->counterIntf(intf), CounterIntf());
  count(CounterKind::rx);
  EXPECT_EQ(w.counters->counterIntf(intf).rx, 1U);
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)).rx, 1U);
}

TEST(RingwardIntfFilter, AdmitsEthernetPortsAndPortChannels) {
  const Topology::Library::RingwardIntfFilter sut;
  for (const char* name : {"eth0", "Ethernet1/1", "swp3", "bond0", "Port-Channel7"}) {
    EXPECT_TRUE(sut.isValidIntf(intfOf(name))) << name;
  }
}

TEST(RingwardIntfFilter, KeepsOutThePeerPortChannelAndEveryOtherKind) {
  const Topology::Library::RingwardIntfFilter sut;
  for (const char* name :
       {"PeerPort-Channel1", "peerbond2", "Vlan100", "vlan7", "lo", "Loopback0", "eth0.100", ""}) {
    EXPECT_FALSE(sut.isValidIntf(intfOf(name))) << name;
  }
}

TEST(EngineLogs, HaveTheirTextsSeveritiesAndRates) {
  const auto check = [](const Vex::LogHandle& handle, std::string_view id, int severity,
                        std::string_view format, std::string_view explanation) {
    EXPECT_EQ(handle.id(), id);
    EXPECT_EQ(static_cast<int>(handle.severity()), severity);
    EXPECT_EQ(handle.format(), format);
    EXPECT_EQ(handle.explanation(), explanation);
    EXPECT_EQ(handle.recommendedAction(), Vex::NoActionRequired);
    EXPECT_EQ(handle.interval(), 0.0);
    EXPECT_EQ(handle.burst(), 1.0);
    EXPECT_EQ(handle.flags(), 0);
  };
  check(Ringward::RINGWARD_RX_OTHER, "RINGWARD_RX_OTHER", 6,
        "Received a malformed Ringward packet on interface %s",
        "This may be caused by other switches on the network using ether type 0x88B7, but the "
        "source mac for the packet matched this switch.");
  check(Ringward::RINGWARD_INTF_UP, "RINGWARD_INTF_UP", 6,
        "Bringing interface %s back up after a loop was detected",
        "Ringward is configured to bring an interface back up after a period of time has elapsed.");
  check(Ringward::RINGWARD_THROTTLE, "RINGWARD_THROTTLE", 4,
        "Too many Ringward packet transmits in a second. Throttling.",
        "Ringward is configured to rate-limit the number of packets sent per second and this limit "
        "was reached.");
}

}  // namespace
