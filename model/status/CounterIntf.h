// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::CounterIntf: the probes that one interface has sent and received. The record of
// a table that other processes read: its twenty bytes are described in docs/formats.md.
//
// A value: copied freely, usable from any thread.
//
// Invariants:
//  1. It begins with its key and has no byte that is not named here.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "runtime/portus/IntfId.h"

namespace Ringward::Status {

// The counts wrap at 32 bits. Compared field by field, in the order in which they stand.
struct CounterIntf {
  // The type's name in a table's header.
  static constexpr std::string_view kTypeName = "Ringward::Status::CounterIntf";

  Portus::IntfId key;
  std::uint32_t tx = 0;       // probes handed to the interface's Pam
  std::uint32_t rx = 0;       // valid probes received on it
  std::uint32_t rxOther = 0;  // frames received on it that are no valid probes

  friend auto operator<=>(const CounterIntf&, const CounterIntf&) = default;
  bool operator!() const { return *this == CounterIntf(); }
};

static_assert(sizeof(CounterIntf) == 20 && alignof(CounterIntf) == 4);
static_assert(offsetof(CounterIntf, tx) == 8 && offsetof(CounterIntf, rx) == 12 &&
              offsetof(CounterIntf, rxOther) == 16);
static_assert(std::is_trivially_copyable_v<CounterIntf>);

// Prints "<key>: tx <tx>, rx <rx>, rxOther <rxOther>".
inline std::ostream& operator<<(std::ostream& out, const CounterIntf& counter) {
  return out << counter.key << ": tx " << counter.tx << ", rx " << counter.rx << ", rxOther "
             << counter.rxOther;
}

}  // namespace Ringward::Status
