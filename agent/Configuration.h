// SPDX-License-Identifier: Apache-2.0
//
// What the operator asks of the agent: the value of one configuration file, with the default of
// every key that the file leaves out. docs/configuration.md is the operator's view of the same.
//
// Plain values without threads or ownership. A Configuration that ConfigurationReader.h returned
// keeps the invariants below; code that fills one in by hand has to keep them itself.
//
// Invariants:
//  1. `enabled` implies that `ports` is present.
//  2. Ports names a bridge (then `match` is empty) or has at least one pattern (then `bridge` is
//     empty), never both.
//  3. Every interface name satisfies isInterfaceName(), every pattern PortMatch::isPattern(); all
//     are UTF-8, and no list holds the same text twice.
//  4. nativeVlan is 1 to 4094; transmitInterval is 0 to 255; stateFile is empty or the absolute
//     path of a file, without a '/' at its end and without NUL.
//  5. The root of tables is empty or an absolute path without a component ".."; the sizes of tables
//     are kLeastTableSize to kMostTableSize.
//  6. The path of the control socket is empty or absolute, does not end with '/' and fits into an
//     address; the group is empty or a name of at most kMaxGroupName bytes without NUL;
//     maxClients is kLeastClients to kMostClients.
//  7. A fixed source address is a unicast address and not zero.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Scheduling.h"
#include "platform/linux/LinkDirectory.h"
#include "platform/linux/PortAction.h"
#include "platform/linux/control/Protocol.h"
#include "runtime/bridging/VlanBitmap.h"

namespace Agent {

// IFNAMSIZ of the kernel interface, without the terminating NUL.
inline constexpr std::size_t kMaxInterfaceNameSize = 15;

using Platform::Linux::ErrdisableAction;
using Platform::Linux::SourceAddress;

inline constexpr const char* kDefaultStateFile = "/run/ringward/held.json";

struct Ports {
  std::string bridge;
  std::vector<std::string> match;
  std::uint16_t nativeVlan = 1;

  friend bool operator==(const Ports&, const Ports&) = default;
};

inline constexpr std::uint32_t kLeastTableSize = 1;
inline constexpr std::uint32_t kMostTableSize = 65536;

// Where the tables of counters are and for how many records they are made. A table that holds more
// grows.
struct Counters {
  bool shared = true;              // other processes can read them
  std::string root;                // absolute; empty: the store's own default
  std::uint32_t interfaces = 256;  // the totals of no more than these are kept
  std::uint32_t vlans = 4096;

  friend bool operator==(const Counters&, const Counters&) = default;
};

inline constexpr std::uint32_t kLeastClients = 1;
inline constexpr std::uint32_t kMostClients = 1024;
inline constexpr std::size_t kMaxSocketPath = 107;  // sockaddr_un, without the NUL
inline constexpr std::size_t kMaxGroupName = 255;

// The socket by which the operator's command and others reach the agent.
struct Control {
  std::string socket = Platform::Linux::Control::kDefaultSocket;  // absolute; empty: none
  std::string group = "ringward";  // whose members may change things; empty: root alone
  std::uint32_t maxClients = 32;

  friend bool operator==(const Control&, const Control&) = default;
};

struct Configuration {
  bool enabled = false;
  Bridging::VlanBitmap vlans;
  std::vector<std::string> exclude;
  std::uint32_t transmitInterval = 5;   // seconds
  std::uint32_t disabledTime = 604800;  // seconds; 0: a disabled port stays down
  std::uint32_t rateLimit = 1000;       // probes per second; 0: no limit
  std::optional<Ports> ports;
  std::string stateFile = kDefaultStateFile;  // absolute; empty: none
  Scheduling scheduling = Scheduling::automatic;
  ErrdisableAction errdisableAction = ErrdisableAction::automatic;
  bool acceptForeignSource = false;
  SourceAddress sourceAddress;
  Counters counters;
  Control control;

  friend bool operator==(const Configuration&, const Configuration&) = default;
};

// The rule of the kernel (dev_valid_name() in net/core/dev.c): 1 to 15 bytes, without '/', ':',
// NUL or white space, and neither "." nor "..".
bool isInterfaceName(std::string_view text);

// `text` in quotes for a message on one line: control characters, quotes and backslashes are
// escaped as in TOML, and what exceeds 64 bytes is cut off and marked with "...".
std::string quotedText(std::string_view text);

// A text from elsewhere, such as a library's description of an error, for a message on one line:
// '?' for each control character, and what exceeds 240 bytes is cut off and marked with "...".
std::string plainText(std::string_view text);

}  // namespace Agent
