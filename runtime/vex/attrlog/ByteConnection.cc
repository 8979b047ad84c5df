// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/attrlog/ByteConnection.h"

#include <string>

#include "runtime/vex/attrlog/MsgHeader.h"

namespace Vex::ByteConnection {

const std::uint8_t* In::take(std::size_t count) {
  if (remaining() < count) {
    throwRangeException("message ends at byte " + std::to_string(bytes_.size()) + ", " +
                        std::to_string(count) + " wanted at byte " + std::to_string(at_));
  }
  const std::uint8_t* const from = bytes_.data() + at_;
  at_ += count;
  return from;
}

std::uint64_t In::number(std::size_t count) {
  const std::uint8_t* const from = take(count);
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = value << 8 | from[i];
  return value;
}

bool In::nextbool() {
  const std::uint8_t value = nextU8();
  if (value > 1) {
    throwRangeException("bool " + std::to_string(value) + " at byte " + std::to_string(at_ - 1) +
                        " not allowed (0 or 1)");
  }
  return value == 1;
}

std::string_view In::nextString() {
  const std::uint16_t size = nextU16();
  if (size > kMaxText) {
    throwRangeException("text of " + std::to_string(size) + " bytes at byte " +
                        std::to_string(at_ - 2) + " not allowed (0 to " + std::to_string(kMaxText) +
                        ")");
  }
  const std::uint8_t* const from = take(size);
  return {reinterpret_cast<const char*>(from), size};
}

EntityId In::nextEntityId() {
  const std::uint32_t high = nextU32();
  return {high, nextU32()};
}

void In::tokenIs(std::uint8_t token) {
  const std::uint8_t found = nextU8();
  if (found != token) {
    throwRangeException("token " + std::to_string(found) + " at byte " + std::to_string(at_ - 1) +
                        " not allowed (" + std::to_string(token) + ")");
  }
}

void In::currentPayloadSectionIs(std::uint8_t section) {
  tokenIs(NboAttrLog::kSectionToken);
  const std::uint8_t found = nextU8();
  if (found != section) {
    throwRangeException("payload section " + std::to_string(found) + " at byte " +
                        std::to_string(at_ - 1) + " not allowed (" + std::to_string(section) + ")");
  }
}

void In::endIs() const {
  if (remaining() != 0) {
    throwRangeException(std::to_string(remaining()) +
                        " bytes behind the end of the message at byte " + std::to_string(at_));
  }
}

}  // namespace Vex::ByteConnection
