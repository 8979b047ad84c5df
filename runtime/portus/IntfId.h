// SPDX-License-Identifier: Apache-2.0
//
// Portus::IntfId: the 8-byte identifier of an interface, computed from its name alone. Probes and
// tables on disk carry the eight bytes as they lie in memory; docs/formats.md gives the encoding.
//
// A value: copied freely, usable from any thread. Names that pack read back by arithmetic. A name
// that does not is known to the process after fromName() has seen it once (IntfNameTable.h); until
// then its identifier prints as "intf#" and 16 hexadecimal digits, which fromName() also accepts.
//
// Invariants:
//  1. Equal names give equal bytes on every system, whatever its word size and byte order.
//  2. The empty name, and nothing else, gives the default identifier: eight zero bytes.
//  3. Any eight bytes are an IntfId: reading, printing and comparing one never fails on its bytes.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "runtime/portus/IntfIdCodec.h"
#include "runtime/portus/IntfKind.h"
#include "runtime/portus/Mix.h"
#include "runtime/vex/ValueText.h"

namespace Portus {

class IntfId {
 public:
  static constexpr std::size_t kSize = 8;
  static constexpr std::size_t kMaxNameLength = 63;
  using Bytes = std::array<std::uint8_t, kSize>;

  constexpr IntfId() noexcept = default;

  // Raises RangeException for a name longer than kMaxNameLength bytes, for a byte outside printable
  // ASCII (0x21 to 0x7E), for a name whose hash belongs to another name of this process, and when
  // 65,536 names that do not pack are known already. The text "intf#" and 16 lower-case
  // hexadecimal digits stands for these eight bytes, whatever they are.
  static IntfId fromName(std::string_view name);

  // Takes the bytes as they are: what arrives on the wire need not be an identifier of any name.
  static constexpr IntfId fromBytes(std::span<const std::uint8_t, kSize> bytes) noexcept {
    IntfId id;
    for (std::size_t i = 0; i < kSize; ++i) id.bytes_[i] = bytes[i];
    return id;
  }

  // The bytes as one big-endian number: the form in which docs/formats.md names the bits.
  static constexpr IntfId fromValue(std::uint64_t value) noexcept {
    IntfId id;
    for (std::size_t i = 0; i < kSize; ++i) {
      id.bytes_[i] = static_cast<std::uint8_t>(value >> (8 * (kSize - 1 - i)));
    }
    return id;
  }
  constexpr std::uint64_t value() const noexcept {
    const auto raw = std::bit_cast<std::uint64_t>(bytes_);
    return std::endian::native == std::endian::little ? __builtin_bswap64(raw) : raw;
  }

  constexpr const Bytes& bytes() const noexcept { return bytes_; }

  // The name; the escaped form for an identifier whose name is not known; "" for the default.
  std::string name() const;

  // Whether some name gives this identifier, as far as it can be told: for a hashed identifier of
  // an unknown name only the kind bits can be checked.
  bool isCanonical() const;

  // As written in the identifier; it agrees with the name's for every identifier made by fromName.
  IntfKind kind() const noexcept { return intfIdKind(value()); }

  // The upper half of the mixed value. Places keys in tables on disk: never change it.
  constexpr std::uint32_t hash() const noexcept {
    return static_cast<std::uint32_t>(mix64(value()) >> 32);
  }

  constexpr explicit operator bool() const noexcept { return *this != IntfId(); }

  // Bytewise, first byte first; so all ports of one prefix stand together and eth2 before eth10.
  friend constexpr bool operator==(const IntfId& a, const IntfId& b) noexcept {
    // One comparison, where that of the arrays is a call; the same below.
    return std::bit_cast<std::uint64_t>(a.bytes_) == std::bit_cast<std::uint64_t>(b.bytes_);
  }
  friend constexpr auto operator<=>(const IntfId& a, const IntfId& b) noexcept {
    return a.value() <=> b.value();
  }

 private:
  Bytes bytes_{};
};

static_assert(sizeof(IntfId) == 8);
static_assert(alignof(IntfId) == 1);
static_assert(std::is_trivially_copyable_v<IntfId>);
static_assert(std::is_standard_layout_v<IntfId>);

// Prints name().
std::ostream& operator<<(std::ostream& out, const IntfId& id);

struct EthIntfId {
  static bool isEthIntfId(const IntfId& id) noexcept { return id.kind() == IntfKind::ethernet; }
};

struct PeerPortChannelIntfId {
  static bool isPeerPortChannelIntfId(const IntfId& id) noexcept {
    return id.kind() == IntfKind::peerPortChannel;
  }
};

// A peer port channel is a port channel too.
struct PortChannelIntfId {
  static bool isPortChannelIntfId(const IntfId& id) noexcept {
    return id.kind() == IntfKind::portChannel || id.kind() == IntfKind::peerPortChannel;
  }
};

}  // namespace Portus

// The name: bare if it is made of letters, digits and -./:_#@+ alone, else as a quoted string,
// which any name may be read from. As the key of a path it stands bare, and the empty one as its
// eight bytes (intf#0000000000000000), so that a key is never empty.
template <>
struct Vex::ValueText<Portus::IntfId> {
  static void write(std::string& out, const Portus::IntfId& id);
  static Portus::IntfId read(TextPlace& at, const TextPlace& end);
  static Portus::IntfId fromKey(std::string_view text) { return Portus::IntfId::fromName(text); }
  static std::string toKey(const Portus::IntfId& id);
};

template <>
struct std::hash<Portus::IntfId> {
  std::size_t operator()(const Portus::IntfId& id) const noexcept { return id.hash(); }
};
