// SPDX-License-Identifier: Apache-2.0
//
// The text form of the model's value types.
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "model/status/IntfAndVlan.h"
#include "model/values/Oui.h"
#include "model/values/PacketEncapsulation.h"
#include "model/values/Payload.h"
#include "tests/runtime/ErrorOf.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Portus::EthAddr;
using Portus::IntfId;
using Ringward::Oui;
using Ringward::PacketEncapsulation;
using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;
using Ringward::Status::IntfAndVlan;
using Vex::strepToValue;

template <class T>
struct Sample;
template <>
struct Sample<Oui> {
  static Oui value() { return {10, 27, 44}; }
  static constexpr const char* kText =
      "Value('Ringward::Oui', ** {'byte0': 10, 'byte1': 27, 'byte2': 44})";
  static constexpr const char* kType = "Ringward::Oui";
  static constexpr const char* kPremature = "premature end of value type Oui";
  static constexpr const char* kUnknown = "Oui has no such attribute: colour";
};
template <>
struct Sample<PacketEncapsulation> {
  static PacketEncapsulation value() {
    return {EthAddr(2, 0, 0, 0, 0, 1), VlanIdOrNone(10), IntfId::fromName("eth1")};
  }
  static constexpr const char* kText =
      "Value('Ringward::PacketEncapsulation', ** {'mac': 02:00:00:00:00:01, 'vlanId': 10, "
      "'senderIntfId': eth1})";
  static constexpr const char* kType = "Ringward::PacketEncapsulation";
  static constexpr const char* kPremature = "premature end of value type PacketEncapsulation";
  static constexpr const char* kUnknown = "PacketEncapsulation has no such attribute: colour";
};
template <>
struct Sample<CounterIntf> {
  static CounterIntf value() { return {IntfId::fromName("a,b"), 1, 2, 4294967295U}; }
  static constexpr const char* kText =
      "Value('Ringward::Status::CounterIntf', ** {'key': 'a,b', 'tx': 1, 'rx': 2, "
      "'rxOther': 4294967295})";
  static constexpr const char* kType = "Ringward::Status::CounterIntf";
  static constexpr const char* kPremature = "premature end of value type CounterIntf";
  static constexpr const char* kUnknown = "CounterIntf has no such attribute: colour";
};
template <>
struct Sample<CounterVlan> {
  static CounterVlan value() { return {VlanIdOrNone(4094), 1, 2, 3}; }
  static constexpr const char* kText =
      "Value('Ringward::Status::CounterVlan', ** {'key': 4094, 'tx': 1, 'rx': 2, 'rxOther': 3})";
  static constexpr const char* kType = "Ringward::Status::CounterVlan";
  static constexpr const char* kPremature = "premature end of value type CounterVlan";
  static constexpr const char* kUnknown = "CounterVlan has no such attribute: colour";
};
template <>
struct Sample<IntfAndVlan> {
  static IntfAndVlan value() { return {IntfId::fromName("eth1"), VlanId(10)}; }
  static constexpr const char* kText =
      "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})";
  static constexpr const char* kType = "Ringward::Status::IntfAndVlan";
  static constexpr const char* kPremature = "premature end of value type IntfAndVlan";
  static constexpr const char* kUnknown = "IntfAndVlan has no such attribute: colour";
};

template <class T>
std::string errorOfReading(std::string_view text) {
  return RuntimeTest::errorOf([&] { strepToValue<T>(text); });
}

template <class T>
class ValueText : public testing::Test {
 protected:
  static std::string begin() { return "Value('" + std::string(Sample<T>::kType) + "', ** {"; }
};
using Types = testing::Types<Oui, PacketEncapsulation, CounterIntf, CounterVlan, IntfAndVlan>;
TYPED_TEST_SUITE(ValueText, Types);

TYPED_TEST(ValueText, IsWrittenInTheOneFormOfItsType) {
  EXPECT_EQ(valueToStrep(Sample<TypeParam>::value()), Sample<TypeParam>::kText);
}

TYPED_TEST(ValueText, ReadsBackToAnEqualValue) {
  EXPECT_EQ(strepToValue<TypeParam>(Sample<TypeParam>::kText), Sample<TypeParam>::value());
  EXPECT_EQ(strepToValue<TypeParam>(valueToStrep(TypeParam())), TypeParam());
  EXPECT_EQ(strepToValue(valueToStrep(Sample<TypeParam>::value()),
                         static_cast<const TypeParam*>(nullptr)),
            Sample<TypeParam>::value());
}

TYPED_TEST(ValueText, AStreamGetsTheSameBytesWhateverItsFlagsSay) {
  std::ostringstream out;
  out << std::hex << std::showbase << std::setw(200) << std::setfill('*')
      << Sample<TypeParam>::value();
  EXPECT_EQ(out.str(), Sample<TypeParam>::kText);
}

TYPED_TEST(ValueText, WithNothingBetweenTheBracesIsTheDefaultValue) {
  EXPECT_EQ(strepToValue<TypeParam>(this->begin() + "})"), TypeParam());
}

TYPED_TEST(ValueText, WhiteSpaceIsTakenAroundEveryToken) {
  std::string text;
  for (const char c : std::string(Sample<TypeParam>::kText)) {
    const bool token = std::string_view("(){},*").find(c) != std::string_view::npos;
    // Not within a quoted text or between the two stars.
    if (token && c != '*' && !(c == ',' && text.ends_with("a"))) text += " \t\n";
    text += c;
    if (c == '{' || c == ')') text += " \n";
  }
  EXPECT_EQ(strepToValue<TypeParam>("  " + text + " \n"), Sample<TypeParam>::value()) << text;
}

TYPED_TEST(ValueText, ATextThatEndsBeforeTheBraceIsPremature) {
  const std::string whole = Sample<TypeParam>::kText;
  EXPECT_EQ(errorOfReading<TypeParam>(whole.substr(0, whole.size() - 2)),
            Sample<TypeParam>::kPremature);
  EXPECT_EQ(errorOfReading<TypeParam>(this->begin()), Sample<TypeParam>::kPremature);
  EXPECT_EQ(errorOfReading<TypeParam>(this->begin() + "  "), Sample<TypeParam>::kPremature);
}

TYPED_TEST(ValueText, EveryPrefixIsRefused) {
  const std::string whole = Sample<TypeParam>::kText;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_THROW(strepToValue<TypeParam>(whole.substr(0, length)), Vex::RangeException) << length;
  }
}

TYPED_TEST(ValueText, AnUnknownAttributeIsNamed) {
  EXPECT_EQ(errorOfReading<TypeParam>(this->begin() + "'colour': 1})"),
            Sample<TypeParam>::kUnknown);
}

TYPED_TEST(ValueText, AWrongTypeNameFailsBeforeAnyAttribute) {
  EXPECT_EQ(errorOfReading<TypeParam>("Value('Ringward::Other', ** {'colour': 1})"),
            "expected '" + std::string(Sample<TypeParam>::kType) +
                "' at '\\'Ringward::Other\\', ** {\\'colour\\': 1})'");
}

TYPED_TEST(ValueText, WhatFollowsTheValueIsJunkAndWhiteSpaceIsNone) {
  const std::string whole = Sample<TypeParam>::kText;
  EXPECT_EQ(strepToValue<TypeParam>(whole + " \n\t"), Sample<TypeParam>::value());
  EXPECT_EQ(
      errorOfReading<TypeParam>(whole + " x"),
      "junk at column " + std::to_string(whole.size() + 1) + " deserializing " + whole + " x");
}

TYPED_TEST(ValueText, TheParsingConstructorStopsBehindTheValue) {
  const Vex::String8 text(std::string(Sample<TypeParam>::kText) + " rest");
  auto at = text.begin();
  const TypeParam value(at, text.end());
  EXPECT_EQ(value, Sample<TypeParam>::value());
  EXPECT_EQ(std::string(at, text.end()), "rest");
}

TEST(OuiText, AttributesComeInAnyOrderAndMayBeMissing) {
  EXPECT_EQ(strepToValue<Oui>("Value('Ringward::Oui', ** {'byte2': 3, 'byte0': 1})"), Oui(1, 0, 3));
}

TEST(OuiText, ASecondCopyOfAnAttributeOverwritesTheFirst) {
  EXPECT_EQ(strepToValue<Oui>("Value('Ringward::Oui', ** {'byte0': 1, 'byte0': 2})"), Oui(2, 0, 0));
}

TEST(OuiText, ACommaStandsBetweenTwoAttributesAndNowhereElse) {
  EXPECT_EQ(errorOfReading<Oui>("Value('Ringward::Oui', ** {, 'byte0': 1})"),
            "expected a quoted string at ', \\'byte0\\': 1})'");
  EXPECT_EQ(errorOfReading<Oui>("Value('Ringward::Oui', ** {'byte0': 1 'byte1': 2})"),
            "expected , at '\\'byte1\\': 2})'");
  EXPECT_EQ(errorOfReading<Oui>("Value('Ringward::Oui', ** {'byte0': 1,})"),
            "expected a quoted string at '})'");
}

TEST(OuiText, ANumberTooLargeForItsFieldNamesTheAttribute) {
  EXPECT_EQ(errorOfReading<Oui>("Value('Ringward::Oui', ** {'byte1': 256})"),
            "attribute 'byte1': value 256 is out of range: 0 to 255 allowed");
  EXPECT_EQ(errorOfReading<Oui>("Value('Ringward::Oui', ** {'byte1': x})"),
            "attribute 'byte1': expected a decimal number at 'x})'");
}

TEST(IntfAndVlanText, AVlanAbove4094IsRefusedWithTheTypesOwnText) {
  EXPECT_EQ(
      errorOfReading<IntfAndVlan>("Value('Ringward::Status::IntfAndVlan', ** {'vlanId': 4095})"),
      "VlanIdOrNone::value > 4094 not allowed");
}

TEST(PacketEncapsulationText, AVlanAbove4094IsRefusedWithTheTypesOwnText) {
  EXPECT_EQ(errorOfReading<PacketEncapsulation>(
                "Value('Ringward::PacketEncapsulation', ** {'vlanId': 4095})"),
            "VlanIdOrNone::value > 4094 not allowed");
}

TEST(CounterVlanText, PaddingIsNoAttribute) {
  EXPECT_EQ(
      errorOfReading<CounterVlan>("Value('Ringward::Status::CounterVlan', ** {'padding': 1})"),
      "CounterVlan has no such attribute: padding");
}

TEST(PayloadText, AValueInAValueHasItsOwnForm) {
  Ringward::Payload payload;
  payload.veltrixOuiIs(Ringward::kProbeOui);
  payload.protocolIdIs(3);
  payload.versionIs(1);
  payload.senderIntfIdIs(IntfId::fromName("eth1"));
  const auto text = Vex::valueToStrep(payload);
  EXPECT_EQ(text,
            "Value('Ringward::Payload', ** {'veltrixOui': Value('Ringward::Oui', ** {'byte0': 10, "
            "'byte1': 27, 'byte2': 44}), 'protocolId': 3, 'version': 1, 'senderIntfId': eth1})");
  const auto back = strepToValue<Ringward::Payload>(text);
  EXPECT_EQ(Vex::valueToStrep(back), text);
  EXPECT_EQ(back.protocolId(), 3);
}

}  // namespace
