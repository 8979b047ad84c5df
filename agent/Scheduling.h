// SPDX-License-Identifier: Apache-2.0
//
// ProcessScheduling: how the kernel lets this process take its turn. A storm fills the processors
// with the kernel's own forwarding, and an ordinary process waits several milliseconds behind it,
// which is a thousand frames to every host. As a real-time process the agent runs when its frame
// comes (sched(7)).
//
// A real-time process that has work without end would starve the rest of the machine, so the right
// is given back while frames flood in and taken again when that is over (FloodMeter).
//
// Activity thread only. Threads and processes made later do not inherit what is set here.
#pragma once

#include <optional>
#include <string_view>
#include <system_error>

#include "platform/linux/FloodMeter.h"

namespace Agent {

enum class Scheduling : unsigned char {
  automatic,  // real-time where other processes have a processor besides
  realtime,
  normal
};

// "auto", "realtime", "normal"; and back.
std::string_view schedulingName(Scheduling scheduling);
std::optional<Scheduling> schedulingOf(std::string_view name);

class ProcessScheduling final : public Platform::Linux::FloodMeter::Listener {
 public:
  // Gives the process what is asked for. The error is the kernel's, EPERM as a rule; the process
  // goes on as it was then.
  std::error_code schedulingIs(Scheduling scheduling);

  // Whether it is a real-time process by what was asked for, floods aside.
  bool realtime() const noexcept { return realtime_; }
  void floodIs(bool flood) override;

 private:
  bool realtime_ = false;
  bool flood_ = false;
};

}  // namespace Agent
