// SPDX-License-Identifier: Apache-2.0
//
// The counters as tables that other processes read, and what happens to damaged ones.
#include <gtest/gtest.h>

#include <filesystem>

#include "model/status/PacketCounter.h"
#include "quill/QuillMap.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/TestTable.h"

namespace {

using Bridging::VlanIdOrNone;
using Portus::IntfId;
using Quill::QuillType;
using QuillTest::textOfRaised;
using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;

struct Keys {
  template <class Key>
  void notify(const Key&) {}
};
template <class Key, class Record>
using Reader = Quill::QuillMap<Key, Record, Keys>;

class Root final : public Vex::EntityOf<Root> {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  static constexpr std::span<const Vex::AttributeInfo> kAttributes{};
  Root() : EntityOf("ringward") {}
};

class PacketCounterTable : public QuillTest::TableTest {
 protected:
  void SetUp() override {
    sut->parentIs(tree.get());
    sut->tableRootIs(root_.path());
  }
  void TearDown() override { sut->parentIs(nullptr); }

  void share() {
    sut->counterIntfControl()->init(QuillType::writer, false, 64);
    sut->counterVlanControl()->init(QuillType::writer, false, 64);
  }
  template <class Table, class Key>
  static void damage(const Table& table, const Key& key) {
    bool found = false;
    const auto* const stored = reinterpret_cast<const char*>(&table.lookup(key, found));
    ASSERT_TRUE(found);
    auto* const flags = const_cast<char*>(stored) - sizeof(std::uint32_t);
    *flags = static_cast<char>(*flags & ~1);
  }

  const Vex::Ptr<Root> tree = Vex::makePtr<Root>();
  const Vex::Ptr<Ringward::Status::PacketCounter> sut =
      Ringward::Status::packetCounterFactory("packetCounter");
  const IntfId eth1 = IntfId::fromName("eth1");
  const VlanIdOrNone vlan10{10};
};

TEST_F(PacketCounterTable, AreLocalUntilAControlMountsThem) {
  sut->counterIntfIs({eth1, 1, 0, 0});
  EXPECT_EQ(sut->counterIntfControl()->mountStatus(), 0U);
  EXPECT_EQ(sut->counterVlanControl()->maxSize(), 100U);
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
}

TEST_F(PacketCounterTable, LieUnderTheNamesOfTheEntityTree) {
  share();
  EXPECT_EQ(sut->counterIntfControl()->rootPath(),
            root_.path() + "/ringward:packetCounter:counterIntf");
  EXPECT_EQ(sut->counterVlanControl()->rootPath(),
            root_.path() + "/ringward:packetCounter:counterVlan");
  EXPECT_EQ(sut->counterVlanControl()->quillName(), "ringward/packetCounter/counterVlan");
  const QuillTest::RawFile slots(sut->counterVlanControl()->rootPath() + "/slots");
  EXPECT_STREQ(slots.bytes(16, 64).c_str(), "Ringward::Status::CounterVlan");
  EXPECT_STREQ(slots.bytes(80, 64).c_str(), "Ringward::Status::PacketCounter");
}

TEST_F(PacketCounterTable, AreReadByOthersWhoSeeEveryRecordGoWithAClear) {
  share();
  Reader<IntfId, CounterIntf> intfs(sut->counterIntfControl()->rootPath(), "counterIntf");
  Reader<VlanIdOrNone, CounterVlan> vlans(sut->counterVlanControl()->rootPath(), "counterVlan");
  intfs.init(QuillType::reader, false, 0);
  vlans.init(QuillType::reader, false, 0);
  sut->counterIntfIs({eth1, 1, 2, 3});
  for (int number = 0; number <= 90; ++number) sut->counterVlanIs({VlanIdOrNone(number), 4, 5, 6});
  bool found = false;
  EXPECT_EQ(intfs.lookup(eth1, found), (CounterIntf{eth1, 1, 2, 3}));
  EXPECT_EQ(vlans.lookup(vlan10, found), (CounterVlan{vlan10, 4, 5, 6}));
  EXPECT_EQ(vlans.members(), 91U);
  sut->counterVlanDelAll();
  sut->counterIntfDelAll();
  EXPECT_EQ(vlans.members(), 0U);
  EXPECT_EQ(intfs.members(), 0U);
  EXPECT_EQ(intfs.lookup(eth1, found), CounterIntf());
  EXPECT_FALSE(found);
  CounterVlan none;
  Quill::IterHint hint;
  EXPECT_FALSE(vlans.first(none, hint));
}

TEST_F(PacketCounterTable, ARecordIsRemovedWhereAWalkStands) {
  sut->counterIntfIs({eth1, 1, 2, 3});
  sut->counterVlanIs({vlan10, 4, 5, 6});
  auto intf = sut->counterIntfIteratorConst();
  EXPECT_EQ(sut->counterIntfDel(intf), (CounterIntf{eth1, 1, 2, 3}));
  EXPECT_FALSE(++intf);
  const auto vlan = sut->counterVlanIteratorConst();
  EXPECT_EQ(sut->counterVlanDel(vlan), (CounterVlan{vlan10, 4, 5, 6}));
  EXPECT_EQ(sut->counterVlanMap().members(), 0U);
}

TEST_F(PacketCounterTable, ARecordWrittenInPlaceCountsFromItsCommit) {
  share();
  const auto target = sut->counterIntfMap().directWrite(eth1);
  const CounterIntf value{eth1, 7, 8, 9};
  Mem::Atomics::copyIn(target.address, &value, sizeof value);
  EXPECT_EQ(sut->counterIntf(eth1), CounterIntf());
  sut->counterIntfCommit(static_cast<const CounterIntf*>(target.address));
  EXPECT_EQ(sut->counterIntf(eth1), value);
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->counterVlanCommit(nullptr); }),
            "QuillWriter::directCommit() no direct write is open");
}

TEST_F(PacketCounterTable, DamageGoesToCorruptionDetectedWhichRaisesForTheWriter) {
  sut->counterIntfIs({eth1, 1, 2, 3});
  sut->counterVlanIs({vlan10, 1, 2, 3});
  damage(sut->counterIntfMap(), eth1);
  damage(sut->counterVlanMap(), vlan10);
  using Damage = Quill::CorruptionDetectedException;
  const std::string intf = "QuillMap::corruptionDetected() ringward/packetCounter/counterIntf ";
  const std::string vlan = "QuillMap::corruptionDetected() ringward/packetCounter/counterVlan ";
  const std::string lookup = "QuillWriter::lookup() slot: 0 not marked as occupied";
  const std::string find = "QuillWriter::find() slot: 0 not marked as occupied";
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->counterIntf(eth1); }), intf + lookup);
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->counterVlan(vlan10); }), vlan + lookup);
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->counterIntfIs({eth1, 0, 0, 0}); }), intf + find);
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->counterVlanIs({vlan10, 0, 0, 0}); }), vlan + find);
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->counterIntfDel(eth1); }), intf + find);
  EXPECT_EQ(textOfRaised<Damage>([&] { sut->counterVlanDel(vlan10); }), vlan + find);
  EXPECT_THROW(sut->counterIntfDelAll(), Damage);
  EXPECT_THROW(sut->counterVlanDelAll(), Damage);
}

TEST_F(PacketCounterTable, WhereCorruptionDetectedReturnsAReadIsZeroAndAChangeIsInNoMansLand) {
  const auto damaged = [&] {
    sut->counterVlanControl()->controlDetach();
    sut->counterVlanControl()->init(QuillType::reader, true, 10);
    sut->counterVlanIs({vlan10, 1, 2, 3});
    damage(sut->counterVlanMap(), vlan10);
  };
  damaged();
  EXPECT_EQ(sut->counterVlan(vlan10), CounterVlan());
  damaged();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] {
              sut->counterVlanIs({vlan10, 1, 1, 1});
            }),
            "QuillMap::safeWrite() in no man's land");
  damaged();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut->counterVlanDel(vlan10); }),
            "QuillMap::safeRemove() in no man's land");
}

TEST_F(PacketCounterTable, AnInterfacesRecordIsNoneOnlyAsTheDefaultOne) {
  EXPECT_EQ(sut->counterIntfMap().find(eth1), std::nullopt);
  sut->counterIntfIs({eth1, 0, 0, 0});
  EXPECT_TRUE(sut->counterIntfMap().find(eth1).has_value());
  EXPECT_EQ(sut->counterIntfMap().firstKey(), eth1);
  EXPECT_EQ(sut->counterIntfMap().keyAfter(eth1), std::nullopt);
}

}  // namespace
