// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::LinkMessage: one RTM_NEWLINK or RTM_DELLINK message of rtnetlink(7), taken
// apart.
//
// Parsing is a pure function of the bytes and may be called from any thread. A field that the
// message does not carry is empty: what that means (unchanged, none, unknown) depends on family and
// type and is decided in LinkTable.h, not here. Invariants:
//   1. No byte outside the given span is read, whatever the lengths inside claim.
//   2. A message with an attribute that does not fit, or a known one of the wrong size, is
//   malformed
//      as a whole; half a message is never returned.
//   3. Unknown attributes are skipped, and a known fixed-size one may be longer than today's.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "runtime/portus/EthAddr.h"

namespace Platform::Linux {

// The VLANs of a bridge port, or of the bridge device itself (linux/if_bridge.h, bridge_vlan_info).
struct BridgeVlans {
  std::bitset<4096> members;   // by VLAN id, 1..4094
  std::bitset<4096> untagged;  // subset of members: leave without a tag
  std::uint16_t pvid = 0;      // VLAN of frames that come in without a tag; 0: they are dropped

  bool operator==(const BridgeVlans&) const = default;
};

struct LinkMessage {
  enum class Type : std::uint8_t { kNew, kDel };

  Type type = Type::kNew;
  std::uint8_t family = 0;  // AF_UNSPEC, AF_BRIDGE, or another address family
  int ifindex = 0;          // above 0
  unsigned flags = 0;       // IFF_*, netdevice(7), with IFF_LOWER_UP
  unsigned changeMask = 0;
  unsigned short arpType = 0;  // ARPHRD_*

  std::optional<std::string> name;         // 1..15 characters
  std::optional<std::string> alias;        // operator's text, up to 255 bytes
  std::optional<Portus::EthAddr> address;  // empty also for addresses that are not 6 bytes
  std::optional<unsigned> mtu;             // bytes
  std::optional<std::uint8_t> operState;   // IF_OPER_*, RFC 2863
  std::optional<bool> carrier;
  std::optional<int> master;             // index of the bridge, bond or other upper device
  std::optional<std::string> kind;       // "veth", "bridge", ...; physical devices have none
  std::optional<std::string> slaveKind;  // kind of the master, as "bridge"

  std::optional<bool> protoDown;                  // the carrier is held down for a protocol
  std::optional<std::uint32_t> protoDownReasons;  // a bit for each that wants it so

  // BR_STATE_* (linux/if_bridge.h), from IFLA_PROTINFO (AF_BRIDGE messages) and from the master's
  // data about its port (AF_UNSPEC messages) respectively.
  std::optional<std::uint8_t> bridgePortState;
  std::optional<std::uint8_t> slaveBridgePortState;

  std::optional<bool> vlanFiltering;  // of a bridge device: IFLA_BR_VLAN_FILTERING
  std::optional<BridgeVlans> vlans;   // AF_BRIDGE messages with at least one VLAN entry only
};

// Netlink aligns messages and attributes to four bytes; the macros for it are not clean of sign
// conversions in C++.
constexpr std::size_t netlinkAligned(std::size_t length) { return (length + 3) & ~std::size_t{3}; }

// The length of the netlink message that `bytes` starts with, its header included; 0: no whole one.
std::size_t netlinkMessageSize(std::span<const std::uint8_t> bytes);

// `message` starts at the netlink header and may be longer than it says. Empty: not a link message,
// or malformed. A span that is not aligned to four bytes costs a copy.
std::optional<LinkMessage> parseLinkMessage(std::span<const std::uint8_t> message);

}  // namespace Platform::Linux
