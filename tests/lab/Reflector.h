// SPDX-License-Identifier: Apache-2.0
//
// Reflector: sends every frame that comes in on a port back out of it, unchanged, as a transceiver
// in loopback does. A thread of its own does the work, before all ordinary processes.
#pragma once

#include <string>
#include <thread>

#include "tests/lab/Lab.h"

namespace RingwardLab {

class Reflector {
 public:
  Reflector(const Lab& lab, const std::string& host, const std::string& port);
  ~Reflector();
  Reflector(const Reflector&) = delete;
  Reflector& operator=(const Reflector&) = delete;

 private:
  void run() const;

  int fd_ = -1;
  int stop_ = -1;
  std::thread thread_;
};

}  // namespace RingwardLab
