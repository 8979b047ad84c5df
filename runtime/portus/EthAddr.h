// SPDX-License-Identifier: Apache-2.0
//
// Portus::EthAddr: a 48-bit MAC address, in the order in which its bytes go over the wire. The
// all-zero address stands for "none".
//
// A value: copied freely, usable from any thread; all operations but those on text are constexpr.
// Lies directly over packet bytes (EthHdr.h), so its size is six bytes and its alignment one.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "runtime/portus/Mix.h"
#include "runtime/vex/ValueText.h"

namespace Portus {

class EthAddr {
 public:
  static constexpr std::size_t kSize = 6;
  using Bytes = std::array<std::uint8_t, kSize>;

  constexpr EthAddr() noexcept = default;
  constexpr explicit EthAddr(const Bytes& bytes) noexcept : bytes_(bytes) {}
  constexpr EthAddr(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3,
                    std::uint8_t b4, std::uint8_t b5) noexcept
      : bytes_{b0, b1, b2, b3, b4, b5} {}

  static constexpr EthAddr fromBytes(std::span<const std::uint8_t, kSize> bytes) noexcept {
    return EthAddr(bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]);
  }

  static constexpr EthAddr broadcast() noexcept {
    return EthAddr(0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF);
  }

  // Reads "02:00:00:00:00:01": six times two hexadecimal digits of either case, joined by colons,
  // and nothing around them. Raises RangeException that names the text and the position.
  static EthAddr parse(std::string_view text);

  // Lower-case, always 17 characters; parse() reads it back.
  std::string toText() const;

  constexpr const Bytes& bytes() const noexcept { return bytes_; }

  // The address as a number of 48 bits, first byte highest.
  constexpr std::uint64_t value() const noexcept {
    std::uint64_t result = 0;
    for (const std::uint8_t byte : bytes_) result = result << 8 | byte;
    return result;
  }

  // Group bit of IEEE 802: the lowest bit of the first byte. Set in the broadcast address too.
  constexpr bool isMulticast() const noexcept { return (bytes_[0] & 1) != 0; }
  constexpr bool isBroadcast() const noexcept { return *this == broadcast(); }

  constexpr std::uint32_t hash() const noexcept {
    return static_cast<std::uint32_t>(mix64(value()) >> 32);
  }

  constexpr explicit operator bool() const noexcept { return value() != 0; }

  friend constexpr bool operator==(const EthAddr&, const EthAddr&) noexcept = default;
  friend constexpr auto operator<=>(const EthAddr&, const EthAddr&) noexcept = default;

 private:
  Bytes bytes_{};
};

static_assert(sizeof(EthAddr) == 6);
static_assert(alignof(EthAddr) == 1);
static_assert(std::is_trivially_copyable_v<EthAddr>);
static_assert(std::is_standard_layout_v<EthAddr>);

// Prints toText().
std::ostream& operator<<(std::ostream& out, const EthAddr& addr);

}  // namespace Portus

// As toText() writes it and parse() reads it.
template <>
struct Vex::ValueText<Portus::EthAddr> {
  static void write(std::string& out, const Portus::EthAddr& addr) { out += addr.toText(); }
  static Portus::EthAddr read(TextPlace& at, const TextPlace& end);
  static std::string toKey(const Portus::EthAddr& addr) { return addr.toText(); }
};

template <>
struct std::hash<Portus::EthAddr> {
  std::size_t operator()(const Portus::EthAddr& addr) const noexcept { return addr.hash(); }
};
