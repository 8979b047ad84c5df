// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::IntfTotals: what one interface has sent and received since its table was made,
// for operators. The record of a table that other processes read: its fifty-six bytes are described
// in docs/formats.md. No count ever falls, beside those of CounterIntf, which do.
//
// A value: copied freely, usable from any thread.
//
// Invariants:
//  1. It begins with its key and has no byte that is not named here, whatever the word size.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "runtime/portus/IntfId.h"

namespace Ringward::Status {

// The counts of the record of the default key, the one of no interface, are those that are known of
// the packet socket alone; in every other record these two are 0.
struct IntfTotals {
  // The type's name in a table's header.
  static constexpr std::string_view kTypeName = "Ringward::Status::IntfTotals";

  Portus::IntfId key;
  std::uint64_t probesSent = 0;      // probes that the kernel has taken
  std::uint64_t sendErrors = 0;      // probes that it has refused
  std::uint64_t probesReceived = 0;  // valid probes delivered
  std::uint64_t foreignProbes = 0;   // of the socket: frames from another source address
  std::uint64_t malformed = 0;       // frames of the probes' type that are no valid probes
  std::uint64_t kernelDrops = 0;     // of the socket: frames for which the buffer had no room

  IntfTotals& operator+=(const IntfTotals& more) noexcept {
    probesSent += more.probesSent;
    sendErrors += more.sendErrors;
    probesReceived += more.probesReceived;
    foreignProbes += more.foreignProbes;
    malformed += more.malformed;
    kernelDrops += more.kernelDrops;
    return *this;
  }

  friend auto operator<=>(const IntfTotals&, const IntfTotals&) = default;
};

static_assert(sizeof(IntfTotals) == 56 && alignof(IntfTotals) <= 8);
static_assert(offsetof(IntfTotals, probesSent) == 8 && offsetof(IntfTotals, sendErrors) == 16 &&
              offsetof(IntfTotals, probesReceived) == 24 &&
              offsetof(IntfTotals, foreignProbes) == 32 && offsetof(IntfTotals, malformed) == 40 &&
              offsetof(IntfTotals, kernelDrops) == 48);
static_assert(std::is_trivially_copyable_v<IntfTotals>);

// Prints "<key>: probesSent <n>, sendErrors <n>, probesReceived <n>, foreignProbes <n>, malformed
// <n>, kernelDrops <n>".
inline std::ostream& operator<<(std::ostream& out, const IntfTotals& totals) {
  return out << totals.key << ": probesSent " << totals.probesSent << ", sendErrors "
             << totals.sendErrors << ", probesReceived " << totals.probesReceived
             << ", foreignProbes " << totals.foreignProbes << ", malformed " << totals.malformed
             << ", kernelDrops " << totals.kernelDrops;
}

}  // namespace Ringward::Status
