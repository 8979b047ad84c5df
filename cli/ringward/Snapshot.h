// SPDX-License-Identifier: Apache-2.0
//
// RingwardCli::Snapshot: what the commands under "show" need of the agent's tree. Read over several
// requests, so that two parts of it may come from two moments. A value; one thread.
#pragma once

#include <string>
#include <vector>

#include "cli/ringward/AgentLink.h"
#include "runtime/bridging/VlanBitmap.h"

namespace RingwardCli {

struct IntfState {
  std::string name;
  bool held = false;
  double since = 0;  // on the monotonic clock
  double until = 0;  // 0: for good
};

struct Snapshot {
  bool enabled = false;
  bool running = false;
  bool aggressive = false;
  std::string sourceAddress;
  std::string transmitInterval;
  std::string disabledTime;
  std::string rateLimit;
  Bridging::VlanBitmap vlans;
  std::vector<std::string> excluded;  // by the operator
  std::vector<std::string> excludedBySystem;
  std::vector<IntfState> intfs;

  std::size_t held() const;
};

// Raises Failure.
Snapshot readSnapshot(AgentLink& agent);

}  // namespace RingwardCli
