// SPDX-License-Identifier: Apache-2.0
//
// Bench::Namespace: a network namespace of a benchmark's own with interfaces in it, so that nothing
// on the machine disturbs the figures and they disturb nothing. One thread; interfaces and
// namespace go with the process. Without the right to make one a benchmark reports an error.
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/linux/Fd.h"

namespace Bench {

class Namespace {
 public:
  // With what `commands`, a batch of ip(8), makes in it. The thread is in it afterwards.
  explicit Namespace(const std::string& commands) {
    if (unshare(CLONE_NEWNET) != 0) {
      error_ = "no right to make a network namespace";
      return;
    }
    fd_ = Platform::Linux::Fd(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << "1";
    if (std::system(("ip -batch - <<EOF\n" + commands + "EOF\n").c_str()) != 0) {
      error_ = "cannot make the interfaces";
    }
  }
  // Its name for ip(8).
  std::string path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_.get());
  }
  // For this thread from then on. False: said so to `state`.
  bool enter(benchmark::State& state) const {
    if (error_ == nullptr && setns(fd_.get(), CLONE_NEWNET) == 0) return true;
    state.SkipWithError(error_ != nullptr ? error_ : "cannot enter the namespace");
    return false;
  }

 private:
  Platform::Linux::Fd fd_;
  const char* error_ = nullptr;
};

}  // namespace Bench
