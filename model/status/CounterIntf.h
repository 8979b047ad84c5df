// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::CounterIntf: the probes that one interface has sent and received. The record of
// a table that other processes read: its twenty bytes are described in docs/formats.md.
//
// A value: copied freely, usable from any thread.
//
// Invariants:
//  1. It begins with its key and has no byte that is not named here.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "runtime/portus/IntfId.h"
#include "runtime/vex/DescribedValue.h"

namespace Ringward::Status {

// The counts wrap at 32 bits. Compared field by field, in the order in which they stand.
struct CounterIntf {
  // The type's name in a table's header.
  static constexpr std::string_view kTypeName = "Ringward::Status::CounterIntf";

  constexpr CounterIntf() noexcept = default;
  constexpr CounterIntf(const Portus::IntfId& intf, std::uint32_t sent, std::uint32_t received,
                        std::uint32_t other) noexcept
      : key(intf), tx(sent), rx(received), rxOther(other) {}
  // The type object; to call it, include runtime/vex/GenericType.h.
  template <class Self = CounterIntf>
  static Vex::VexType* _fwkType() {
    return Vex::fwkTypeOf<Self>();
  }
  // Reads the text form; `at` ends behind it.
  CounterIntf(Vex::TextPlace& at, const Vex::TextPlace& end);

  Portus::IntfId key;
  std::uint32_t tx = 0;       // probes handed to the interface's Pam
  std::uint32_t rx = 0;       // valid probes received on it
  std::uint32_t rxOther = 0;  // frames received on it that are no valid probes

  friend auto operator<=>(const CounterIntf&, const CounterIntf&) = default;
  bool operator!() const { return *this == CounterIntf(); }
};

static_assert(sizeof(CounterIntf) == 20 && alignof(CounterIntf) == 4);
static_assert(offsetof(CounterIntf, tx) == 8 && offsetof(CounterIntf, rx) == 12 &&
              offsetof(CounterIntf, rxOther) == 16);
static_assert(std::is_trivially_copyable_v<CounterIntf>);

}  // namespace Ringward::Status

template <>
struct Vex::Description<Ringward::Status::CounterIntf> {
  using Class = Ringward::Status::CounterIntf;
  static constexpr std::string_view kTypeName = Class::kTypeName;
  static constexpr auto kFields =
      std::tuple(Vex::Field{"key", &Class::key}, Vex::Field{"tx", &Class::tx},
                 Vex::Field{"rx", &Class::rx}, Vex::Field{"rxOther", &Class::rxOther});
};

namespace Ringward::Status {

using Vex::valueToStrep;

inline CounterIntf::CounterIntf(Vex::TextPlace& at, const Vex::TextPlace& end) {
  Vex::readDescribed(*this, at, end);
}
inline std::ostream& operator<<(std::ostream& out, const CounterIntf& value) {
  return Vex::writeStrep(out, value);
}

}  // namespace Ringward::Status
