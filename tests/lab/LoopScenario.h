// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the agent on real ports have in common: a lab with an agent, and the checks
// that every cut and every end has to stand. For the thread of the scenario.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/lab/Agent.h"
#include "tests/lab/LinkWatch.h"
#include "tests/lab/Scenario.h"
#include "tests/lab/Sniffer.h"

namespace RingwardLab {

using std::chrono::seconds;
using Kind = AgentEvent::Kind;
using Ports = std::set<std::string>;

inline constexpr const char* kBridgeAddress = "02:00:00:00:10:01";
// An administrative up is followed by the kernel's own waiting, up to a second, before the bridge
// uses the port again.
inline constexpr Milliseconds kRecoverySlack{1500};

inline void agentScenario(const std::function<void(Lab&)>& body, Milliseconds limit = seconds(60)) {
  if (findAgent().empty()) {
    skipLab("there is no ringwardd; build it or set RINGWARDD");
    return;
  }
  labScenario(body, limit);
}

inline void newSwitch(Lab& lab, const std::string& host, const std::vector<std::string>& ports,
                      const std::string& address = kBridgeAddress) {
  lab.newBridge(host, "br0", ports, address);
  lab.waitForwarding(host, ports);
}

// Waits until `count` further probes have left the port, so that much later has come.
inline void waitProbesOut(const Sniffer& sniffer, const std::string& port, std::size_t count) {
  EXPECT_TRUE(sniffer.waitFrame(
      [&](const Frame& frame) {
        return frame.outgoing && frame.port == port && asProbe(frame.bytes);
      },
      seconds(10), Clock::now(), count))
      << count << " probes should have left " << port;
}

inline void expectCleanEnd(Agent& agent) {
  EXPECT_TRUE(agent.process().running()) << agent.process().output();
  EXPECT_EQ(agent.stop(), "exit 0") << agent.process().output();
}

// The cut that `loop` tells of, seen from outside: exactly its port goes down.
inline void expectCut(const LinkWatch& watch, const AgentEvent& loop, Clock::time_point since,
                      Clock::time_point after = {}) {
  const auto down = watch.waitChange("", true, seconds(1), after);
  ASSERT_TRUE(down.has_value()) << "no port went down";
  EXPECT_EQ(down->port, loop.port);
  EXPECT_EQ(watch.downNow(), Ports{loop.port});
  std::printf("  %s down (%s) after %.1f ms\n", down->port.c_str(), loop.action.c_str(),
              millisecondsBetween(since, down->at));
}

}  // namespace RingwardLab
