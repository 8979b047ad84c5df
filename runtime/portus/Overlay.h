// SPDX-License-Identifier: Apache-2.0
//
// Portus::overlayAt: packet bytes seen as a header, in place and without a copy.
//
// The header must be made of bytes only: alignment 1, no padding, trivially copyable. It then may
// begin at any byte, and reading any bytes through it is defined. The pointer is good as long as
// the bytes are; the caller has checked that sizeof(Header) bytes are there.
#pragma once

#include <cstdint>
#include <new>
#include <type_traits>

namespace Portus {

template <class Header>
concept PacketHeader = alignof(Header) == 1 &&
                       std::is_trivially_copyable_v<Header>&& std::is_standard_layout_v<Header>;

// REQUIRES: sizeof(Header) readable and writable bytes at `bytes`, part of an array of bytes.
template <PacketHeader Header>
Header* overlayAt(std::uint8_t* bytes) noexcept {
  return std::launder(reinterpret_cast<Header*>(bytes));
}

template <PacketHeader Header>
const Header* overlayAt(const std::uint8_t* bytes) noexcept {
  return std::launder(reinterpret_cast<const Header*>(bytes));
}

// Two bytes in network order. By shifts, so that the host's own byte order plays no part.
constexpr std::uint16_t loadBigEndian16(const std::uint8_t* bytes) noexcept {
  return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

constexpr void storeBigEndian16(std::uint8_t* bytes, std::uint16_t value) noexcept {
  bytes[0] = static_cast<std::uint8_t>(value >> 8);
  bytes[1] = static_cast<std::uint8_t>(value & 0xFF);
}

}  // namespace Portus
