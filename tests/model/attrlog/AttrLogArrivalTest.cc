// SPDX-License-Identifier: Apache-2.0
//
// What an incoming value or entity does to what stands here and to what waits to be sent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/model/attrlog/Link.h"
#include "tests/runtime/ErrorOf.h"

namespace {

using namespace AttrLogTest;
using Ringward::AttrLog::Session;
using RuntimeTest::errorOf;
using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

// A mirror without room: what it changes waits.
struct Waiting : Link {
  Waiting() : Link(Session::Access::readWrite, 100) {
    up();
    mirror.config->globalEnabledIs(true);
  }
  void toClient() {
    while (move(server, client) != 0) {
    }
  }
  void toServer() {
    while (move(client, server) != 0) {
    }
  }
};

TEST(AttrLogArrival, AWaitingChangeThatAnIncomingValueReplacesIsNotSent) {
  Waiting link;
  link.mirror.config->clearCountersIs(5);
  link.original.config->clearCountersIs(7);
  link.toClient();
  EXPECT_EQ(link.mirror.config->clearCounters(), 7U);
  EXPECT_THAT(taken(link.client), ElementsAre("258 01"));
  EXPECT_TRUE(link.client.isSettled());
}

TEST(AttrLogArrival, AnIncomingScalarUndoesNoNewerOneAtItsOrigin) {
  Waiting link;
  link.mirror.config->clearCountersIs(5);
  link.original.config->clearCountersIs(7);
  link.toClient();
  link.original.config->clearCountersIs(8);
  link.toServer();
  ASSERT_TRUE(link.settle());
  EXPECT_EQ(link.original.config->clearCounters(), 8U);
  EXPECT_TRUE(link.isEqual());
}

TEST(AttrLogArrival, AnIncomingIsNondestructingUndoesNoNewerOneAtItsOrigin) {
  Waiting link;
  link.mirror.counter->isNondestructingIs(true);
  link.original.counter->isNondestructingIs(true);
  link.toClient();
  link.original.counter->isNondestructingIs(false);
  link.toServer();
  ASSERT_TRUE(link.settle());
  EXPECT_FALSE(link.original.counter->isNondestructing());
  EXPECT_TRUE(link.isEqual());
}

TEST(AttrLogArrival, AnIncomingChildUndoesNoNewerOneAtItsOrigin) {
  Waiting link;
  link.mirror.config->transmitConfigIs("mine");
  link.original.config->transmitConfigIs("one");
  link.toClient();
  ASSERT_TRUE(link.mirror.config->transmitConfig());
  EXPECT_EQ(link.mirror.config->transmitConfig()->name(), "one");
  link.original.config->transmitConfigIs("two");
  link.toServer();
  ASSERT_TRUE(link.settle());
  EXPECT_EQ(link.original.config->transmitConfig()->name(), "two");
  EXPECT_TRUE(link.isEqual()) << link.mirror.text() << link.original.text();
}

// Takes a child away as soon as it is there.
class Deleting final : public Ringward::Config::Config::NotifieeConst {
 public:
  explicit Deleting(const Vex::Ptr<Ringward::Config::Config>& config) : config_(config) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(config));
    isRegisteredNotifieeIs(true);
  }
  void onTransmitConfig() override { config_->transmitConfigDel(); }

 private:
  const Vex::Ptr<Ringward::Config::Config> config_;
};

TEST(AttrLogArrival, AChildThatAReactionTakesAwayAtOnceEndsNoConnection) {
  for (const bool aheadOfTheAdapter : {true, false}) {
    Link link;
    Vex::Ptr<Deleting> deleting;
    if (aheadOfTheAdapter) deleting = Vex::makePtr<Deleting>(link.mirror.config);
    link.up();
    if (!aheadOfTheAdapter) deleting = Vex::makePtr<Deleting>(link.mirror.config);
    link.original.config->transmitConfigIs("t")->rateLimitIs(7);
    ASSERT_TRUE(link.settle());
    EXPECT_FALSE(link.mirror.config->transmitConfig());
    link.original.config->transmitConfig()->rateLimitIs(8);
    link.original.config->clearCountersIs(3);
    ASSERT_TRUE(link.settle());
    EXPECT_EQ(link.mirror.config->clearCounters(), 3U);
  }
}

TEST(AttrLogArrival, APeerIsToldThatAReactionHasTakenItsChildAway) {
  for (const bool aheadOfTheAdapter : {true, false}) {
    Link link;
    Vex::Ptr<Deleting> deleting;
    if (aheadOfTheAdapter) deleting = Vex::makePtr<Deleting>(link.original.config);
    link.up();
    if (!aheadOfTheAdapter) deleting = Vex::makePtr<Deleting>(link.original.config);
    link.mirror.config->transmitConfigIs("t");
    ASSERT_TRUE(link.settle());
    EXPECT_FALSE(link.original.config->transmitConfig());
    EXPECT_TRUE(link.isEqual()) << link.mirror.text() << link.original.text();
  }
}

// Mirrors whose originals are these tests: a configuration announced as number 2, a status as 3.
struct Mirrored {
  static constexpr std::uint32_t kConfig = 2;
  static constexpr std::uint32_t kStatus = 3;
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  Session sut{{}};
  Mirrored() {
    sut.mirrorIs(*config);
    sut.mirrorIs(*status);
    const Trees original;
    Session server({});
    server.rootIs(*original.config);
    server.rootIs(*original.status);
    sut.bytesIn(server.output());
  }
  // The name, or the key, and the number of an entity, from the end that has announced it.
  void childIn(char name, std::uint32_t number) {
    Bytes payload{0, 1, static_cast<std::uint8_t>(name), 0, 0, 0, 0};
    numberIs(payload, number);
    in(kConfig, 261, payload, false);
  }
  void memberIn(const Portus::IntfId& key, std::uint32_t number) {
    Bytes payload(key.bytes().begin(), key.bytes().end());
    payload.insert(payload.end(), 4, 0);
    numberIs(payload, number);
    in(kStatus, 258, payload, true);
  }

 private:
  static void numberIs(Bytes& payload, std::uint32_t number) {
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
      payload.push_back(static_cast<std::uint8_t>(number >> shift));
    }
  }
  void in(std::uint32_t entity, std::int32_t attribute, const Bytes& payload, bool key) {
    Vex::NboAttrLog::MsgHeader header;
    header.entityId = {0, entity};
    header.attributeId = attribute;
    header.keyFlag = key;
    sut.bytesIn(frameOf(header, payload));
  }
};

TEST(AttrLogArrival, AnIdOfAnotherEntityIsRefusedWithNothingChanged) {
  Mirrored at;
  at.childIn('a', 4);
  at.memberIn(intf(1), 5);
  const std::string before = textOf(*at.config) + textOf(*at.status);
  const auto held = at.config->transmitConfig();
  EXPECT_EQ(errorOf([&] { at.childIn('b', at.kStatus); }),
            "attribute 'transmitConfig': entity id 0:3 belongs to another entity");
  EXPECT_EQ(at.config->transmitConfig(), held);
  EXPECT_EQ(errorOf([&] { at.childIn('a', 5); }),
            "attribute 'transmitConfig': entity id 0:5 belongs to another entity");
  EXPECT_EQ(errorOf([&] { at.memberIn(intf(2), at.kConfig); }),
            "attribute 'intfStatus': entity id 0:2 belongs to another entity");
  EXPECT_EQ(errorOf([&] { at.memberIn(intf(1), 4); }),
            "attribute 'intfStatus': entity id 0:4 belongs to another entity");
  EXPECT_EQ(textOf(*at.config) + textOf(*at.status), before);
}

TEST(AttrLogArrival, AnEntityTooManyIsRefusedWithNothingChangedAndOneInAnothersPlaceIsNot) {
  constexpr auto kMost = static_cast<std::uint32_t>(Vex::NboAttrLog::Demuxer::kMaxEntities);
  constexpr std::uint32_t kMembers = kMost - 3;  // with the roots and a child
  Mirrored at;
  at.childIn('a', 4);
  for (std::uint32_t i = 0; i < kMembers; ++i) at.memberIn(intf(i), 5 + i);
  ASSERT_EQ(at.status->intfStatusColl().members(), kMembers);
  at.childIn('b', 5 + kMembers);
  EXPECT_EQ(at.config->transmitConfig()->name(), "b");
  EXPECT_EQ(errorOf([&] { at.memberIn(intf(kMembers), 6 + kMembers); }),
            "attribute 'intfStatus': more than 65536 entities of one connection not allowed");
  EXPECT_EQ(at.status->intfStatusColl().members(), kMembers);
}

// So that a peer may ask again and again: the members cost when they are sent, and not before.
TEST(AttrLogArrival, ARequestForMembersTouchesEachOnlyWhenItsTurnInTheTransferComes) {
  const Trees trees;
  for (unsigned i = 1; i <= 3; ++i) trees.status->intfStatusIs(intf(i))->disabledIs(true);
  Silent owner;
  Vex::NboAttrLog::Demuxer demuxer(owner, Vex::makePtr<Vex::NboAttrLog::Out>(std::size_t{4096}));
  Vex::StreamAdapter& sut = Ringward::AttrLog::entityTypeOf<Ringward::Status::Status>.newAdapter(
      demuxer, *trees.status, 0);
  const auto sent = [&] {
    demuxer.continueOutput();
    const auto texts = textsOf(demuxer.out()->output());
    demuxer.out()->outputDel(demuxer.out()->waitingBytes());
    return texts;
  };
  sut.doSerializeOrphan();
  const auto first = sent();
  ASSERT_EQ(std::count(first.begin(), first.end(), "259 01"), 3);
  const Bytes members{0, 0, 1, 2, 3};
  for (int request = 0; request < 2; ++request) {
    Vex::ByteConnection::In in(members);
    sut.handleAttrDeserialization(Vex::NboAttrLog::kResendAttribute, 4, members.size(), in);
    for (unsigned i = 1; i <= 3; ++i) {
      const auto* const below = demuxer.adapter(*trees.status->intfStatus(intf(i)));
      ASSERT_NE(below, nullptr);
      EXPECT_FALSE(below->flag(Vex::StreamAdapter::kRemount));
    }
  }
  const auto again = sent();
  EXPECT_EQ(std::count(again.begin(), again.end(), "begin 258"), 1);
  EXPECT_EQ(std::count(again.begin(), again.end(), "259 01"), 3);
  EXPECT_TRUE(sent().empty());
}

}  // namespace
