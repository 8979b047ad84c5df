// SPDX-License-Identifier: Apache-2.0
//
// Vex::ByteConnection::In: reads one message of the attribute log, byte for byte in network byte
// order. A value over memory that somebody else owns; any thread, one at a time.
//
// Every operation that finds too few bytes, or a byte that its type does not have, raises
// RangeException with value, place and range. Nothing behind the end is ever read, and nothing that
// the bytes say makes it take memory.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "runtime/vex/Exception.h"

namespace Vex {

// The number under which the two ends of a connection know an entity, as two words of 32 bits.
// Whoever announces an entity allots its number; kReceivers in `high` tells on the stream that it
// was not the sender of the message but its receiver.
struct EntityId {
  static constexpr std::uint32_t kReceivers = 0x80000000U;
  std::uint32_t high = 0;
  std::uint32_t low = 0;

  friend constexpr bool operator==(const EntityId&, const EntityId&) = default;
  constexpr bool isNull() const noexcept { return high == 0 && low == 0; }
  constexpr bool isReceivers() const noexcept { return (high & kReceivers) != 0; }
  // The same entity as the other end writes it.
  constexpr EntityId seenByPeer() const noexcept { return {high ^ kReceivers, low}; }
  constexpr std::uint64_t number() const noexcept {
    return std::uint64_t{high & ~kReceivers} << 32 | low;
  }
  constexpr std::uint64_t bits() const noexcept { return std::uint64_t{high} << 32 | low; }
};

namespace ByteConnection {

class In {
 public:
  // Bytes that a text may have.
  static constexpr std::size_t kMaxText = 1024;

  explicit In(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}

  bool nextbool();
  std::uint8_t nextU8() { return *take(1); }
  std::uint16_t nextU16() { return static_cast<std::uint16_t>(number(2)); }
  std::uint32_t nextU32() { return static_cast<std::uint32_t>(number(4)); }
  std::uint64_t nextU64() { return number(8); }
  std::int32_t nextint() { return static_cast<std::int32_t>(nextU32()); }
  double nextdouble() { return std::bit_cast<double>(nextU64()); }
  // Good as long as the bytes.
  std::string_view nextString();
  EntityId nextEntityId();
  // REQUIRES: `count` is a constant of the format.
  std::span<const std::uint8_t> nextBytes(std::size_t count) { return {take(count), count}; }

  // Expects one of the tokens, or the beginning of a payload section.
  void tokenIs(std::uint8_t token);
  void currentPayloadSectionIs(std::uint8_t section);
  // Expects that nothing is left.
  void endIs() const;

  std::size_t remaining() const noexcept { return bytes_.size() - at_; }
  // How many bytes have been read.
  std::size_t position() const noexcept { return at_; }

 private:
  const std::uint8_t* take(std::size_t count);
  std::uint64_t number(std::size_t count);

  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

}  // namespace ByteConnection
}  // namespace Vex
