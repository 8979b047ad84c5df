// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/attrlog/Out.h"

#include <string>

namespace Vex::NboAttrLog {

MsgHeader MsgHeader::read(ByteConnection::In& in) {
  if (const std::uint8_t version = in.nextU8(); version != kFormatVersion) {
    throwRangeException("version " + std::to_string(version) + " of a message not allowed (" +
                        std::to_string(kFormatVersion) + ")");
  }
  MsgHeader header;
  header.keyFlag = in.nextbool();
  header.payloadLength = in.nextU16();
  header.entityId = in.nextEntityId();
  header.attributeId = in.nextint();
  header.payloadHint = in.nextU32();
  for (int word = 0; word < 2; ++word) {
    if (const std::uint32_t reserved = in.nextU32(); reserved != 0) {
      throwRangeException("reserved word " + std::to_string(reserved) + " at byte " +
                          std::to_string(in.position() - 4) + " not allowed (0)");
    }
  }
  return header;
}

TransactionMarker readMarker(ByteConnection::In& in) {
  const std::uint32_t attribute = in.nextU32();
  const std::uint8_t type = in.nextU8();
  const std::uint32_t count = in.nextU32();
  in.tokenIs(kCloseToken);
  in.endIs();
  if (type > static_cast<std::uint8_t>(Transaction::commit)) {
    throwRangeException("transaction type " + std::to_string(type) + " not allowed (0 to 2)");
  }
  return {attribute, static_cast<Transaction>(type), count};
}

// Moves what waits to the front once what is gone takes as much; so each byte moves once at most.
void Out::makeRoom() {
  if (head_ < 1024 || head_ < buffer_.size() - head_) return;
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(head_));
  if (frameOpen_) frame_ -= head_;
  head_ = 0;
}

void Out::nextHeaderIs(const MsgHeader& header) {
  makeRoom();
  if (!frameOpen_ || buffer_.size() - frame_ >= kFullFrame) {
    frame_ = buffer_.size();
    nextU32(0);  // the length, known when a message ends
    nextU8(static_cast<std::uint8_t>(FrameType::messages));
    nextU64(received_);
    ++frames_;
    frameOpen_ = true;
  }
  message_ = buffer_.size();
  nextU8(kFormatVersion);
  nextbool(header.keyFlag);
  nextU16(0);  // the length, as above
  nextEntityId(header.entityId);
  nextint(header.attributeId);
  nextU32(header.payloadHint);
  nextU32(0);
  nextU32(0);
}

void Out::tokenIs(std::uint8_t token) {
  nextU8(token);
  if (token != kCloseToken) return;
  patch(message_ + 2, buffer_.size() - message_ - MsgHeader::kSize, 2);
  patch(frame_, buffer_.size() - frame_ - 4, 4);
}

void Out::nextString(std::string_view text) {
  if (text.size() > ByteConnection::In::kMaxText) {
    throwRangeException("text of " + std::to_string(text.size()) + " bytes not allowed (0 to " +
                        std::to_string(ByteConnection::In::kMaxText) + ")");
  }
  nextU16(static_cast<std::uint16_t>(text.size()));
  buffer_.insert(buffer_.end(), text.begin(), text.end());
}

bool Out::frameIs(std::uint8_t type, std::span<const std::uint8_t> body) {
  if (body.size() >= kMaxFrameLength) {
    throwRangeException("body of " + std::to_string(body.size()) +
                        " bytes not allowed in a frame (0 to " +
                        std::to_string(kMaxFrameLength - 1) + ")");
  }
  if (!hasSufficientBuffer(kFrameHeaderSize + body.size())) return false;
  frameOpen_ = false;
  makeRoom();
  nextU32(static_cast<std::uint32_t>(body.size() + 1));
  nextU8(type);
  nextBytes(body);
  return true;
}

void Out::outputDel(std::size_t bytes) {
  VEX_ASSERT(bytes <= buffer_.size() - head_);
  frameOpen_ = false;
  head_ += bytes;
  if (head_ == buffer_.size()) {
    buffer_.clear();
    head_ = 0;
  }
}

}  // namespace Vex::NboAttrLog
