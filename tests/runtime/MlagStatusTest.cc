// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/mlag/Status.h"
#include "tests/runtime/PlatformEntities.h"

namespace {

using namespace RuntimeTest;
using Mlag::MlagState;
using Strings = std::vector<std::string>;

struct MlagTeller final : Mlag::Status::NotifieeConst, Teller {
  void onMlagState() override { tell("mlagState"); }
  void onSystemId() override { tell("systemId"); }
  void onPeerLinkIntf() override { tell("peerLinkIntf"); }
};

TEST(MlagStatus, StartsWithoutAPair) {
  const auto sut = Vex::makePtr<Mlag::Status>("mlag");
  EXPECT_EQ(sut->mlagState(), MlagState::disabled);
  EXPECT_EQ(sut->systemId(), Portus::EthAddr());
  EXPECT_EQ(sut->peerLinkIntf(), nullptr);
}

TEST(MlagStatus, PrimaryIs3AndSecondaryIs4) {
  EXPECT_EQ(static_cast<int>(MlagState::primary), 3);
  EXPECT_EQ(static_cast<int>(MlagState::secondary), 4);
}

TEST(MlagStatus, TellsOfEachAttributeOncePerChange) {
  const auto sut = Vex::makePtr<Mlag::Status>("mlag");
  const auto told = watch<MlagTeller>(sut);
  const auto peer = newIntfStatus(intf("po100"));
  for (int round = 0; round < 2; ++round) {
    sut->mlagStateIs(MlagState::primary);
    sut->systemIdIs(Portus::EthAddr::parse("02:00:00:00:00:09"));
    sut->peerLinkIntfIs(peer);
  }
  EXPECT_EQ(told->log, (Strings{"mlagState", "systemId", "peerLinkIntf"}));
  EXPECT_EQ(sut->peerLinkIntf()->intfId(), intf("po100"));
  sut->peerLinkIntfIs(nullptr);
  EXPECT_EQ(sut->peerLinkIntf(), nullptr);
  EXPECT_EQ(told->log.size(), 4U);
}

}  // namespace
