// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Oui: an organizationally unique identifier (IEEE 802, section 8.2) as it stands on the
// wire. A plain value of three bytes.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <type_traits>

namespace Ringward {

struct Oui {
  std::uint8_t byte0 = 0;
  std::uint8_t byte1 = 0;
  std::uint8_t byte2 = 0;
  friend constexpr auto operator<=>(const Oui&, const Oui&) = default;
};
static_assert(sizeof(Oui) == 3 && alignof(Oui) == 1 && std::is_trivially_copyable_v<Oui>);

// The identifier under which probes are sent; no other is ever accepted.
inline constexpr Oui kProbeOui{0x0A, 0x1B, 0x2C};

}  // namespace Ringward
