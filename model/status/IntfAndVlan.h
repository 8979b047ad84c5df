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

namespace Ringward::Status {

struct IntfAndVlan {
  Portus::IntfId intfId;
  Bridging::VlanId vlanId;

  friend bool operator==(const IntfAndVlan&, const IntfAndVlan&) = default;
  friend auto operator<=>(const IntfAndVlan&, const IntfAndVlan&) = default;
  // Mixes both fields: the requests of one interface differ in the VLAN alone.
  std::uint32_t hash() const noexcept { return intfId.hash() ^ (vlanId.hash() * 0x9E3779B1U); }
};

inline std::ostream& operator<<(std::ostream& os, const IntfAndVlan& value) {
  return os << "intfId: " << value.intfId << " vlanId: " << value.vlanId;
}

}  // namespace Ringward::Status
