// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Oui: an organizationally unique identifier (IEEE 802, section 8.2) as it stands on the
// wire. A plain value of three bytes.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <type_traits>

#include "runtime/vex/DescribedValue.h"

namespace Ringward {

struct Oui {
  constexpr Oui() noexcept = default;
  constexpr Oui(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2) noexcept
      : byte0(b0), byte1(b1), byte2(b2) {}
  // The type object; to call it, include runtime/vex/GenericType.h.
  template <class Self = Oui>
  static Vex::VexType* _fwkType() {
    return Vex::fwkTypeOf<Self>();
  }
  // Reads the text form; `at` ends behind it.
  Oui(Vex::TextPlace& at, const Vex::TextPlace& end);

  std::uint8_t byte0 = 0;
  std::uint8_t byte1 = 0;
  std::uint8_t byte2 = 0;
  friend constexpr auto operator<=>(const Oui&, const Oui&) = default;
};
static_assert(sizeof(Oui) == 3 && alignof(Oui) == 1 && std::is_trivially_copyable_v<Oui>);

// The identifier under which probes are sent; no other is ever accepted.
inline constexpr Oui kProbeOui{0x0A, 0x1B, 0x2C};

}  // namespace Ringward

template <>
struct Vex::Description<Ringward::Oui> {
  using Class = Ringward::Oui;
  static constexpr std::string_view kTypeName = "Ringward::Oui";
  static constexpr auto kFields =
      std::tuple(Vex::Field{"byte0", &Class::byte0}, Vex::Field{"byte1", &Class::byte1},
                 Vex::Field{"byte2", &Class::byte2});
};

namespace Ringward {

using Vex::valueToStrep;

inline Oui::Oui(Vex::TextPlace& at, const Vex::TextPlace& end) {
  Vex::readDescribed(*this, at, end);
}
inline std::ostream& operator<<(std::ostream& out, const Oui& value) {
  return Vex::writeStrep(out, value);
}

}  // namespace Ringward
