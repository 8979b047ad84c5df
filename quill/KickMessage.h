// SPDX-License-Identifier: Apache-2.0
//
// The messages on a table's kick socket (docs/formats.md, "The kick socket"): 16 bytes each,
// between one reader and the writer.
//
// Any thread; nothing here has state.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>

namespace Quill {

enum class KickType : std::uint16_t {
  hello = 1,     // reader: speaks this protocol
  sequence = 2,  // reader: has come up to
  sleep = 3,     // reader: has come up to, and sleeps from now on
  ack = 4,       // writer: has taken the first report into account
  kick = 5       // writer: there is more
};

// Prints the name in upper case, as in docs/formats.md; any other number as "type <number>".
std::ostream& operator<<(std::ostream& out, KickType type);

struct KickMessage {
  KickType type = KickType::hello;
  std::uint64_t sequence = 0;

  friend bool operator==(const KickMessage&, const KickMessage&) noexcept = default;
};

inline constexpr std::size_t kKickMessageSize = 16;
inline constexpr std::uint32_t kKickMagic = 0x4B434B51;  // "QKCK"
inline constexpr std::uint16_t kKickVersion = 1;

using KickBytes = std::array<unsigned char, kKickMessageSize>;

KickBytes encodeKick(const KickMessage& message) noexcept;
// Nothing for what is no message; `reason` then names the field, its value and what is permitted.
// `size` is the length of the message on the socket, of which `bytes` may hold only the beginning.
std::optional<KickMessage> decodeKick(std::span<const unsigned char> bytes, std::size_t size,
                                      std::string& reason);

}  // namespace Quill
