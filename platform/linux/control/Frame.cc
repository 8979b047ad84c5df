// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/control/Frame.h"

#include <string>

#include "runtime/vex/Exception.h"

namespace Platform::Linux::Control {

void frameTo(Buffer& out, std::uint8_t type, Bytes body) {
  VEX_ASSERT(body.size() <= kMaxBody);
  const auto length = static_cast<std::uint32_t>(body.size() + 1);
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(length >> shift));
  }
  out.push_back(type);
  out.insert(out.end(), body.begin(), body.end());
}

void FrameReader::take(Bytes bytes) {
  VEX_ASSERT(bytes.size() <= room());
  if (begin_ == bytes_.size()) {
    bytes_.clear();
    begin_ = 0;
  } else if (begin_ > kMaxFrame) {
    // Moved only after as many bytes have been used up: constant work for each byte.
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
  }
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

std::size_t FrameReader::lengthAt(std::size_t at) const noexcept {
  std::size_t length = 0;
  for (std::size_t i = 0; i < kLengthSize; ++i) length = length << 8 | bytes_[at + i];
  return length;
}

bool FrameReader::endsInside() const noexcept {
  std::size_t left = waiting();
  while (left >= kLengthSize) {
    const std::size_t size = kLengthSize + lengthAt(bytes_.size() - left);
    if (left < size) return true;
    left -= size;
  }
  return left != 0;
}

bool FrameReader::ready() const noexcept {
  if (waiting() < kLengthSize) return false;
  const std::size_t size = length();
  return size == 0 || size > kMaxFrame || waiting() >= kLengthSize + size;
}

std::optional<Frame> FrameReader::peek() const noexcept {
  if (waiting() < kLengthSize) return std::nullopt;
  const std::size_t size = length();
  if (size == 0 || size > kMaxFrame || waiting() < kLengthSize + size) return std::nullopt;
  const Bytes frame = Bytes(bytes_).subspan(begin_ + kLengthSize, size);
  return Frame{frame.front(), frame.subspan(1)};
}

std::optional<Frame> FrameReader::next() {
  if (waiting() < kLengthSize) return std::nullopt;
  const std::size_t size = length();
  if (size == 0 || size > kMaxFrame) {
    Vex::throwRangeException("frame length " + std::to_string(size) +
                             " not allowed, must be 1 to " + std::to_string(kMaxFrame));
  }
  const std::optional<Frame> frame = peek();
  if (frame) begin_ += kLengthSize + size;
  return frame;
}

}  // namespace Platform::Linux::Control
