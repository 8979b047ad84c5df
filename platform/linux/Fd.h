// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::Fd: sole owner of one file descriptor, and the few socket helpers that the
// packet and netlink classes share.
//
// Any thread may use it; one object belongs to one thread at a time. The descriptor closes with the
// object. Invariants:
//   1. get() is -1 or a descriptor that this object, and nothing else, will close.
//   2. No function here throws; errors come back as errno values in std::error_code.
#pragma once

#include <cstddef>
#include <system_error>
#include <utility>

namespace Platform::Linux {

class Fd {
 public:
  Fd() noexcept = default;
  explicit Fd(int fd) noexcept : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { close(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }

  // Keeps errno, so that an error can be reported after cleaning up. Closed already: nothing.
  void close() noexcept;

 private:
  int fd_ = -1;
};

// The value of errno as an error code of the system category.
std::error_code lastError() noexcept;

// setsockopt with an int value; no error: an empty code.
std::error_code socketOptionIs(const Fd& fd, int level, int option, int value) noexcept;

// Asks for a receive buffer of `bytes`: past the system-wide limit where CAP_NET_ADMIN allows it,
// otherwise as much as net.core.rmem_max allows. socket(7): SO_RCVBUFFORCE, SO_RCVBUF.
std::error_code receiveBufferIs(const Fd& fd, std::size_t bytes) noexcept;

// The same for sending. socket(7): SO_SNDBUFFORCE, SO_SNDBUF.
std::error_code sendBufferIs(const Fd& fd, std::size_t bytes) noexcept;

}  // namespace Platform::Linux
