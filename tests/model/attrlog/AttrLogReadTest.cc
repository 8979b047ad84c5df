// SPDX-License-Identifier: Apache-2.0
//
// What an adapter does with what comes in, and what a session does not let in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/model/attrlog/Link.h"
#include "tests/runtime/ErrorOf.h"

namespace {

using namespace AttrLogTest;
using RuntimeTest::errorOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

const Bridging::VlanId kVlan7(7);
const Bridging::VlanId kVlan8(8);

// A frame about the root with this number, as the end writes it that announced it.
Bytes frame(std::int32_t attribute, const Bytes& payload, bool key = false,
            std::uint32_t number = 2) {
  Vex::NboAttrLog::MsgHeader header;
  header.entityId = {0, number};
  header.attributeId = attribute;
  header.keyFlag = key;
  return frameOf(header, payload);
}
Bytes marker(std::uint32_t attribute, std::uint8_t type) {
  return frame(144, {0, 0, static_cast<std::uint8_t>(attribute >> 8),
                     static_cast<std::uint8_t>(attribute), type, 0, 0, 0, 0});
}

// A mirror of a configuration whose original is these tests: announced as number 2.
struct Mirrored {
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Session sut{{}};
  Mirrored() {
    sut.mirrorIs(*config);
    const auto original = Ringward::Config::configFactory("config");
    Session server({});
    server.rootIs(*original);
    sut.bytesIn(server.output());
  }
};

TEST(AttrLogRead, AnElementThatAFullTransferDoesNotMentionGoesAtTheCommitMarkerAndNotBefore) {
  Mirrored at;
  at.config->vlanEnabledIs(kVlan7, true);
  at.config->vlanEnabledIs(kVlan8, true);
  at.sut.bytesIn(marker(259, 0));
  at.sut.bytesIn(frame(259, {0, 8, 1}, true));
  EXPECT_TRUE(at.config->vlanEnabledHas(kVlan7));
  at.sut.bytesIn(marker(259, 2));
  EXPECT_FALSE(at.config->vlanEnabledHas(kVlan7));
  EXPECT_TRUE(at.config->vlanEnabledHas(kVlan8));
}

TEST(AttrLogRead, AnAbortedTransferDeletesNothingNowOrLater) {
  Mirrored at;
  at.config->vlanEnabledIs(kVlan7, true);
  at.sut.bytesIn(marker(259, 0));
  at.sut.bytesIn(marker(259, 1));
  at.sut.bytesIn(marker(259, 2));
  EXPECT_TRUE(at.config->vlanEnabledHas(kVlan7));
}

TEST(AttrLogRead, ACommitOfAnotherAttributeThanTheOneBegunDeletesNothing) {
  Mirrored at;
  at.config->vlanEnabledIs(kVlan7, true);
  at.config->intfExcludeIs(intf(1), true);
  at.sut.bytesIn(marker(259, 0));
  at.sut.bytesIn(marker(260, 2));
  EXPECT_TRUE(at.config->vlanEnabledHas(kVlan7));
  EXPECT_TRUE(at.config->intfExcludeHas(intf(1)));
}

TEST(AttrLogRead, AnElementThatChangedHereDuringATransferSurvivesTheCommit) {
  Mirrored at;
  at.config->vlanEnabledIs(kVlan7, true);
  at.sut.bytesIn(marker(259, 0));
  at.config->vlanEnabledIs(kVlan7, false);
  at.sut.bytesIn(marker(259, 2));
  EXPECT_TRUE(at.config->vlanEnabledHas(kVlan7));
}

TEST(AttrLogRead, ALostConnectionInATransferLeavesNoMarks) {
  Trees trees;
  trees.config->vlanEnabledIs(kVlan7, true);
  {
    Session sut({});
    sut.mirrorIs(*trees.config);
    Trees original;
    Session server({});
    server.rootIs(*original.config);
    sut.bytesIn(server.output());
    trees.config->vlanEnabledIs(kVlan7, true);
    sut.bytesIn(marker(259, 0));
    EXPECT_TRUE(trees.config->vlanEnabledColl().member(kVlan7)->isZombie());
  }
  EXPECT_FALSE(trees.config->vlanEnabledColl().member(kVlan7)->isZombie());
}

TEST(AttrLogRead, AReconnectedMirrorLosesWhatTheOriginalNoLongerHas) {
  Trees original;
  Trees mirror;
  mirror.config->vlanEnabledIs(kVlan7, true);
  mirror.config->transmitConfigIs("old");
  mirror.status->intfStatusIs(intf(5))->disabledIs(true);
  mirror.transmit->highPriorityEnq({intf(1), kVlan7});
  original.config->vlanEnabledIs(kVlan8, true);
  Session server({});
  Session client({});
  mirror.mirrorsOf(client);
  original.rootsOf(server);
  ASSERT_TRUE(settle(server, client));
  EXPECT_EQ(mirror.text(), original.text());
}

TEST(AttrLogRead, AMirrorNamedAfterTheAnnouncementIsSentEverything) {
  Link link;
  link.original.config->vlanEnabledIs(kVlan7, true);
  link.original.rootsOf(link.server);
  link.settle();
  link.mirror.mirrorsOf(link.client);
  link.settle();
  EXPECT_TRUE(link.isEqual());
  EXPECT_THAT(link.mounted, ElementsAre("config", "status", "transmit", "counter", ""));
}

TEST(AttrLogRead, AWriteWithoutTheRightIsRefusedWithAReasonAndPutBack) {
  Link link(Session::Access::readOnly);
  link.original.config->vlanEnabledIs(kVlan7, true);
  link.up();
  link.mirror.config->clearCountersIs(4);
  link.settle();
  EXPECT_THAT(link.refused,
              ElementsAre("config: attribute clearCounters of Ringward::Config::Config config is "
                          "read-only for this connection"));
  link.mirror.config->vlanEnabledIs(kVlan7, false);
  link.mirror.config->vlanEnabledIs(kVlan8, true);
  link.mirror.config->transmitConfigIs("mine")->rateLimitIs(3);
  link.mirror.status->intfStatusIs(intf(4))->disabledIs(true);
  link.mirror.counter->isNondestructingIs(true);
  link.settle();
  EXPECT_EQ(link.original.config->clearCounters(), 0U);
  EXPECT_FALSE(link.original.config->transmitConfig());
  EXPECT_TRUE(link.isEqual()) << link.mirror.text() << link.original.text();
}

TEST(AttrLogRead, AMirrorIsSynchronisedOnceAllRootsHaveComeAndNotBefore) {
  Link link;
  link.original.config->vlanEnabledIs(kVlan7, true);
  link.mirror.mirrorsOf(link.client);
  link.original.rootsOf(link.server);
  move(link.server, link.client);
  EXPECT_TRUE(link.isEqual());
  EXPECT_FALSE(link.client.isSynchronised());
  move(link.server, link.client);
  EXPECT_TRUE(link.client.isSynchronised());
}

TEST(AttrLogRead, ARightThatIsEarnedLetsWritesIn) {
  Link link(Session::Access::readOnly);
  link.up();
  link.server.accessIs(Session::Access::readWrite);
  link.mirror.config->clearCountersIs(4);
  link.settle();
  EXPECT_EQ(link.original.config->clearCounters(), 4U);
  EXPECT_THAT(link.refused, IsEmpty());
}

TEST(AttrLogRead, AChangeOfAReadOnlyMirrorRaisesInItsAdapterAndIsPutBack) {
  Link link;
  link.client.mirrorIs(*link.mirror.config, Session::MirrorMode::readOnly);
  link.original.rootsOf(link.server);
  link.settle();
  link.mirror.config->clearCountersIs(4);
  EXPECT_THAT(link.trouble,
              ElementsAre("attribute clearCounters of config: attribute clearCounters of "
                          "Ringward::Config::Config config is read-only"));
  link.settle();
  EXPECT_EQ(link.original.config->clearCounters(), 0U);
  EXPECT_EQ(link.mirror.config->clearCounters(), 0U);
  link.original.config->clearCountersIs(8);
  link.settle();
  EXPECT_EQ(link.mirror.config->clearCounters(), 8U);
}

TEST(AttrLogRead, ANestedRunIsRefused) {
  Trees trees;
  Silent owner;
  Vex::NboAttrLog::Demuxer demuxer(owner, Vex::makePtr<Vex::NboAttrLog::Out>(std::size_t{4096}));
  Vex::StreamAdapter& sut = Ringward::AttrLog::entityTypeOf<Ringward::Config::Config>.newAdapter(
      demuxer, *trees.config, 0);
  const Bytes body{0, 0, 0, 9, 3};
  const auto read = [&] {
    Vex::ByteConnection::In in(body);
    sut.handleAttrDeserialization(263, 4, body.size(), in);
  };
  {
    const Vex::StreamAdapter::Anchor active(sut);
    try {
      read();
      FAIL() << "nothing raised";
    } catch (const Vex::InternalException& e) {
      EXPECT_STREQ(e.what(), "entity reactor is already active");
    }
    EXPECT_EQ(trees.config->clearCounters(), 0U);
  }
  EXPECT_FALSE(sut.flag(Vex::StreamAdapter::kHandlerActive));
  read();
  EXPECT_EQ(trees.config->clearCounters(), 9U);
  EXPECT_FALSE(sut.flag(Vex::StreamAdapter::kHandlerActive));

  // A child learns from its parent's markers that it is being transferred.
  const Bytes name{0, 1, 't', 0x00, 0, 0, 0, 0, 0, 0, 5, 3};
  Vex::ByteConnection::In in(name);
  sut.handleAttrDeserialization(261, 4, name.size(), in);
  const Vex::StreamAdapter* const child = demuxer.adapter(*trees.config->transmitConfig());
  ASSERT_NE(child, nullptr);
  sut.handleAttrTransaction(261, Vex::NboAttrLog::Transaction::begin, 0);
  EXPECT_TRUE(child->flag(Vex::StreamAdapter::kTransferUnderWay));
  sut.handleAttrTransaction(261, Vex::NboAttrLog::Transaction::commit, 0);
  EXPECT_FALSE(child->flag(Vex::StreamAdapter::kTransferUnderWay));
  EXPECT_THROW(sut.handleAttrFlowOut(999), Vex::RangeException);
}

TEST(AttrLogRead, AMalformedPayloadRaisesARangeErrorWithTheAttributesNameAndChangesNothing) {
  Mirrored at;
  const std::string before = textOf(*at.config);
  const auto error = [&](const Bytes& bytes) { return errorOf([&] { at.sut.bytesIn(bytes); }); };
  EXPECT_EQ(error(frame(263, {0, 0})),
            "attribute 'clearCounters': message ends at byte 4, 4 wanted at byte 1");
  EXPECT_EQ(error(frame(258, {2})),
            "attribute 'globalEnabled': bool 2 at byte 1 not allowed (0 or 1)");
  EXPECT_EQ(error(frame(258, {1, 0})),
            "attribute 'globalEnabled': token 0 at byte 2 not allowed (3)");
  EXPECT_EQ(error(frame(259, {0x0F, 0xFF, 1}, true)),
            "attribute 'vlanEnabled': VlanId::value < 1 or > 4094 not allowed");
  EXPECT_EQ(error(frame(-263, {})), "attribute 'clearCounters': deletion of a scalar not allowed");
  EXPECT_EQ(error(frame(999, {1})),
            "attribute 'unknown': attribute 999 of Ringward::Config::Config unknown");
  EXPECT_EQ(error(frame(258, {1}, false, 77)), "entity id 0:77 unknown (2 to 2)");
  EXPECT_EQ(error(marker(998, 0)),
            "attribute 'unknown': attribute 998 of Ringward::Config::Config unknown");
  EXPECT_EQ(error(marker(259, 3)), "attribute 'unknown': transaction type 3 not allowed (0 to 2)");
  EXPECT_EQ(textOf(*at.config), before);
}

TEST(AttrLogRead, AMessageAboutAnEntityThatHasGoneMeanwhileIsDropped) {
  Link link;
  link.up();
  link.original.status->intfStatusIs(intf(2));
  link.settle();
  const auto kept = link.original.status->intfStatus(intf(2));
  link.mirror.status->intfStatusDel(intf(2));
  link.original.status->intfStatus(intf(2))->disabledIs(true);
  EXPECT_TRUE(link.settle());
  EXPECT_TRUE(link.isEqual());
}

// Raises at every change.
class Raising final : public Ringward::Config::Config::NotifieeConst {
 public:
  explicit Raising(Ringward::Config::Config& config) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(&config));
    isRegisteredNotifieeIs(true);
  }
  void onGlobalEnabled() override { throw std::runtime_error("no"); }
};

TEST(AttrLogRead, AnExceptionInANotifieeDoesNotStopTheStream) {
  Link link;
  link.up();
  const auto raising = Vex::makePtr<Raising>(*link.mirror.config);
  link.original.config->globalEnabledIs(true);
  link.original.config->clearCountersIs(3);
  EXPECT_TRUE(link.settle());
  EXPECT_TRUE(link.isEqual());
}

TEST(AttrLogRead, AFrameOfAnUnallowedLengthIsRefusedBeforeItsBytesAreThere) {
  Session sut({});
  EXPECT_EQ(errorOf([&] {
              sut.bytesIn(Bytes{0, 0, 0, 0});
            }),
            "frame length 0 not allowed (1 to 65536)");
  Session other({});
  EXPECT_EQ(errorOf([&] {
              other.bytesIn(Bytes{0, 1, 0, 1});
            }),
            "frame length 65537 not allowed (1 to 65536)");
  Session third({});
  EXPECT_EQ(errorOf([&] { third.bytesIn(Bytes{0, 0, 0, 1, 4}); }), "frame type 4 not allowed");
}

TEST(AttrLogRead, FramesOfOtherTypesGoToTheOwner) {
  std::string got;
  Session::Callbacks callbacks;
  callbacks.frame = [&](std::uint8_t type, std::span<const std::uint8_t> body) {
    got = std::to_string(type) + " " + hex(body);
  };
  Session from({100, Session::Access::readOnly});
  Session to({}, callbacks);
  EXPECT_TRUE(from.frameOut(16, Bytes{1, 2}));
  EXPECT_FALSE(from.frameOut(16, Bytes(100)));
  EXPECT_EQ(errorOf([&] { from.frameOut(15, {}); }), "frame type 15 not allowed (16 to 255)");
  EXPECT_EQ(errorOf([&] { from.frameOut(16, Bytes(65536)); }),
            "body of 65536 bytes not allowed in a frame (0 to 65535)");
  while (move(from, to, 1) != 0) {
  }
  EXPECT_EQ(got, "16 0102");
}

TEST(AttrLogRead, AFrameMayNotConfirmWhatWasNotSent) {
  Session sut({});
  EXPECT_EQ(errorOf([&] {
              sut.messageIn(Bytes{0, 0, 0, 0, 0, 0, 0, 1});
            }),
            "number of frames 1 not allowed (0 to 0)");
}

template <class Value>
void expectForm(const Value& value, const std::string& form) {
  const auto out = Vex::makePtr<Vex::NboAttrLog::Out>(std::size_t{4096});
  out << value;
  EXPECT_EQ(hex(out->output()), form);
  Vex::ByteConnection::In in(out->output());
  Value read{};
  in >> read;
  EXPECT_EQ(read, value);
  EXPECT_EQ(in.remaining(), 0U);
}

TEST(AttrLogRead, EachValueTypeHasItsFormAndReadsBack) {
  expectForm(true, "01");
  expectForm(std::uint16_t{0x0102}, "0102");
  expectForm(std::int32_t{-2}, "fffffffe");
  expectForm(1.5, "3ff8000000000000");
  expectForm(std::string("ab"), "00026162");
  expectForm(Ringward::Oui{1, 2, 3}, "010203");
  expectForm(Ringward::PacketEncapsulation{Portus::EthAddr(2, 0, 0, 0, 0, 1),
                                           Bridging::VlanIdOrNone(7), intf(1)},
             "020000000001"
             "0007" +
                 hex(intf(1).bytes()));
  expectForm(Ringward::Status::CounterIntf{intf(1), 1, 2, 3},
             hex(intf(1).bytes()) + "000000010000000200000003");
  expectForm(Ringward::Status::CounterVlan{Bridging::VlanIdOrNone(5), 1, 2, 3},
             "0005000000010000000200000003");
}

TEST(AttrLogRead, AVlanIdAbove4094InAnEncapsulationIsARangeError) {
  const Bytes bytes{2, 0, 0, 0, 0, 1, 0x0F, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0};
  Vex::ByteConnection::In in(bytes);
  Ringward::PacketEncapsulation value;
  EXPECT_EQ(errorOf([&] { in >> value; }), "VlanIdOrNone::value > 4094 not allowed");
  EXPECT_TRUE(!value);
}

}  // namespace
