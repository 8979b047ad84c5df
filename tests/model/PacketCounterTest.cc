// SPDX-License-Identifier: Apache-2.0
//
// The records of the counters: written whole, removed whole, read as zeros when absent. How events
// are counted is told in tests/engine/CountPacketTest.cc.
#include "model/status/PacketCounter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <compare>
#include <vector>

namespace {

using Bridging::VlanIdOrNone;
using Portus::IntfId;
using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;

class PacketCounter : public testing::Test {
 protected:
  Vex::Ptr<Ringward::Status::PacketCounter> sut =
      Ringward::Status::packetCounterFactory("packetCounter");
  const IntfId eth1 = IntfId::fromName("eth1");
  const IntfId eth2 = IntfId::fromName("eth2");
  const VlanIdOrNone vlan10{10};
};

// The bytes of a table may come from another program.
TEST(CounterVlan, ComparesKeyTxRxRxOtherAndNothingElse) {
  const std::vector<CounterVlan> ascending{{VlanIdOrNone(1), 9, 9, 9},
                                           {VlanIdOrNone(2), 0, 9, 9},
                                           {VlanIdOrNone(2), 1, 0, 9},
                                           {VlanIdOrNone(2), 1, 1, 0},
                                           {VlanIdOrNone(2), 1, 1, 1}};
  for (std::size_t i = 0; i + 1 < ascending.size(); ++i) {
    CounterVlan less = ascending[i];
    less.padding = 1;
    EXPECT_LT(less, ascending[i + 1]);
    EXPECT_NE(less, ascending[i + 1]);
    EXPECT_EQ(less, ascending[i]);
    EXPECT_EQ(less <=> ascending[i], std::strong_ordering::equal);
  }
}

TEST_F(PacketCounter, StartsEmpty) {
  EXPECT_EQ(sut->name(), Vex::Name("packetCounter"));
  EXPECT_FALSE(sut->counterIntfIteratorConst());
  EXPECT_FALSE(sut->counterVlanIteratorConst());
}

TEST_F(PacketCounter, NamesItsCollections) {
  EXPECT_EQ(sut->attributeString(258), "counterVlan");
  EXPECT_EQ(sut->attributeString(259), "counterIntf");
  EXPECT_EQ(sut->attributeString(260), "counterVlanControl");
  EXPECT_EQ(sut->attributeString(261), "counterIntfControl");
  EXPECT_EQ(sut->attributeString(6), "isNondestructing");
  EXPECT_EQ(sut->attributeString(257), "unknown");
  EXPECT_EQ(sut->attributeString(262), "unknown");
}

TEST_F(PacketCounter, AnAbsentKeyReadsAsTheZeroRecordAndReadingMakesNone) {
  EXPECT_EQ(sut->counterIntf(eth1), CounterIntf());
  EXPECT_EQ(sut->counterVlan(vlan10), CounterVlan());
  EXPECT_FALSE(sut->counterIntf(eth1).key);
  EXPECT_FALSE(sut->counterIntfIteratorConst());
  EXPECT_FALSE(sut->counterVlanIteratorConst());
}

TEST_F(PacketCounter, WritesAWholeRecordUnderItsOwnKey) {
  sut->counterIntfIs({eth1, 1, 2, 3});
  sut->counterIntfIs({eth2, 4, 5, 6});
  sut->counterIntfIs({eth1, 0, 7, 0});
  EXPECT_EQ(sut->counterIntf(eth1), (CounterIntf{eth1, 0, 7, 0}));
  EXPECT_EQ(sut->counterIntf(eth2), (CounterIntf{eth2, 4, 5, 6}));
  sut->counterVlanIs({vlan10, 1, 2, 3});
  sut->counterVlanIs({vlan10, 0, 0, 9});
  EXPECT_EQ(sut->counterVlan(vlan10), (CounterVlan{vlan10, 0, 0, 9}));
}

TEST_F(PacketCounter, TheVlanOfKeyZeroIsARecordLikeAnyOther) {
  sut->counterVlanIs({VlanIdOrNone(), 0, 0, 1});
  EXPECT_EQ(sut->counterVlan(VlanIdOrNone(0)), (CounterVlan{VlanIdOrNone(), 0, 0, 1}));
  EXPECT_TRUE(sut->counterVlanIteratorConst());
  EXPECT_EQ(sut->counterVlanDel(VlanIdOrNone(0)).rxOther, 1U);
  EXPECT_FALSE(sut->counterVlanIteratorConst());
}

TEST_F(PacketCounter, RemovingReturnsACopyOfTheRecord) {
  sut->counterIntfIs({eth1, 1, 2, 3});
  sut->counterVlanIs({vlan10, 4, 5, 6});
  EXPECT_EQ(sut->counterIntfDel(eth1), (CounterIntf{eth1, 1, 2, 3}));
  EXPECT_EQ(sut->counterVlanDel(vlan10), (CounterVlan{vlan10, 4, 5, 6}));
  EXPECT_EQ(sut->counterIntf(eth1), CounterIntf());
  EXPECT_EQ(sut->counterVlan(vlan10), CounterVlan());
}

TEST_F(PacketCounter, RemovingAnAbsentRecordReturnsTheDefaultOne) {
  EXPECT_EQ(sut->counterIntfDel(eth1), CounterIntf());
  EXPECT_EQ(sut->counterVlanDel(vlan10), CounterVlan());
}

TEST_F(PacketCounter, RemovingByAKeyThatLivesInTheRecordReturnsIt) {
  sut->counterIntfIs({eth1, 1, 2, 3});
  sut->counterVlanIs({vlan10, 4, 5, 6});
  const auto intf = sut->counterIntfIteratorConst();
  EXPECT_EQ(sut->counterIntfDel(intf.key()), (CounterIntf{eth1, 1, 2, 3}));
  const auto vlan = sut->counterVlanIteratorConst();
  EXPECT_EQ(sut->counterVlanDel(vlan.key()), (CounterVlan{vlan10, 4, 5, 6}));
  EXPECT_FALSE(sut->counterIntfIteratorConst());
  EXPECT_FALSE(sut->counterVlanIteratorConst());
}

TEST_F(PacketCounter, ClearingOneCollectionLeavesTheOther) {
  for (int number = 1; number <= 4094; ++number)
    sut->counterVlanIs({VlanIdOrNone(number), 1, 1, 1});
  sut->counterIntfIs({eth1, 1, 2, 3});
  sut->counterIntfIs({eth2, 1, 2, 3});
  sut->counterVlanDelAll();
  EXPECT_FALSE(sut->counterVlanIteratorConst());
  EXPECT_EQ(sut->counterIntf(eth2).rxOther, 3U);
  sut->counterIntfDelAll();
  EXPECT_FALSE(sut->counterIntfIteratorConst());
  sut->counterIntfDelAll();
  sut->counterVlanDelAll();
}

TEST_F(PacketCounter, IteratesOverEveryRecord) {
  sut->counterIntfIs({eth1, 1, 0, 0});
  sut->counterIntfIs({eth2, 2, 0, 0});
  std::vector<CounterIntf> seen;
  for (auto it = sut->counterIntfIteratorConst(); it; ++it)
    seen.push_back(sut->counterIntf(it.key()));
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<CounterIntf>{{eth1, 1, 0, 0}, {eth2, 2, 0, 0}}));
}

TEST_F(PacketCounter, ChangesAreNotToldToNotifiees) {
  class Watcher final : public Ringward::Status::PacketCounter::NotifieeConst {
   public:
    void handleNotification(Vex::AttributeId /*id*/) override { ++told; }
    void onAttribute(Vex::AttributeId /*id*/) override { ++told; }
    void onNotification() override { ++told; }
    void onCollectionNotification() override { ++told; }
    int told = 0;
  };
  const auto watcher = Vex::makePtr<Watcher>();
  watcher->notifierIs(sut);
  watcher->isRegisteredNotifieeIs(true);
  ASSERT_EQ(sut->notifieeCount(), 1U);
  sut->counterIntfIs({eth1, 1, 2, 3});
  sut->counterVlanIs({vlan10, 1, 2, 3});
  sut->counterIntfDelAll();
  sut->counterVlanDelAll();
  EXPECT_EQ(watcher->told, 0);
}

TEST(CounterRecords, CompareFieldByFieldInTheirOrder) {
  const IntfId eth1 = IntfId::fromName("eth1");
  const IntfId eth2 = IntfId::fromName("eth2");
  EXPECT_LT((CounterIntf{eth1, 9, 9, 9}), (CounterIntf{eth2, 0, 0, 0}));
  EXPECT_LT((CounterIntf{eth1, 1, 9, 9}), (CounterIntf{eth1, 2, 0, 0}));
  EXPECT_LT((CounterIntf{eth1, 1, 1, 9}), (CounterIntf{eth1, 1, 2, 0}));
  EXPECT_LT((CounterIntf{eth1, 1, 1, 1}), (CounterIntf{eth1, 1, 1, 2}));
  EXPECT_NE((CounterIntf{eth1, 1, 1, 1}), (CounterIntf{eth1, 1, 1, 2}));
  EXPECT_LT((CounterVlan{VlanIdOrNone(1), 9, 9, 9}), (CounterVlan{VlanIdOrNone(2), 0, 0, 0}));
  EXPECT_LT((CounterVlan{VlanIdOrNone(1), 1, 9, 9}), (CounterVlan{VlanIdOrNone(1), 2, 0, 0}));
  EXPECT_LT((CounterVlan{VlanIdOrNone(1), 1, 1, 9}), (CounterVlan{VlanIdOrNone(1), 1, 2, 0}));
  EXPECT_LT((CounterVlan{VlanIdOrNone(1), 1, 1, 1}), (CounterVlan{VlanIdOrNone(1), 1, 1, 2}));
}

TEST(CounterRecords, OnlyTheDefaultRecordOfAnInterfaceIsNone) {
  EXPECT_TRUE(!CounterIntf());
  EXPECT_FALSE((!CounterIntf{IntfId::fromName("eth1"), 0, 0, 0}));
  EXPECT_FALSE((!CounterIntf{IntfId(), 1, 0, 0}));
  EXPECT_FALSE((!CounterIntf{IntfId(), 0, 1, 0}));
  EXPECT_FALSE((!CounterIntf{IntfId(), 0, 0, 1}));
}

}  // namespace
