// SPDX-License-Identifier: Apache-2.0
//
// The list of notifiees by itself, with and without walks that hold it.
#include "runtime/vex/ListRaw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "runtime/vex/PtrInterface.h"
#include "tests/runtime/AllocationCount.h"

namespace {

using Vex::makePtr;
using Vex::Ptr;

class Node final : public Vex::VFPtrInterface {
 public:
  explicit Node(int n = 0) : number(n) {}
  void vexListPositionIs(std::uint32_t position) noexcept { position_ = position; }
  std::uint32_t vexListPosition() const noexcept { return position_; }
  const int number;

 private:
  std::uint32_t position_ = 0;
};

using List = Vex::ListRaw<Node>;
using Walk = Vex::SnapshotIterator<Node>;

std::vector<int> rest(Walk& walk) {
  std::vector<int> numbers;
  while (const Node* node = walk.next()) numbers.push_back(node->number);
  return numbers;
}
std::vector<int> all(const List& list) {
  Walk walk(list);
  return rest(walk);
}

class ListRawTest : public testing::Test {
 protected:
  ListRawTest() {
    for (int i = 0; i < 40; ++i) node.push_back(makePtr<Node>(i));
  }
  std::vector<Ptr<Node>> node;  // outlives the list
  List sut;
};

TEST_F(ListRawTest, StartsEmpty) {
  EXPECT_EQ(sut.count(), 0U);
  EXPECT_EQ(all(sut), std::vector<int>{});
}

TEST_F(ListRawTest, TailAppendsAndHeadComesFirst) {
  sut.tailIs(*node[1]);
  sut.tailIs(*node[2]);
  sut.headIs(*node[3]);
  sut.headIs(*node[4]);
  sut.tailIs(*node[5]);
  EXPECT_EQ(all(sut), (std::vector<int>{4, 3, 1, 2, 5}));
  EXPECT_EQ(sut.count(), 5U);
}

TEST_F(ListRawTest, EveryChangeCountsAVersion) {
  sut.tailIs(*node[1]);
  EXPECT_EQ(sut.version(), 1U);
  sut.headIs(*node[2]);
  EXPECT_EQ(sut.version(), 2U);
  sut.memberDel(*node[1]);
  EXPECT_EQ(sut.version(), 3U);
  (void)all(sut);
  EXPECT_EQ(sut.version(), 3U);
}

TEST_F(ListRawTest, RemovalKeepsTheOrderOfTheOthers) {
  for (int i = 0; i < 40; ++i) sut.tailIs(*node[static_cast<std::size_t>(i)]);
  std::vector<int> left;
  for (int i = 0; i < 40; ++i) {
    if (i % 4 == 0) {
      left.push_back(i);
    } else {
      sut.memberDel(*node[static_cast<std::size_t>(i)]);
    }
  }
  EXPECT_EQ(all(sut), left);
  sut.memberDel(*node[36]);  // positions are right after the holes were closed
  sut.memberDel(*node[0]);
  EXPECT_EQ(all(sut), (std::vector<int>{4, 8, 12, 16, 20, 24, 28, 32}));
}

TEST_F(ListRawTest, TheListHoldsNoReferences) {
  sut.tailIs(*node[1]);
  EXPECT_EQ(node[1]->references(), 1U);
  sut.memberDel(*node[1]);
  EXPECT_EQ(node[1]->references(), 1U);
}

TEST_F(ListRawTest, AWalkSeesTheListOfItsBeginning) {
  for (const std::size_t i : {1U, 2U, 3U}) sut.tailIs(*node[i]);
  Walk walk(sut);
  EXPECT_EQ(walk.next()->number, 1);
  sut.memberDel(*node[2]);
  sut.tailIs(*node[4]);
  sut.headIs(*node[5]);
  EXPECT_EQ(rest(walk), (std::vector<int>{2, 3}));
  EXPECT_EQ(walk.next(), nullptr);
  EXPECT_EQ(all(sut), (std::vector<int>{5, 1, 3, 4}));
}

TEST_F(ListRawTest, AMemberThatLeavesDuringAWalkLivesUntilItsEnd) {
  sut.tailIs(*node[1]);
  sut.tailIs(*node[2]);
  {
    Walk walk(sut);
    EXPECT_EQ(node[2]->references(), 1U);  // nothing is held before it is needed
    sut.memberDel(*node[2]);
    EXPECT_EQ(node[2]->references(), 2U);
    EXPECT_EQ(node[1]->references(), 2U);
    EXPECT_EQ(rest(walk), (std::vector<int>{1, 2}));
    EXPECT_EQ(node[2]->references(), 2U);
  }
  EXPECT_EQ(node[2]->references(), 1U);
  EXPECT_EQ(node[1]->references(), 1U);
}

TEST_F(ListRawTest, WalksNestAndEachKeepsItsOwnView) {
  for (const std::size_t i : {1U, 2U, 3U}) sut.tailIs(*node[i]);
  Walk first(sut);
  Walk alsoFirst(sut);
  sut.memberDel(*node[1]);
  Walk second(sut);
  sut.memberDel(*node[2]);
  Walk third(sut);
  sut.tailIs(*node[1]);
  EXPECT_EQ(rest(first), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(rest(alsoFirst), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(rest(second), (std::vector<int>{2, 3}));
  EXPECT_EQ(rest(third), (std::vector<int>{3}));
  EXPECT_EQ(all(sut), (std::vector<int>{3, 1}));
}

TEST_F(ListRawTest, AWalkMayMove) {
  for (const std::size_t i : {1U, 2U, 3U}) sut.tailIs(*node[i]);
  Walk walk(sut);
  (void)walk.next();
  Walk moved(std::move(walk));
  EXPECT_EQ(walk.next(), nullptr);  // NOLINT(bugprone-use-after-move): that it is over is the rule
  sut.memberDel(*node[3]);
  Walk target(sut);
  target = std::move(moved);
  EXPECT_EQ(rest(target), (std::vector<int>{2, 3}));
}

TEST_F(ListRawTest, AWalkOutlivesItsList) {
  auto list = std::make_unique<List>();
  list->tailIs(*node[1]);
  list->tailIs(*node[2]);
  Walk walk(*list);
  list.reset();
  EXPECT_EQ(rest(walk), (std::vector<int>{1, 2}));
}

TEST_F(ListRawTest, AWalkOfAListThatNobodyChangesAllocatesNothing) {
  for (const std::size_t i : {1U, 2U, 3U}) sut.tailIs(*node[i]);
  const AllocationCount allocations;
  int sum = 0;
  for (Walk walk(sut); const Node* member = walk.next();) sum += member->number;
  EXPECT_EQ(allocations.sinceThen(), 0U);
  EXPECT_EQ(sum, 6);
}

// Any sequence of changes with any number of walks open gives what a copied list gives.
TEST_F(ListRawTest, BehavesLikeACopiedListUnderRandomChanges) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<int> model;
  struct Open {
    Walk walk;
    std::vector<int> expected;
    std::size_t at = 0;
  };
  std::vector<Open> open;
  for (int step = 0; step < 20000; ++step) {
    const auto which = static_cast<int>(random() % node.size());
    Node& member = *node[static_cast<std::size_t>(which)];
    const auto at = std::find(model.begin(), model.end(), which);
    switch (random() % 6) {
      case 0:
      case 1:
        if (at != model.end()) {
          model.erase(at);
          sut.memberDel(member);
        } else if (random() % 4 == 0) {
          model.insert(model.begin(), which);
          sut.headIs(member);
        } else {
          model.push_back(which);
          sut.tailIs(member);
        }
        break;
      case 2:
        if (open.size() < 5) open.push_back({Walk(sut), model, 0});
        break;
      case 3:
        if (!open.empty()) open.erase(open.begin() + static_cast<long>(random() % open.size()));
        break;
      default:
        if (!open.empty()) {
          Open& one = open[random() % open.size()];
          const Node* got = one.walk.next();
          if (one.at == one.expected.size()) {
            ASSERT_EQ(got, nullptr);
          } else {
            ASSERT_NE(got, nullptr);
            ASSERT_EQ(got->number, one.expected[one.at++]);
          }
        }
    }
    ASSERT_EQ(sut.count(), model.size());
  }
  ASSERT_EQ(all(sut), model);
  open.clear();
  for (const auto& member : node) ASSERT_EQ(member->references(), 1U);
}

}  // namespace
