// SPDX-License-Identifier: Apache-2.0
//
// The wrapped functions of calls.txt. A function that fails has done nothing, except close(), which
// gives the descriptor back whatever it answers.
#include "tests/quill/faults/Calls.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>

namespace Faults {

namespace {

// Process-wide: the functions are.
struct State {
  bool planned = false;
  bool watching = false;
  bool others = false;
  unsigned pauses = 0;
  Fault fault;
  unsigned count = 0;
  const char* failed = nullptr;
} state;

}  // namespace

std::string Fault::text() const {
  const std::string what = kind == Kind::call ? "call " : "allocation ";
  const std::string how = error == kShort ? "short"
                          : error != 0    ? std::strerror(error)
                                          : "std::bad_alloc";
  return what + std::to_string(at) + ": " + how + (forEver ? ", for ever" : ", once");
}

void watchingIs(bool on) noexcept { state.watching = on; }

bool watching() noexcept { return state.watching; }

void othersToo(bool on) noexcept { state.others = on; }

bool othersFail() noexcept { return state.others; }

Plan::Plan(const Fault& fault) noexcept {
  state.fault = fault;
  state.count = 0;
  state.failed = nullptr;
  state.planned = true;
}

Plan::~Plan() { state.planned = false; }

unsigned Plan::count() const noexcept { return state.count; }

const char* Plan::failed() const noexcept { return state.failed; }

Pause::Pause() noexcept { ++state.pauses; }

Pause::~Pause() { --state.pauses; }

int failing(Kind kind, const char* name) noexcept {
  if (!state.planned || state.pauses != 0 || kind != state.fault.kind) return 0;
  const unsigned number = ++state.count;
  const unsigned at = state.fault.at;
  if (at == 0 || number < at || (number > at && !state.fault.forEver)) return 0;
  if (state.failed == nullptr) state.failed = name;
  return state.fault.error != 0 ? state.fault.error : ENOMEM;
}

namespace {

int failingCall(const char* name) noexcept {
  const int error = failing(Kind::call, name);
  return error == kShort ? 0 : error;
}

}  // namespace

}  // namespace Faults

// NOLINTBEGIN: the names are the linker's
#define WRAP(result, name, parameters, arguments, failure)          \
  extern "C" result __real_##name parameters;                       \
  extern "C" result __wrap_##name parameters;                       \
  extern "C" result __wrap_##name parameters {                      \
    if (const int error = Faults::failingCall(#name); error != 0) { \
      errno = error;                                                \
      return failure;                                               \
    }                                                               \
    return __real_##name arguments;                                 \
  }

WRAP(int, accept4, (int fd, sockaddr* address, socklen_t* size, int flags),
     (fd, address, size, flags), -1)
WRAP(int, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), -1)
WRAP(int, chmod, (const char* path, mode_t mode), (path, mode), -1)
WRAP(int, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), -1)
WRAP(int, fchmod, (int fd, mode_t mode), (fd, mode), -1)
WRAP(int, fchmodat, (int fd, const char* path, mode_t mode, int flags), (fd, path, mode, flags), -1)
WRAP(int, fcntl64, (int fd, int command, void* argument), (fd, command, argument), -1)
WRAP(int, fstat64, (int fd, struct stat* status), (fd, status), -1)
WRAP(int, fstatat64, (int fd, const char* path, struct stat* status, int flags),
     (fd, path, status, flags), -1)
WRAP(int, ftruncate64, (int fd, std::int64_t size), (fd, size), -1)
WRAP(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size),
     (fd, level, name, value, size), -1)
extern "C" int __real_inotify_add_watch(int fd, const char* path, std::uint32_t mask);
extern "C" int __wrap_inotify_add_watch(int fd, const char* path, std::uint32_t mask);
extern "C" int __wrap_inotify_add_watch(int fd, const char* path, std::uint32_t mask) {
  if (const int error = Faults::failingCall("inotify_add_watch"); error != 0) {
    errno = error;
    return -1;
  }
  if (Faults::watching()) return __real_inotify_add_watch(fd, path, mask);
  // The length stands for the path: those of a table and of what is above it differ.
  const Faults::Pause pause;
  return access(path, F_OK) == 0 ? static_cast<int>(std::strlen(path)) : -1;
}

extern "C" int __real_inotify_init1(int flags);
extern "C" int __wrap_inotify_init1(int flags);
extern "C" int __wrap_inotify_init1(int flags) {
  if (const int error = Faults::failingCall("inotify_init1"); error != 0) {
    errno = error;
    return -1;
  }
  return Faults::watching() ? __real_inotify_init1(flags) : eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}
WRAP(int, listen, (int fd, int backlog), (fd, backlog), -1)
WRAP(int, lstat64, (const char* path, struct stat* status), (path, status), -1)
WRAP(int, mkdir, (const char* path, mode_t mode), (path, mode), -1)
WRAP(void*, mmap64,
     (void* address, std::size_t size, int protection, int flags, int fd, std::int64_t offset),
     (address, size, protection, flags, fd, offset), MAP_FAILED)
WRAP(void*, mremap, (void* from, std::size_t before, std::size_t after, int flags, void* to),
     (from, before, after, flags, to), MAP_FAILED)
WRAP(int, open64, (const char* path, int flags, mode_t mode), (path, flags, mode), -1)
WRAP(DIR*, opendir, (const char* path), (path), nullptr)
WRAP(ssize_t, recv, (int fd, void* bytes, std::size_t size, int flags), (fd, bytes, size, flags),
     -1)
WRAP(int, rename, (const char* from, const char* to), (from, to), -1)
WRAP(int, renameat, (int fromFd, const char* from, int toFd, const char* to),
     (fromFd, from, toFd, to), -1)
WRAP(int, rmdir, (const char* path), (path), -1)
WRAP(ssize_t, send, (int fd, const void* bytes, std::size_t size, int flags),
     (fd, bytes, size, flags), -1)
WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1)
WRAP(int, stat64, (const char* path, struct stat* status), (path, status), -1)
WRAP(int, unlink, (const char* path), (path), -1)
WRAP(int, unlinkat, (int fd, const char* path, int flags), (fd, path, flags), -1)
WRAP(int, access, (const char* path, int mode), (path, mode), -1)

extern "C" int __real_posix_fallocate64(int fd, std::int64_t offset, std::int64_t size);
extern "C" int __wrap_posix_fallocate64(int fd, std::int64_t offset, std::int64_t size);
extern "C" int __wrap_posix_fallocate64(int fd, std::int64_t offset, std::int64_t size) {
  const int error = Faults::failingCall("posix_fallocate64");
  return error != 0 ? error : __real_posix_fallocate64(fd, offset, size);
}

extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd);
extern "C" int __wrap_close(int fd) {
  const int error = Faults::failingCall("close");
  const int result = __real_close(fd);
  if (error == 0) return result;
  errno = error;
  return -1;
}

namespace {

// How much of `size` bytes a call takes: all, or 1 of a regular file's if it is to be short.
template <class Call>
ssize_t transferred(const char* name, int fd, std::size_t size, const Call& call) {
  const int error = Faults::failing(Faults::Kind::call, name);
  if (error > 0) {
    errno = error;
    return -1;
  }
  struct stat status {};
  const Faults::Pause pause;
  const bool isShort =
      error == Faults::kShort && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  return call(isShort ? std::min<std::size_t>(size, 1) : size);
}

}  // namespace

extern "C" ssize_t __real_read(int fd, void* bytes, std::size_t size);
extern "C" ssize_t __wrap_read(int fd, void* bytes, std::size_t size);
extern "C" ssize_t __wrap_read(int fd, void* bytes, std::size_t size) {
  return transferred("read", fd, size, [&](std::size_t n) { return __real_read(fd, bytes, n); });
}

extern "C" ssize_t __real_write(int fd, const void* bytes, std::size_t size);
extern "C" ssize_t __wrap_write(int fd, const void* bytes, std::size_t size);
extern "C" ssize_t __wrap_write(int fd, const void* bytes, std::size_t size) {
  return transferred("write", fd, size, [&](std::size_t n) { return __real_write(fd, bytes, n); });
}
// NOLINTEND
