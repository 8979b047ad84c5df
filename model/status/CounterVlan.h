// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::CounterVlan: the probes that were sent and received in one VLAN. The record of
// a table that other processes read: its sixteen bytes are described in docs/formats.md.
//
// A value: copied freely, usable from any thread.
//
// Invariants:
//  1. It begins with its key and has no byte that is not named here.
//  2. `padding` is 0, unless the bytes come from somebody else.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "runtime/bridging/VlanId.h"

namespace Ringward::Status {

// The counts wrap at 32 bits. Compared field by field, in the order in which they stand. Key 0
// stands for frames without a known VLAN.
struct CounterVlan {
  // The type's name in a table's header.
  static constexpr std::string_view kTypeName = "Ringward::Status::CounterVlan";

  constexpr CounterVlan() noexcept = default;
  constexpr CounterVlan(Bridging::VlanIdOrNone vlan, std::uint32_t sent, std::uint32_t received,
                        std::uint32_t other) noexcept
      : key(vlan), tx(sent), rx(received), rxOther(other) {}

  Bridging::VlanIdOrNone key;
  std::uint16_t padding = 0;
  std::uint32_t tx = 0;       // probes handed to a Pam
  std::uint32_t rx = 0;       // valid probes received
  std::uint32_t rxOther = 0;  // frames received that are no valid probes

  friend auto operator<=>(const CounterVlan&, const CounterVlan&) = default;
};

static_assert(sizeof(CounterVlan) == 16 && alignof(CounterVlan) == 4);
static_assert(offsetof(CounterVlan, padding) == 2 && offsetof(CounterVlan, tx) == 4 &&
              offsetof(CounterVlan, rx) == 8 && offsetof(CounterVlan, rxOther) == 12);
static_assert(std::is_trivially_copyable_v<CounterVlan>);

// Prints "<key>: tx <tx>, rx <rx>, rxOther <rxOther>".
inline std::ostream& operator<<(std::ostream& out, const CounterVlan& counter) {
  return out << counter.key << ": tx " << counter.tx << ", rx " << counter.rx << ", rxOther "
             << counter.rxOther;
}

}  // namespace Ringward::Status
