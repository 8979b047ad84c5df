// SPDX-License-Identifier: Apache-2.0
//
// Lab: a set of named hosts, each a network namespace, joined by virtual cables. It is made inside
// runIsolated() (Isolation.h) and needs no cleaning up: its namespaces vanish with the process.
//
// All functions may be called from any thread. They throw std::runtime_error with the command and
// its output when the kernel refuses.
//
// Invariants:
//  1. IPv6, multicast snooping and spanning tree are off everywhere: no frame is on any wire that a
//     test has not caused.
//  2. The calling thread is back in its own namespace when a function returns.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/lab/Isolation.h"
#include "tests/lab/LinkState.h"

namespace RingwardLab {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// Milliseconds between two moments, for printing.
inline double millisecondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

class Lab {
 public:
  Lab() = default;
  ~Lab();
  Lab(const Lab&) = delete;
  Lab& operator=(const Lab&) = delete;

  void newHost(const std::string& host);
  // A cable between two ports, both made here and set up. Both may be on one host.
  void newLink(const std::string& hostA, const std::string& portA, const std::string& hostB,
               const std::string& portB);
  // A bridge that forwards at once, set up, with `ports` in it. `address` as 02:00:00:00:00:01;
  // empty for the kernel's choice, which changes when ports come and go.
  void newBridge(const std::string& host, const std::string& bridge,
                 const std::vector<std::string>& ports, const std::string& address = "");

  // One command of the tools ip and bridge on a host, words divided by single spaces:
  // ip("sw1", "link set eth1 down"). Returns what the tool printed.
  std::string ip(const std::string& host, const std::string& command) const;
  std::string bridge(const std::string& host, const std::string& command) const;

  LinkState link(const std::string& host, const std::string& port) const;
  // Waits until every one of the ports forwards in its bridge; throws at the time limit.
  void waitForwarding(const std::string& host, const std::vector<std::string>& ports,
                      Milliseconds limit = Milliseconds(5000)) const;
  // Frames per second on the port, both directions together, counted over `window`.
  double frameRate(const std::string& host, const std::string& port, Milliseconds window) const;
  // Counts in windows until the rate falls below `limit`; returns the end of the first such window.
  // Throws after `patience`.
  Clock::time_point waitQuiet(const std::string& host, const std::string& port, double limit,
                              Milliseconds window, Milliseconds patience) const;

  // Runs `body` with the calling thread inside the host's network namespace: sockets that it opens
  // belong there for good.
  void inHost(const std::string& host, const std::function<void()>& body) const;
  // A directory of this host's own, in memory. Process shows its parts to the programs it starts.
  std::string directory(const std::string& host) const;

 private:
  struct Host {
    int fd = -1;
    std::unique_ptr<LinkSocket> links;
  };
  const Host& host(const std::string& name) const;

  std::map<std::string, Host> hosts_;
  mutable std::mutex mutex_;  // Around the request sockets.
};

}  // namespace RingwardLab
