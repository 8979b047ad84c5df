// SPDX-License-Identifier: Apache-2.0
//
// What an adapter sends, when, and what it does not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/model/attrlog/Link.h"

namespace {

using namespace AttrLogTest;
using testing::ElementsAre;
using testing::IsEmpty;

const Bridging::VlanId kVlan7(7);

TEST(AttrLogSend, AScalarChangeIsOneMessageOfHeaderTokensAndValue) {
  Link link;
  link.up();
  link.original.config->clearCountersIs(0x01020304);
  // Length 47 and type, frames taken in; version, key flag, payload length, entity id, attribute
  // id 263, hint 4, reserved; token 1, value, token 3.
  EXPECT_EQ(hex(link.server.output()),
            "0000002b01"
            "0000000000000000"
            "010000060000000000000002"
            "00000107"
            "00000004"
            "0000000000000000"
            "010102030403");
}

TEST(AttrLogSend, AnElementGoesWithThePositiveIdAndADeletedOneWithTheNegativeIdAndItsKeyAlone) {
  Link link;
  link.up();
  link.original.config->vlanEnabledIs(kVlan7, true);
  const auto set = messagesOf(link.server.output());
  ASSERT_EQ(set.size(), 1U);
  EXPECT_TRUE(set[0].header.keyFlag);
  EXPECT_EQ(set[0].header.payloadHint, 0U);
  link.original.config->vlanEnabledDel(kVlan7);
  EXPECT_THAT(taken(link.server), ElementsAre("259 000701", "-259 0007"));
}

TEST(AttrLogSend, AnOrphanIsAnnouncedByTypeNameAndIdInSections1And3And4) {
  Trees trees;
  Session sut({});
  sut.rootIs(*trees.config);
  const auto first = messagesOf(sut.output()).front();
  EXPECT_EQ(first.header.entityId, (Vex::EntityId{0, 1}));
  EXPECT_EQ(first.header.attributeId, 136);
  EXPECT_TRUE(first.header.keyFlag);
  EXPECT_EQ(first.header.payloadHint, 0U);
  EXPECT_EQ(hex(first.payload),
            "0201"
            "001852696e67776172643a3a436f6e6669673a3a436f6e666967"
            "0203"
            "0006636f6e666967"
            "0204"
            "0000000000000002");
}

TEST(AttrLogSend, AValueAppliedFromTheStreamProducesNoOutgoingMessage) {
  Link link;
  link.up();
  link.original.config->clearCountersIs(5);
  link.original.config->vlanEnabledIs(kVlan7, true);
  link.original.status->intfStatusIs(intf(1))->disabledIs(true);
  link.original.config->transmitConfigIs("t");
  move(link.server, link.client);
  EXPECT_TRUE(link.isEqual());
  EXPECT_THAT(taken(link.client), IsEmpty());
}

TEST(AttrLogSend, AChangeOfTheMirrorGoesToTheOriginalAndIsNotEchoed) {
  Link link;
  link.up();
  link.mirror.config->globalEnabledIs(true);
  link.mirror.status->intfStatusIs(intf(3))->disabledUntilIs(7);
  move(link.client, link.server);
  EXPECT_THAT(taken(link.server), IsEmpty());
  EXPECT_TRUE(link.isEqual());
}

TEST(AttrLogSend, WhatCameInByOneConnectionGoesToTheOthers) {
  Link link;
  link.up();
  Trees secondTrees;
  Session secondServer({65536, Session::Access::readWrite});
  Session secondClient({});
  secondTrees.mirrorsOf(secondClient);
  link.original.rootsOf(secondServer);
  settle(secondServer, secondClient);
  link.mirror.config->clearCountersIs(9);
  move(link.client, link.server);
  EXPECT_TRUE(link.server.output().empty());
  EXPECT_THAT(textsOf(secondServer.output()), ElementsAre("263 00000009"));
  settle(secondServer, secondClient);
  EXPECT_EQ(secondTrees.config->clearCounters(), 9U);
}

// Changes what it watches as soon as that changes.
class Reaction final : public Ringward::Config::Config::NotifieeConst {
 public:
  Reaction(Ringward::Config::Config& config, std::function<void(Ringward::Config::Config&)> act)
      : config_(config), act_(std::move(act)) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(&config));
    isRegisteredNotifieeIs(true);
  }
  using Ringward::Config::Config::NotifieeConst::onVlanEnabled;
  void onClearCounters() override { act_(config_); }
  void onVlanEnabled(const Bridging::VlanId& /*vlan*/) override { act_(config_); }

 private:
  Ringward::Config::Config& config_;
  const std::function<void(Ringward::Config::Config&)> act_;
};

TEST(AttrLogSend, AReactionThatChangesTheIncomingAttributeIsNotSentBack) {
  Link link;
  link.up();
  const auto reaction =
      Vex::makePtr<Reaction>(*link.mirror.config, [](auto& config) { config.clearCountersIs(77); });
  link.original.config->clearCountersIs(5);
  move(link.server, link.client);
  EXPECT_EQ(link.mirror.config->clearCounters(), 77U);
  EXPECT_THAT(taken(link.client), IsEmpty());
}

TEST(AttrLogSend, AReactionThatChangesAnotherAttributeOrAnotherKeyIsSent) {
  Link link;
  link.up();
  const auto reaction = Vex::makePtr<Reaction>(*link.mirror.config, [](auto& config) {
    config.globalEnabledIs(true);
    config.vlanEnabledIs(Bridging::VlanId(8), true);
  });
  link.original.config->vlanEnabledIs(kVlan7, true);
  move(link.server, link.client);
  EXPECT_THAT(taken(link.client), ElementsAre("258 01", "259 000801"));
}

TEST(AttrLogSend, AfterAnIncomingValueTheNextChangeIsSent) {
  Link link;
  link.up();
  link.original.config->clearCountersIs(5);
  move(link.server, link.client);
  link.mirror.config->clearCountersIs(6);
  EXPECT_THAT(taken(link.client), ElementsAre("263 00000006"));
}

TEST(AttrLogSend, WithoutRoomAnAttributeStaysDirtyAndGoesOnceWithItsLatestValue) {
  Link link(Session::Access::readWrite, 100);
  link.up();
  link.original.config->globalEnabledIs(true);
  link.original.config->clearCountersIs(1);
  link.original.config->clearCountersIs(2);
  link.original.config->clearCountersIs(3);
  EXPECT_FALSE(link.server.isSettled());
  EXPECT_THAT(taken(link.server), ElementsAre("258 01", "263 00000003"));
  EXPECT_TRUE(link.server.isSettled());
}

TEST(AttrLogSend, ATransferCutOffByAFullBufferResumesAtTheSavedKeyAndCommitsAfterTheLastElement) {
  Trees trees;
  for (unsigned vlan = 1; vlan <= 8; ++vlan) {
    trees.config->vlanEnabledIs(Bridging::VlanId(vlan), true);
  }
  Session sut({200, Session::Access::readOnly});
  sut.rootIs(*trees.config);
  std::vector<std::string> all;
  unsigned pieces = 0;
  for (; !sut.output().empty(); ++pieces) {
    for (auto& text : textsOf(sut.output())) {
      if (text.find("259") != std::string::npos) all.push_back(text);
    }
    sut.outputDel(sut.output().size());
  }
  EXPECT_GT(pieces, 3U);
  EXPECT_THAT(all,
              ElementsAre("begin 259", "259 000801", "259 000401", "259 000201", "259 000601",
                          "259 000101", "259 000501", "259 000301", "259 000701", "commit 259"));
}

// A root whose transfer of vlanEnabled is under way: the keys 8, 4, 2, 6, 1, 5, 3, 7, in this
// order.
struct InFlight {
  Trees trees;
  Session sut{{200, Session::Access::readOnly}};
  InFlight() {
    for (unsigned vlan = 1; vlan <= 8; ++vlan) {
      trees.config->vlanEnabledIs(Bridging::VlanId(vlan), true);
    }
    sut.rootIs(*trees.config);
    // Until the begin marker has gone; a reserve is left for changes.
    while (!isUnderWay()) sut.outputDel(sut.output().size());
  }
  bool isUnderWay() const {
    const auto texts = textsOf(sut.output());
    return texts.back().rfind("259", 0) == 0 &&
           std::count(texts.begin(), texts.end(), "begin 259") == 0;
  }
  // Takes the reserve.
  void fill() { ASSERT_TRUE(sut.frameOut(16, std::array<std::uint8_t, 60>{})); }
  // What goes of vlanEnabled from now on.
  std::vector<std::string> rest() {
    std::vector<std::string> found;
    for (auto& text : taken(sut)) {
      if (text.find("259") != std::string::npos) found.push_back(std::move(text));
    }
    return found;
  }
  // Drops what waits; the transfer goes on until the buffer is full again.
  std::vector<std::string> drop() {
    auto texts = textsOf(sut.output());
    sut.outputDel(sut.output().size());
    return texts;
  }
};

TEST(AttrLogSend, AChangeAheadOfTheBookmarkComesWithTheTransferAlone) {
  InFlight at;
  at.trees.config->vlanEnabledIs(kVlan7, false);
  const auto rest = at.rest();
  EXPECT_EQ(std::count(rest.begin(), rest.end(), "259 000700"), 1);
  EXPECT_EQ(std::count(rest.begin(), rest.end(), "259 000701"), 0);
  EXPECT_EQ(rest.back(), "commit 259");
  EXPECT_EQ(std::count(rest.begin(), rest.end(), "begin 259"), 0);
}

TEST(AttrLogSend, AChangeBehindTheBookmarkGoesAtOnce) {
  InFlight at;
  at.trees.config->vlanEnabledIs(Bridging::VlanId(8), false);
  EXPECT_EQ(textsOf(at.sut.output()).back(), "259 000800");
  const auto rest = at.rest();
  EXPECT_EQ(std::count(rest.begin(), rest.end(), "begin 259"), 0);
  EXPECT_EQ(rest.back(), "commit 259");
}

TEST(AttrLogSend, AChangeBehindTheBookmarkWithoutRoomBringsAnotherTransferAfterTheCommit) {
  InFlight at;
  at.fill();
  at.trees.config->vlanEnabledIs(Bridging::VlanId(8), false);
  const auto rest = at.rest();
  const auto commit = std::find(rest.begin(), rest.end(), "commit 259");
  ASSERT_NE(commit, rest.end());
  EXPECT_EQ(std::count(rest.begin(), commit, "259 000800"), 0);
  ASSERT_GT(rest.end() - commit, 2);
  EXPECT_EQ(*(commit + 1), "begin 259");
  EXPECT_EQ(*(commit + 2), "259 000800");
  EXPECT_EQ(rest.back(), "commit 259");
}

TEST(AttrLogSend, AnElementDeletedWhileTheCollectionIsInFlightGoesWithTheNegativeId) {
  for (const unsigned vlan : {8U, 7U}) {  // behind the bookmark and ahead of it
    InFlight at;
    at.trees.config->vlanEnabledDel(Bridging::VlanId(vlan));
    EXPECT_EQ(textsOf(at.sut.output()).back(), "-259 000" + std::to_string(vlan));
    const auto rest = at.rest();
    EXPECT_EQ(std::count(rest.begin(), rest.end(), "begin 259"), 0);
    EXPECT_EQ(std::count(rest.begin(), rest.end(), "259 000701"), vlan == 7 ? 0 : 1);
    EXPECT_EQ(rest.back(), "commit 259");
  }
}

TEST(AttrLogSend, ATransferBegunAgainWhileOneIsUnderWayIsAbortedFirst) {
  InFlight at;
  Vex::NboAttrLog::MsgHeader header;
  header.entityId = {Vex::EntityId::kReceivers, 2};
  header.attributeId = Vex::NboAttrLog::kResendAttribute;
  const std::array<std::uint8_t, 4> attribute{0, 0, 1, 3};
  at.sut.bytesIn(frameOf(header, attribute));
  at.drop();
  const auto rest = at.rest();
  ASSERT_GE(rest.size(), 2U);
  EXPECT_EQ(rest[0], "abort 259");
  EXPECT_EQ(rest[1], "begin 259");
  EXPECT_EQ(std::count(rest.begin(), rest.end(), "259 000801"), 1);
  EXPECT_EQ(rest.back(), "commit 259");
}

TEST(AttrLogSend, AQueueTravelsByIndexAndItsPositionBehindIt) {
  Link link;
  link.up();
  link.original.transmit->regularPriorityEnq({intf(1), kVlan7});
  const auto texts = taken(link.server);
  ASSERT_EQ(texts.size(), 2U);
  EXPECT_EQ(texts[0], "261 00000000" + bytesOf(intf(1)) + "0007");
  EXPECT_EQ(texts[1], "260 0000000000000000");
}

TEST(AttrLogSend, OfAPacketCounterOnlyIsNondestructingTravels) {
  Link link;
  link.up();
  link.original.counter->counterIntfIs({intf(1), 1, 2, 3});
  EXPECT_THAT(taken(link.server), IsEmpty());
  link.original.counter->isNondestructingIs(true);
  EXPECT_THAT(textsOf(link.server.output()), ElementsAre("6 01"));
  link.settle();
  EXPECT_TRUE(link.mirror.counter->isNondestructing());
}

TEST(AttrLogSend, AChildGoesAsNameAndIdWithItsOwnStreamBehindIt) {
  Link link;
  link.up();
  link.original.config->transmitConfigIs("t");
  const auto texts = taken(link.server);
  ASSERT_GE(texts.size(), 3U);
  EXPECT_EQ(texts[0], "261 0001740000000000000007");
  EXPECT_THAT(texts, testing::Contains("258 000003e8"));
  link.original.config->transmitConfigDel();
  EXPECT_THAT(taken(link.server), ElementsAre("-261 "));
}

}  // namespace
