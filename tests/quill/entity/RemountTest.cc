// SPDX-License-Identifier: Apache-2.0
//
// A hosted table that fails, and what its guardian can do about it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/quill/entity/Shop.h"

namespace QuillTest {
namespace {

using Contents = VexQuill::HostedTable::Contents;
using Quill::QuillType;

// Puts an empty local table in place of one that failed.
class Guardian final : public VexQuill::TableGuardian {
 public:
  void tableFailed(VexQuill::HostedTable& table, const Sable::Exception& failure) override {
    failures.push_back(failure.msg());
    if (mends) table.remount(true, 10, Contents::dropped);
  }
  void tableInvalid(VexQuill::HostedTable& table) override { invalid.push_back(table.fullName()); }

  bool mends = true;
  std::vector<std::string> failures;
  std::vector<std::string> invalid;
};

class RemountTest : public ShopTest {
 protected:
  void SetUp() override {
    shop_->parentIs(tree_.get());
    sut_.rootIs(root_.path());
  }
  void TearDown() override { shop_->parentIs(nullptr); }

  // The slot of a record as if it were free.
  void damage(const Portus::IntfId& key) {
    bool found = false;
    const auto* const stored = reinterpret_cast<const char*>(&sut_.lookup(key, found));
    ASSERT_TRUE(found);
    auto* const flags = const_cast<char*>(stored) - sizeof(std::uint32_t);
    *flags = static_cast<char>(*flags & ~1);
  }
  std::string damageText(const char* operation) const {
    return "QuillMap::corruptionDetected() " + sut_.rootPath() + " QuillWriter::" + operation +
           "() slot: 0 not marked as occupied";
  }
  // The record as a reader of the files sees it.
  IntfRecord atReader(const Portus::IntfId& key) {
    Quill::QuillMap<Portus::IntfId, IntfRecord, KeyTaker> reader(root_.table("tree/counters/stock"),
                                                                 "stock");
    reader.init(QuillType::reader, false, 0);
    bool found = false;
    return reader.lookup(key, found);
  }
  struct KeyTaker {
    void notify(const Portus::IntfId&) {}
  };

  const Vex::Ptr<Shop> shop_ = newShop("counters");
  Shop::Stock& sut_ = shop_->stock;
  Guardian guardian_;
};

TEST_F(RemountTest, WithoutAGuardianDamageIsRaisedByEveryOperation) {
  sut_.recordIs(intfRecord("eth1", 1));
  damage(eth1);
  using Damage = Quill::CorruptionDetectedException;
  EXPECT_EQ(textOfRaised<Damage>([&] { sut_.record(eth1); }), damageText("lookup"));
  EXPECT_EQ(textOfRaised<Damage>([&] { sut_.find(eth1); }), damageText("lookup"));
  EXPECT_EQ(textOfRaised<Damage>([&] { sut_.recordIs(intfRecord("eth1", 2)); }),
            damageText("find"));
  EXPECT_EQ(textOfRaised<Damage>([&] { sut_.recordDel(eth1); }), damageText("find"));
  EXPECT_THROW(sut_.firstKey(), Damage);
  EXPECT_THROW(sut_.recordDelAll(), Damage);
  EXPECT_THROW(sut_.keyAfter(Portus::IntfId()), Damage);
}

// The slot's place in the queue, which nothing looks at before the record is changed.
TEST_F(RemountTest, DamageThatOnlyARemovalMeetsIsToldOnce) {
  sut_.recordIs(intfRecord("eth1", 1));
  sut_.recordIs(intfRecord("eth2", 2));
  bool found = false;
  const auto* const stored = reinterpret_cast<const char*>(&sut_.lookup(eth1, found));
  ASSERT_TRUE(found);
  const std::uint32_t placeOfEth2 = 1;
  std::memcpy(const_cast<char*>(stored) - 2 * sizeof placeOfEth2, &placeOfEth2, sizeof placeOfEth2);
  EXPECT_EQ(textOfRaised<Quill::CorruptionDetectedException>([&] { sut_.recordDelAll(); }),
            "QuillMap::corruptionDetected() tree/counters/stock ConquerWriter::notify() conquer "
            "slot mismatch, slot:1 index:0");
}

TEST_F(RemountTest, AHandleThatIsNoWriterReadsAsEmptyAfterDamageAndItsChangesEndInNoMansLand) {
  const auto damaged = [&] {
    sut_.controlDetach();
    sut_.init(QuillType::reader, true, 10);
    sut_.recordIs(intfRecord("eth1", 1));
    damage(eth1);
  };
  damaged();
  EXPECT_EQ(sut_.record(eth1), IntfValue{});
  EXPECT_EQ(sut_.members(), 0U);
  damaged();
  EXPECT_EQ(sut_.find(eth1), std::nullopt);
  damaged();
  EXPECT_EQ(sut_.firstKey(), std::nullopt);
  damaged();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut_.recordIs(intfRecord("eth1", 2)); }),
            "QuillMap::safeWrite() in no man's land");
  damaged();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut_.recordDel(eth1); }),
            "QuillMap::safeRemove() in no man's land");
  damaged();
  EXPECT_EQ(textOfRaised<Sable::RuntimeException>([&] { sut_.recordDelAll(); }),
            "QuillMap::safeRemove() in no man's land");
}

TEST_F(RemountTest, AGuardianMendsTheTableAndTheOperationIsDoneOnIt) {
  sut_.guardianIs(&guardian_);
  sut_.recordIs(intfRecord("eth1", 1));
  damage(eth1);
  sut_.recordIs(intfRecord("eth2", 1));
  EXPECT_EQ(guardian_.failures, std::vector<std::string>{});  // another chain
  sut_.recordIs(intfRecord("eth1", 5));
  ASSERT_EQ(guardian_.failures.size(), 1U);
  EXPECT_EQ(guardian_.failures[0],
            "QuillMap::corruptionDetected() tree/counters/stock QuillWriter::find() slot: 0 not "
            "marked as occupied");
  EXPECT_EQ(sut_.record(eth1).tx, 5U);
  EXPECT_EQ(sut_.members(), 1U);
  damage(eth1);
  EXPECT_EQ(sut_.record(eth1), IntfValue{});
  EXPECT_EQ(guardian_.failures.size(), 2U);
}

TEST_F(RemountTest, AnOperationThatFailsAgainUnderAGuardianIsGivenUp) {
  guardian_.mends = false;
  sut_.guardianIs(&guardian_);
  sut_.recordIs(intfRecord("eth1", 1));
  damage(eth1);
  const TraceText traces;
  EXPECT_EQ(sut_.record(eth1), IntfValue{});
  EXPECT_EQ(sut_.find(eth1), std::nullopt);
  sut_.recordIs(intfRecord("eth1", 2));
  EXPECT_EQ(sut_.recordDel(eth1), IntfValue{});
  sut_.recordDelAll();
  EXPECT_EQ(sut_.firstKey(), std::nullopt);
  EXPECT_EQ(guardian_.failures.size(), 6U);
  EXPECT_EQ(traces.count("VexQuillMap::guarded() tree/counters/stock given up: "), 6U);
}

TEST_F(RemountTest, AnOrphanUnderAGuardianGetsATableAgain) {
  sut_.guardianIs(&guardian_);
  shop_->parentIs(nullptr);
  sut_.recordIs(intfRecord("eth1", 1));
  EXPECT_EQ(guardian_.failures, std::vector<std::string>{"write to read-only Quill table"});
  EXPECT_EQ(sut_.record(eth1).tx, 1U);
}

TEST_F(RemountTest, AReportOfAReaderThatACheckBearsOutReachesTheGuardian) {
  sut_.guardianIs(&guardian_);
  sut_.remount(false, 10, Contents::dropped);
  sut_.recordIs(intfRecord("eth1", 1));
  std::ofstream(sut_.rootPath() + "/corruption-detected") << "first report";
  loop_.runFor(0.0);
  EXPECT_TRUE(guardian_.invalid.empty());
  damage(eth1);
  std::ofstream(sut_.rootPath() + "/corruption-detected") << "second report";
  loop_.runFor(0.0);
  EXPECT_EQ(guardian_.invalid, std::vector<std::string>{sut_.rootPath()});
  EXPECT_TRUE(guardian_.failures.empty());
}

TEST_F(RemountTest, AFileThatHasGoneReachesTheGuardian) {
  sut_.guardianIs(&guardian_);
  sut_.remount(false, 10, Contents::dropped);
  std::filesystem::remove(sut_.rootPath() + "/slots");
  loop_.runFor(0.0);
  EXPECT_FALSE(guardian_.invalid.empty());
}

TEST_F(RemountTest, AFileThatCannotBeReadForWantOfADescriptorIsNotHeldAgainstTheTable) {
  sut_.guardianIs(&guardian_);
  sut_.remount(false, 10, Contents::dropped);
  sut_.recordIs(intfRecord("eth1", 1));
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const std::string text =
      textOfRaised<Sable::InvalidInitializeException>([&] { sut_.validateFiles(); });
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(text,
            "FenixFile::read() cannot read " + sut_.rootPath() + "/fenix: Too many open files");
  EXPECT_TRUE(guardian_.invalid.empty());
  EXPECT_TRUE(sut_.validateFiles());
  std::filesystem::remove(sut_.rootPath() + "/fenix");
  EXPECT_THROW(sut_.validateFiles(), Quill::CorruptionDetectedException);
  EXPECT_FALSE(guardian_.invalid.empty());
}

TEST_F(RemountTest, WhatTheHandleHoldsIsCarriedIntoTheNewTableAndBack) {
  sut_.recordIs(intfRecord("eth1", 1));
  sut_.recordIs(intfRecord("eth2", 2));
  sut_.remount(false, 50, Contents::carried);
  EXPECT_EQ(sut_.mountStatus(), 1U);
  EXPECT_EQ(sut_.rootPath(), root_.table("tree/counters/stock"));
  EXPECT_EQ(atReader(eth2), intfRecord("eth2", 2));
  sut_.remount(true, 60, Contents::carried);
  EXPECT_EQ(sut_.maxSize(), 60U);
  EXPECT_EQ(sut_.mountStatus(), 0U);
  EXPECT_EQ(sut_.record(eth1).tx, 1U);
  EXPECT_EQ(sut_.record(eth2).tx, 2U);
}

TEST_F(RemountTest, WhatStoodInTheNewTableIsDroppedOrAdopted) {
  sut_.remount(false, 50, Contents::dropped);
  sut_.recordIs(intfRecord("eth1", 1));
  sut_.remount(true, 50, Contents::dropped);
  EXPECT_EQ(sut_.members(), 0U);
  sut_.recordIs(intfRecord("eth2", 2));
  sut_.remount(false, 50, Contents::adopted);
  EXPECT_EQ(sut_.record(eth1).tx, 1U);
  EXPECT_EQ(sut_.members(), 1U);
  sut_.remount(true, 50, Contents::dropped);
  sut_.recordIs(intfRecord("eth2", 2));
  sut_.remount(false, 50, Contents::carried);
  EXPECT_EQ(sut_.find(eth1), std::nullopt);
  EXPECT_EQ(sut_.record(eth2).tx, 2U);
}

TEST_F(RemountTest, ATableOfAnotherSizeIsRemovedFirst) {
  // Smaller and empty is the case that a writer by itself does not notice.
  sut_.remount(false, 5000, Contents::dropped);
  sut_.remount(false, 50, Contents::adopted);
  const RawFile slots(sut_.rootPath() + "/slots");
  EXPECT_EQ(slots.u32(152), 50U);
  sut_.recordIs(intfRecord("eth1", 1));
  EXPECT_EQ(atReader(eth1).tx, 1U);
  sut_.remount(false, 5000, Contents::adopted);
  EXPECT_EQ(slots.u32(152), 5000U);
  EXPECT_EQ(sut_.members(), 0U);
  sut_.recordIs(intfRecord("eth1", 2));
  EXPECT_EQ(atReader(eth1).tx, 2U);
  EXPECT_TRUE(sut_.validate());
}

TEST_F(RemountTest, ATableThatCannotBeMountedLeavesALocalOneWithWhatWasToBeCarried) {
  const auto other = newShop("counters");
  other->parentIs(tree_.get());
  other->stock.rootIs(root_.path());
  other->stock.remount(false, 50, Contents::dropped);
  other->stock.recordIs(intfRecord("eth1", 9));
  sut_.recordIs(intfRecord("eth1", 1));
  EXPECT_THROW(sut_.remount(false, 50, Contents::carried), Sable::InvalidInitializeException);
  EXPECT_EQ(sut_.mountStatus(), 0U);
  EXPECT_EQ(sut_.record(eth1).tx, 1U);
  EXPECT_EQ(atReader(eth1).tx, 9U);
  EXPECT_THROW(sut_.remount(false, 60, Contents::carried), Sable::Exception);
  EXPECT_EQ(atReader(eth1).tx, 9U);
  other->parentIs(nullptr);
  sut_.remount(false, 50, Contents::carried);
  EXPECT_EQ(atReader(eth1).tx, 1U);
}

TEST_F(RemountTest, ARootThatIsNoPathIsRefusedAndTheTableStaysLocal) {
  sut_.recordIs(intfRecord("eth1", 1));
  sut_.rootIs("here");
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                [&] { sut_.remount(false, 50, Contents::carried); }),
            "table root here: must be an absolute path");
  EXPECT_EQ(sut_.record(eth1).tx, 1U);
}

}  // namespace
}  // namespace QuillTest
