// SPDX-License-Identifier: Apache-2.0
//
// Vex::NboAttrLog::Out: what one connection still has to send, a bounded buffer of whole frames.
// Activity thread only; the adapters of the connection write into it, its owner takes bytes out.
//
// A message is nextHeaderIs(), token 1, the payload, token 3. Messages that follow each other
// before anybody has looked at the output share a frame.
//
// Invariants:
//  1. Never more than `limit` bytes wait, or one message or frame if that alone is longer: whoever
//     writes asks hasSufficientBuffer() first.
//  2. Bytes that output() has shown do not change.
//  3. Once the buffer has its size, writing takes no memory.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/vex/PtrInterface.h"
#include "runtime/vex/attrlog/MsgHeader.h"

namespace Vex::NboAttrLog {

class Out final : public VFPtrInterface {
 public:
  // What one message without texts takes at most, the frame around it included.
  static constexpr std::size_t kMessageRoom = 96;

  explicit Out(std::size_t limit) : limit_(limit) {}

  bool hasSufficientBuffer(std::size_t bytes = kMessageRoom) const noexcept {
    const std::size_t used = buffer_.size() - head_;
    return used == 0 || used + bytes <= limit_;
  }

  // What transfers leave free for changes that happen while they are stopped.
  std::size_t reserve() const noexcept { return limit_ / 4; }

  void nextHeaderIs(const MsgHeader& header);
  // Token 3 ends the message.
  void tokenIs(std::uint8_t token);
  void currentPayloadSectionIs(std::uint8_t section) {
    nextU8(kSectionToken);
    nextU8(section);
  }
  void nextbool(bool value) { nextU8(value ? 1 : 0); }
  void nextU8(std::uint8_t value) { buffer_.push_back(value); }
  void nextU16(std::uint16_t value) { number(value, 2); }
  void nextU32(std::uint32_t value) { number(value, 4); }
  void nextU64(std::uint64_t value) { number(value, 8); }
  void nextint(std::int32_t value) { nextU32(static_cast<std::uint32_t>(value)); }
  void nextdouble(double value) { nextU64(std::bit_cast<std::uint64_t>(value)); }
  // Raises RangeException for a text longer than In::kMaxText, ahead of writing any of it.
  void nextString(std::string_view text);
  void nextEntityId(const EntityId& id) {
    nextU32(id.high);
    nextU32(id.low);
  }
  void nextBytes(std::span<const std::uint8_t> bytes) {
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  }

  // A frame of another kind. False, and nothing written, while there is no room for it. Raises
  // RangeException for a body longer than a frame may be.
  bool frameIs(std::uint8_t type, std::span<const std::uint8_t> body);

  // How many frames of the peer have been taken in, as the next frame will tell it.
  void receivedIs(std::uint64_t frames) noexcept {
    if (frames != received_) frameOpen_ = false;
    received_ = frames;
  }
  // How many frames of messages have been begun.
  std::uint64_t frames() const noexcept { return frames_; }

  std::size_t waitingBytes() const noexcept { return buffer_.size() - head_; }
  bool empty() const noexcept { return buffer_.size() == head_; }
  // What waits, oldest first. Good until the next call of anything else.
  std::span<const std::uint8_t> output() noexcept {
    frameOpen_ = false;
    return std::span(buffer_).subspan(head_);
  }
  // REQUIRES: `bytes` is at most the size of output().
  void outputDel(std::size_t bytes);

 private:
  // A frame is closed when it has this size: what reads it must hold all of it.
  static constexpr std::size_t kFullFrame = 4096;

  void number(std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = bytes; i-- > 0;) nextU8(static_cast<std::uint8_t>(value >> (8 * i)));
  }
  void patch(std::size_t at, std::uint64_t value, std::size_t bytes) noexcept {
    for (std::size_t i = 0; i < bytes; ++i) {
      buffer_[at + i] = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
    }
  }
  void makeRoom();

  const std::size_t limit_;
  std::vector<std::uint8_t> buffer_;
  std::size_t head_ = 0;     // where the output begins
  std::size_t frame_ = 0;    // where the latest frame of messages begins
  std::size_t message_ = 0;  // where the latest message begins
  bool frameOpen_ = false;   // another message may join the frame
  std::uint64_t frames_ = 0;
  std::uint64_t received_ = 0;
};

}  // namespace Vex::NboAttrLog
