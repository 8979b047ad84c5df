// SPDX-License-Identifier: Apache-2.0
#include "agent/control/ListeningSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Agent {

using Platform::Linux::Fd;

namespace {

// What waits there costs the kernel little, and a crowd of clients must not shut the operator out.
constexpr int kBacklog = 128;
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kSocketMode = 0666;

std::string systemText(const std::string& what) { return what + ": " + std::strerror(errno); }

Fd newSocket() { return Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)); }

bool isSocket(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// Whether somebody accepts connections there. A full backlog is somebody, too.
bool listens(const sockaddr_un& address) {
  const Fd probe = newSocket();
  if (!probe) return true;  // cannot be told: leave the file alone
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (connect(probe.get(), generic, sizeof address) == 0) return true;
  return errno != ECONNREFUSED && errno != ENOENT;
}

}  // namespace

std::string ListeningSocket::open(const std::string& path) {
  path_ = path;
  std::string error = lock();
  if (error.empty()) error = listen();
  if (!error.empty()) {
    socket_.close();
    lock_.close();
  }
  return error;
}

std::string ListeningSocket::lock() {
  const std::string directory = path_.substr(0, path_.rfind('/'));
  if (!directory.empty() && mkdir(directory.c_str(), kDirectoryMode) == 0) {
    chmod(directory.c_str(), kDirectoryMode);  // whatever the umask is
  }
  const std::string file = path_ + ".lock";
  lock_ = Fd(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  if (!lock_) return systemText("cannot open " + file);
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return {};
  return errno == EWOULDBLOCK ? "another agent listens on " + path_
                              : systemText("cannot lock " + file);
}

std::string ListeningSocket::listen() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) return path_ + ": longer than 107 bytes";
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  if (isSocket(path_)) {
    if (listens(address)) return "another process listens on " + path_;
    if (unlink(path_.c_str()) != 0) return systemText("cannot remove the old socket " + path_);
  }
  socket_ = newSocket();
  if (!socket_) return systemText("cannot make a socket");
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (bind(socket_.get(), generic, sizeof address) != 0) return systemText("cannot bind " + path_);
  struct stat status {};
  if (chmod(path_.c_str(), kSocketMode) != 0 || stat(path_.c_str(), &status) != 0) {
    return systemText("cannot open " + path_ + " to everybody");
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  if (::listen(socket_.get(), kBacklog) != 0) return systemText("cannot listen on " + path_);
  return {};
}

void ListeningSocket::close() noexcept {
  if (!socket_) return;
  struct stat status {};
  if (stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
    unlink(path_.c_str());
  }
  socket_.close();
  lock_.close();
}

}  // namespace Agent
