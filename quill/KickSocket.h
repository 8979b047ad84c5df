// SPDX-License-Identifier: Apache-2.0
//
// What both ends of the kick socket need of the system: descriptors that close themselves, the
// address of the socket, messages in and out. Nothing here waits or raises a signal.
//
// Any thread; a descriptor belongs to one.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <string_view>
#include <utility>

#include "quill/KickMessage.h"

namespace Quill {

class KickDescriptor {
 public:
  KickDescriptor() noexcept = default;
  explicit KickDescriptor(int fd) noexcept : fd_(fd) {}
  KickDescriptor(KickDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  KickDescriptor& operator=(KickDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  KickDescriptor(const KickDescriptor&) = delete;
  KickDescriptor& operator=(const KickDescriptor&) = delete;
  ~KickDescriptor() { reset(); }

  // -1: none.
  int get() const noexcept { return fd_; }
  void reset() noexcept;

 private:
  int fd_ = -1;
};

// A directory as a place for kickAddress(); none, and the reason in errno, if it cannot be opened.
KickDescriptor openKickDirectory(const std::string& path);
// A new socket of the kind of the kick socket; none, and the reason in errno, on failure.
KickDescriptor newKickSocket();
// The address of the socket `name` in that directory, valid while the directory stays open. It
// leads through /proc/self/fd, since an address has 107 bytes for a path and a table's path may be
// longer.
sockaddr_un kickAddress(const KickDescriptor& directory, std::string_view name);

// 0, or the error number: EAGAIN if there is no room.
int sendKick(int fd, const KickMessage& message) noexcept;

struct KickInput {
  enum class Kind {
    message,
    nothing,  // not now
    closed,   // the other end has gone (an empty message counts as that)
    wrong     // no message of this protocol, or an error: `reason`
  };
  Kind kind = Kind::nothing;
  KickMessage message;
  std::string reason;
};

KickInput receiveKick(int fd);

}  // namespace Quill
