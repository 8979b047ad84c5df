// SPDX-License-Identifier: Apache-2.0
//
// Control::FrameConnection: one end of a connected stream socket that carries frames. Nothing here
// waits or raises a signal.
//
// Belongs to one thread. The descriptor is this object's. What waits to be written is bounded by
// whoever calls frameOut() and bytesOut(): this class has no limit of its own.
#pragma once

#include <system_error>

#include "platform/linux/Fd.h"
#include "platform/linux/control/Frame.h"

namespace Platform::Linux::Control {

class FrameConnection {
 public:
  // Makes the socket non-blocking.
  explicit FrameConnection(Fd socket) noexcept;

  int fd() const noexcept { return socket_.get(); }

  enum class Input {
    some,     // something has come
    nothing,  // nothing now, or no room for it in the reader
    closed    // the peer has closed, or the connection is broken
  };
  // Reads once, at most `most` bytes and what the reader has room for.
  Input read(std::size_t most);
  FrameReader& in() noexcept { return in_; }

  void frameOut(std::uint8_t type, Bytes body) { frameTo(out_, type, body); }
  // Whole frames that somebody else has made.
  void bytesOut(Bytes frames) { out_.insert(out_.end(), frames.begin(), frames.end()); }
  // Bytes that wait to be written.
  std::size_t waiting() const noexcept { return out_.size() - sent_; }
  // Writes what the socket takes, `most` bytes at most. An error: the connection is broken.
  std::error_code write(std::size_t most);

 private:
  Fd socket_;
  FrameReader in_;
  Buffer out_;
  std::size_t sent_ = 0;
};

}  // namespace Platform::Linux::Control
