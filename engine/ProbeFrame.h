// SPDX-License-Identifier: Apache-2.0
//
// The codec of the probe, the one frame that the system puts on the wire (docs/formats.md). Pure
// functions over a packet buffer: no state, any thread.
//
// Reading is lax: the socket filter has judged the outer types before, and what gets here is judged
// by its payload. Some of what readProbe() accepts the filter never lets through; it is accepted
// all the same.
#pragma once

#include <cstdint>

#include "model/values/PacketEncapsulation.h"
#include "runtime/portus/Pkt.h"

namespace Ringward {

inline constexpr std::uint16_t kProbeEtherType = 0x88B7;  // IEEE 802, OUI Extended Ethertype
inline constexpr std::uint16_t kProbeProtocolId = 3;
inline constexpr std::uint8_t kProbeVersion = 1;
inline constexpr std::size_t kUntaggedProbeSize = 28;
inline constexpr std::size_t kTaggedProbeSize = 32;

// Writes the probe into an empty packet: 28 bytes if its VLAN is the native one, else 32 with an
// 802.1Q tag of priority 7. No padding and no frame check sequence.
void writeProbe(Portus::Pkt& pkt, const PacketEncapsulation& probe,
                Bridging::VlanIdOrNone nativeVlan);

// Takes a frame apart; `nativeVlan` is that of the receiving interface. A frame that is no valid
// probe gives an all-zero `mac` and the VLAN as far as it was worked out. Raises the range
// exception "VlanIdOrNone::value > 4094 not allowed" for a tag with VLAN 4095. Reads nothing
// outside the packet's current fragment.
PacketEncapsulation readProbe(const Portus::Pkt& pkt, Bridging::VlanIdOrNone nativeVlan);

}  // namespace Ringward
