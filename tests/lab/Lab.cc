// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Lab.h"

#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/lab/Command.h"

namespace RingwardLab {

namespace {

std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> result;
  for (std::string word; stream >> word;) {
    result.push_back(word);
  }
  return result;
}

std::string runTool(const char* tool, const std::string& host, const std::string& command) {
  std::vector<std::string> arguments{tool, "-n", host};
  for (const std::string& word : words(command)) {
    arguments.push_back(word);
  }
  return runCommand(arguments);
}

// To be called inside the namespace: /proc/sys/net shows that of the thread which looks.
void switchOffIpv6() {
  for (const char* which : {"all", "default"}) {
    const auto path = std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6";
    if (!std::filesystem::exists(path)) {
      continue;  // A kernel without IPv6 is quiet already.
    }
    std::ofstream file(path);
    file << "1" << std::flush;
    if (!file) {
      throw std::runtime_error("cannot switch IPv6 off through " + path);
    }
  }
}

// Lets a measuring window pass.
void passWindow(Milliseconds window) {
  if (window.count() <= 0) {
    return;  // That would disarm the timer.
  }
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  if (timer < 0) {
    throw std::system_error(errno, std::generic_category(), "making a timer");
  }
  const auto seconds = std::chrono::floor<std::chrono::seconds>(window);
  itimerspec when{};
  when.it_value.tv_sec = static_cast<time_t>(seconds.count());
  when.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(window - seconds).count());
  timerfd_settime(timer, 0, &when, nullptr);
  std::uint64_t expiries = 0;
  while (read(timer, &expiries, sizeof expiries) < 0 && errno == EINTR) {
  }
  close(timer);
}

}  // namespace

Lab::~Lab() {
  for (auto& [name, host] : hosts_) {
    close(host.fd);
  }
}

const Lab::Host& Lab::host(const std::string& name) const {
  const auto found = hosts_.find(name);
  if (found == hosts_.end()) {
    throw std::runtime_error("the lab has no host called " + name);
  }
  return found->second;
}

void Lab::newHost(const std::string& name) {
  runCommand({"ip", "netns", "add", name});
  const std::string path = "/run/netns/" + name;
  Host made;
  made.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (made.fd < 0) {
    throw std::system_error(errno, std::generic_category(), "opening " + path);
  }
  Host& host = hosts_[name] = std::move(made);
  inHost(name, [&] {
    switchOffIpv6();
    host.links = std::make_unique<LinkSocket>(0);
  });
  for (const char* part : {"run", "lib", "shm"}) {
    std::filesystem::create_directories(directory(name) + "/" + part);
  }
}

std::string Lab::directory(const std::string& host) const { return "/run/lab/" + host; }

void Lab::newLink(const std::string& hostA, const std::string& portA, const std::string& hostB,
                  const std::string& portB) {
  runCommand({"ip", "link", "add", portA, "netns", hostA, "type", "veth", "peer", "name", portB,
              "netns", hostB});
  ip(hostA, "link set " + portA + " up");
  ip(hostB, "link set " + portB + " up");
}

void Lab::newBridge(const std::string& host, const std::string& bridge,
                    const std::vector<std::string>& ports, const std::string& address) {
  ip(host, "link add " + bridge + (address.empty() ? "" : " address " + address) +
               " type bridge stp_state 0 forward_delay 0 mcast_snooping 0");
  ip(host, "link set " + bridge + " up");
  for (const std::string& port : ports) {
    ip(host, "link set " + port + " master " + bridge);
  }
}

std::string Lab::ip(const std::string& host, const std::string& command) const {
  return runTool("ip", host, command);
}

std::string Lab::bridge(const std::string& host, const std::string& command) const {
  return runTool("bridge", host, command);
}

LinkState Lab::link(const std::string& hostName, const std::string& port) const {
  const std::lock_guard lock(mutex_);
  const auto state = host(hostName).links->link(port);
  if (!state) {
    throw std::runtime_error("the host " + hostName + " has no port called " + port);
  }
  return *state;
}

void Lab::waitForwarding(const std::string& host, const std::vector<std::string>& ports,
                         Milliseconds limit) const {
  std::unique_ptr<LinkSocket> events;  // Opened before the first look, so that nothing is missed.
  inHost(host, [&] { events = std::make_unique<LinkSocket>(RTMGRP_LINK); });
  const auto deadline = Clock::now() + limit;
  for (const std::string& port : ports) {
    while (!link(host, port).forwarding()) {
      const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) {
        throw std::runtime_error(port + " on " + host + " does not forward after " +
                                 std::to_string(limit.count()) + " ms");
      }
      pollfd poller{events->fd(), POLLIN, 0};
      if (poll(&poller, 1, static_cast<int>(left.count())) > 0) {
        events->receive([](const LinkMessage&) {});
      }
    }
  }
}

double Lab::frameRate(const std::string& host, const std::string& port, Milliseconds window) const {
  const auto frames = [&] {
    const LinkState state = link(host, port);
    return state.rxFrames + state.txFrames;
  };
  const auto before = frames();
  const auto from = Clock::now();
  passWindow(window);
  const auto counted = frames() - before;
  return static_cast<double>(counted) * 1000.0 / millisecondsBetween(from, Clock::now());
}

Clock::time_point Lab::waitQuiet(const std::string& host, const std::string& port, double limit,
                                 Milliseconds window, Milliseconds patience) const {
  const auto deadline = Clock::now() + patience;
  for (;;) {
    const double rate = frameRate(host, port, window);
    const auto now = Clock::now();
    if (rate <= limit) {
      return now;
    }
    if (now >= deadline) {
      throw std::runtime_error(port + " on " + host + " still carries " + std::to_string(rate) +
                               " frames/s after " + std::to_string(patience.count()) + " ms");
    }
  }
}

void Lab::inHost(const std::string& hostName, const std::function<void()>& body) const {
  const int own = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (own < 0 || setns(host(hostName).fd, CLONE_NEWNET) < 0) {
    const int error = errno;
    close(own);
    throw std::system_error(error, std::generic_category(), "entering the host " + hostName);
  }
  const auto comeBack = [own] {
    // Going on in the wrong namespace would falsify everything that follows.
    if (setns(own, CLONE_NEWNET) < 0) {
      std::terminate();
    }
    close(own);
  };
  try {
    body();
  } catch (...) {
    comeBack();
    throw;
  }
  comeBack();
}

}  // namespace RingwardLab
