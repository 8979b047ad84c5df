// SPDX-License-Identifier: Apache-2.0
//
// Round trips: any value through its text, any key through a path.
//
// The seed is fixed and printed; RC_PARAMS="seed=7 max_success=10000" runs others.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <rapidcheck.h>

#include <bit>
#include <cmath>
#include <string>

#include "model/generic/ModelTypes.h"
#include "model/generic/PathAccess.h"

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

template <class Property>
void holds(const std::string& rule, Property property) {
  ::setenv("RC_PARAMS", "seed=20240611 max_success=300", /*overwrite=*/0);
  ASSERT_TRUE(rc::check(rule, property)) << ::getenv("RC_PARAMS");
}

// Any eight bytes, or the name of an interface, which may hold what a text or a path means
// something by.
IntfId anyIntf() {
  if (*rc::gen::inRange(0, 3) == 0) return IntfId::fromValue(*rc::gen::arbitrary<std::uint64_t>());
  const auto symbol = *rc::gen::element(std::string("eth0123456789"), std::string("'\"\\]/[{},:"),
                                        std::string("abcXYZ~!#"));
  return IntfId::fromName(
      *rc::gen::resize(12, rc::gen::container<std::string>(rc::gen::elementOf(symbol))));
}
VlanIdOrNone anyVlan() { return VlanIdOrNone(*rc::gen::inRange(0, 4095)); }
std::uint32_t anyCount() { return *rc::gen::arbitrary<std::uint32_t>(); }
EthAddr anyAddr() {
  const auto bytes =
      *rc::gen::container<std::array<std::uint8_t, 6>>(rc::gen::arbitrary<std::uint8_t>());
  return EthAddr(bytes);
}

template <class T>
void comesBack(const T& value) {
  const auto text = Vex::valueToStrep(value);
  RC_ASSERT(Vex::strepToValue<T>(text) == value);
  RC_ASSERT(text.view().find('\n') == std::string_view::npos);
}

TEST(ValueTextProperty, EveryValueComesBackFromItsText) {
  holds("a value is what its text reads as", [] {
    const auto byte = rc::gen::arbitrary<std::uint8_t>();
    comesBack(Oui(*byte, *byte, *byte));
    comesBack(PacketEncapsulation(anyAddr(), anyVlan(), anyIntf()));
    comesBack(CounterIntf(anyIntf(), anyCount(), anyCount(), anyCount()));
    comesBack(CounterVlan(anyVlan(), anyCount(), anyCount(), anyCount()));
    const auto vlan = anyVlan();
    comesBack(IntfAndVlan(anyIntf(), vlan ? VlanId(vlan.value()) : VlanId()));
  });
}

TEST(ValueTextProperty, EveryBuiltInValueComesBackFromItsText) {
  holds("a number or a text is what its text reads as", [] {
    comesBack(*rc::gen::arbitrary<std::int64_t>());
    comesBack(*rc::gen::arbitrary<std::uint64_t>());
    comesBack(*rc::gen::arbitrary<std::uint16_t>());
    comesBack(*rc::gen::container<std::string>(rc::gen::arbitrary<char>()));
    const auto real = std::bit_cast<double>(*rc::gen::arbitrary<std::uint64_t>());
    if (std::isfinite(real)) comesBack(real);
  });
}

TEST(ValueTextProperty, AnyTextIsReadOrRefusedAsOutOfRange) {
  holds("no text does anything else", [] {
    const auto pieces = *rc::gen::container<std::vector<std::string>>(
        rc::gen::element<std::string>("Value", "(", "'Ringward::Oui'", ",", "**", "{", "'byte0'",
                                      ":", "7", "300", " ", "}", ")", "'", "\\", "\"", "-"));
    std::string text;
    for (const auto& piece : pieces) text += piece;
    try {
      const auto read = Vex::strepToValue<Oui>(text);
      RC_ASSERT(Vex::strepToValue<Oui>(valueToStrep(read)) == read);
    } catch (const Vex::RangeException& e) {
      RC_ASSERT(!e.text().empty());
    }
  });
}

TEST(PathProperty, EveryKeyIsFoundUnderThePathThatListsIt) {
  holds("an element is found under its listed name", [] {
    const auto config = Ringward::Config::configFactory("config");
    const IntfId intf = anyIntf();
    config->intfExcludeIs(intf, true);
    Ringward::Generic::PathAccess sut({{"config", [&] { return Vex::genericIf(config); }}});
    const auto nodes = sut.ls("config/intfExclude", 10);
    RC_ASSERT(nodes.size() == 1U);
    const std::string path = "config/intfExclude[" + nodes.front().name + "]";
    RC_ASSERT(sut.get(path) == "true");
    sut.set(path, "false");
    RC_ASSERT(!config->intfExclude(intf));
    RC_ASSERT(sut.ls("config/intfExclude", 10, nodes.front().name).empty());
    sut.del(path);
    RC_ASSERT(!config->intfExcludeHas(intf));
  });
}

}  // namespace
