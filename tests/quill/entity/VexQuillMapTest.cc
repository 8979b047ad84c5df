// SPDX-License-Identifier: Apache-2.0
#include "quill/entity/VexQuillMap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "tests/quill/entity/Shop.h"

namespace QuillTest {
namespace {

using Quill::QuillType;

class VexQuillMapTest : public ShopTest {};

TEST_F(VexQuillMapTest, AnEntityThatIsBuiltHasAWorkingPrivateTableUnderItsOwnName) {
  const TraceText traces;
  const auto shop = newShop("counters");
  auto& sut = shop->stock;
  EXPECT_EQ(sut.fullName(), "counters/stock");
  EXPECT_EQ(sut.shortName(), "stock");
  EXPECT_EQ(sut.maxSize(), 100U);
  EXPECT_EQ(sut.mountStatus(), 0U);
  EXPECT_FALSE(sut.initialized());
  EXPECT_TRUE(sut.isLocal());
  EXPECT_EQ(sut.mounter(), nullptr);
  sut.recordIs(intfRecord("eth1", 7));
  EXPECT_EQ(sut.record(eth1), intfRecord("eth1", 7));
  EXPECT_TRUE(traces.has(
      "QuillTemp-stock: VexQuillMap::entity() creating local QuillWriter counters/stock"));
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
}

TEST_F(VexQuillMapTest, ValuesWrittenBeforeTheFirstPlacementAreGoneAfterIt) {
  const auto shop = newShop("counters");
  shop->stock.recordIs(intfRecord("eth1", 7));
  const TraceText traces;
  shop->parentIs(tree_.get());
  EXPECT_EQ(shop->stock.members(), 0U);
  EXPECT_EQ(shop->stock.record(eth1), IntfValue{});
  EXPECT_EQ(shop->stock.fullName(), "tree/counters/stock");
  EXPECT_TRUE(
      traces.has("VexQuillMap::handleParent(): old: counters/stock new: tree/counters/stock"));
  shop->stock.recordIs(intfRecord("eth1", 8));
  EXPECT_EQ(shop->stock.record(eth1).tx, 8U);
  EXPECT_EQ(shop->stock.maxSize(), 100U);
}

TEST_F(VexQuillMapTest, TheNameFollowsTheWholeWayFromTheRootOfTheTree) {
  const auto branch = Vex::makePtr<Tree>("branch");
  branch->parentIs(tree_.get());
  const auto shop = newShop("counters");
  shop->parentIs(branch.get());
  EXPECT_EQ(shop->stock.fullName(), "tree/branch/counters/stock");
  shop->parentIs(nullptr);
  branch->parentIs(nullptr);
}

TEST_F(VexQuillMapTest, AnEntityTakenOutOfTheTreeDetachesAndMayBeInitializedAgain) {
  const auto shop = newShop("counters");
  shop->parentIs(tree_.get());
  shop->stock.rootIs(root_.path());
  shop->stockControl()->init(QuillType::writer, false, 50);
  shop->stock.recordIs(intfRecord("eth1", 7));
  ASSERT_EQ(shop->stock.mountStatus(), 1U);
  const TraceText traces;
  shop->parentIs(nullptr);
  EXPECT_TRUE(traces.has("VexQuillMap::handleParent(): counters/stock is now an orphan"));
  EXPECT_EQ(shop->stock.mountStatus(), 0U);
  EXPECT_EQ(shop->stock.members(), 0U);
  EXPECT_EQ(shop->stock.record(eth1), IntfValue{});
  EXPECT_FALSE(shop->stock.initialized());
  EXPECT_EQ(shop->stock.mounter(), nullptr);
  shop->stockControl()->init(QuillType::writer, true, 10);
  shop->stock.recordIs(intfRecord("eth1", 9));
  EXPECT_EQ(shop->stock.record(eth1).tx, 9U);
}

TEST_F(VexQuillMapTest, ASecondPlacementUnderALivingParentIsRefusedWithTheNameAlreadyChanged) {
  const auto other = Vex::makePtr<Tree>("other");
  const auto shop = newShop("counters");
  shop->parentIs(tree_.get());
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { shop->parentIs(other.get()); }),
            "Entity counters already initialized");
  EXPECT_EQ(shop->stock.fullName(), "other/counters/stock");
  shop->parentIs(nullptr);
}

TEST_F(VexQuillMapTest, APlacementAfterAnOrphanageIsASecondOneToo) {
  const auto shop = newShop("counters");
  shop->parentIs(tree_.get());
  shop->parentIs(nullptr);
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { shop->parentIs(tree_.get()); }),
            "Entity counters already initialized");
  EXPECT_EQ(shop->stock.fullName(), "tree/counters/stock");
  shop->parentIs(nullptr);
}

TEST_F(VexQuillMapTest, APlacementUndoesWhatWasMountedBeforeIt) {
  const auto shop = newShop("counters");
  shop->stock.rootIs(root_.path());
  shop->stockControl()->init(QuillType::writer, false, 50);
  shop->parentIs(tree_.get());
  EXPECT_FALSE(shop->stock.initialized());
  EXPECT_EQ(shop->stock.mounter(), nullptr);
  shop->stock.recordIs(intfRecord("eth1", 1));
  EXPECT_EQ(shop->stock.record(eth1).tx, 1U);
  shop->stockControl()->init(QuillType::writer, false, 50);
  EXPECT_EQ(shop->stock.rootPath(), root_.table("tree/counters/stock"));
}

TEST_F(VexQuillMapTest, TheHeaderNamesTheParentsClassAndTheModelsValue) {
  const auto shop = newShop("counters");
  shop->parentIs(tree_.get());
  shop->stock.rootIs(root_.path());
  shop->stockControl()->init(QuillType::writer, false, 50);
  EXPECT_EQ(shop->stock.classType(), "QuillTest::Shop");
  const RawFile slots(root_.table("tree/counters/stock") + "/slots");
  EXPECT_STREQ(slots.bytes(16, 64).c_str(), "Ringward::Status::CounterIntf");
  EXPECT_STREQ(slots.bytes(80, 64).c_str(), "QuillTest::Shop");
}

TEST_F(VexQuillMapTest, AMapWithoutAnEntityHasNoClass) {
  const Quill::QuillMap<Portus::IntfId, IntfValue, Shop::Stock::Notifier> plain("plain", "plain");
  EXPECT_EQ(plain.classType(), "");
}

TEST_F(VexQuillMapTest, MembershipOfTheGenericAccessIsNotImplemented) {
  const auto shop = newShop("counters");
  EXPECT_EQ(textOfRaised<Sable::UnimplementedException>([&] { shop->stock.isMemberOf(eth1); }),
            "VexQuillMap::isMemberOf() not implemented");
}

TEST_F(VexQuillMapTest, ValidateFilesTellsThatItDelegates) {
  const auto shop = newShop("counters");
  const TraceText traces;
  EXPECT_TRUE(shop->stock.validateFiles());
  EXPECT_TRUE(traces.has("VexQuillMap::validateFiles() delegating to QuillMap::validateFiles"));
}

TEST_F(VexQuillMapTest, TheMemberOfTheParentHearsOfTheKeysThatAShadowLearnsOf) {
  const auto writer = newShop("counters");
  writer->parentIs(tree_.get());
  writer->stock.rootIs(root_.path());
  writer->stockControl()->init(QuillType::writer, false, 50);
  writer->stock.recordIs(intfRecord("eth1", 1));
  const auto reader = newShop("counters");
  reader->parentIs(tree_.get());
  reader->stock.rootIs(root_.path());
  reader->stockControl()->init(QuillType::shadow, false, 0);
  loop_.runFor(0.0);
  EXPECT_EQ(reader->told, std::vector<std::string>{"eth1"});
  writer->stock.recordIs(intfRecord("eth2", 1));
  loop_.runFor(0.0);
  EXPECT_EQ(reader->told, (std::vector<std::string>{"eth1", "eth2"}));
  EXPECT_TRUE(writer->told.empty());
}

TEST_F(VexQuillMapTest, GoesWithATraceAndItsNotifier) {
  auto shop = newShop("counters");
  const TraceText traces;
  shop.reset();
  EXPECT_TRUE(traces.has("VexQuillMap::~VexQuillMap() deleting state"));
  EXPECT_LT(traces.text().find("VexQuillMap::~VexQuillMap()"),
            traces.text().find("QuillMap::~QuillMap() deleting state\n",
                               traces.text().find("VexQuillMap::~VexQuillMap()") + 40));
}

TEST_F(VexQuillMapTest, AWrapperHasTheBytesOfItsValue) {
  EXPECT_EQ(sizeof(IntfValue), 20U);
  EXPECT_EQ(IntfValue{}, (IntfRecord{Portus::IntfId(), 0, 0, 0}));
  const IntfValue value = intfRecord("eth1", 1, 2, 3);
  EXPECT_EQ(Quill::keyOf<Portus::IntfId>(value), eth1);
  std::ostringstream text;
  text << value;
  EXPECT_EQ(text.str(), "eth1: 1, 2, 3");
}

TEST_F(VexQuillMapTest, FindTellsAnAbsentKeyFromARecordOfZeros) {
  const auto shop = newShop("counters");
  EXPECT_EQ(shop->stock.find(eth1), std::nullopt);
  shop->stock.recordIs(intfRecord("eth1", 0));
  ASSERT_TRUE(shop->stock.find(eth1).has_value());
  EXPECT_EQ(*shop->stock.find(eth1), intfRecord("eth1", 0));
}

TEST_F(VexQuillMapTest, AWalkByKeyMeetsEachKeyOnceAlsoWhenItRemovesThem) {
  const auto shop = newShop("counters");
  auto& sut = shop->stock;
  EXPECT_EQ(sut.firstKey(), std::nullopt);
  for (int i = 0; i < 70; ++i) sut.recordIs(intfRecord("eth" + std::to_string(i), 1));
  std::map<std::string, int> seen;
  for (auto key = sut.firstKey(); key; key = sut.keyAfter(*key)) {
    ++seen[key->name()];
    if (seen.size() % 2 == 0) sut.recordDel(*key);
  }
  EXPECT_EQ(seen.size(), 70U);
  for (const auto& [name, times] : seen) EXPECT_EQ(times, 1) << name;
  EXPECT_EQ(sut.members(), 35U);
  unsigned left = 0;
  for (auto it = sut.iteratorConst(); it; ++it) {
    EXPECT_EQ(it.value().tx, 1U);
    sut.recordDel(it.key());
    ++left;
  }
  EXPECT_EQ(left, 35U);
  EXPECT_EQ(sut.members(), 0U);
}

}  // namespace
}  // namespace QuillTest
