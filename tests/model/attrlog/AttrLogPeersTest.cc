// SPDX-License-Identifier: Apache-2.0
//
// What peers may not do to an original, and several peers of one original.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/model/attrlog/Link.h"

namespace {

using namespace AttrLogTest;
using Ringward::AttrLog::Session;
using testing::ElementsAre;

const Bridging::VlanId kVlan7(7);

TEST(AttrLogPeers, ATransferWithoutTheRightIsPutBackWithWhatItDoesNotMention) {
  Link link(Session::Access::readOnly, 200);
  for (unsigned vlan = 1; vlan <= 8; ++vlan) {
    link.original.config->vlanEnabledIs(Bridging::VlanId(vlan), true);
  }
  link.up();
  // More than the buffer takes, so that the deletion is told by a whole transfer.
  for (unsigned i = 1; i <= 8; ++i) link.mirror.config->clearCountersIs(i);
  for (unsigned vlan = 1; vlan <= 8; ++vlan) {
    link.mirror.config->vlanEnabledIs(Bridging::VlanId(vlan), false);
  }
  link.mirror.config->vlanEnabledDelAll();
  ASSERT_TRUE(link.settle());
  EXPECT_TRUE(link.original.config->vlanEnabled(kVlan7));
  EXPECT_TRUE(link.isEqual()) << link.mirror.text() << link.original.text();
}

struct Kept {
  Trees original;
  Trees mirror;
  std::vector<std::string> refused;
  Session server{{65536, Session::Access::readWrite, true}};
  Session client;
  Kept() : client({65536, Session::Access::readOnly}, callbacks()) {
    original.config->transmitConfigIs("transmitConfig");
    mirror.mirrorsOf(client);
    original.rootsOf(server);
    settle(server, client);
  }
  Session::Callbacks callbacks() {
    Session::Callbacks made;
    made.refused = [this](std::string_view, std::string_view reason) {
      refused.emplace_back(reason);
    };
    return made;
  }
};

TEST(AttrLogPeers, AChildThatTheOwnerKeepsIsNeitherDeletedNorReplacedButCanBeChanged) {
  Kept at;
  const auto held = at.original.config->transmitConfig();
  at.mirror.config->transmitConfigDel();
  ASSERT_TRUE(settle(at.server, at.client));
  EXPECT_EQ(at.original.config->transmitConfig(), held);
  EXPECT_EQ(at.mirror.text(), at.original.text());
  at.mirror.config->transmitConfigIs("other");
  ASSERT_TRUE(settle(at.server, at.client));
  EXPECT_EQ(at.original.config->transmitConfig(), held);
  EXPECT_EQ(at.mirror.text(), at.original.text());
  const std::string reason =
      "attribute transmitConfig of Ringward::Config::Config config stays what it is";
  EXPECT_THAT(at.refused, ElementsAre(reason, reason));
  at.mirror.config->transmitConfig()->rateLimitIs(77);
  ASSERT_TRUE(settle(at.server, at.client));
  EXPECT_EQ(held->rateLimit(), 77U);
}

// Puts a child back as soon as it is taken away.
class Restoring final : public Ringward::Config::Config::NotifieeConst {
 public:
  explicit Restoring(const Vex::Ptr<Ringward::Config::Config>& config) : config_(config) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(config));
    isRegisteredNotifieeIs(true);
  }
  void onTransmitConfig() override {
    if (!config_->transmitConfig()) config_->transmitConfigIs("transmitConfig");
  }

 private:
  const Vex::Ptr<Ringward::Config::Config> config_;
};

TEST(AttrLogPeers, AChildThatAReactionPutsBackIsToldToThePeerThatTookItAway) {
  Link link;
  link.original.config->transmitConfigIs("transmitConfig");
  const auto restoring = Vex::makePtr<Restoring>(link.original.config);
  link.up();
  link.mirror.config->transmitConfigDel();
  ASSERT_TRUE(link.settle());
  EXPECT_TRUE(link.mirror.config->transmitConfig());
  link.original.config->transmitConfig()->rateLimitIs(5);
  ASSERT_TRUE(link.settle());
  EXPECT_TRUE(link.isEqual()) << link.mirror.text() << link.original.text();
}

TEST(AttrLogPeers, NoVlanIsNoKey) {
  Link link;
  link.up();
  Vex::NboAttrLog::Out out(1000);
  EXPECT_NO_THROW(Ringward::AttrLog::requireKey(Bridging::VlanId(1)));
  EXPECT_THROW(Ringward::AttrLog::requireKey(Bridging::VlanId()), Vex::RangeException);
  link.mirror.config->vlanEnabledIs(Bridging::VlanId(), true);
  EXPECT_THROW(link.settle(), Vex::RangeException);
  EXPECT_EQ(link.original.config->vlanEnabledColl().members(), 0U);
}

// One original, two peers that write.
struct Pair {
  Trees original;
  Trees first;
  Trees second;
  Session firstServer;
  Session secondServer;
  Session firstClient;
  Session secondClient;

  explicit Pair(std::size_t buffer)
      : firstServer({buffer, Session::Access::readWrite}),
        secondServer({buffer, Session::Access::readWrite}),
        firstClient({buffer, Session::Access::readOnly}),
        secondClient({buffer, Session::Access::readOnly}) {
    first.mirrorsOf(firstClient);
    second.mirrorsOf(secondClient);
    original.rootsOf(firstServer);
    original.rootsOf(secondServer);
  }
  bool settle() {
    for (int turn = 0; turn < 1000; ++turn) {
      if (!AttrLogTest::settle(firstServer, firstClient)) return false;
      if (!AttrLogTest::settle(secondServer, secondClient)) return false;
      if (firstServer.output().empty() && firstServer.isSettled()) return true;
    }
    return false;
  }
};

TEST(AttrLogPeers, TwoPeersThatWriteAtOnceEndWithEqualTreesOnceItIsQuiet) {
  for (const std::size_t buffer : {std::size_t{120}, std::size_t{700}, std::size_t{100000}}) {
    for (unsigned seed = 1; seed <= 150; ++seed) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", buffer " + std::to_string(buffer));
      Random random(seed);
      Pair at(buffer);
      for (unsigned step = 0; step < 200; ++step) {
        const unsigned limit = below(random, 300);
        switch (below(random, 7)) {
          case 0:
            change(at.original, random);
            break;
          case 1:
            change(at.first, random);
            break;
          case 2:
            change(at.second, random);
            break;
          case 3:
            move(at.firstServer, at.firstClient, limit);
            break;
          case 4:
            move(at.firstClient, at.firstServer, limit);
            break;
          case 5:
            move(at.secondServer, at.secondClient, limit);
            break;
          default:
            move(at.secondClient, at.secondServer, limit);
        }
      }
      ASSERT_TRUE(at.settle());
      ASSERT_EQ(at.first.text(), at.original.text());
      ASSERT_EQ(at.second.text(), at.original.text());
    }
  }
}

// A transfer of a queue is under way while `disturb` goes on changing it by more
// than fits, and an attribute of another entity waits behind it.
template <class Disturb>
void expectNobodyIsHeldUp(const Disturb& disturb) {
  Link link(Session::Access::readOnly, 400);
  auto& queues = *link.original.transmit;
  for (std::uint32_t i = 1; i <= 50; ++i) {
    queues.regularPriorityEnq({intf(1), Bridging::VlanId(i)});
  }
  link.up();
  for (std::uint32_t i = 1; i <= 50; ++i) {  // fills the buffer, so that a transfer begins
    queues.regularPriorityIs(i, {intf(2), Bridging::VlanId(i)});
  }
  link.original.config->clearCountersIs(9);
  for (std::uint32_t step = 0; step < 3000 && link.mirror.config->clearCounters() != 9; ++step) {
    for (std::uint32_t i = 1; i <= 6; ++i) {
      disturb(queues, i, Ringward::Status::IntfAndVlan{intf(step % 7), Bridging::VlanId(i)});
    }
    move(link.server, link.client, 60);
    move(link.client, link.server);
  }
  EXPECT_EQ(link.mirror.config->clearCounters(), 9U);
  ASSERT_TRUE(link.settle());
  EXPECT_TRUE(link.isEqual());
}

TEST(AttrLogPeers, ACollectionThatNeverComesToRestHoldsUpNoOtherEntity) {
  // Always behind the place reached.
  expectNobodyIsHeldUp([](auto& queues, std::uint32_t index, const auto& pair) {
    queues.regularPriorityIs(index, pair);
  });
}

TEST(AttrLogPeers, AQueueThatIsServedAllTheTimeHoldsUpNoOtherEntity) {
  expectNobodyIsHeldUp([](auto& queues, std::uint32_t, const auto& pair) {
    queues.regularPriorityEnq(pair);
    queues.regularPriorityDeq();
  });
}

}  // namespace
