// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/control/Readiness.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>

#include "runtime/vex/Exception.h"

namespace Platform::Linux::Control {

namespace {

constexpr std::size_t kMaxEvents = 64;

epoll_event wanted(int fd, bool read, bool write) noexcept {
  epoll_event event{};
  event.events = (read ? EPOLLIN | EPOLLRDHUP : 0U) | (write ? EPOLLOUT : 0U);
  event.data.fd = fd;
  return event;
}

}  // namespace

Readiness::Readiness() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) Vex::throwInternalException("epoll_create1: " + lastError().message());
}

std::error_code Readiness::newInterest(int fd, bool read, bool write) noexcept {
  epoll_event event = wanted(fd, read, write);
  return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0 ? std::error_code() : lastError();
}

void Readiness::interestIs(int fd, bool read, bool write) noexcept {
  epoll_event event = wanted(fd, read, write);
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void Readiness::interestDel(int fd) noexcept {
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

std::size_t Readiness::take(std::span<Event> events) noexcept {
  std::array<epoll_event, kMaxEvents> ready{};
  const auto most = static_cast<int>(std::min(events.size(), ready.size()));
  const int count = most > 0 ? epoll_wait(epoll_.get(), ready.data(), most, 0) : 0;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = ready[static_cast<std::size_t>(i)];
    constexpr std::uint32_t kRead = EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR;
    events[static_cast<std::size_t>(i)] = {event.data.fd, (event.events & kRead) != 0,
                                           (event.events & EPOLLOUT) != 0};
  }
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

}  // namespace Platform::Linux::Control
