// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::rebuildFrame: puts a received frame back into the form it had on the wire.
//
// The kernel takes the outermost 802.1Q or 802.1ad tag out of a frame before any packet socket or
// filter program sees it and hands the tag over beside the data (packet(7), PACKET_AUXDATA). A tag
// of another type, 0x9100 for one, stays in the data, and so does every inner tag.
//
// Pure functions, callable from any thread. Invariants:
//   1. Only the twelve bytes of the two addresses move; the payload is never copied.
//   2. Whether there was a tag is told by the status bit alone: a tag with VLAN 0 and priority 0
//   has
//      a control field of zero and is a tag all the same.
//   3. A frame without both addresses (under 12 bytes) is left as it is.
#pragma once

#include <linux/if_packet.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace Platform::Linux {

// Bytes that must be free in front of the data as read.
inline constexpr std::size_t kFrameHeadroom = 4;

// `buffer` holds kFrameHeadroom free bytes and then the data exactly as read; the result is the
// frame inside that same buffer and lives as long as the buffer does. A buffer shorter than the
// headroom gives an empty frame.
std::span<const std::uint8_t> rebuildFrame(std::span<std::uint8_t> buffer,
                                           const tpacket_auxdata& auxdata);

}  // namespace Platform::Linux
