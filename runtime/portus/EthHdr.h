// SPDX-License-Identifier: Apache-2.0
//
// Portus::EthHdr and Portus::Eth8021QHdr: the Ethernet header and the part that an IEEE 802.1Q tag
// adds to it, laid over the bytes of a packet.
//
//   0       6       12      14      16      18
//   | dst   | src   | type  | tag   | type  | ...
//   |<------ EthHdr ------->|<-Eth8021QHdr->|
//
// An untagged frame's payload begins at offset 14. In a tagged frame the type at 12 is the tag's
// (0x8100), an Eth8021QHdr begins at 14, and the payload at 18; each further tag adds four bytes.
// Values are in host order; the headers hold network order. Made by overlayAt (Overlay.h) through
// at(), or standing alone, then all zero.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "runtime/portus/EthAddr.h"
#include "runtime/portus/Overlay.h"

namespace Portus {

inline constexpr std::uint16_t kEtherType8021Q = 0x8100;
inline constexpr std::uint16_t kEtherType9100 = 0x9100;  // stacked tags before IEEE 802.1ad

class EthHdr {
 public:
  static constexpr std::size_t kSize = 14;

  // REQUIRES: kSize bytes at `frame`.
  static EthHdr* at(std::uint8_t* frame) noexcept { return overlayAt<EthHdr>(frame); }
  static const EthHdr* at(const std::uint8_t* frame) noexcept { return overlayAt<EthHdr>(frame); }

  constexpr const EthAddr& dst() const noexcept { return dst_; }
  constexpr const EthAddr& src() const noexcept { return src_; }
  // An ether type from 0x0600 up, else the length of an IEEE 802.3 payload.
  constexpr std::uint16_t typeOrLen() const noexcept { return loadBigEndian16(typeOrLen_.data()); }

  constexpr void dstIs(const EthAddr& dst) noexcept { dst_ = dst; }
  constexpr void srcIs(const EthAddr& src) noexcept { src_ = src; }
  constexpr void typeOrLenIs(std::uint16_t typeOrLen) noexcept {
    storeBigEndian16(typeOrLen_.data(), typeOrLen);
  }

 private:
  EthAddr dst_;
  EthAddr src_;
  std::array<std::uint8_t, 2> typeOrLen_{};
};

class Eth8021QHdr {
 public:
  static constexpr std::size_t kSize = 4;
  static constexpr std::uint16_t kVlanMask = 0x0FFF;
  static constexpr std::uint16_t kDropEligibleMask = 0x1000;
  static constexpr std::uint16_t kPriorityMask = 0xE000;

  // REQUIRES: kSize bytes at `tag`, which is offset 14 of the frame for the outermost tag.
  static Eth8021QHdr* at(std::uint8_t* tag) noexcept { return overlayAt<Eth8021QHdr>(tag); }
  static const Eth8021QHdr* at(const std::uint8_t* tag) noexcept {
    return overlayAt<Eth8021QHdr>(tag);
  }

  // Priority in bits 15 to 13, drop-eligible indicator in bit 12, VLAN number in bits 11 to 0.
  constexpr std::uint16_t tagControl() const noexcept {
    return loadBigEndian16(tagControl_.data());
  }
  // The type of what follows the tag.
  constexpr std::uint16_t typeOrLen() const noexcept { return loadBigEndian16(typeOrLen_.data()); }

  constexpr void tagControlIs(std::uint16_t tagControl) noexcept {
    storeBigEndian16(tagControl_.data(), tagControl);
  }
  constexpr void typeOrLenIs(std::uint16_t typeOrLen) noexcept {
    storeBigEndian16(typeOrLen_.data(), typeOrLen);
  }

 private:
  std::array<std::uint8_t, 2> tagControl_{};
  std::array<std::uint8_t, 2> typeOrLen_{};
};

// No padding anywhere, so sizes and the order of members fix every offset.
static_assert(sizeof(EthHdr) == EthHdr::kSize && alignof(EthHdr) == 1);
static_assert(sizeof(Eth8021QHdr) == Eth8021QHdr::kSize && alignof(Eth8021QHdr) == 1);
static_assert(PacketHeader<EthHdr> && PacketHeader<Eth8021QHdr>);

}  // namespace Portus
