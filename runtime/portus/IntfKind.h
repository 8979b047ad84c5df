// SPDX-License-Identifier: Apache-2.0
//
// Portus::IntfKind: what sort of interface a name stands for, read from the name alone.
//
// Pure functions; any thread. Two systems that exchange probes must agree on the kind without
// asking anybody, so no property of the device that bears the name is looked at here.
//
// Invariants:
//  1. Only the empty name has the kind `none`.
//  2. A name that fits no other rule is `ethernet`, on purpose: which devices are ports is known to
//     the platform, and a port with an unusual name must not lose its protection silently.
#pragma once

#include <cstdint>
#include <string_view>

namespace Portus {

// The numbers are part of the interface identifier (docs/formats.md): never renumber.
enum class IntfKind : std::uint8_t {
  none = 0,
  ethernet = 1,
  portChannel = 2,
  peerPortChannel = 3,  // a port channel that represents the multi-chassis peer
  vlanIntf = 4,
  loopback = 5,
  other = 6,  // no name gives it; identifiers from elsewhere may carry it
};

// The rules, <N> being one or more decimal digits and <base> one or more bytes:
//   loopback         lo, lo<N>, Loopback<N>
//   vlanIntf         vlan<N>, Vlan<N>, <base>.<N>
//   peerPortChannel  PeerPort-Channel<N>, peerbond<N>
//   portChannel      Port-Channel<N>, po<N>, bond<N>, team<N>
//   ethernet         every other name that is not empty
// The rules exclude each other, so their order means nothing. Names are case sensitive.
IntfKind intfKindOfName(std::string_view name) noexcept;

// The word for messages: "none", "Ethernet", "port channel", ...
const char* intfKindText(IntfKind kind) noexcept;

}  // namespace Portus
