// SPDX-License-Identifier: Apache-2.0
//
// ReturnWatch: the moments at which the first probes come in on each port of a host, by the
// kernel's time stamps. It has a socket for each port and closes it after kMostFrames, so that the
// storm which follows costs next to nothing: what is watched here is how fast somebody else reacts.
//
// For one thread; reading is done by a thread of its own.
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

class ReturnWatch {
 public:
  static constexpr std::size_t kMostFrames = 32;

  // Watches from now on. Throws std::system_error.
  ReturnWatch(const Lab& lab, const std::string& host, const std::vector<std::string>& ports);
  ~ReturnWatch();
  ReturnWatch(const ReturnWatch&) = delete;
  ReturnWatch& operator=(const ReturnWatch&) = delete;

  // The earliest after `after` on any of the ports, as soon as there is one; nothing at the time
  // limit.
  std::optional<Clock::time_point> first(const std::set<std::string>& ports, Milliseconds limit,
                                         Clock::time_point after) const;

 private:
  struct Port {
    std::string name;
    int fd = -1;
  };
  void run(std::vector<Port> ports);

  int stop_ = -1;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::map<std::string, std::vector<Clock::time_point>> seen_;
  std::thread thread_;
};

}  // namespace RingwardLab
