// SPDX-License-Identifier: Apache-2.0
#include "quill/KickMessage.h"

#include <algorithm>
#include <ios>
#include <ostream>

#include "quill/Text.h"

namespace Quill {

namespace {

constexpr std::size_t kVersionAt = 4;
constexpr std::size_t kTypeAt = 6;
constexpr std::size_t kSequenceAt = 8;

template <class Number>
void put(KickBytes& bytes, std::size_t at, Number value) noexcept {
  for (std::size_t i = 0; i < sizeof value; ++i) {
    bytes[at + i] = static_cast<unsigned char>(value >> (8 * i) & 0xFFU);
  }
}

template <class Number>
Number get(std::span<const unsigned char> bytes, std::size_t at) noexcept {
  std::uint64_t value = 0;
  for (std::size_t i = sizeof(Number); i-- > 0;) value = value << 8 | bytes[at + i];
  return static_cast<Number>(value);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, KickType type) {
  switch (type) {
    case KickType::hello:
      return out << "HELLO";
    case KickType::sequence:
      return out << "SEQUENCE";
    case KickType::sleep:
      return out << "SLEEP";
    case KickType::ack:
      return out << "ACK";
    case KickType::kick:
      return out << "KICK";
  }
  return out << "type " << static_cast<unsigned>(type);
}

KickBytes encodeKick(const KickMessage& message) noexcept {
  KickBytes bytes{};
  put(bytes, 0, kKickMagic);
  put(bytes, kVersionAt, kKickVersion);
  put(bytes, kTypeAt, static_cast<std::uint16_t>(message.type));
  put(bytes, kSequenceAt, message.sequence);
  return bytes;
}

std::optional<KickMessage> decodeKick(std::span<const unsigned char> bytes, std::size_t size,
                                      std::string& reason) {
  if (size != kKickMessageSize || bytes.size() < kKickMessageSize) {
    reason = textOf("message of ", size, " bytes, must be ", kKickMessageSize);
    return std::nullopt;
  }
  if (const auto magic = get<std::uint32_t>(bytes, 0); magic != kKickMagic) {
    reason = textOf("magic 0x", std::hex, magic, ", must be 0x", kKickMagic);
    return std::nullopt;
  }
  if (const auto version = get<std::uint16_t>(bytes, kVersionAt); version != kKickVersion) {
    reason = textOf("protocol version ", version, ", must be ", kKickVersion);
    return std::nullopt;
  }
  const auto type = get<std::uint16_t>(bytes, kTypeAt);
  constexpr auto kFirst = static_cast<std::uint16_t>(KickType::hello);
  constexpr auto kLast = static_cast<std::uint16_t>(KickType::kick);
  if (type < kFirst || type > kLast) {
    reason = textOf("message type ", type, ", must be ", kFirst, " to ", kLast);
    return std::nullopt;
  }
  return KickMessage{static_cast<KickType>(type), get<std::uint64_t>(bytes, kSequenceAt)};
}

}  // namespace Quill
