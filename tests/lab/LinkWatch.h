// SPDX-License-Identifier: Apache-2.0
//
// LinkWatch: the diary of a host's ports. From its making on it notes, with the time, each moment
// at which a port (anything but a bridge itself and the loopback) goes down or comes back, where
// down means what LinkState::down() says. A thread of its own reads the kernel's notifications.
//
// Any thread may call it.
//
// Invariants:
//  1. The state of every port is known before the constructor returns.
//  2. No change is missed: if the kernel had to drop notifications, lost() says so.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/lab/Lab.h"

namespace RingwardLab {

class LinkWatch {
 public:
  struct Change {
    Clock::time_point at;
    std::string port;
    bool down = false;
    LinkState state;
  };

  LinkWatch(const Lab& lab, const std::string& host);
  ~LinkWatch();
  LinkWatch(const LinkWatch&) = delete;
  LinkWatch& operator=(const LinkWatch&) = delete;

  std::vector<Change> changes() const;
  // The first change of this kind that happened after `after`; nothing at the time limit. An empty
  // `port` stands for any.
  std::optional<Change> waitChange(const std::string& port, bool down, Milliseconds limit,
                                   Clock::time_point after = {}) const;
  // The same for the first change on any of these ports; none given stands for all.
  std::optional<Change> waitChange(const std::set<std::string>& ports, bool down,
                                   Milliseconds limit, Clock::time_point after = {}) const;
  // The ports that there are.
  std::set<std::string> ports() const;
  // Ports that have gone down since the watch began, and how many were down at the worst moment.
  std::set<std::string> everDown() const;
  std::size_t mostDownAtOnce() const;
  // Ports that are down now.
  std::set<std::string> downNow() const;
  bool lost() const;

 private:
  void note(const LinkMessage& message, bool initial);
  void run();

  std::unique_ptr<LinkSocket> socket_;
  int stop_ = -1;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<int, LinkState> links_;
  std::set<std::string> downNow_;
  std::vector<Change> changes_;
  std::size_t mostDown_ = 0;
  bool lost_ = false;
  std::thread thread_;
};

}  // namespace RingwardLab
