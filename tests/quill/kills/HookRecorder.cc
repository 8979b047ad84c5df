// SPDX-License-Identifier: Apache-2.0
//
// The recorder of the counting build: StoreHook.h tells it of each store, and the system calls that
// change a directory, a size or a mapping come through the functions below (the linker's --wrap).
// At the end the files are compared with what was recorded, so that a store on another road is
// noticed.
#include <fcntl.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <stdexcept>

#include "tests/quill/kills/KillTrace.h"

namespace QuillTest {

namespace {

struct Range {
  std::size_t size;
  std::string path;
};

// One thread of one process records, and one table at a time.
struct Recording {
  bool active = false;
  std::string directory;
  Image image;
  KillTrace trace;
  std::map<const char*, Range> ranges;  // every shared mapping that may be written
  bool lost = false;                    // a store that belongs to none of them

  void filesChanged() {
    Image now = Image::of(directory);
    if (now == image) return;
    KillEvent event;
    event.files = std::make_shared<const Image>(now);
    image = std::move(now);
    trace.events.push_back(std::move(event));
  }
};

Recording& recording() {
  static Recording instance;
  return instance;
}

}  // namespace

void storedHook(const void* address, unsigned size) noexcept {
  Recording& now = recording();
  if (!now.active) return;
  ++now.trace.steps;
  const auto* const at = static_cast<const char*>(address);
  auto found = now.ranges.upper_bound(at);
  if (found == now.ranges.begin() || at + size > (--found)->first + found->second.size) {
    now.lost = true;
    return;
  }
  for (unsigned file = 0; file < 4; ++file) {
    if (found->second.path != now.directory + "/" + Image::kNames[file]) continue;
    const auto offset = static_cast<std::size_t>(at - found->first);
    auto& bytes = now.image.mapped(file);
    if (!bytes || offset + size > bytes->size()) {
      now.lost = true;
    } else if (std::memcmp(bytes->data() + offset, at, size) != 0) {
      KillEvent event;
      event.file = file;
      event.offset = static_cast<std::uint32_t>(offset);
      event.size = size;
      std::memcpy(event.bytes.data(), at, size);
      event.applyTo(now.image);
      now.trace.events.push_back(std::move(event));
    }
    return;
  }
  now.lost = true;
}

KillTrace recordKillTrace(const std::string& directory, const std::function<void()>& prepare,
                          const std::function<void()>& operate, const std::function<void()>& end) {
  prepare();
  Recording& now = recording();
  now.directory = directory;
  now.trace = KillTrace();
  now.image = now.trace.start = Image::of(directory);
  now.lost = false;
  now.active = true;
  operate();
  now.active = false;
  const bool complete = !now.lost && Image::of(directory) == now.image;
  end();
  if (!complete) throw std::runtime_error("a store was not told of: the record is not complete");
  return std::move(now.trace);
}

const char* killRecorderCounts() { return "stores"; }

namespace {

// `result` handed on, after the directory was looked at.
template <class Result>
Result looked(Result result) {
  Recording& now = recording();
  if (now.active) {
    const int error = errno;
    now.filesChanged();
    errno = error;
  }
  return result;
}

std::string pathOf(int fd) {
  std::array<char, 512> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t size = readlink(link.c_str(), path.data(), path.size());
  return size > 0 ? std::string(path.data(), static_cast<std::size_t>(size)) : std::string();
}

}  // namespace

}  // namespace QuillTest

// The names are the linker's. With 64-bit file offsets the C library's own names end in 64.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
int __real_open64(const char* path, int flags, ...);
int __real_rename(const char* from, const char* to);
int __real_renameat(int fromDirectory, const char* from, int toDirectory, const char* to);
int __real_unlink(const char* path);
int __real_unlinkat(int directory, const char* path, int flags);
int __real_posix_fallocate64(int fd, off64_t offset, off64_t size);
int __real_ftruncate64(int fd, off64_t size);
int __real_bind(int fd, const sockaddr* address, socklen_t size);
ssize_t __real_write(int fd, const void* bytes, size_t size);
int __real_mkdir(const char* path, mode_t mode);
int __real_rmdir(const char* path);
void* __real_mmap64(void* at, size_t size, int protection, int flags, int fd, off64_t offset);
void* __real_mremap(void* from, size_t before, size_t after, int flags, ...);
int __real_munmap(void* at, size_t size);

int __wrap_open64(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list rest;
    va_start(rest, flags);
    mode = va_arg(rest, mode_t);
    va_end(rest);
  }
  const int fd = __real_open64(path, flags, mode);
  return (flags & (O_CREAT | O_TRUNC)) != 0 ? QuillTest::looked(fd) : fd;
}
int __wrap_rename(const char* from, const char* to) {
  return QuillTest::looked(__real_rename(from, to));
}
int __wrap_renameat(int fromDirectory, const char* from, int toDirectory, const char* to) {
  return QuillTest::looked(__real_renameat(fromDirectory, from, toDirectory, to));
}
int __wrap_unlink(const char* path) { return QuillTest::looked(__real_unlink(path)); }
int __wrap_unlinkat(int directory, const char* path, int flags) {
  return QuillTest::looked(__real_unlinkat(directory, path, flags));
}
int __wrap_posix_fallocate64(int fd, off64_t offset, off64_t size) {
  return QuillTest::looked(__real_posix_fallocate64(fd, offset, size));
}
int __wrap_ftruncate64(int fd, off64_t size) {
  return QuillTest::looked(__real_ftruncate64(fd, size));
}
int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
  return QuillTest::looked(__real_bind(fd, address, size));
}
ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  return QuillTest::looked(__real_write(fd, bytes, size));
}
int __wrap_mkdir(const char* path, mode_t mode) {
  return QuillTest::looked(__real_mkdir(path, mode));
}
int __wrap_rmdir(const char* path) { return QuillTest::looked(__real_rmdir(path)); }
void* __wrap_mmap64(void* at, size_t size, int protection, int flags, int fd, off64_t offset) {
  void* const base = __real_mmap64(at, size, protection, flags, fd, offset);
  if (base != MAP_FAILED && fd >= 0 && (protection & PROT_WRITE) != 0) {
    QuillTest::recording().ranges[static_cast<const char*>(base)] = {size, QuillTest::pathOf(fd)};
  }
  return base;
}
void* __wrap_mremap(void* from, size_t before, size_t after, int flags, ...) {
  void* const base = __real_mremap(from, before, after, flags);
  auto& ranges = QuillTest::recording().ranges;
  const auto found = ranges.find(static_cast<const char*>(from));
  if (base != MAP_FAILED && found != ranges.end()) {
    QuillTest::Range range{after, std::move(found->second.path)};
    ranges.erase(found);
    ranges[static_cast<const char*>(base)] = std::move(range);
  }
  return base;
}
int __wrap_munmap(void* at, size_t size) {
  QuillTest::recording().ranges.erase(static_cast<const char*>(at));
  return __real_munmap(at, size);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
}
