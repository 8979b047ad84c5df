// SPDX-License-Identifier: Apache-2.0
#include "runtime/mem/Region.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

namespace Mem {

const unsigned pageSize_ = static_cast<unsigned>(sysconf(_SC_PAGESIZE));

namespace {

constexpr mode_t kFileMode = 0644;

class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    const int error = errno;
    if (fd_ >= 0) close(fd_);
    errno = error;
  }
  int get() const noexcept { return fd_; }
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// O_NONBLOCK: a FIFO in the file's place must not hold the process up.
int openFile(const std::string& path, Mode mode) {
  const int flags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  if (mode == Mode::readOnly) return open(path.c_str(), flags | O_RDONLY);
  const int fd = open(path.c_str(), flags | O_RDWR);
  if (fd >= 0 || errno != ENOENT) return fd;
  const int made = open(path.c_str(), flags | O_RDWR | O_CREAT | O_EXCL, kFileMode);
  if (made >= 0) static_cast<void>(fchmod(made, kFileMode));  // the umask may have taken bits away
  return made;
}

// Sets errno.
bool isRegular(int fd, struct stat& status) {
  if (fstat(fd, &status) != 0) return false;
  if (S_ISREG(status.st_mode)) return true;
  errno = EINVAL;
  return false;
}

// Makes sure that the bytes from `begin` to `end` of the file have their space. Sets errno.
bool reserve(int fd, unsigned begin, unsigned end) {
  int error;
  do {
    error = posix_fallocate(fd, static_cast<off_t>(begin), static_cast<off_t>(end - begin));
  } while (error == EINTR);
  if (error != 0) errno = error;
  return error == 0;
}

int protection(Mode mode) { return mode == Mode::readOnly ? PROT_READ : PROT_READ | PROT_WRITE; }

}  // namespace

void* Local::attach(unsigned size, Mode mode) {
  detach();
  void* base =
      mmap(nullptr, std::max(size, 1U), protection(mode), MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  base_ = base;
  size_ = std::max(size, 1U);
  return base_;
}

void* Local::resize(unsigned size) {
  void* base = mremap(base_, size_, size, MREMAP_MAYMOVE);
  if (base == MAP_FAILED) return nullptr;
  base_ = base;
  size_ = size;
  return base_;
}

void Local::detach() noexcept {
  if (base_ != nullptr) {
    munmap(base_, size_);
    guard_.end();
  }
  if (file_ >= 0) close(file_);
  base_ = nullptr;
  size_ = 0;
  file_ = -1;
}

Shared::Shared(std::string directory, const std::string& name, bool, unsigned, bool)
    : path_(std::move(directory)) {
  path_ += '/';
  path_ += name;
}

void* Shared::attach(unsigned size, Mode mode) {
  detach();
  if (size == 0) {
    errno = EINVAL;
    return nullptr;
  }
  Descriptor file(openFile(path_, mode));
  struct stat status {};
  if (file.get() < 0 || !isRegular(file.get(), status)) return nullptr;
  if (mode == Mode::readWrite && !reserve(file.get(), 0, size)) return nullptr;
  void* base = mmap(nullptr, size, protection(mode), MAP_SHARED, file.get(), 0);
  if (base == MAP_FAILED) return nullptr;
  base_ = base;
  size_ = size;
  mode_ = mode;
  if (mode == Mode::readWrite) file_ = file.release();
  guard_.begin(base_, size_);
  return base_;
}

void* Shared::resize(unsigned size) {
  if (size == 0) {
    errno = EINVAL;
    return nullptr;
  }
  // A mapping in which pages were replaced is made of several, which cannot be moved in one go; and
  // whoever attaches anew has to begin anew.
  if (truncated()) {
    errno = EIO;
    return nullptr;
  }
  if (mode_ == Mode::readWrite) {
    // A file that is made shorter loses its end before the mapping does: nobody looks there now.
    if (size < size_ && ftruncate(file_, static_cast<off_t>(size)) != 0) return nullptr;
    if (size > size_ && !reserve(file_, size_, size)) return nullptr;
  }
  void* base = mremap(base_, size_, size, MREMAP_MAYMOVE);
  if (base == MAP_FAILED) return nullptr;
  base_ = base;
  size_ = size;
  guard_.begin(base_, size_);
  return base_;
}

unsigned Shared::memSize() const noexcept {
  struct stat status {};
  if (lstat(path_.c_str(), &status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) errno = 0;
    return 0;
  }
  errno = 0;
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<unsigned>::max());
  return static_cast<unsigned>(std::min(static_cast<std::uint64_t>(status.st_size), kMax));
}

}  // namespace Mem
