// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::IntfAndVlan: one pair of interface and VLAN, the element of the transmit
// queues. A plain value.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>

#include "runtime/bridging/VlanId.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/DescribedValue.h"

namespace Ringward::Status {

struct IntfAndVlan {
  constexpr IntfAndVlan() noexcept = default;
  constexpr IntfAndVlan(const Portus::IntfId& intf, Bridging::VlanId vlan) noexcept
      : intfId(intf), vlanId(vlan) {}
  // The type object; to call it, include runtime/vex/GenericType.h.
  template <class Self = IntfAndVlan>
  static Vex::VexType* _fwkType() {
    return Vex::fwkTypeOf<Self>();
  }
  // Reads the text form; `at` ends behind it.
  IntfAndVlan(Vex::TextPlace& at, const Vex::TextPlace& end);

  Portus::IntfId intfId;
  Bridging::VlanId vlanId;

  friend bool operator==(const IntfAndVlan&, const IntfAndVlan&) = default;
  friend auto operator<=>(const IntfAndVlan&, const IntfAndVlan&) = default;
  // Mixes both fields: the requests of one interface differ in the VLAN alone.
  std::uint32_t hash() const noexcept { return intfId.hash() ^ (vlanId.hash() * 0x9E3779B1U); }
};

}  // namespace Ringward::Status

template <>
struct Vex::Description<Ringward::Status::IntfAndVlan> {
  using Class = Ringward::Status::IntfAndVlan;
  static constexpr std::string_view kTypeName = "Ringward::Status::IntfAndVlan";
  static constexpr auto kFields =
      std::tuple(Vex::Field{"intfId", &Class::intfId}, Vex::Field{"vlanId", &Class::vlanId});
};

namespace Ringward::Status {

using Vex::valueToStrep;

inline IntfAndVlan::IntfAndVlan(Vex::TextPlace& at, const Vex::TextPlace& end) {
  Vex::readDescribed(*this, at, end);
}
inline std::ostream& operator<<(std::ostream& out, const IntfAndVlan& value) {
  return Vex::writeStrep(out, value);
}

}  // namespace Ringward::Status
