// SPDX-License-Identifier: Apache-2.0
//
// The wrapped functions of calls.txt that the store does not call itself: the loop's, and those of
// quillctl. They fail only where othersToo() says so; the clock and the wait are those of Time
// while there is one.
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "tests/quill/faults/Calls.h"

namespace Faults {

namespace {

// Process-wide: the functions are.
struct Clocks {
  bool on = false;
  double now = 0.0;
  double latest = 0.0;
  double step = 0.0;
  double swing = 0.0;
  bool swung = false;
  unsigned otherLooks = 0;
} clocks;

int failingOther(const char* name) noexcept {
  if (!othersFail()) return 0;
  const int error = failing(Kind::call, name);
  return error == kShort ? 0 : error;
}

}  // namespace

Time::Time(double seconds, double step) noexcept {
  clocks = {true, seconds, seconds, step, 0.0, false, 0};
}

Time::~Time() { clocks.on = false; }

double Time::now() const noexcept { return clocks.now; }

double Time::latest() const noexcept { return clocks.latest; }

void Time::nowIs(double seconds) noexcept {
  clocks.now = seconds;
  clocks.latest = std::max(clocks.latest, seconds);
}

void Time::stepIs(double seconds) noexcept { clocks.step = seconds; }

void Time::swingIs(double seconds) noexcept { clocks.swing = seconds; }

unsigned Time::otherLooks() const noexcept { return clocks.otherLooks; }

}  // namespace Faults

// NOLINTBEGIN: the names are the linker's
extern "C" int __real_clock_gettime(clockid_t clock, timespec* time);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* time);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  using Faults::clocks;
  if (!clocks.on) return __real_clock_gettime(clock, time);
  if (clock != CLOCK_MONOTONIC) ++clocks.otherLooks;
  clocks.now += clocks.step;
  clocks.latest = std::max(clocks.latest, clocks.now);
  clocks.swung = !clocks.swung;
  const double seen = std::max(clocks.now - (clocks.swung ? clocks.swing : 0.0), 0.0);
  time->tv_sec = static_cast<time_t>(seen);
  time->tv_nsec = static_cast<long>((seen - std::floor(seen)) * 1e9);
  return 0;
}

extern "C" int __real_epoll_wait(int fd, epoll_event* events, int count, int timeout);
extern "C" int __wrap_epoll_wait(int fd, epoll_event* events, int count, int timeout);
extern "C" int __wrap_epoll_wait(int fd, epoll_event* events, int count, int timeout) {
  if (const int error = Faults::failingOther("epoll_wait"); error != 0) {
    errno = error;
    return -1;
  }
  using Faults::clocks;
  if (!clocks.on) return __real_epoll_wait(fd, events, count, timeout);
  const int ready = __real_epoll_wait(fd, events, count, 0);
  if (ready == 0 && clocks.step > 0.0) clocks.now += timeout < 0 ? 100.0 : timeout / 1e3;
  clocks.latest = std::max(clocks.latest, clocks.now);
  return ready;
}

#define WRAP_OTHER(result, name, parameters, arguments, failure)     \
  extern "C" result __real_##name parameters;                        \
  extern "C" result __wrap_##name parameters;                        \
  extern "C" result __wrap_##name parameters {                       \
    if (const int error = Faults::failingOther(#name); error != 0) { \
      errno = error;                                                 \
      return failure;                                                \
    }                                                                \
    return __real_##name arguments;                                  \
  }

WRAP_OTHER(int, epoll_create1, (int flags), (flags), -1)
WRAP_OTHER(int, epoll_ctl, (int fd, int operation, int watched, epoll_event* event),
           (fd, operation, watched, event), -1)
WRAP_OTHER(int, timerfd_create, (int clock, int flags), (clock, flags), -1)
WRAP_OTHER(int, timerfd_settime, (int fd, int flags, const itimerspec* now, itimerspec* before),
           (fd, flags, now, before), -1)
WRAP_OTHER(char*, mkdtemp, (char* pattern), (pattern), nullptr)
WRAP_OTHER(ssize_t, pread64, (int fd, void* bytes, std::size_t size, std::int64_t offset),
           (fd, bytes, size, offset), -1)
WRAP_OTHER(ssize_t, pwrite64, (int fd, const void* bytes, std::size_t size, std::int64_t offset),
           (fd, bytes, size, offset), -1)
WRAP_OTHER(int, signalfd, (int fd, const sigset_t* set, int flags), (fd, set, flags), -1)
WRAP_OTHER(int, sigprocmask, (int how, const sigset_t* set, sigset_t* before), (how, set, before),
           -1)
// NOLINTEND
