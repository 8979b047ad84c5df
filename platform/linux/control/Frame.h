// SPDX-License-Identifier: Apache-2.0
//
// The frames of the control socket: a 32-bit length in network byte order, one byte of type, the
// body; the length counts type and body. FrameReader cuts a stream of bytes into frames, frameTo()
// writes one. Knows no socket. docs/formats.md has the whole protocol.
//
// An object belongs to one thread.
//
// Invariants:
//  1. A length outside 1 to kMaxFrame is refused when its four bytes are there: no memory is taken
//     on the word of a peer.
//  2. A reader keeps room() bytes more at most, so it never holds more than one frame of the
//     greatest length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Platform::Linux::Control {

using Bytes = std::span<const std::uint8_t>;
using Buffer = std::vector<std::uint8_t>;

inline constexpr std::size_t kLengthSize = 4;
inline constexpr std::size_t kMaxFrame = 64 * 1024;  // type and body
inline constexpr std::size_t kMaxBody = kMaxFrame - 1;

struct Frame {
  std::uint8_t type = 0;
  Bytes body;
};

// Appends one frame. REQUIRES: the body has at most kMaxBody bytes.
void frameTo(Buffer& out, std::uint8_t type, Bytes body);

class FrameReader {
 public:
  // How many bytes take() takes at present.
  std::size_t room() const noexcept { return kLengthSize + kMaxFrame - waiting(); }
  // Bytes that no frame has been made of yet.
  std::size_t waiting() const noexcept { return bytes_.size() - begin_; }
  // REQUIRES: at most room() bytes.
  void take(Bytes bytes);

  // The next frame, nothing while it is incomplete. The body lives until the next call of next() or
  // take(). Raises a range exception for a length that cannot be; the stream is of no use then.
  std::optional<Frame> next();
  // Whether next() would answer something else than nothing.
  bool ready() const noexcept;
  // Whether the bytes end inside of a frame, behind whatever whole ones. Looks at all of these.
  bool endsInside() const noexcept;
  // What next() would answer, which stays the next one. Nothing also for a length that cannot be.
  std::optional<Frame> peek() const noexcept;

 private:
  // REQUIRES: four bytes are there from `at` on.
  std::size_t lengthAt(std::size_t at) const noexcept;
  std::size_t length() const noexcept { return lengthAt(begin_); }

  Buffer bytes_;
  std::size_t begin_ = 0;
};

}  // namespace Platform::Linux::Control
