// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/EpollActivityManager.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>

namespace Vex {

namespace {

constexpr double kNanoseconds = 1e9;
constexpr long kNanosecondsPerSecond = 1'000'000'000;
// No machine is up for 68 years; later times are not given to a 32-bit time_t.
constexpr double kFarthest = 2147483647.0;
// Further ready descriptors are reported in the next turn.
constexpr std::size_t kMaxReady = 64;
constexpr std::uint64_t kTimerData = ~std::uint64_t{0};

[[noreturn]] void throwSystemException(const std::string& what) {
  const int error = errno;
  throwInternalException(what + ": " + std::strerror(error));
}

// epoll_wait's argument; rounded up, so that a wait is not cut into many.
int millisecondsOf(double seconds) noexcept {
  if (!(seconds > 0)) return 0;
  if (seconds == kNever) return -1;
  const double milliseconds = std::ceil(seconds * 1e3);
  return milliseconds < INT_MAX ? static_cast<int>(milliseconds) : INT_MAX;
}

}  // namespace

double secondsOf(const timespec& time) noexcept {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / kNanoseconds;
}

timespec notBefore(double seconds) noexcept {
  timespec time{};
  if (seconds > 0) {
    const double whole = std::floor(seconds);
    time.tv_sec = static_cast<time_t>(whole);
    time.tv_nsec = static_cast<long>((seconds - whole) * kNanoseconds);
  }
  // What is left is a matter of a nanosecond or two, lost above or in the clock's own rounding.
  while (secondsOf(time) < seconds || (time.tv_sec == 0 && time.tv_nsec == 0)) {
    if (++time.tv_nsec == kNanosecondsPerSecond) {
      time.tv_nsec = 0;
      ++time.tv_sec;
    }
  }
  return time;
}

double MonotonicClock::now() const noexcept {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return secondsOf(time);
}

EpollActivityManager::OwnDescriptor::OwnDescriptor(int fd, const char* what) : fd_(fd) {
  if (fd < 0) throwSystemException(what);
}

EpollActivityManager::OwnDescriptor::~OwnDescriptor() { close(fd_); }

EpollActivityManager::EpollActivityManager()
    : ActivityManager(makePtr<MonotonicClock>()),
      epoll_(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create") {
  epoll_event event{};
  // Edge-triggered, so that an expiry need not be read: it is forgotten when the timer is set
  // again.
  event.events = EPOLLIN | EPOLLET;
  event.data.u64 = kTimerData;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, timer_.get(), &event) != 0) {
    throwSystemException("epoll_ctl of the timer");
  }
}

EpollActivityManager::~EpollActivityManager() = default;

void EpollActivityManager::timerIs(double due) {
  if (!(due < kFarthest)) due = kNever;
  if (due == timerDue_) return;
  itimerspec setting{};  // all zero: disarmed
  if (due != kNever) setting.it_value = notBefore(due);
  if (timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
    throwSystemException("timerfd_settime to " + std::to_string(due));
  }
  timerDue_ = due;
  ++timerSettings_;
}

void EpollActivityManager::run() {
  while (!stopped_) runTurn(kNever);
  stopped_ = false;
}

void EpollActivityManager::runTurn(double maxWaitSeconds) {
  const TurnScope scope(*this);
  int wait = hasDeferred() ? 0 : millisecondsOf(maxWaitSeconds);
  if (wait != 0) {
    const double due = nextDue();
    if (due <= clock()->now()) {
      wait = 0;
    } else {
      timerIs(due);
    }
  }
  std::array<epoll_event, kMaxReady> ready{};
  const int count = epoll_wait(epoll_.get(), ready.data(), static_cast<int>(ready.size()), wait);
  if (wait != 0) ++wakeUps_;
  if (count < 0 && errno != EINTR) throwSystemException("epoll_wait");

  runDeferred();
  runTimers(clock()->now());
  for (int i = 0; i < count; ++i) {
    const std::uint64_t data = ready[static_cast<std::size_t>(i)].data.u64;
    if (data == kTimerData) continue;
    const auto found = watches_.find(static_cast<int>(data & 0xffffffffU));
    if (found == watches_.end() || found->second.generation != data >> 32) continue;
    found->second.handler->onReadable();  // may withdraw any descriptor
  }
}

void EpollActivityManager::readableIs(int fd, ReadableHandler& handler) {
  const auto [place, isNew] = watches_.try_emplace(fd, Watch{&handler, lastGeneration_ + 1});
  if (!isNew) {
    throwInternalException("descriptor " + std::to_string(fd) + " is watched already");
  }
  ++lastGeneration_;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = std::uint64_t{place->second.generation} << 32 | static_cast<std::uint32_t>(fd);
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    const int error = errno;
    watches_.erase(place);
    errno = error;
    throwSystemException("descriptor " + std::to_string(fd) + " cannot be watched");
  }
}

void EpollActivityManager::readableDel(int fd) noexcept {
  if (watches_.erase(fd) != 0) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

}  // namespace Vex
