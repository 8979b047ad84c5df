// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/control/FrameConnection.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace Platform::Linux::Control {

namespace {

constexpr std::size_t kChunk = 16 * 1024;

}  // namespace

FrameConnection::FrameConnection(Fd socket) noexcept : socket_(std::move(socket)) {
  const int flags = fcntl(socket_.get(), F_GETFL);
  if (flags >= 0) fcntl(socket_.get(), F_SETFL, flags | O_NONBLOCK);
}

FrameConnection::Input FrameConnection::read(std::size_t most) {
  std::array<std::uint8_t, kChunk> chunk;
  const std::size_t room = std::min({most, in_.room(), chunk.size()});
  if (room == 0) return Input::nothing;
  ssize_t got = 0;
  do {
    got = recv(socket_.get(), chunk.data(), room, MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return errno == EAGAIN ? Input::nothing : Input::closed;
  if (got == 0) return Input::closed;
  in_.take(Bytes(chunk).first(static_cast<std::size_t>(got)));
  return Input::some;
}

std::error_code FrameConnection::write(std::size_t most) {
  while (waiting() != 0 && most != 0) {
    const std::size_t size = std::min(waiting(), most);
    const ssize_t sent =
        send(socket_.get(), out_.data() + sent_, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN) break;
    if (sent < 0) return lastError();
    sent_ += static_cast<std::size_t>(sent);
    most -= static_cast<std::size_t>(sent);
  }
  if (waiting() == 0) {
    out_.clear();
    sent_ = 0;
  } else if (sent_ > kMaxFrame) {
    out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(sent_));
    sent_ = 0;
  }
  return {};
}

}  // namespace Platform::Linux::Control
