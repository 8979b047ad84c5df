// SPDX-License-Identifier: Apache-2.0
//
// Bridging::VlanId and Bridging::VlanIdOrNone: the number of a VLAN, 1 to 4094 (IEEE 802.1Q keeps 0
// for priority tags and 4095 for itself), and the same with 0 for "none".
//
// Values: copied freely, usable from any thread, laid out as one 16-bit word.
//
// Invariants:
//  1. A VlanId holds 1 to 4094, or 0 if it was default constructed and never assigned.
//  2. A VlanIdOrNone holds 0 to 4094.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#include "runtime/vex/Exception.h"
#include "runtime/vex/ValueText.h"

namespace Bridging {

inline constexpr std::uint16_t kMaxVlanId = 4094;

// Every integer type is taken at its full width, so that 65537 is refused and not read as 1.
template <class T>
concept VlanNumber = std::integral<T> && !std::same_as<T, bool>;

// Whether `value` is one of `least` to kMaxVlanId. Negative numbers become huge, and so are
// outside.
template <VlanNumber T>
constexpr bool isVlanNumber(T value, std::uint16_t least) noexcept {
  const auto wide = static_cast<std::uint64_t>(value);
  return wide >= least && wide <= kMaxVlanId;
}

class VlanId {
 public:
  // The state "none", which no number gives.
  constexpr VlanId() noexcept = default;

  // Raises RangeException "VlanId::value < 1 or > 4094 not allowed".
  template <VlanNumber T>
  constexpr explicit VlanId(T value) {
    if (!isVlanNumber(value, 1)) {
      Vex::throwRangeException("VlanId::value < 1 or > 4094 not allowed");
    }
    value_ = static_cast<std::uint16_t>(value);
  }

  // Reads decimal digits; raises RangeException that names the text and the range for any other
  // text, and the text above for a number out of range.
  static VlanId parse(std::string_view text);

  constexpr std::uint16_t value() const noexcept { return value_; }
  constexpr std::uint32_t hash() const noexcept { return value_; }
  constexpr explicit operator bool() const noexcept { return value_ != 0; }

  friend constexpr bool operator==(VlanId, VlanId) noexcept = default;
  friend constexpr auto operator<=>(VlanId, VlanId) noexcept = default;

 private:
  std::uint16_t value_ = 0;
};

class VlanIdOrNone {
 public:
  constexpr VlanIdOrNone() noexcept = default;
  constexpr VlanIdOrNone(VlanId vlanId) noexcept  // NOLINT(google-explicit-constructor): a subset
      : value_(vlanId.value()) {}

  // Raises RangeException "VlanIdOrNone::value > 4094 not allowed".
  template <VlanNumber T>
  constexpr explicit VlanIdOrNone(T value) {
    if (!isVlanNumber(value, 0)) {
      Vex::throwRangeException("VlanIdOrNone::value > 4094 not allowed");
    }
    value_ = static_cast<std::uint16_t>(value);
  }

  // As VlanId::parse, with 0 allowed.
  static VlanIdOrNone parse(std::string_view text);

  constexpr std::uint16_t value() const noexcept { return value_; }
  constexpr std::uint32_t hash() const noexcept { return value_; }
  constexpr explicit operator bool() const noexcept { return value_ != 0; }

  friend constexpr bool operator==(VlanIdOrNone, VlanIdOrNone) noexcept = default;
  friend constexpr auto operator<=>(VlanIdOrNone, VlanIdOrNone) noexcept = default;

 private:
  std::uint16_t value_ = 0;
};

static_assert(sizeof(VlanId) == 2 && alignof(VlanId) == alignof(std::uint16_t));
static_assert(std::is_trivially_copyable_v<VlanId> && std::is_standard_layout_v<VlanId>);
static_assert(sizeof(VlanIdOrNone) == 2 && alignof(VlanIdOrNone) == alignof(std::uint16_t));
static_assert(std::is_trivially_copyable_v<VlanIdOrNone> &&
              std::is_standard_layout_v<VlanIdOrNone>);

// Both print the number in decimal, 0 for none.
std::ostream& operator<<(std::ostream& out, VlanId vlanId);
std::ostream& operator<<(std::ostream& out, VlanIdOrNone vlanId);

}  // namespace Bridging

// Decimal, 0 for none. A VlanId in the text of a value is read as a VlanIdOrNone, since a default
// one says "none" as well; as a key it is 1 to 4094.
template <>
struct Vex::ValueText<Bridging::VlanIdOrNone> {
  static void write(std::string& out, const Bridging::VlanIdOrNone& vlanId) {
    writeNumber(out, std::uint64_t{vlanId.value()});
  }
  static Bridging::VlanIdOrNone narrow(std::int64_t wide) { return Bridging::VlanIdOrNone(wide); }
  static Bridging::VlanIdOrNone read(TextPlace& at, const TextPlace& end) {
    return narrow(wideNumber(at, end));
  }
  static Bridging::VlanIdOrNone fromKey(std::string_view text) {
    return Bridging::VlanIdOrNone::parse(text);
  }
};
template <>
struct Vex::ValueText<Bridging::VlanId> {
  static void write(std::string& out, const Bridging::VlanId& vlanId) {
    writeNumber(out, std::uint64_t{vlanId.value()});
  }
  static Bridging::VlanId narrow(std::int64_t wide) {
    const Bridging::VlanIdOrNone vlanId(wide);
    return vlanId ? Bridging::VlanId(vlanId.value()) : Bridging::VlanId();
  }
  static Bridging::VlanId read(TextPlace& at, const TextPlace& end) {
    return narrow(wideNumber(at, end));
  }
  static Bridging::VlanId fromKey(std::string_view text) { return Bridging::VlanId::parse(text); }
};

template <>
struct std::hash<Bridging::VlanId> {
  std::size_t operator()(Bridging::VlanId vlanId) const noexcept { return vlanId.hash(); }
};

template <>
struct std::hash<Bridging::VlanIdOrNone> {
  std::size_t operator()(Bridging::VlanIdOrNone vlanId) const noexcept { return vlanId.hash(); }
};
