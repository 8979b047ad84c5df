// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/VirtualActivityManager.h"

#include <fcntl.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>

namespace Vex {

VirtualActivityManager::VirtualActivityManager(double startTime)
    : VirtualActivityManager(makePtr<VirtualClock>(startTime)) {}

VirtualActivityManager::VirtualActivityManager(const Ptr<VirtualClock>& clock)
    : ActivityManager(clock), virtualClock_(clock) {
  if (!std::isfinite(now())) {
    throwRangeException("start time " + std::to_string(now()) +
                        " of the virtual clock: not finite");
  }
}

VirtualActivityManager::~VirtualActivityManager() = default;

bool VirtualActivityManager::runTurn() {
  const TurnScope scope(*this);
  bool any = runDeferred();
  if (runTimers(now())) any = true;
  if (!watches_.empty() && runReadable()) any = true;
  return any;
}

void VirtualActivityManager::runInstant() {
  for (std::uint32_t turns = 0; runTurn(); ++turns) {
    if (turns == kMaxTurnsAtOneInstant) {
      throwInternalException("the activity loop found work for more than " +
                             std::to_string(kMaxTurnsAtOneInstant) + " turns at time " +
                             std::to_string(now()));
    }
  }
}

void VirtualActivityManager::runUntil(double time) {
  if (!std::isfinite(time) || time < now()) {
    throwRangeException("time " + std::to_string(time) + " to run until: not a finite time from " +
                        std::to_string(now()) + " on");
  }
  runInstant();
  for (double due = nextDue(); due <= time; due = nextDue()) {
    virtualClock_->time_ = due;  // later than now: this instant's work is done
    ++wakeUps_;
    runInstant();
  }
  virtualClock_->time_ = time;
}

void VirtualActivityManager::readableIs(int fd, ReadableHandler& handler) {
  if (fcntl(fd, F_GETFD) < 0) {
    throwInternalException("descriptor " + std::to_string(fd) +
                           " cannot be watched: " + std::strerror(errno));
  }
  if (!watches_.try_emplace(fd, Watch{&handler, ++lastGeneration_}).second) {
    throwInternalException("descriptor " + std::to_string(fd) + " is watched already");
  }
  watchesChanged_ = true;
}

void VirtualActivityManager::readableDel(int fd) noexcept {
  if (watches_.erase(fd) != 0) watchesChanged_ = true;
}

bool VirtualActivityManager::runReadable() {
  if (watchesChanged_) {
    polled_.clear();
    for (const auto& [fd, watch] : watches_) polled_.push_back({fd, POLLIN, 0});
    watchesChanged_ = false;
  }
  if (poll(polled_.data(), polled_.size(), 0) <= 0) return false;
  std::vector<Ready> ready;
  for (const pollfd& entry : polled_) {
    if (entry.revents != 0) ready.push_back({entry.fd, watches_.at(entry.fd).generation});
  }
  for (const Ready& entry : ready) {
    const auto found = watches_.find(entry.fd);
    if (found == watches_.end() || found->second.generation != entry.generation) continue;
    found->second.handler->onReadable();  // may withdraw any descriptor
  }
  return true;
}

}  // namespace Vex
