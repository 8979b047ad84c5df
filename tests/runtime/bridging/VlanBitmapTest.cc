// SPDX-License-Identifier: Apache-2.0
#include "runtime/bridging/VlanBitmap.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>
#include <vector>

namespace Bridging {
namespace {

std::string rangeErrorOf(const std::string& text) {
  try {
    VlanBitmap::parse(text);
  } catch (const Vex::RangeException& e) {
    return e.text();
  }
  return "no exception";
}

std::vector<int> members(const VlanBitmap& set) {
  std::vector<int> result;
  set.forEach([&result](std::uint16_t n) { result.push_back(n); });
  return result;
}

TEST(VlanBitmap, StartsEmpty) {
  const VlanBitmap sut;
  EXPECT_TRUE(sut.empty());
  EXPECT_FALSE(sut);
  EXPECT_EQ(sut.count(), 0U);
  EXPECT_EQ(sut.next(0), VlanBitmap::kBits);
  EXPECT_EQ(sut.toText(), "");
}

TEST(VlanBitmap, HoldsEachOf4096NumbersByItself) {
  for (std::uint32_t n = 0; n < VlanBitmap::kBits; ++n) {
    VlanBitmap sut;
    sut.set(n);
    ASSERT_TRUE(sut.test(n));
    ASSERT_EQ(sut.count(), 1U);
    ASSERT_EQ(sut.next(0), n);
    ASSERT_EQ(sut.words()[n / 64], std::uint64_t{1} << (n % 64));
    sut.clear(n);
    ASSERT_TRUE(sut.empty());
  }
}

TEST(VlanBitmap, TakesVlanValuesToo) {
  VlanBitmap sut;
  sut.set(VlanId(10));
  sut.set(VlanIdOrNone(20));
  EXPECT_TRUE(sut.test(VlanId(10)));
  EXPECT_TRUE(sut.test(VlanIdOrNone(20)));
  sut.clear(VlanId(10));
  EXPECT_EQ(members(sut), std::vector<int>{20});
}

TEST(VlanBitmap, NumbersAbove4095AreNeverInIt) {
  VlanBitmap sut;
  EXPECT_FALSE((~sut).test(4096U));
  EXPECT_FALSE((~sut).test(0xFFFFFFFFU));
  sut.clear(4096U);
  EXPECT_THROW(sut.set(4096U), Vex::RangeException);
  EXPECT_THROW(sut.setRange(4090, 4096), Vex::RangeException);
  EXPECT_TRUE(sut.empty());
  EXPECT_EQ(sut.next(0xFFFFFFFFU), VlanBitmap::kBits);
}

TEST(VlanBitmap, ForEachVisitsInAscendingOrder) {
  VlanBitmap sut;
  for (const std::uint32_t n : {4095U, 0U, 64U, 63U, 1000U}) sut.set(n);
  EXPECT_EQ(members(sut), (std::vector<int>{0, 63, 64, 1000, 4095}));
}

TEST(VlanBitmap, ForEachStandsChangesOfTheSetByItsVisitor) {
  VlanBitmap sut = VlanBitmap::parse("1-5");
  std::vector<int> seen;
  sut.forEach([&](std::uint16_t n) {
    seen.push_back(n);
    if (n == 2) {
      sut.clear(3U);
      sut.set(9U);
    }
    sut.clear(n);
  });
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 4, 5, 9}));
  EXPECT_TRUE(sut.empty());
}

TEST(VlanBitmap, ReadsNumbersAndRanges) {
  EXPECT_EQ(members(VlanBitmap::parse("1,10-12")), (std::vector<int>{1, 10, 11, 12}));
  EXPECT_EQ(VlanBitmap::parse("1-4094").count(), 4094U);
  EXPECT_EQ(members(VlanBitmap::parse("7-7")), std::vector<int>{7});
  EXPECT_EQ(members(VlanBitmap::parse("12,10,11,10-11,010")), (std::vector<int>{10, 11, 12}));
}

TEST(VlanBitmap, EmptyOrBlankTextIsTheEmptySet) {
  EXPECT_TRUE(VlanBitmap::parse("").empty());
  EXPECT_TRUE(VlanBitmap::parse(" \t\n ").empty());
}

TEST(VlanBitmap, BlanksMayStandBetweenNumbers) {
  EXPECT_EQ(VlanBitmap::parse("  1 ,\t10 - 20 \n"), VlanBitmap::parse("1,10-20"));
}

TEST(VlanBitmap, WrongItemIsNamedWithPlaceAndRange) {
  EXPECT_EQ(rangeErrorOf("1,4095"),
            "VLAN list item 2 \"4095\": number out of range; allowed are numbers and low-high "
            "ranges of 1 to 4094");
  EXPECT_EQ(rangeErrorOf("20-10"),
            "VLAN list item 1 \"20-10\": range is reversed; allowed are numbers and low-high "
            "ranges of 1 to 4094");
  const struct {
    const char* text;
    const char* part;
  } wrong[] = {{"0", "item 1 \"0\": number out of range"},
               {"0-5", "item 1 \"0-5\": number out of range"},
               {"1,,2", "item 2 \"\": a number is missing"},
               {"1,", "item 2 \"\": a number is missing"},
               {",", "item 1 \"\": a number is missing"},
               {"1,2,5-", "item 3 \"5-\": a number is missing"},
               {"-5", "item 1 \"-5\": a number is missing"},
               {"-", "item 1 \"-\": a number is missing"},
               {"1-2-3", "item 1 \"1-2-3\": not a number"},
               {"1 2", "item 1 \"1 2\": not a number"},
               {"1;2", "item 1 \"1;2\": not a number"},
               {"all", "item 1 \"all\": not a number"},
               {"+1", "item 1 \"+1\": not a number"},
               {"4294967297", "number out of range"},
               {"18446744073709551617", "number out of range"}};
  for (const auto& row : wrong) {
    EXPECT_NE(rangeErrorOf(row.text).find(row.part), std::string::npos)
        << row.text << " -> " << rangeErrorOf(row.text);
  }
}

TEST(VlanBitmap, TextIsTheShortestList) {
  const auto canonical = [](const char* text) { return VlanBitmap::parse(text).toText(); };
  EXPECT_EQ(canonical("20,10-19,1"), "1,10-20");
  EXPECT_EQ(canonical("1,2"), "1-2");
  EXPECT_EQ(canonical("1,3,5"), "1,3,5");
  EXPECT_EQ(canonical("1-100,101-4094"), "1-4094");
  EXPECT_EQ(canonical("63,64,65"), "63-65");
  EXPECT_EQ((~VlanBitmap()).toText(), "0-4095");
  std::ostringstream out;
  out << VlanBitmap::parse("5,6,7");
  EXPECT_EQ(out.str(), "5-7");
}

// Against std::set as the model.
TEST(VlanBitmap, OperationsAgreeWithAPlainSet) {
  constexpr std::uint32_t kSeed = 4711;
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  std::mt19937 generator(kSeed);
  const auto random = [&generator] { return static_cast<std::uint32_t>(generator()); };
  for (int round = 0; round < 50; ++round) {
    VlanBitmap sets[2];
    std::set<int> models[2];
    for (int side = 0; side < 2; ++side) {
      for (std::uint32_t n = random() % 600; n > 0; --n) {
        const std::uint32_t vlan = 1 + random() % (round % 2 == 0 ? 4094 : 150);
        sets[side].set(vlan);
        models[side].insert(static_cast<int>(vlan));
      }
    }
    std::vector<int> both;
    std::vector<int> either;
    std::vector<int> onlyFirst;
    for (int n = 0; n < 4096; ++n) {
      const bool a = models[0].contains(n);
      const bool b = models[1].contains(n);
      if (a && b) both.push_back(n);
      if (a || b) either.push_back(n);
      if (a && !b) onlyFirst.push_back(n);
    }
    EXPECT_EQ(members(sets[0] & sets[1]), both);
    EXPECT_EQ(members(sets[0] | sets[1]), either);
    EXPECT_EQ(members(sets[0] - sets[1]), onlyFirst);
    EXPECT_EQ(sets[0] - sets[1], sets[0] & ~sets[1]);
    EXPECT_EQ(sets[0].count(), models[0].size());
    EXPECT_EQ(sets[0] == sets[1], models[0] == models[1]);
    EXPECT_EQ(VlanBitmap::parse(sets[0].toText()), sets[0]);
  }
}

}  // namespace
}  // namespace Bridging
