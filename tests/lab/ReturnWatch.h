// SPDX-License-Identifier: Apache-2.0
//
// ReturnWatch: the moment at which the first probe comes in on each port of a host, by the kernel's
// time stamps. It has a socket for each port and closes it with its first frame, so that the storm
// which follows costs nothing: what is watched here is how fast somebody else reacts.
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
  // Watches from now on. Throws std::system_error.
  ReturnWatch(const Lab& lab, const std::string& host, const std::vector<std::string>& ports);
  ~ReturnWatch();
  ReturnWatch(const ReturnWatch&) = delete;
  ReturnWatch& operator=(const ReturnWatch&) = delete;

  // The earliest on any of the ports, as soon as there is one; nothing at the time limit.
  std::optional<Clock::time_point> first(const std::set<std::string>& ports,
                                         Milliseconds limit) const;

 private:
  struct Port {
    std::string name;
    int fd = -1;
  };
  void run(std::vector<Port> ports);

  int stop_ = -1;
  mutable std::mutex mutex_;
  mutable std::condition_variable seen_;
  std::map<std::string, Clock::time_point> first_;
  std::thread thread_;
};

}  // namespace RingwardLab
