// SPDX-License-Identifier: Apache-2.0
//
// countPacket(): the one function through which the engine counts. Activity thread only.
#pragma once

#include <cstdint>

#include "model/status/PacketCounter.h"

namespace Ringward {

enum class CounterKind : std::uint8_t { tx = 0, rx = 1, rxOther = 2 };

// Adds one to the count named by `kind` of both the interface's and the VLAN's record. The two
// other counts of each record written are 0: a record carries the running count of the kind counted
// last.
void countPacket(CounterKind kind, const Portus::IntfId& intfId, Bridging::VlanIdOrNone vlanId,
                 Status::PacketCounter& packetCounter);

}  // namespace Ringward
