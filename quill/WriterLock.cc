// SPDX-License-Identifier: Apache-2.0
//
// The writer lock of Util. Two kinds of second writer have to be kept out: one in another process,
// which the kernel's record lock does, and one in this process, which record locks do not see;
// worse, closing any descriptor of the file would drop the lock of the first. So the process keeps
// a list of the lock files it holds and asks it before it opens one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

#include "quill/Util.h"

namespace Quill {

namespace {

constexpr mode_t kFileMode = 0644;
constexpr int kMaxAttempts = 100;

struct Held {
  int fd;
  pid_t pid;  // a child of a fork has a copy of the list and none of the locks
  dev_t device;
  ino_t inode;
};

struct HeldLocks {
  std::mutex mutex;
  std::vector<Held> list;
};

// Process-wide because a record lock is.
HeldLocks& heldLocks() {
  static HeldLocks instance;
  return instance;
}

bool same(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// REQUIRES: the list's mutex is held.
bool isHeld(const std::vector<Held>& list, const struct stat& status) {
  return std::any_of(list.begin(), list.end(), [&](const Held& held) {
    return held.pid == getpid() && held.device == status.st_dev && held.inode == status.st_ino;
  });
}

int refuse(int fd, int error) {
  if (fd >= 0) close(fd);
  errno = error;
  return -1;
}

}  // namespace

int Util::acquireWriterLock(Sable::Platform::DebugHandler&, const RootPath& root) {
  const std::string path = root.filePath("lock");
  HeldLocks& held = heldLocks();
  const std::lock_guard lock(held.mutex);
  // The file may be removed between any two of these steps by a writer that removes its table.
  // Bounded, though each round needs another such writer.
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    struct stat onPath {};
    if (stat(path.c_str(), &onPath) == 0 && isHeld(held.list, onPath)) return refuse(-1, EAGAIN);
    const int fd =
        open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode);
    if (fd < 0) return -1;
    struct stat opened {};
    if (fstat(fd, &opened) != 0) return refuse(fd, errno);
    // Put there since the question above. The descriptor stays open: closing it would drop the
    // lock.
    if (isHeld(held.list, opened)) return refuse(-1, EAGAIN);
    static_cast<void>(fchmod(fd, kFileMode));  // the umask may have taken bits away
    struct flock request {};
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &request) != 0) return refuse(fd, errno == EACCES ? EAGAIN : errno);
    if (stat(path.c_str(), &onPath) != 0 || !same(onPath, opened)) {
      close(fd);  // what is locked is not the table's lock any more
      continue;
    }
    held.list.push_back({fd, getpid(), opened.st_dev, opened.st_ino});
    return fd;
  }
  return refuse(-1, EBUSY);
}

void Util::releaseWriterLock(Sable::Platform::DebugHandler&, int handle) noexcept {
  HeldLocks& held = heldLocks();
  const std::lock_guard lock(held.mutex);
  const auto found = std::find_if(held.list.begin(), held.list.end(),
                                  [handle](const Held& entry) { return entry.fd == handle; });
  if (found == held.list.end()) return;
  held.list.erase(found);
  close(handle);
}

}  // namespace Quill
