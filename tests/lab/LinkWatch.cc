// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/LinkWatch.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "tests/lab/PacketTap.h"

namespace RingwardLab {

LinkWatch::LinkWatch(const Lab& lab, const std::string& host) : stop_(eventfd(0, EFD_CLOEXEC)) {
  lab.inHost(host, [&] { socket_ = std::make_unique<LinkSocket>(RTMGRP_LINK); });
  for (const bool fromBridge : {false, true}) {
    socket_->requestAll(fromBridge);
    for (bool ended = false; !ended;) {
      lost_ = !socket_->receive([&](const LinkMessage& message) { note(message, true); }, &ended) ||
              lost_;
    }
  }
  const std::lock_guard lock(mutex_);
  for (const auto& [index, link] : links_) {
    if (!link.isBridge && link.name != "lo" && link.down()) {
      downNow_.insert(link.name);
    }
  }
  mostDown_ = downNow_.size();
  thread_ = std::thread([this] { run(); });
}

LinkWatch::~LinkWatch() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(stop_, &one, sizeof one);
  thread_.join();
  close(stop_);
}

void LinkWatch::note(const LinkMessage& message, bool initial) {
  const std::lock_guard lock(mutex_);
  if (message.removed && !message.fromBridge) {
    links_.erase(message.index);
    return;
  }
  LinkState& link = links_[message.index];
  message.applyTo(link);
  if (initial || link.isBridge || link.name == "lo") {
    return;
  }
  if (link.down() == downNow_.contains(link.name)) {
    return;
  }
  if (link.down()) {
    downNow_.insert(link.name);
  } else {
    downNow_.erase(link.name);
  }
  mostDown_ = std::max(mostDown_, downNow_.size());
  changes_.push_back({Clock::now(), link.name, link.down(), link});
  changed_.notify_all();
}

void LinkWatch::run() {
  runFirst();
  for (;;) {
    pollfd pollers[2] = {{stop_, POLLIN, 0}, {socket_->fd(), POLLIN, 0}};
    if (poll(pollers, 2, -1) < 0) {
      continue;
    }
    if ((pollers[0].revents & POLLIN) != 0) {
      return;
    }
    if (!socket_->receive([this](const LinkMessage& message) { note(message, false); })) {
      const std::lock_guard lock(mutex_);
      lost_ = true;
    }
  }
}

std::vector<LinkWatch::Change> LinkWatch::changes() const {
  const std::lock_guard lock(mutex_);
  return changes_;
}

std::optional<LinkWatch::Change> LinkWatch::waitChange(const std::string& port, bool down,
                                                       Milliseconds limit,
                                                       Clock::time_point after) const {
  return waitChange(port.empty() ? std::set<std::string>{} : std::set<std::string>{port}, down,
                    limit, after);
}

std::optional<LinkWatch::Change> LinkWatch::waitChange(const std::set<std::string>& ports,
                                                       bool down, Milliseconds limit,
                                                       Clock::time_point after) const {
  std::unique_lock lock(mutex_);
  std::optional<Change> result;
  changed_.wait_until(lock, Clock::now() + limit, [&] {
    const auto found = std::find_if(changes_.begin(), changes_.end(), [&](const Change& change) {
      return change.at > after && change.down == down &&
             (ports.empty() || ports.contains(change.port));
    });
    if (found != changes_.end()) {
      result = *found;
    }
    return result.has_value();
  });
  return result;
}

std::set<std::string> LinkWatch::ports() const {
  const std::lock_guard lock(mutex_);
  std::set<std::string> result;
  for (const auto& [index, link] : links_) {
    if (!link.isBridge && link.name != "lo") {
      result.insert(link.name);
    }
  }
  return result;
}

std::set<std::string> LinkWatch::everDown() const {
  const std::lock_guard lock(mutex_);
  std::set<std::string> result;
  for (const Change& change : changes_) {
    if (change.down) {
      result.insert(change.port);
    }
  }
  return result;
}

std::size_t LinkWatch::mostDownAtOnce() const {
  const std::lock_guard lock(mutex_);
  return mostDown_;
}

std::set<std::string> LinkWatch::downNow() const {
  const std::lock_guard lock(mutex_);
  return downNow_;
}

bool LinkWatch::lost() const {
  const std::lock_guard lock(mutex_);
  return lost_;
}

}  // namespace RingwardLab
