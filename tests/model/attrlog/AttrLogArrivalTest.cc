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

}  // namespace
