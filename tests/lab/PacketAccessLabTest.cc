// SPDX-License-Identifier: Apache-2.0
//
// Packet access on a real veth pair: what becomes of probes that wait for the end of their turn.
#include "platform/linux/PacketAccess.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <net/if.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/ProbeFrame.h"
#include "runtime/vex/EpollActivityManager.h"
#include "tests/lab/Namespace.h"

namespace Platform::Linux {
namespace {

class Losses final : public PacketAccess::LossListener {
 public:
  void probeLost(const Portus::IntfId& intfId, const Portus::Pkt&) override {
    lost.push_back(intfId.name());
  }
  void carrierUp(const Portus::IntfId&) override {}
  void accessDel(const Portus::IntfId&) override {}

  std::vector<std::string> lost;
};

class PacketAccessLab : public testing::Test {
 protected:
  // What each test does, in a namespace with the pairs e0-e1 and f0-f1.
  template <class Body>
  static void inNamespace(const Body& body) {
    Lab::runInNamespace([&] {
      for (const char* const pair : {"e", "f"}) {
        const std::string near = std::string(pair) + "0";
        const std::string far = std::string(pair) + "1";
        Lab::shell("ip link add name " + near + " type veth peer name " + far + " && ip link set " +
                   near + " up && ip link set " + far + " up");
      }
      Vex::EpollActivityManager manager;
      const Vex::CurrentActivityManager current(manager);
      const auto sut = Vex::makePtr<PacketAccess>(manager, false);
      Losses losses;
      sut->lossListenerIs(&losses);
      body(manager, *sut, losses);
      sut->lossListenerIs(nullptr);
    });
  }
  static Vex::Ptr<Portus::Pam> newPam(PacketAccess& access, const std::string& name,
                                      const Portus::PamConfig& config = {}) {
    const auto device = access.newDevice(static_cast<int>(::if_nametoindex(name.c_str())));
    return device->newPam(Portus::IntfId::fromName(name), config);
  }
  static Vex::Ptr<Portus::Pkt> newFrame() {
    auto pkt = Portus::globalPktManager()->newPkt();
    std::vector<std::uint8_t> bytes(28, 0xFF);
    bytes[12] = 0x88;
    bytes[13] = 0xB7;
    pkt->bytesIs(bytes);
    return pkt;
  }
};

TEST_F(PacketAccessLab, ProbesOfATurnLeaveAtItsEnd) {
  inNamespace([](Vex::EpollActivityManager& manager, PacketAccess& sut, const Losses& losses) {
    const auto pam = newPam(sut, "e0");
    pam->txPkt(newFrame());
    pam->txPkt(newFrame());
    EXPECT_EQ(sut.statistics().sent, 0U);
    manager.runTurn(0);
    EXPECT_EQ(sut.statistics().sent, 2U);
    EXPECT_TRUE(losses.lost.empty());
  });
}

TEST_F(PacketAccessLab, AFullBatchLeavesAtOnce) {
  inNamespace([](Vex::EpollActivityManager& manager, PacketAccess& sut, const Losses&) {
    const auto pam = newPam(sut, "e0");
    for (std::size_t i = 0; i < 100; ++i) pam->txPkt(newFrame());
    EXPECT_EQ(sut.statistics().sent, 64U);
    manager.runTurn(0);
    EXPECT_EQ(sut.statistics().sent, 100U);
  });
}

TEST_F(PacketAccessLab, AProbeIntoALinkThatIsDownIsToldAsLost) {
  inNamespace([](Vex::EpollActivityManager& manager, PacketAccess& sut, const Losses& losses) {
    const auto down = newPam(sut, "e0");
    const auto up = newPam(sut, "f0");
    Lab::shell("ip link set e0 down");
    down->txPkt(newFrame());
    up->txPkt(newFrame());
    manager.runTurn(0);
    EXPECT_EQ(losses.lost, std::vector<std::string>{"e0"});
    EXPECT_EQ(sut.statistics().sent, 1U);
  });
}

TEST_F(PacketAccessLab, WhatAPamHasNotSentGoesWithIt) {
  inNamespace([](Vex::EpollActivityManager& manager, PacketAccess& sut, const Losses& losses) {
    auto gone = newPam(sut, "e0");
    const auto stays = newPam(sut, "f0");
    gone->txPkt(newFrame());
    stays->txPkt(newFrame());
    Lab::shell("ip link set e0 down");
    gone.reset();
    manager.runTurn(0);
    EXPECT_TRUE(losses.lost.empty()) << "nobody asks for it any more";
    EXPECT_EQ(sut.statistics().sent, 1U);
  });
}

TEST_F(PacketAccessLab, WhatTheNextPamOfAnInterfaceHasNotSentStaysWhenTheOneBeforeGoes) {
  inNamespace([](Vex::EpollActivityManager& manager, PacketAccess& sut, const Losses& losses) {
    auto before = newPam(sut, "e0");
    before->txPkt(newFrame());
    const auto next = newPam(sut, "e0");
    next->txPkt(newFrame());
    next->txPkt(newFrame());
    before.reset();
    manager.runTurn(0);
    EXPECT_EQ(sut.statistics().sent, 2U);
    EXPECT_TRUE(losses.lost.empty());
  });
}

TEST_F(PacketAccessLab, TheTotalsTellSentFromRefusedAndProbesFromOtherFrames) {
  inNamespace([](Vex::EpollActivityManager& manager, PacketAccess& sut, const Losses&) {
    const auto dir = Vex::makePtr<Ringward::Status::IntfTotalsDir>("packetAccess");
    PacketTotals totals(dir, [&] { return sut.statistics(); });
    sut.totalsIs(&totals);
    // Nothing but the type of probes: the kernel sends frames of its own.
    const sock_filter program[] = {{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
                                   {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0x88B7},
                                   {BPF_RET | BPF_K, 0, 0, 0xFFFF},
                                   {BPF_RET | BPF_K, 0, 0, 0}};
    Portus::PamConfig config;
    config.filter = Portus::PacketFilter(std::span(program));
    auto near = newPam(sut, "e0", config);
    auto far = newPam(sut, "e1", config);
    near->txPkt(newFrame());
    const auto probe = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(
        *probe, {Portus::EthAddr(2, 0, 0, 0, 0, 1), Bridging::VlanIdOrNone(1), near->intfId()},
        Bridging::VlanIdOrNone(1));
    near->txPkt(probe);
    near->txPkt(probe);
    const auto received = [&] {
      totals.write();
      const auto record = dir->intfTotals(far->intfId());
      return record.probesReceived + record.malformed;
    };
    for (int turn = 0; turn < 100 && received() < 3; ++turn) manager.runTurn(0.05);
    const auto ofNear = near->intfId();
    const auto ofFar = far->intfId();
    EXPECT_EQ(dir->intfTotals(ofNear), (Ringward::Status::IntfTotals{ofNear, 3, 0, 0, 0, 0, 0}));
    EXPECT_EQ(dir->intfTotals(ofFar), (Ringward::Status::IntfTotals{ofFar, 0, 0, 2, 0, 1, 0}));
    Lab::shell("ip link set e0 down");
    near->txPkt(probe);
    manager.runTurn(0);
    totals.write();
    EXPECT_EQ(dir->intfTotals(ofNear), (Ringward::Status::IntfTotals{ofNear, 3, 1, 0, 0, 0, 0}));
    // One more that waits when its Pam ends is neither.
    near->txPkt(probe);
    near.reset();
    far.reset();
    manager.runTurn(0);
    totals.write();
    EXPECT_EQ(dir->intfTotals(ofNear).probesSent, 3U);
    EXPECT_EQ(dir->intfTotals(ofNear).sendErrors, 1U);
    sut.totalsIs(nullptr);
  });
}

}  // namespace
}  // namespace Platform::Linux
