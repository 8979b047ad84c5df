// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/LinkQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/runtime/AllocationCount.h"

namespace {

struct Job {
  std::uint32_t number = 0;
  std::uint32_t hash() const noexcept { return number; }
  bool operator==(const Job&) const = default;
  bool operator<(const Job& other) const { return number < other.number; }
};

using Queue = Vex::LinkQueue<Job>;
using Entry = std::pair<std::uint32_t, std::uint32_t>;  // index, number

std::vector<Entry> entries(const Queue& queue) {
  std::vector<Entry> result;
  for (const auto* at = queue.head(); at != nullptr; at = queue.memberAfter(at->vex_index())) {
    result.emplace_back(at->vex_index(), at->value().number);
  }
  return result;
}
std::vector<std::uint32_t> indexesOf(const Queue& queue, std::uint32_t number) {
  std::vector<std::uint32_t> result;
  for (const auto* at = queue.memberOf({number}); at != nullptr;
       at = queue.memberOf({number}, at->vex_index())) {
    result.push_back(at->vex_index());
  }
  return result;
}

TEST(LinkQueue, StartsEmptyWithBothPositionsAtZero) {
  const Queue sut;
  EXPECT_TRUE(sut.empty());
  EXPECT_EQ(sut.members(), 0U);
  EXPECT_EQ(sut.dequeues(), 0U);
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{0, 0}));
  EXPECT_EQ(sut.head(), nullptr);
  EXPECT_EQ(sut.tail(), nullptr);
}

TEST(LinkQueue, MembersStandInTheOrderOfTheirAppending) {
  Queue sut;
  EXPECT_EQ(sut.enq({30}), 0U);
  EXPECT_EQ(sut.enq({10}), 1U);
  EXPECT_EQ(sut.enq({20}), 2U);
  EXPECT_EQ(entries(sut), (std::vector<Entry>{{0, 30}, {1, 10}, {2, 20}}));
  EXPECT_EQ(sut.head()->value(), Job{30});
  EXPECT_EQ(sut.tail()->value(), Job{20});
  EXPECT_EQ(sut.members(), 3U);
}

TEST(LinkQueue, AnAppendStoresItsIndexAsTheNextIndex) {
  Queue sut;
  sut.enq({1});
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{0, 0}));
  sut.enq({1});
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{0, 1}));
}

TEST(LinkQueue, AnAppendTakesTheStoredNextIndexIfThatIsLarger) {
  Queue sut;
  sut.enq({1});
  sut.metadataIs({0, 100});
  EXPECT_EQ(sut.enq({1}), 100U);
  EXPECT_EQ(sut.enq({1}), 101U);
  sut.metadataIs({0, 50});  // behind the tail: the tail counts
  EXPECT_EQ(sut.enq({1}), 102U);
}

TEST(LinkQueue, AfterEnqueueAndDequeueTheNextMemberTakesTheNextHigherIndex) {
  Queue sut;
  EXPECT_EQ(sut.enq({1}), 0U);
  const auto taken = sut.deq();
  ASSERT_TRUE(taken);
  EXPECT_EQ(taken->vex_index(), 0U);
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{1, 1}));
  EXPECT_EQ(sut.enq({2}), 1U);
  EXPECT_EQ(sut.headIndex(), 1U);
}

TEST(LinkQueue, ADequeueTakesTheHeadAndMovesTheHeadIndexToItsSuccessor) {
  Queue sut;
  for (const std::uint32_t n : {7U, 8U, 9U}) sut.enq({n});
  EXPECT_TRUE(sut.memberDel(1));
  EXPECT_EQ(sut.deq()->value(), Job{7});
  EXPECT_EQ(sut.headIndex(), 2U);
  EXPECT_EQ(sut.nextIndex(), 3U);
  EXPECT_EQ(sut.dequeues(), 1U);
  EXPECT_EQ(sut.deq()->value(), Job{9});
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{3, 3}));
  EXPECT_EQ(sut.dequeues(), 2U);
}

TEST(LinkQueue, DequeueOfAnEmptyQueueGivesNothingAndCountsNothing) {
  Queue sut;
  EXPECT_FALSE(sut.deq());
  EXPECT_EQ(sut.dequeues(), 0U);
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{0, 0}));
}

TEST(LinkQueue, AMemberIsTakenOutWhereverItStands) {
  for (std::uint32_t gone = 0; gone < 4; ++gone) {
    Queue sut;
    std::vector<Entry> left;
    for (std::uint32_t n = 0; n < 4; ++n) {
      sut.enq({n + 10});
      if (n != gone) left.emplace_back(n, n + 10);
    }
    const auto taken = sut.memberDel(gone);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->value(), Job{gone + 10});
    EXPECT_EQ(entries(sut), left);
    EXPECT_EQ(sut.tail()->vex_index(), left.back().first);
    EXPECT_EQ(sut.headIndex(), left.front().first);
    EXPECT_EQ(sut.member(gone), nullptr);
    EXPECT_FALSE(sut.memberDel(gone));
    EXPECT_EQ(sut.dequeues(), 0U);
  }
}

TEST(LinkQueue, AfterRemovalOfTheTailAnAppendStillTakesANewIndex) {
  Queue sut;
  for (std::uint32_t n = 0; n < 3; ++n) sut.enq({n});
  sut.memberDel(2);
  EXPECT_EQ(sut.nextIndex(), 3U);
  EXPECT_EQ(sut.enq({9}), 3U);
  sut.memberDel(3);
  sut.memberDel(1);
  sut.memberDel(0);
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{4, 4}));
  EXPECT_EQ(sut.enq({9}), 4U);
}

TEST(LinkQueue, DoMemberIsUpdatesInPlaceAndSaysWhetherThatIsNews) {
  Queue sut;
  for (std::uint32_t n = 0; n < 3; ++n) sut.enq({n});
  EXPECT_FALSE(sut.doMemberIs(1, {1}));
  EXPECT_TRUE(sut.doMemberIs(1, {77}));
  EXPECT_EQ(entries(sut), (std::vector<Entry>{{0, 0}, {1, 77}, {2, 2}}));
  EXPECT_EQ(sut.memberOf({1}), nullptr);
  ASSERT_NE(sut.memberOf({77}), nullptr);
  EXPECT_EQ(sut.memberOf({77})->vex_index(), 1U);
}

TEST(LinkQueue, DoMemberIsInsertsUnderTheGivenIndex) {
  Queue sut;
  EXPECT_TRUE(sut.doMemberIs(10, {1}));
  EXPECT_EQ(sut.headIndex(), 10U);
  EXPECT_TRUE(sut.doMemberIs(20, {2}));
  EXPECT_TRUE(sut.doMemberIs(15, {3}));
  EXPECT_TRUE(sut.doMemberIs(5, {4}));
  EXPECT_EQ(entries(sut), (std::vector<Entry>{{5, 4}, {10, 1}, {15, 3}, {20, 2}}));
  EXPECT_EQ(sut.headIndex(), 5U);
  EXPECT_EQ(sut.tail()->vex_index(), 20U);
  EXPECT_EQ(sut.enq({6}), 21U);
}

TEST(LinkQueue, MemberNewAppends) {
  Queue sut;
  EXPECT_EQ(sut.memberNew({1}), 0U);
  EXPECT_EQ(sut.memberNew({2}), 1U);
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{0, 1}));
}

TEST(LinkQueue, MemberNewRefusesToRunIntoTheHead) {
  Queue sut;
  sut.metadataIs({8, 8});
  sut.enq({1});
  sut.metadataIs({8, 7});
  try {
    (void)sut.memberNew({2});
    FAIL() << "nothing raised";
  } catch (const Vex::RangeException& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(sut.members(), 1U);
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{8, 7}));
  EXPECT_EQ(sut.enq({2}), 9U);  // the plain append makes no such test
}

TEST(LinkQueue, IndexesGoRoundTheEndOf32Bits) {
  Queue sut;
  sut.metadataIs({0xFFFFFFFE, 0xFFFFFFFE});
  EXPECT_EQ(sut.enq({1}), 0xFFFFFFFEU);
  EXPECT_EQ(sut.enq({2}), 0xFFFFFFFFU);
  EXPECT_EQ(sut.enq({1}), 0U);
  EXPECT_EQ(sut.enq({1}), 1U);
  EXPECT_EQ(indexesOf(sut, 1), (std::vector<std::uint32_t>{0xFFFFFFFE, 0, 1}));
  EXPECT_TRUE(sut.memberDel(0xFFFFFFFF));
  EXPECT_TRUE(sut.doMemberIs(0xFFFFFFFF, {3}));
  EXPECT_EQ(entries(sut), (std::vector<Entry>{{0xFFFFFFFE, 1}, {0xFFFFFFFF, 3}, {0, 1}, {1, 1}}));
  EXPECT_EQ(sut.deq()->value(), Job{1});
  EXPECT_EQ(sut.deq()->value(), Job{3});
  EXPECT_EQ(sut.metadata(), (Vex::LinkQueueMetadata{0, 2}));
  EXPECT_EQ(sut.memberAfter(0xFFFFFFFF)->vex_index(), 0U);  // of an index that is no more
}

TEST(LinkQueue, BehindAnIndexThatIsGoneStandsTheNextMemberThatIsThere) {
  for (const std::uint32_t members : {5U, 3 * Queue::kUnindexed}) {
    SCOPED_TRACE(members);
    Queue sut;
    sut.metadataIs({0, 0xFFFFFFF0});  // goes round within the longer one
    for (std::uint32_t i = 0; i < members; ++i) sut.enq({i});
    const std::uint32_t first = sut.head()->vex_index();
    sut.deq();
    sut.memberDel(first + 2);
    EXPECT_EQ(sut.memberAfter(first), sut.head());
    EXPECT_EQ(sut.memberAfter(first - 100), sut.head());
    EXPECT_EQ(sut.memberAfter(first + 2)->vex_index(), first + 3);
    const std::uint32_t last = sut.tail()->vex_index();
    sut.memberDel(last);
    EXPECT_EQ(sut.memberAfter(last), nullptr);
    EXPECT_EQ(sut.memberAfter(last + 100), nullptr);
  }
}

TEST(LinkQueue, BehindTheTailIsNothingHoweverFarBehindTheHeadIs) {
  // The head's index is larger than those behind the tail in serial-number arithmetic; a walk that
  // asked each member in turn would begin at the head again, for ever.
  Queue sut;
  for (const std::uint32_t index : {0U, 0x60000000U, 0xC0000000U}) sut.doMemberIs(index, {1});
  ASSERT_EQ(sut.tail()->vex_index(), 0xC0000000U);
  EXPECT_EQ(sut.memberAfter(0xC0000000), nullptr);
  EXPECT_EQ(sut.memberAfter(0xC0000001), nullptr);
}

TEST(LinkQueue, AnAppendNeverTakesAnIndexThatIsInUse) {
  // Indexes from outside may lie further apart than half of their space.
  Queue sut;
  sut.doMemberIs(5, {1});
  sut.doMemberIs(0x80000004, {2});
  for (std::uint32_t n = 10; n < 20; ++n) sut.enq({n});
  EXPECT_EQ(sut.members(), 12U);
  std::vector<std::uint32_t> indexes;
  for (const auto& entry : entries(sut)) indexes.push_back(entry.first);
  std::sort(indexes.begin(), indexes.end());
  EXPECT_EQ(std::unique(indexes.begin(), indexes.end()), indexes.end());
  while (sut.deq()) {
  }
  EXPECT_EQ(sut.members(), 0U);
}

TEST(LinkQueue, MembersOfAValueAreFoundOldestFirst) {
  Queue sut;
  for (const std::uint32_t n : {1U, 2U, 1U, 3U, 1U}) sut.enq({n});
  EXPECT_EQ(indexesOf(sut, 1), (std::vector<std::uint32_t>{0, 2, 4}));
  EXPECT_EQ(indexesOf(sut, 2), (std::vector<std::uint32_t>{1}));
  EXPECT_EQ(indexesOf(sut, 9), (std::vector<std::uint32_t>{}));
  EXPECT_EQ(sut.memberOf({1}, 1)->vex_index(), 2U);  // behind an index of another value
  EXPECT_EQ(sut.memberOf({1}, 4), nullptr);
  sut.memberDel(2);
  EXPECT_EQ(indexesOf(sut, 1), (std::vector<std::uint32_t>{0, 4}));
  sut.doMemberIs(1, {1});  // comes in between
  EXPECT_EQ(indexesOf(sut, 1), (std::vector<std::uint32_t>{0, 1, 4}));
  EXPECT_EQ(indexesOf(sut, 2), (std::vector<std::uint32_t>{}));
  sut.deq();
  EXPECT_EQ(indexesOf(sut, 1), (std::vector<std::uint32_t>{1, 4}));
}

TEST(LinkQueue, AMemberOutlivesItsPlace) {
  Queue sut;
  sut.enq({5});
  const auto taken = sut.deq();
  sut.enq({6});
  EXPECT_EQ(taken->value(), Job{5});
  EXPECT_EQ(taken->references(), 1U);
}

// The rules spelt out on a plain list.
struct Model {
  std::deque<Entry> list;
  std::uint32_t head = 0;
  std::uint32_t next = 0;
  static bool later(std::uint32_t a, std::uint32_t b) { return a != b && a - b < 0x80000000U; }
  std::uint32_t following() const {
    if (list.empty()) return next;
    const std::uint32_t behind = list.back().first + 1;
    return later(behind, next) ? behind : next;
  }
  void enq(std::uint32_t number) {
    next = following();
    if (list.empty()) head = next;
    list.emplace_back(next, number);
  }
  bool del(std::uint32_t index) {
    const auto at =
        std::find_if(list.begin(), list.end(), [&](const Entry& e) { return e.first == index; });
    if (at == list.end()) return false;
    next = following();
    list.erase(at);
    head = list.empty() ? next : list.front().first;
    return true;
  }
  void is(std::uint32_t index, std::uint32_t number) {
    auto at = list.begin();
    while (at != list.end() && later(index, at->first)) ++at;
    if (at != list.end() && at->first == index) {
      at->second = number;
    } else {
      list.insert(at, {index, number});
      head = list.front().first;
    }
  }
};

TEST(LinkQueue, BehavesLikeAPlainListUnderRandomOperations) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (const std::uint32_t start : {0U, 0xFFFFFFC0U, 0x7FFFFFC0U}) {
    Queue sut;
    Model model;
    sut.metadataIs({start, start});
    model.head = model.next = start;
    for (int step = 0; step < 5000; ++step) {
      const auto number = static_cast<std::uint32_t>(random() % 6);
      const std::uint32_t near = (model.list.empty() ? model.next : model.list.front().first) +
                                 static_cast<std::uint32_t>(random() % 24);
      switch (random() % 8) {
        case 0:
        case 1:
        case 2:
          model.enq(number);
          ASSERT_EQ(sut.enq({number}), model.next);
          break;
        case 3:
        case 4: {
          const auto taken = sut.deq();
          ASSERT_EQ(static_cast<bool>(taken), !model.list.empty());
          if (taken) {
            ASSERT_EQ(taken->vex_index(), model.list.front().first);
            ASSERT_TRUE(model.del(taken->vex_index()));
          }
          break;
        }
        case 5:
        case 6:
          ASSERT_EQ(static_cast<bool>(sut.memberDel(near)), model.del(near));
          break;
        default:
          model.is(near, number);
          sut.doMemberIs(near, {number});
      }
      ASSERT_EQ(sut.members(), model.list.size());
      ASSERT_EQ(sut.headIndex(), model.head);
      ASSERT_EQ(sut.nextIndex(), model.next);
      ASSERT_EQ(entries(sut), std::vector<Entry>(model.list.begin(), model.list.end()));
      std::vector<std::uint32_t> ofNumber;
      for (const Entry& entry : model.list) {
        if (entry.second == number) ofNumber.push_back(entry.first);
      }
      ASSERT_EQ(indexesOf(sut, number), ofNumber);
    }
  }
}

}  // namespace
