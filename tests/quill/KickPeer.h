// SPDX-License-Identifier: Apache-2.0
//
// Either end of a kick socket as a plain program would write it from docs/formats.md alone: its own
// bytes, its own system calls. Never waits.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <utility>

namespace QuillTest {

// A message as its bytes.
inline std::string kickBytes(unsigned type, std::uint64_t sequence) {
  std::string bytes = "QKCK";
  bytes += '\1';
  bytes += '\0';
  bytes += static_cast<char>(type & 0xFFU);
  bytes += static_cast<char>(type >> 8 & 0xFFU);
  for (int i = 0; i < 8; ++i) bytes += static_cast<char>(sequence >> (8 * i) & 0xFFU);
  return bytes;
}

inline std::string hello() { return kickBytes(1, 0); }
inline std::string sequenceBytes(std::uint64_t sequence) { return kickBytes(2, sequence); }
inline std::string sleepBytes(std::uint64_t sequence) { return kickBytes(3, sequence); }
inline std::string ack(std::uint64_t sequence) { return kickBytes(4, sequence); }
inline std::string kick(std::uint64_t sequence) { return kickBytes(5, sequence); }

class KickPeer {
 public:
  KickPeer() = default;
  explicit KickPeer(int fd) : fd_(fd) {}
  KickPeer(KickPeer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  KickPeer& operator=(KickPeer&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  KickPeer(const KickPeer&) = delete;
  KickPeer& operator=(const KickPeer&) = delete;
  ~KickPeer() { hangUp(); }

  // A connection to the socket at `path`; open() tells whether there is one.
  static KickPeer connected(const std::string& path) {
    KickPeer peer(newSocket());
    const sockaddr_un address = addressOf(path);
    if (connect(peer.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      peer.hangUp();
    }
    return peer;
  }
  // A socket that listens at `path`.
  static KickPeer listening(const std::string& path) {
    KickPeer peer(newSocket());
    const sockaddr_un address = addressOf(path);
    EXPECT_EQ(0, bind(peer.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_EQ(0, listen(peer.fd_, 16));
    return peer;
  }
  // The next connection of a listening socket, none if nobody has tried.
  KickPeer accepted() const { return KickPeer(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)); }

  bool open() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  void hangUp() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

  bool send(const std::string& bytes) const {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(bytes.size());
  }
  // The next message, empty if there is none.
  std::string received() const {
    std::array<char, 64> buffer{};
    const ssize_t size = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : std::string();
  }
  // Whether the other end has closed the connection.
  bool closed() const {
    pollfd entry{fd_, POLLIN, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & POLLHUP) != 0;
  }

 private:
  static int newSocket() {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    EXPECT_GE(fd, 0);
    return fd;
  }
  static sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    EXPECT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
  }

  int fd_ = -1;
};

}  // namespace QuillTest
