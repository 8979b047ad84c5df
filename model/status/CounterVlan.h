// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::CounterVlan: the probes that were sent and received in one VLAN. The record of
// a table that other processes read: its sixteen bytes are described in docs/formats.md.
//
// A value: copied freely, usable from any thread.
//
// Invariants:
//  1. It begins with its key and has no byte that is not named here.
//  2. `padding` is 0, unless the bytes come from somebody else. It is no part of the value.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "runtime/bridging/VlanId.h"
#include "runtime/vex/DescribedValue.h"

namespace Ringward::Status {

// The counts wrap at 32 bits. Compared by key, tx, rx and rxOther, in this order. Key 0 stands for
// frames without a known VLAN.
struct CounterVlan {
  // The type's name in a table's header.
  static constexpr std::string_view kTypeName = "Ringward::Status::CounterVlan";

  constexpr CounterVlan() noexcept = default;
  constexpr CounterVlan(Bridging::VlanIdOrNone vlan, std::uint32_t sent, std::uint32_t received,
                        std::uint32_t other) noexcept
      : key(vlan), tx(sent), rx(received), rxOther(other) {}
  // The type object; to call it, include runtime/vex/GenericType.h.
  template <class Self = CounterVlan>
  static Vex::VexType* _fwkType() {
    return Vex::fwkTypeOf<Self>();
  }
  // Reads the text form; `at` ends behind it.
  CounterVlan(Vex::TextPlace& at, const Vex::TextPlace& end);

  Bridging::VlanIdOrNone key;
  std::uint16_t padding = 0;
  std::uint32_t tx = 0;       // probes handed to a Pam
  std::uint32_t rx = 0;       // valid probes received
  std::uint32_t rxOther = 0;  // frames received that are no valid probes

  friend constexpr auto operator<=>(const CounterVlan& left, const CounterVlan& right) noexcept {
    return std::tie(left.key, left.tx, left.rx, left.rxOther) <=>
           std::tie(right.key, right.tx, right.rx, right.rxOther);
  }
  friend constexpr bool operator==(const CounterVlan& left, const CounterVlan& right) noexcept {
    return left <=> right == 0;
  }
};

static_assert(sizeof(CounterVlan) == 16 && alignof(CounterVlan) == 4);
static_assert(offsetof(CounterVlan, padding) == 2 && offsetof(CounterVlan, tx) == 4 &&
              offsetof(CounterVlan, rx) == 8 && offsetof(CounterVlan, rxOther) == 12);
static_assert(std::is_trivially_copyable_v<CounterVlan>);

}  // namespace Ringward::Status

template <>
struct Vex::Description<Ringward::Status::CounterVlan> {
  using Class = Ringward::Status::CounterVlan;
  static constexpr std::string_view kTypeName = Class::kTypeName;
  static constexpr auto kFields =
      std::tuple(Vex::Field{"key", &Class::key}, Vex::Field{"tx", &Class::tx},
                 Vex::Field{"rx", &Class::rx}, Vex::Field{"rxOther", &Class::rxOther});
};

namespace Ringward::Status {

using Vex::valueToStrep;

inline CounterVlan::CounterVlan(Vex::TextPlace& at, const Vex::TextPlace& end) {
  Vex::readDescribed(*this, at, end);
}
inline std::ostream& operator<<(std::ostream& out, const CounterVlan& value) {
  return Vex::writeStrep(out, value);
}

}  // namespace Ringward::Status
