// SPDX-License-Identifier: Apache-2.0
//
// Vex::NboAttrLog::MsgHeader: what stands ahead of each message of the attribute log, and the
// numbers of the format. docs/formats.md gives the bytes. Values; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/vex/attrlog/ByteConnection.h"

namespace Vex::NboAttrLog {

inline constexpr std::uint8_t kFormatVersion = 1;

// What brackets a payload, and what introduces one of its sections.
inline constexpr std::uint8_t kOpenToken = 1;
inline constexpr std::uint8_t kSectionToken = 2;
inline constexpr std::uint8_t kCloseToken = 3;

// Begin, abort and commit of the transfer of a collection.
enum class Transaction : std::uint8_t { begin = 0, abort = 1, commit = 2 };

// Attributes that every entity has for the log itself, below the model's own.
inline constexpr std::int32_t kResendAttribute = 135;       // asks for an attribute once more
inline constexpr std::int32_t kOrphanAttribute = 136;       // announces an entity without a parent
inline constexpr std::int32_t kTransactionAttribute = 144;  // a transaction marker

// The entity that stands for the connection itself; orphans are announced on it.
inline constexpr EntityId kConnectionId{0, 1};
inline constexpr std::uint64_t kFirstEntityNumber = 2;

struct MsgHeader {
  static constexpr std::size_t kSize = 28;

  EntityId entityId;
  std::int32_t attributeId = 0;  // negative: deleted
  bool keyFlag = false;
  std::uint32_t payloadHint = 0;
  std::uint16_t payloadLength = 0;  // bytes from token 1 to token 3, both included

  // Raises RangeException for another version and for reserved bits that are set.
  static MsgHeader read(ByteConnection::In& in);
  friend bool operator==(const MsgHeader&, const MsgHeader&) = default;
};

// What a transaction marker carries. `count` says nothing.
struct TransactionMarker {
  std::uint32_t attribute;
  Transaction type;
  std::uint32_t count;
};
// Reads it behind the opening token, to the end. Raises RangeException for anything else.
TransactionMarker readMarker(ByteConnection::In& in);

// The kinds of frames. From kFirstOtherFrame on they belong to whoever carries the log.
enum class FrameType : std::uint8_t {
  messages = 1,      // messages of the log
  refused = 2,       // a write that the sender of this frame did not let happen
  synchronised = 3,  // everything that was announced has been sent once
};
inline constexpr std::uint8_t kFirstOtherFrame = 16;
// Of the length that a frame begins with: its type and its body.
inline constexpr std::size_t kMaxFrameLength = 65536;
inline constexpr std::size_t kFrameHeaderSize = 5;

}  // namespace Vex::NboAttrLog
