// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/ValueText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "runtime/bridging/VlanId.h"
#include "runtime/portus/EthAddr.h"
#include "runtime/portus/IntfId.h"
#include "tests/runtime/ErrorOf.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Portus::EthAddr;
using Portus::IntfId;
using RuntimeTest::errorOf;
using Vex::strepToValue;
using Vex::valueToStrep;

template <class T>
std::string textOf(const T& value) {
  return valueToStrep(value).str();
}

template <class T>
std::string errorOfReading(std::string_view text) {
  return errorOf([&] { strepToValue<T>(text); });
}

// What needString leaves of a text.
std::string afterNeed(std::string_view text, std::string_view pattern) {
  Vex::TextPlace at = text.begin();
  Vex::needString(at, text.end(), pattern);
  return std::string(at, text.end());
}

TEST(NeedString, MatchesThePatternAndStepsBehindIt) {
  EXPECT_EQ(afterNeed("Value('x'", "Value"), "('x'");
  EXPECT_EQ(afterNeed("", ""), "");
}

TEST(NeedString, ABlankStandsForAnyRunOfWhiteSpaceNoneIncluded) {
  EXPECT_EQ(afterNeed(" \t\n\v\f\r(x", " ("), "x");
  EXPECT_EQ(afterNeed("(x", " ("), "x");
  EXPECT_EQ(afterNeed(") \n x", ") "), "x");
  EXPECT_EQ(afterNeed("", " "), "");
}

TEST(NeedString, WhatDoesNotMatchRaisesARangeErrorThatShowsIt) {
  EXPECT_EQ(errorOf([] { afterNeed("Valve", "Value"); }), "expected Value at 'Valve'");
  EXPECT_EQ(errorOf([] { afterNeed("Val", "Value"); }), "expected Value at 'Val'");
  EXPECT_EQ(errorOf([] { afterNeed("  ", " ("); }), "expected ( at the end of the text");
  EXPECT_EQ(errorOf([] { afterNeed(std::string(100, 'x'), "y"); }),
            "expected y at '" + std::string(40, 'x') + "'...");
}

TEST(ValueText, WholeNumbersAreDecimal) {
  EXPECT_EQ(textOf(std::uint8_t{255}), "255");
  EXPECT_EQ(textOf(std::int8_t{-128}), "-128");
  EXPECT_EQ(textOf(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(textOf(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(strepToValue<std::uint64_t>("18446744073709551615"),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(strepToValue<std::int64_t>("-9223372036854775808"),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(strepToValue<std::uint32_t>("+7"), 7U);
  EXPECT_EQ(strepToValue<std::uint32_t>("007"), 7U);
}

TEST(ValueText, ANumberIsNarrowedToItsTypeOrRefusedWithTheRange) {
  EXPECT_EQ(strepToValue<std::uint8_t>("255"), 255);
  EXPECT_EQ(errorOfReading<std::uint8_t>("256"), "value 256 is out of range: 0 to 255 allowed");
  EXPECT_EQ(errorOfReading<std::uint8_t>("-1"), "value -1 is out of range: 0 to 255 allowed");
  EXPECT_EQ(errorOfReading<std::uint32_t>("4294967296"),
            "value 4294967296 is out of range: 0 to 4294967295 allowed");
  EXPECT_EQ(errorOfReading<std::int8_t>("128"), "value 128 is out of range: -128 to 127 allowed");
  EXPECT_EQ(errorOfReading<std::uint32_t>("99999999999999999999"),
            "number '99999999999999999999' is out of range: -9223372036854775808 to "
            "9223372036854775807 allowed");
  EXPECT_EQ(errorOfReading<std::uint64_t>("18446744073709551616"),
            "number '18446744073709551616' is out of range: 0 to 18446744073709551615 allowed");
}

TEST(ValueText, WhatIsNoNumberIsRefused) {
  for (const char* text : {"", "x", "-", "+", "+-1", "--1", " 1"}) {
    EXPECT_EQ(errorOfReading<std::uint32_t>(text).substr(0, 25), "expected a decimal number")
        << text;
  }
  EXPECT_EQ(errorOfReading<std::uint32_t>("1 "), "junk at column 1 deserializing 1 ");
  EXPECT_EQ(errorOfReading<std::uint32_t>("0x10"), "junk at column 1 deserializing 0x10");
}

TEST(ValueText, TruthIsTrueOrFalse) {
  EXPECT_EQ(textOf(true), "true");
  EXPECT_EQ(textOf(false), "false");
  EXPECT_TRUE(strepToValue<bool>("true"));
  EXPECT_FALSE(strepToValue<bool>("false"));
  EXPECT_EQ(errorOfReading<bool>("True"), "expected true or false at 'True'");
  EXPECT_EQ(errorOfReading<bool>("tru"), "expected true or false at 'tru'");
  EXPECT_EQ(errorOfReading<bool>("1"), "expected true or false at '1'");
}

TEST(ValueText, ARealNumberComesBackAsItWas) {
  for (const double value :
       {0.0, -0.0, 0.1, 1e300, 5e-324, 604800.25, 1.0 / 3, std::numeric_limits<double>::max()}) {
    const double back = strepToValue<double>(textOf(value));
    EXPECT_EQ(back, value);
    EXPECT_EQ(std::signbit(back), std::signbit(value));
  }
  EXPECT_EQ(textOf(12.5), "12.5");
  EXPECT_EQ(errorOfReading<double>("1e999"),
            "number '1e999' is out of range: -1.8e308 to 1.8e308 allowed");
  EXPECT_EQ(errorOfReading<double>("one"), "expected a number at 'one'");
  EXPECT_EQ(errorOfReading<double>(""), "expected a number at the end of the text");
}

TEST(ValueText, WhatIsInfiniteOrNoNumberIsWrittenButNotRead) {
  EXPECT_EQ(textOf(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(textOf(std::nan("")), "nan");
  for (const std::string text :
       {"inf", "-inf", "INF", "infinity", "nan", "-nan", "NaN", "nan(1)"}) {
    EXPECT_EQ(errorOfReading<double>(text),
              "number '" + text + "' is out of range: -1.8e308 to 1.8e308 allowed");
  }
}

TEST(ValueText, AStringStandsInQuotesOnOneLine) {
  EXPECT_EQ(textOf(std::string("it's \\ \n\r\t")), R"('it\'s \\ \n\r\t')");
  EXPECT_EQ(textOf(std::string("\x00\x1f\x7f\xff", 4)), R"('\x00\x1f\x7f\xff')");
  EXPECT_EQ(textOf(Vex::Name("config")), "'config'");
}

TEST(ValueText, AnyBytesOfAStringComeBack) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  EXPECT_EQ(strepToValue<std::string>(textOf(all)), all);
  EXPECT_EQ(strepToValue<Vex::String8>(textOf(Vex::String8(all))), Vex::String8(all));
}

TEST(ValueText, AStringIsReadFromQuotesOfEitherKind) {
  EXPECT_EQ(strepToValue<std::string>("\"it's\""), "it's");
  EXPECT_EQ(strepToValue<std::string>(R"('say \"x\"')"), "say \"x\"");
  EXPECT_EQ(strepToValue<std::string>("''"), "");
  EXPECT_EQ(strepToValue<std::string>(R"('\x4A\x4a')"), "JJ");
}

TEST(ValueText, AStringThatDoesNotEndOrHasAnUnknownEscapeIsRefused) {
  EXPECT_EQ(errorOfReading<std::string>("'abc"), R"(the string '\'abc' has no closing quote)");
  EXPECT_EQ(errorOfReading<std::string>("'abc\\"),
            "expected the rest of an escape at the end of the text");
  EXPECT_EQ(errorOfReading<std::string>(R"('\q')"),
            R"(expected \\, \', \", \n, \r, \t or \xNN behind a backslash at 'q\'')");
  EXPECT_EQ(errorOfReading<std::string>(R"('\x4')"),
            R"(expected \\, \', \", \n, \r, \t or \xNN behind a backslash at 'x4\'')");
  EXPECT_EQ(errorOfReading<std::string>("abc"), "expected a quoted string at 'abc'");
}

TEST(ValueText, AnAddressReadsAsItPrints) {
  const EthAddr addr(0x02, 0, 0, 0, 0xAB, 1);
  EXPECT_EQ(textOf(addr), "02:00:00:00:ab:01");
  EXPECT_EQ(strepToValue<EthAddr>("02:00:00:00:AB:01"), addr);
  EXPECT_EQ(errorOfReading<EthAddr>("02:00:00:00:ab:01:"),
            "junk at column 17 deserializing 02:00:00:00:ab:01:");
  EXPECT_NE(errorOfReading<EthAddr>("02:00"), "(nothing was raised)");
}

TEST(ValueText, AnInterfaceIsItsNameBareWhereThatIsClear) {
  EXPECT_EQ(textOf(IntfId::fromName("Ethernet1/1.10")), "Ethernet1/1.10");
  EXPECT_EQ(textOf(IntfId::fromName("a,b")), "'a,b'");
  EXPECT_EQ(textOf(IntfId::fromName("it's")), R"('it\'s')");
  EXPECT_EQ(textOf(IntfId()), "''");
}

TEST(ValueText, EveryInterfaceNameComesBack) {
  for (const char* name : {"", "eth1", "a}b", "'x'", "a\\b", "\"", "Port-Channel2000",
                           "a-name-that-is-far-too-long-to-be-packed-into-eight-bytes"}) {
    const auto id = IntfId::fromName(name);
    EXPECT_EQ(strepToValue<IntfId>(textOf(id)), id) << name;
    EXPECT_EQ(Vex::keyFromText<IntfId>(Vex::keyToText(id)), id) << name;
    EXPECT_FALSE(Vex::keyToText(id).empty()) << name;
  }
}

TEST(ValueText, AnInterfaceWhoseNameIsNotKnownComesBackAsItsBytes) {
  const auto id = IntfId::fromValue(0x3123456789ABCDEFU);
  EXPECT_EQ(textOf(id), "intf#3123456789abcdef");
  EXPECT_EQ(strepToValue<IntfId>(textOf(id)), id);
}

TEST(ValueText, AVlanThatIsOutOfRangeIsToldByItsOwnText) {
  EXPECT_EQ(textOf(VlanId(10)), "10");
  EXPECT_EQ(strepToValue<VlanIdOrNone>("4094"), VlanIdOrNone(4094));
  EXPECT_EQ(errorOfReading<VlanIdOrNone>("4095"), "VlanIdOrNone::value > 4094 not allowed");
  EXPECT_EQ(errorOfReading<VlanIdOrNone>("-1"), "VlanIdOrNone::value > 4094 not allowed");
  EXPECT_EQ(errorOfReading<VlanId>("4095"), "VlanIdOrNone::value > 4094 not allowed");
}

TEST(ValueText, AVlanInAValueMayBeNoneAndAsAKeyMayNot) {
  EXPECT_EQ(strepToValue<VlanId>("0"), VlanId());
  EXPECT_EQ(errorOf([] { Vex::keyFromText<VlanId>("0"); }),
            "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_EQ(Vex::keyFromText<VlanIdOrNone>("0"), VlanIdOrNone());
}

TEST(RethrowFromDeserializeAttr, AddsTheAttributesName) {
  EXPECT_EQ(errorOf([] { Vex::rethrowFromDeserializeAttr(Vex::RangeException("too big"), "tx"); }),
            "attribute 'tx': too big");
}

}  // namespace
