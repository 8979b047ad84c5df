// SPDX-License-Identifier: Apache-2.0
#include "model/status/TransmitStatus.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "runtime/vex/Exception.h"

namespace {

using Ringward::Status::IntfAndVlan;
using Strings = std::vector<std::string>;
using Metadata = Vex::LinkQueueMetadata;

IntfAndVlan pairOf(int vlan, const char* name = "eth1") {
  return {Portus::IntfId::fromName(name), Bridging::VlanId(vlan)};
}

class Watcher final : public Ringward::Status::TransmitStatus::NotifieeConst {
 public:
  using NotifieeConst::onHighPriority;
  using NotifieeConst::onRegularPriority;
  void onHighPriorityMetadata() override { seen.push_back("high metadata"); }
  void onHighPriority(std::uint32_t index) override {
    seen.push_back("high " + std::to_string(index));
  }
  void onRegularPriorityMetadata() override { seen.push_back("regular metadata"); }
  void onRegularPriority(std::uint32_t index) override {
    seen.push_back("regular " + std::to_string(index));
  }
  Strings seen;
};

class TransmitStatus : public testing::Test {
 protected:
  TransmitStatus() {
    watcher->notifierIs(sut);
    watcher->isRegisteredNotifieeIs(true);
  }
  ~TransmitStatus() override { watcher->isRegisteredNotifieeIs(false); }
  Metadata high() const { return sut->highPriorityMetadata(); }
  // Indices and VLANs in queue order.
  std::vector<std::pair<std::uint32_t, int>> content() const {
    std::vector<std::pair<std::uint32_t, int>> result;
    const auto& queue = sut->highPriority();
    for (const auto* m = queue.head(); m != nullptr; m = queue.memberAfter(m->vex_index())) {
      result.emplace_back(m->vex_index(), m->value().vlanId.value());
    }
    return result;
  }
  using Content = std::vector<std::pair<std::uint32_t, int>>;

  Vex::Ptr<Ringward::Status::TransmitStatus> sut =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  Vex::Ptr<Watcher> watcher = Vex::makePtr<Watcher>();
};

TEST_F(TransmitStatus, AFreshOneIsEmptyAndAtIndexZero) {
  EXPECT_EQ(sut->name(), "transmitStatus");
  EXPECT_TRUE(sut->highPriority().empty());
  EXPECT_TRUE(sut->regularPriority().empty());
  EXPECT_EQ(high(), (Metadata{0, 0}));
  EXPECT_EQ(sut->regularPriorityMetadata(), (Metadata{0, 0}));
}

TEST_F(TransmitStatus, AppendsTakeGrowingIndicesAndTellOfThem) {
  for (const int v : {10, 11, 12}) sut->highPriorityEnq(pairOf(v));
  sut->regularPriorityEnq(pairOf(13));
  EXPECT_EQ(content(), (Content{{0, 10}, {1, 11}, {2, 12}}));
  EXPECT_EQ(watcher->seen, (Strings{"high 0", "high 1", "high 2", "regular 0"}));
}

TEST_F(TransmitStatus, MetadataFollowTheRuleAfterEachOperation) {
  sut->highPriorityEnq(pairOf(10));
  EXPECT_EQ(high(), (Metadata{0, 0}));  // the append stores the index that it took
  sut->highPriorityEnq(pairOf(11));
  EXPECT_EQ(high(), (Metadata{0, 1}));
  sut->highPriorityEnq(pairOf(12));
  EXPECT_EQ(high(), (Metadata{0, 2}));
  sut->highPriorityDeq();
  EXPECT_EQ(high(), (Metadata{1, 3}));  // a removal brings it up
  sut->highPriorityDeq();
  sut->highPriorityDeq();
  EXPECT_EQ(high(), (Metadata{3, 3}));  // empty: head and next agree
  sut->highPriorityEnq(pairOf(13));
  EXPECT_EQ(high(), (Metadata{3, 3}));
  sut->highPriorityEnq(pairOf(14));
  EXPECT_EQ(high(), (Metadata{3, 4}));
}

TEST_F(TransmitStatus, EnqueueDequeueEnqueueTakesTheNextHigherIndex) {
  sut->highPriorityEnq(pairOf(10));
  sut->highPriorityDeq();
  sut->highPriorityEnq(pairOf(11));
  EXPECT_EQ(content(), (Content{{1, 11}}));
}

TEST_F(TransmitStatus, DequeueTakesTheHeadAndTellsOfItsIndexWithTheMemberGone) {
  sut->highPriorityEnq(pairOf(10));
  sut->highPriorityEnq(pairOf(11));
  watcher->seen.clear();
  EXPECT_EQ(sut->highPriorityDeq(), pairOf(10));
  EXPECT_EQ(watcher->seen, Strings{"high 0"});
  EXPECT_EQ(sut->highPriority().member(0), nullptr);
  EXPECT_EQ(sut->highPriority().dequeues(), 1U);
}

TEST_F(TransmitStatus, DequeueOfAnEmptyQueueGivesNoInterfaceAndNoVlanAndTellsNobody) {
  const IntfAndVlan value = sut->regularPriorityDeq();
  EXPECT_FALSE(value.intfId);
  EXPECT_FALSE(value.vlanId);
  EXPECT_EQ(sut->highPriorityDeq(), IntfAndVlan());
  EXPECT_TRUE(watcher->seen.empty());
  EXPECT_EQ(sut->regularPriorityMetadata(), (Metadata{0, 0}));
  EXPECT_FALSE(sut->highPriorityDeqBegin());
  EXPECT_FALSE(sut->regularPriorityDeqBegin());
}

TEST_F(TransmitStatus, AfterDeletingTheTailAnAppendTakesAnIndexAboveAllUsed) {
  for (const int v : {10, 11, 12}) sut->highPriorityEnq(pairOf(v));
  sut->highPriorityDel(2);
  EXPECT_EQ(high(), (Metadata{0, 3}));
  sut->highPriorityEnq(pairOf(13));
  EXPECT_EQ(content(), (Content{{0, 10}, {1, 11}, {3, 13}}));
  sut->highPriorityDel(0);
  sut->highPriorityDel(1);
  sut->highPriorityDel(3);
  sut->highPriorityEnq(pairOf(14));
  EXPECT_EQ(content(), (Content{{4, 14}}));
}

TEST_F(TransmitStatus, AMemberIsDeletedWhereverItStandsAndAnAbsentIndexIsSilent) {
  for (const int v : {10, 11, 12, 13}) sut->highPriorityEnq(pairOf(v));
  watcher->seen.clear();
  sut->highPriorityDel(1);
  sut->highPriorityDel(1);
  sut->highPriorityDel(77);
  EXPECT_EQ(watcher->seen, Strings{"high 1"});
  EXPECT_EQ(content(), (Content{{0, 10}, {2, 12}, {3, 13}}));
  sut->highPriorityDel(0);
  EXPECT_EQ(high(), (Metadata{2, 4}));
  EXPECT_EQ(sut->highPriority().members(), 2U);
}

TEST_F(TransmitStatus, DelAllEmptiesAndTellsOfEachIndexInOrder) {
  for (const int v : {10, 11, 12}) {
    sut->highPriorityEnq(pairOf(v));
    sut->regularPriorityEnq(pairOf(v));
  }
  watcher->seen.clear();
  sut->highPriorityDelAll();
  sut->regularPriorityDelAll();
  EXPECT_EQ(watcher->seen,
            (Strings{"high 0", "high 1", "high 2", "regular 0", "regular 1", "regular 2"}));
  EXPECT_EQ(high(), (Metadata{3, 3}));
}

TEST_F(TransmitStatus, AMemberIsInsertedUnderItsIndexInOrderOrUpdatedInPlace) {
  sut->highPriorityIs(5, pairOf(15));
  sut->highPriorityIs(3, pairOf(13));
  sut->highPriorityIs(4, pairOf(14));
  sut->highPriorityIs(4, pairOf(14));
  sut->highPriorityIs(3, pairOf(23));
  EXPECT_EQ(content(), (Content{{3, 23}, {4, 14}, {5, 15}}));
  EXPECT_EQ(watcher->seen, (Strings{"high 5", "high 3", "high 4", "high 3"}));
  EXPECT_EQ(sut->highPriority().headIndex(), 3U);
  EXPECT_EQ(sut->highPriority().memberOf(pairOf(13)), nullptr);
  ASSERT_NE(sut->highPriority().memberOf(pairOf(23)), nullptr);
  sut->highPriorityEnq(pairOf(16));
  EXPECT_EQ(sut->highPriority().tail()->vex_index(), 6U);
}

TEST_F(TransmitStatus, MetadataAreToldOfOnChangesOnlyAndAppendsFollowThem) {
  sut->highPriorityMetadataIs({0, 0});
  EXPECT_TRUE(watcher->seen.empty());
  sut->highPriorityMetadataIs({100, 100});
  sut->highPriorityMetadataIs({100, 100});
  sut->regularPriorityMetadataIs({7, 7});
  EXPECT_EQ(watcher->seen, (Strings{"high metadata", "regular metadata"}));
  sut->highPriorityEnq(pairOf(10));
  EXPECT_EQ(content(), (Content{{100, 10}}));
}

TEST_F(TransmitStatus, IndicesGoRoundAtThirtyTwoBits) {
  sut->highPriorityMetadataIs({0xFFFFFFFE, 0xFFFFFFFE});
  for (const int v : {10, 11, 12, 13}) sut->highPriorityEnq(pairOf(v));
  EXPECT_EQ(content(), (Content{{0xFFFFFFFE, 10}, {0xFFFFFFFF, 11}, {0, 12}, {1, 13}}));
  EXPECT_EQ(sut->highPriorityDeq(), pairOf(10));
  EXPECT_EQ(sut->highPriorityDeq(), pairOf(11));
  EXPECT_EQ(high(), (Metadata{0, 2}));
  sut->highPriorityDel(1);
  sut->highPriorityEnq(pairOf(14));
  EXPECT_EQ(content(), (Content{{0, 12}, {2, 14}}));
}

TEST_F(TransmitStatus, ThePairsRequestsGoFromBothQueuesAcrossTheWrap) {
  sut->regularPriorityMetadataIs({0xFFFFFFFF, 0xFFFFFFFF});
  for (const int v : {10, 11, 10, 10}) sut->regularPriorityEnq(pairOf(v));
  sut->highPriorityEnq(pairOf(10));
  watcher->seen.clear();
  sut->pairDel(pairOf(10));
  EXPECT_EQ(watcher->seen, (Strings{"high 0", "regular 4294967295", "regular 1", "regular 2"}));
  EXPECT_EQ(sut->regularPriority().members(), 1U);
}

TEST_F(TransmitStatus, ThePairIsInterfaceAndVlanTogether) {
  sut->regularPriorityEnq(pairOf(10, "eth1"));
  sut->regularPriorityEnq(pairOf(10, "eth2"));
  sut->regularPriorityEnq(pairOf(11, "eth1"));
  sut->pairDel(pairOf(10, "eth1"));
  EXPECT_EQ(sut->regularPriority().members(), 2U);
  EXPECT_NE(pairOf(10, "eth1"), pairOf(10, "eth2"));
  EXPECT_NE(pairOf(10, "eth1"), pairOf(11, "eth1"));
}

TEST_F(TransmitStatus, ADequeueInPiecesTellsTheSameAsOneInOneCall) {
  sut->highPriorityEnq(pairOf(10));
  const auto second = Vex::makePtr<Watcher>();
  const auto third = Vex::makePtr<Watcher>();
  for (const auto& w : {second, third}) {
    w->notifierIs(sut);
    w->isRegisteredNotifieeIs(true);
  }
  watcher->seen.clear();
  auto begun = sut->highPriorityDeqBegin();
  ASSERT_TRUE(begun);
  EXPECT_EQ(begun->value, pairOf(10));
  EXPECT_TRUE(sut->highPriority().empty());
  EXPECT_TRUE(watcher->seen.empty());
  EXPECT_TRUE(begun->notification.tellUntil(*second));
  EXPECT_EQ(watcher->seen, Strings{"high 0"});
  EXPECT_TRUE(second->seen.empty());
  third->isRegisteredNotifieeIs(false);  // in the snapshot all the same
  begun->notification.tellRest();
  EXPECT_TRUE(second->seen.empty());
  EXPECT_EQ(third->seen, Strings{"high 0"});
  EXPECT_EQ(watcher->seen.size(), 1U);
  second->isRegisteredNotifieeIs(false);
}

TEST_F(TransmitStatus, AMatchCostsNothingForTheRequestsOfOthers) {
  // Counted by the value's own comparisons: a queue of a value type that counts them.
  struct Counting {
    std::uint32_t pair = 0;
    static std::uint64_t& comparisons() {
      static std::uint64_t count = 0;
      return count;
    }
    bool operator==(const Counting& other) const {
      ++comparisons();
      return pair == other.pair;
    }
    bool operator<(const Counting& other) const {
      ++comparisons();
      return pair < other.pair;
    }
    std::uint32_t hash() const { return pair * 0x9E3779B1U; }
  };
  Vex::LinkQueue<Counting> queue;
  constexpr std::uint32_t kOthers = 500'000;
  for (std::uint32_t i = 0; i < kOthers; ++i) {
    queue.enq({i});
    if (i % 100'000 == 50'000) queue.enq({kOthers + 1});
  }
  Counting::comparisons() = 0;
  std::uint32_t removed = 0;
  while (const auto* match = queue.memberOf({kOthers + 1})) {
    queue.memberDel(match->vex_index());
    ++removed;
  }
  EXPECT_EQ(removed, 5U);
  EXPECT_EQ(queue.members(), kOthers);
  // A hash look-up compares a handful of keys of its chain.
  EXPECT_LT(Counting::comparisons(), 200U);
}

TEST_F(TransmitStatus, RemovingAPairAmongHalfAMillionOthersTellsOfItsMatchesOnly) {
  constexpr std::uint32_t kOthers = 500'000;
  for (std::uint32_t i = 0; i < kOthers; ++i) {
    const Portus::IntfId intfId = Portus::IntfId::fromValue(0x2080000000000000U + i / 4000);
    sut->regularPriorityEnq({intfId, Bridging::VlanId(i % 4000 + 1)});
  }
  for (int i = 0; i < 3; ++i) sut->regularPriorityEnq(pairOf(4094));
  watcher->seen.clear();
  sut->pairDel(pairOf(4094));
  EXPECT_EQ(watcher->seen, (Strings{"regular 500000", "regular 500001", "regular 500002"}));
  EXPECT_EQ(sut->regularPriority().members(), kOthers);
}

TEST_F(TransmitStatus, TheGenericAppendRefusesToRunIntoTheHead) {
  Vex::LinkQueue<IntfAndVlan> queue;
  queue.doMemberIs(10, pairOf(10));
  queue.metadataIs({10, 9});
  try {
    queue.memberNew(pairOf(11));
    FAIL();
  } catch (const Vex::RangeException& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(queue.enq(pairOf(11)), 11U);  // the plain append makes no such test
}

TEST_F(TransmitStatus, AttributesHaveTheirNumbersAndNames) {
  const Strings names{"highPriorityMetadata", "highPriority", "regularPriorityMetadata",
                      "regularPriority", "unknown"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(sut->attributeString(static_cast<Vex::AttributeId>(258 + i)), names[i]);
  }
}

TEST_F(TransmitStatus, ARequestIsShownWithBothItsFields) {
  std::ostringstream os;
  os << pairOf(10);
  EXPECT_EQ(os.str(), "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})");
}

}  // namespace
