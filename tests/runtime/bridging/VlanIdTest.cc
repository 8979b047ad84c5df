// SPDX-License-Identifier: Apache-2.0
#include "runtime/bridging/VlanId.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <sstream>
#include <string>

namespace Bridging {
namespace {

std::string rangeErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const Vex::RangeException& e) {
    return e.text();
  }
  return "no exception";
}

constexpr char kVlanIdRange[] = "VlanId::value < 1 or > 4094 not allowed";
constexpr char kOrNoneRange[] = "VlanIdOrNone::value > 4094 not allowed";

TEST(VlanId, TakesOneTo4094) {
  EXPECT_EQ(VlanId(1).value(), 1);
  EXPECT_EQ(VlanId(4094).value(), 4094);
  EXPECT_EQ(rangeErrorOf([] { VlanId(0); }), "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_EQ(rangeErrorOf([] { VlanId(4095); }), "VlanId::value < 1 or > 4094 not allowed");
}

TEST(VlanId, JudgesNumbersOfEveryWidthByTheirFullValue) {
  EXPECT_EQ(rangeErrorOf([] { VlanId(65537); }), kVlanIdRange);
  EXPECT_EQ(rangeErrorOf([] { VlanId(-1); }), kVlanIdRange);
  EXPECT_EQ(rangeErrorOf([] { VlanId(std::uint64_t{1} << 32 | 1); }), kVlanIdRange);
  EXPECT_EQ(rangeErrorOf([] { VlanId(std::numeric_limits<std::int64_t>::min() + 1); }),
            kVlanIdRange);
  EXPECT_EQ(VlanId(std::uint8_t{200}).value(), 200);
  EXPECT_EQ(VlanId(std::uint16_t{300}).value(), 300);
  EXPECT_EQ(rangeErrorOf([] { VlanIdOrNone(65536); }), kOrNoneRange);
  EXPECT_EQ(rangeErrorOf([] { VlanIdOrNone(-1); }), kOrNoneRange);
}

TEST(VlanId, NoneIsReachedOnlyByDefaultConstruction) {
  EXPECT_EQ(VlanId().value(), 0);
  EXPECT_FALSE(VlanId());
  EXPECT_TRUE(VlanId(1));
}

TEST(VlanIdOrNone, TakesZeroTo4094) {
  EXPECT_EQ(VlanIdOrNone(0), VlanIdOrNone());
  EXPECT_FALSE(VlanIdOrNone(0));
  EXPECT_EQ(VlanIdOrNone(4094).value(), 4094);
  EXPECT_EQ(rangeErrorOf([] { VlanIdOrNone(4095); }), "VlanIdOrNone::value > 4094 not allowed");
}

TEST(VlanIdOrNone, ComesFromAVlanIdUnasked) {
  const VlanIdOrNone vlan = VlanId(7);
  EXPECT_EQ(vlan.value(), 7);
  EXPECT_TRUE(vlan == VlanId(7));
  EXPECT_TRUE(VlanId(8) > vlan);
  static_assert(!std::is_convertible_v<VlanIdOrNone, VlanId>);
  static_assert(!std::is_convertible_v<int, VlanId>);
  static_assert(!std::is_constructible_v<VlanId, bool>);
}

TEST(VlanId, HashIsTheNumberItself) {
  EXPECT_EQ(VlanId(4094).hash(), 4094U);
  EXPECT_EQ(VlanIdOrNone(0).hash(), 0U);
  EXPECT_EQ(VlanIdOrNone(77).hash(), 77U);
}

TEST(VlanId, LiesInMemoryAsA16BitWord) {
  const VlanId vlan(0x0102);
  std::uint16_t word = 0;
  static_assert(sizeof vlan == sizeof word);
  std::memcpy(&word, &vlan, sizeof word);
  EXPECT_EQ(word, 0x0102);
}

TEST(VlanId, OrdersAndPrintsAsItsNumber) {
  EXPECT_LT(VlanId(9), VlanId(10));
  std::ostringstream out;
  out << VlanId(4000) << ' ' << VlanIdOrNone(0);
  EXPECT_EQ(out.str(), "4000 0");
}

TEST(VlanId, ParsesDecimalNumbersOnly) {
  EXPECT_EQ(VlanId::parse("4094"), VlanId(4094));
  EXPECT_EQ(VlanIdOrNone::parse("0"), VlanIdOrNone());
  EXPECT_EQ(rangeErrorOf([] { VlanId::parse("0"); }), kVlanIdRange);
  EXPECT_EQ(rangeErrorOf([] { VlanId::parse("99999999999999999999999"); }), kVlanIdRange);
  EXPECT_EQ(rangeErrorOf([] { VlanId::parse("4294967297"); }), kVlanIdRange);
  EXPECT_EQ(rangeErrorOf([] { VlanIdOrNone::parse("4095"); }), kOrNoneRange);
  EXPECT_EQ(rangeErrorOf([] { VlanId::parse("1x"); }),
            "VLAN \"1x\" is not a decimal number from 1 to 4094");
  for (const char* text : {"", "-1", "+1", " 1", "0x10", "1 "}) {
    EXPECT_EQ(rangeErrorOf([text] { VlanIdOrNone::parse(text); }),
              "VLAN \"" + std::string(text) + "\" is not a decimal number from 0 to 4094");
  }
}

}  // namespace
}  // namespace Bridging
