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

namespace Ringward {

struct PacketEncapsulation {
  Portus::EthAddr mac;
  Bridging::VlanIdOrNone vlanId;
  Portus::IntfId senderIntfId;
  friend bool operator==(const PacketEncapsulation&, const PacketEncapsulation&) = default;
  // True exactly for the default value.
  bool operator!() const noexcept { return *this == PacketEncapsulation(); }
};

// Writes Value('Ringward::PacketEncapsulation', ** {'mac': ..., 'vlanId': ..., 'senderIntfId':
// ...}).
std::ostream& operator<<(std::ostream& os, const PacketEncapsulation& value);

}  // namespace Ringward
