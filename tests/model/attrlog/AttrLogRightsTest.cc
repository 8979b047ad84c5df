// SPDX-License-Identifier: Apache-2.0
//
// Rights that change while something is under way, and changes of a mirror that has none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "tests/model/attrlog/Link.h"

namespace {

using namespace AttrLogTest;
using Ringward::AttrLog::Session;
using testing::ElementsAre;
using testing::IsEmpty;

const Bridging::VlanId kVlan7(7);

TEST(AttrLogRights, AReadOnlyMirrorAsksForIsNondestructingAtOnceWhenItIsChanged) {
  Link link;
  link.client.mirrorIs(*link.mirror.counter, Session::MirrorMode::readOnly);
  link.original.rootsOf(link.server);
  link.settle();
  link.mirror.counter->isNondestructingIs(true);
  EXPECT_THAT(link.trouble,
              ElementsAre("attribute isNondestructing of counter: attribute isNondestructing of "
                          "Ringward::Status::PacketCounter counter is read-only"));
  EXPECT_THAT(textsOf(link.client.output()), ElementsAre("135 00000006"));
  link.settle();
  EXPECT_FALSE(link.mirror.counter->isNondestructing());
}

// An original whose peer is these tests.
struct Original {
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Session sut{{65536, Session::Access::readWrite}};
  Original() {
    config->vlanEnabledIs(kVlan7, true);
    config->transmitConfigIs("t");
    sut.rootIs(*config);
    taken(sut);
  }
  void markerIn(std::uint8_t attribute, Vex::NboAttrLog::Transaction type) {
    Vex::NboAttrLog::MsgHeader header;
    header.entityId = {Vex::EntityId::kReceivers, 2};
    header.attributeId = Vex::NboAttrLog::kTransactionAttribute;
    const std::array<std::uint8_t, 9> payload{0, 0, 1, attribute, static_cast<std::uint8_t>(type),
                                              0, 0, 0, 0};
    sut.bytesIn(frameOf(header, payload));
  }
  bool isMarked() const { return config->vlanEnabledColl().member(kVlan7)->isZombie(); }
  bool isTransferUnderWay() const {
    for (std::size_t at = 0; at < Vex::Entity::kTransfers; ++at) {
      if (config->vexTransferUnderWay(at)) return true;
    }
    return false;
  }
};

using Vex::NboAttrLog::Transaction;
constexpr std::uint8_t kVlanEnabled = 259 - 256;

TEST(AttrLogRights, ATransferWhoseRightIsLostBeforeItsEndComesToNothing) {
  for (const Transaction end : {Transaction::commit, Transaction::abort}) {
    Original at;
    at.markerIn(kVlanEnabled, Transaction::begin);
    ASSERT_TRUE(at.isMarked());
    ASSERT_TRUE(at.isTransferUnderWay());
    at.sut.accessIs(Session::Access::readOnly);
    at.markerIn(kVlanEnabled, end);
    EXPECT_FALSE(at.isMarked());
    EXPECT_FALSE(at.isTransferUnderWay());
    if (end == Transaction::commit) {
      EXPECT_THAT(taken(at.sut), ElementsAre("begin 259", "259 000701", "commit 259"));
    } else {
      EXPECT_THAT(taken(at.sut), IsEmpty());
    }
    at.sut.accessIs(Session::Access::readWrite);
    at.markerIn(kVlanEnabled, Transaction::commit);
    EXPECT_TRUE(at.config->vlanEnabledHas(kVlan7));
  }
}

TEST(AttrLogRights, ATransferWhoseRightIsEarnedBeforeItsEndIsAnsweredWithWhatStands) {
  Original at;
  at.sut.accessIs(Session::Access::readOnly);
  at.markerIn(kVlanEnabled, Transaction::begin);
  at.sut.accessIs(Session::Access::readWrite);
  at.markerIn(kVlanEnabled, Transaction::commit);
  EXPECT_TRUE(at.config->vlanEnabledHas(kVlan7));
  EXPECT_THAT(taken(at.sut), ElementsAre("begin 259", "259 000701", "commit 259"));
}

TEST(AttrLogRights, AChildWhoseTransferLosesItsRightIsUnderWayNoLonger) {
  const Trees trees;
  trees.config->transmitConfigIs("t");
  Silent owner;
  Vex::NboAttrLog::Demuxer demuxer(owner, Vex::makePtr<Vex::NboAttrLog::Out>(std::size_t{4096}));
  Vex::StreamAdapter& sut = Ringward::AttrLog::entityTypeOf<Ringward::Config::Config>.newAdapter(
      demuxer, *trees.config, Vex::StreamAdapter::kReadOnly);
  sut.doSerializeOrphan();
  demuxer.continueOutput();
  const Vex::StreamAdapter* const child = demuxer.adapter(*trees.config->transmitConfig());
  ASSERT_NE(child, nullptr);
  const auto markerIn = [&](Transaction type) {
    const std::array<std::uint8_t, 10> body{0, 0, 1, 5, static_cast<std::uint8_t>(type),
                                            0, 0, 0, 0, 3};
    Vex::ByteConnection::In in(body);
    sut.handleAttrDeserialization(Vex::NboAttrLog::kTransactionAttribute, 4, body.size(), in);
  };
  demuxer.peerMayWriteIs(true);
  markerIn(Transaction::begin);
  ASSERT_TRUE(child->flag(Vex::StreamAdapter::kTransferUnderWay));
  demuxer.peerMayWriteIs(false);
  markerIn(Transaction::commit);
  EXPECT_FALSE(child->flag(Vex::StreamAdapter::kTransferUnderWay));
}

}  // namespace
