// SPDX-License-Identifier: Apache-2.0
#include "quill/KickSocket.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "quill/Text.h"

namespace Quill {

void KickDescriptor::reset() noexcept {
  if (fd_ >= 0) close(std::exchange(fd_, -1));
}

KickDescriptor openKickDirectory(const std::string& path) {
  return KickDescriptor(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

KickDescriptor newKickSocket() {
  return KickDescriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

sockaddr_un kickAddress(const KickDescriptor& directory, std::string_view name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = textOf("/proc/self/fd/", directory.get(), "/", name);
  // REQUIRES: a name of the store's own, far shorter than the room.
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

int sendKick(int fd, const KickMessage& message) noexcept {
  const KickBytes bytes = encodeKick(message);
  ssize_t sent = 0;
  do {
    sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;  // a message of this kind of socket goes as a whole or not at all
}

KickInput receiveKick(int fd) {
  KickBytes bytes{};
  ssize_t size = 0;
  do {
    // With MSG_TRUNC the answer is the length of the message, also where that is more than the
    // room.
    size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_TRUNC);
  } while (size < 0 && errno == EINTR);
  KickInput input;
  if (size == 0 || (size < 0 && errno == ECONNRESET)) {
    input.kind = KickInput::Kind::closed;
  } else if (size < 0) {
    if (errno == EAGAIN) return input;
    input.kind = KickInput::Kind::wrong;
    input.reason = std::strerror(errno);
  } else if (const auto message = decodeKick(bytes, static_cast<std::size_t>(size), input.reason)) {
    input.kind = KickInput::Kind::message;
    input.message = *message;
  } else {
    input.kind = KickInput::Kind::wrong;
  }
  return input;
}

}  // namespace Quill
