// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Fd.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace Platform::Linux {
namespace {

std::error_code bufferIs(const Fd& fd, int forceOption, int option, std::size_t bytes) noexcept {
  // The kernel doubles the value for its own overhead, so more than half of an int would wrap.
  constexpr std::size_t kLargest = std::numeric_limits<int>::max() / 2;
  const int value = static_cast<int>(std::min(bytes, kLargest));
  if (!socketOptionIs(fd, SOL_SOCKET, forceOption, value)) {
    return {};
  }
  return socketOptionIs(fd, SOL_SOCKET, option, value);
}

}  // namespace

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void Fd::close() noexcept {
  if (fd_ >= 0) {
    const int saved = errno;
    ::close(std::exchange(fd_, -1));
    errno = saved;
  }
}

std::error_code lastError() noexcept { return {errno, std::system_category()}; }

std::error_code socketOptionIs(const Fd& fd, int level, int option, int value) noexcept {
  if (::setsockopt(fd.get(), level, option, &value, sizeof(value)) != 0) {
    return lastError();
  }
  return {};
}

std::error_code receiveBufferIs(const Fd& fd, std::size_t bytes) noexcept {
  return bufferIs(fd, SO_RCVBUFFORCE, SO_RCVBUF, bytes);
}

std::error_code sendBufferIs(const Fd& fd, std::size_t bytes) noexcept {
  return bufferIs(fd, SO_SNDBUFFORCE, SO_SNDBUF, bytes);
}

}  // namespace Platform::Linux
