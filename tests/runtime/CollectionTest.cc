// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Collection.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using Sut = Vex::ValueCollection<std::uint32_t, std::string>;

TEST(ValueCollection, StartsEmpty) {
  const Sut sut;
  EXPECT_TRUE(sut.empty());
  EXPECT_EQ(sut.members(), 0U);
  EXPECT_EQ(sut.find(1), nullptr);
  EXPECT_EQ(sut.valueOr(1), "");
  EXPECT_FALSE(sut.iteratorConst());
}

TEST(ValueCollection, SaysWhetherAValueIsNews) {
  Sut sut;
  EXPECT_TRUE(sut.valueIs(1, ""));  // new, although the value is the default one
  EXPECT_FALSE(sut.valueIs(1, ""));
  EXPECT_TRUE(sut.valueIs(1, "x"));
  EXPECT_FALSE(sut.valueIs(1, "x"));
  EXPECT_EQ(sut.members(), 1U);
  EXPECT_EQ(sut.valueOr(1), "x");
  ASSERT_NE(sut.find(1), nullptr);
  EXPECT_EQ(*sut.find(1), "x");
}

TEST(ValueCollection, SaysWhetherARemovalIsNews) {
  Sut sut;
  sut.valueIs(1, "x");
  EXPECT_FALSE(sut.valueDel(2));
  EXPECT_TRUE(sut.valueDel(1));
  EXPECT_FALSE(sut.valueDel(1));
  EXPECT_TRUE(sut.empty());
}

TEST(ValueCollection, AnUpdateDuringAnIterationDoesNotDisturbIt) {
  Sut sut;
  for (std::uint32_t key = 0; key < 8; ++key) sut.valueIs(key, "a");
  std::vector<std::uint32_t> seen;
  for (auto it = sut.iteratorConst(); it; ++it) {
    seen.push_back(it.key());
    sut.valueIs(it.key(), "b");
    EXPECT_EQ(it->value(), "b");
  }
  EXPECT_EQ(seen, (std::vector<std::uint32_t>{0, 4, 2, 6, 1, 5, 3, 7}));
}

TEST(ValueCollection, AllMembersCanBeRemovedByTheKeyOfTheIteration) {
  Sut sut;
  for (std::uint32_t key = 0; key < 100; ++key) sut.valueIs(key, "a");
  int visited = 0;
  for (auto it = sut.iteratorConst(); it; ++it) {
    ++visited;
    EXPECT_TRUE(sut.valueDel(it.key()));
  }
  EXPECT_EQ(visited, 100);
  EXPECT_TRUE(sut.empty());
}

}  // namespace
