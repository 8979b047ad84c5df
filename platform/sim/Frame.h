// SPDX-License-Identifier: Apache-2.0
//
// Frames of the simulation: immutable byte strings that any number of events, queues and records
// share, and the few things that the elements do with them. Pure functions, any thread.
//
// Invariant: the bytes behind a FramePtr never change; whoever alters a frame makes another.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "runtime/bridging/VlanId.h"
#include "runtime/portus/EthAddr.h"

namespace Platform::Sim {

using Frame = std::vector<std::uint8_t>;
using FramePtr = std::shared_ptr<const Frame>;
using Bytes = std::span<const std::uint8_t>;

inline FramePtr newFrame(Frame bytes) { return std::make_shared<const Frame>(std::move(bytes)); }

// The addresses; all zero if the frame is too short to have them.
Portus::EthAddr sourceOf(Bytes frame);
Portus::EthAddr destinationOf(Bytes frame);

// The 12 bits of the outer 802.1Q tag (type 0x8100), none for an untagged frame or a cut-off tag.
// May be 4095, which is no VLAN.
std::optional<std::uint16_t> tagOf(Bytes frame);

// Whether the ether type 0x88B7 stands at offset 12, or at 16 behind a tag of 0x8100.
bool isProbe(Bytes frame);

// The frame with the tag of `vlan`: in place of the tag that it has, whose priority stays, or put
// in with priority 0. A frame without a full Ethernet header stays as it is.
Frame withTag(Bytes frame, std::uint16_t vlan);
// The frame without its outer tag; one without a tag stays as it is.
Frame withoutTag(Bytes frame);

// A broadcast of 60 bytes, the smallest that a wire carries without its check sequence; its ether
// type 0x88B5 (IEEE 802, local experiments) means nothing to anybody.
Frame broadcastFrame(const Portus::EthAddr& source,
                     Bridging::VlanIdOrNone vlan = Bridging::VlanIdOrNone());

// Lower-case hexadecimal digits, two for each byte.
std::string toHex(Bytes bytes);

}  // namespace Platform::Sim
