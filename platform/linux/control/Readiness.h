// SPDX-License-Identifier: Apache-2.0
//
// Control::Readiness: a set of descriptors in an epoll(7) of their own, that is itself one readable
// descriptor to an activity loop. The loop asks for readable descriptors only; whoever writes to a
// socket that may be full has to know when it no longer is.
//
// Belongs to one thread. Descriptors stay their owners' and have to be withdrawn before they are
// closed.
#pragma once

#include <cstdint>
#include <span>
#include <system_error>

#include "platform/linux/Fd.h"

namespace Platform::Linux::Control {

class Readiness {
 public:
  struct Event {
    int fd = -1;
    bool readable = false;  // or closed, or broken: a read tells
    bool writable = false;
  };

  // Raises an internal exception with the system's reason.
  Readiness();

  // Readable whenever take() would give something.
  int fd() const noexcept { return epoll_.get(); }

  // A descriptor that wants neither is still told of its end.
  std::error_code newInterest(int fd, bool read, bool write) noexcept;
  void interestIs(int fd, bool read, bool write) noexcept;
  void interestDel(int fd) noexcept;

  // What is ready now, without waiting; the rest with a later call.
  std::size_t take(std::span<Event> events) noexcept;

 private:
  Fd epoll_;
};

}  // namespace Platform::Linux::Control
