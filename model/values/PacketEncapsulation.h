// SPDX-License-Identifier: Apache-2.0
//
// Ringward::PacketEncapsulation: the summary of one probe. When sending: with which source address,
// on which VLAN and out of which interface. When received: where it came from, with an all-zero
// `mac` as the only sign that the frame is no valid probe. A plain value.
#pragma once

#include <ostream>

#include "runtime/bridging/VlanId.h"
#include "runtime/portus/EthAddr.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/DescribedValue.h"

namespace Ringward {

struct PacketEncapsulation {
  constexpr PacketEncapsulation() noexcept = default;
  constexpr PacketEncapsulation(const Portus::EthAddr& source, Bridging::VlanIdOrNone vlan,
                                const Portus::IntfId& sender) noexcept
      : mac(source), vlanId(vlan), senderIntfId(sender) {}
  // The type object; to call it, include runtime/vex/GenericType.h.
  template <class Self = PacketEncapsulation>
  static Vex::VexType* _fwkType() {
    return Vex::fwkTypeOf<Self>();
  }
  // Reads the text form; `at` ends behind it.
  PacketEncapsulation(Vex::TextPlace& at, const Vex::TextPlace& end);

  Portus::EthAddr mac;
  Bridging::VlanIdOrNone vlanId;
  Portus::IntfId senderIntfId;
  friend bool operator==(const PacketEncapsulation&, const PacketEncapsulation&) = default;
  // True exactly for the default value.
  bool operator!() const noexcept { return *this == PacketEncapsulation(); }
};

}  // namespace Ringward

template <>
struct Vex::Description<Ringward::PacketEncapsulation> {
  using Class = Ringward::PacketEncapsulation;
  static constexpr std::string_view kTypeName = "Ringward::PacketEncapsulation";
  static constexpr auto kFields =
      std::tuple(Vex::Field{"mac", &Class::mac}, Vex::Field{"vlanId", &Class::vlanId},
                 Vex::Field{"senderIntfId", &Class::senderIntfId});
};

namespace Ringward {

using Vex::valueToStrep;

inline PacketEncapsulation::PacketEncapsulation(Vex::TextPlace& at, const Vex::TextPlace& end) {
  Vex::readDescribed(*this, at, end);
}
inline std::ostream& operator<<(std::ostream& out, const PacketEncapsulation& value) {
  return Vex::writeStrep(out, value);
}

}  // namespace Ringward
