// SPDX-License-Identifier: Apache-2.0
//
// Packet access on a real veth pair: what becomes of probes that wait for the end of their turn.
#include "platform/linux/PacketAccess.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <string>
#include <vector>

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
  static Vex::Ptr<Portus::Pam> newPam(PacketAccess& access, const std::string& name) {
    const auto device = access.newDevice(static_cast<int>(::if_nametoindex(name.c_str())));
    return device->newPam(Portus::IntfId::fromName(name), Portus::PamConfig{});
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

}  // namespace
}  // namespace Platform::Linux
