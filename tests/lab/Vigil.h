// SPDX-License-Identifier: Apache-2.0
//
// Vigil: an agent on the host sw1, loops that come and go around it, and everything that has to be
// right at each: which ports go down (one end of each loop, and no other ever), how long after the
// first probe has come back, what an innocent host received until then, and what the agent spent.
// Each loop's figures are printed in one line that begins with "figures".
//
// For the thread of the scenario; failed checks are GoogleTest's.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/lab/LoopScenario.h"
#include "tests/lab/ReturnWatch.h"

namespace RingwardLab {

// The ports of sw1 that one loop runs through.
using LoopPorts = Ports;

// sw1 with the bridge br0 of the ports eth1 to eth<count>, which lead to f1 to f<count> of the host
// `foreign`, and of the port eth0, which leads to port i0 of the host `innocent`.
void newPlant(Lab& lab, int count);
// Names with one number each: numbered("eth", 1, 3) is eth1, eth2, eth3.
std::vector<std::string> numbered(const std::string& stem, int first, int last);

class Vigil {
 public:
  // Starts the agent. `name` stands in the figures.
  Vigil(Lab& lab, std::string name, const AgentConfig& config);

  Agent& agent() { return *agent_; }
  LinkWatch& watch() { return watch_; }

  // To be called before the loops are there, or before the agent could know of them.
  void arm();
  // Waits until each of the loops is cut, and checks that it is cut at one end and nothing else is
  // down. Needs arm() before each.
  enum class Ends { kOne, kOneOrBoth };
  void expectCuts(const std::vector<LoopPorts>& loops, Milliseconds limit = seconds(4),
                  Ends ends = Ends::kOne);
  // Waits until no port is down any more. The ports have to have been down for `held`.
  void expectBack(Milliseconds held);
  // Waits until the agent has said so often, since the beginning, that a port is back: for ports
  // that cannot be seen from outside to be.
  void expectRecoveries(std::size_t count);
  // Waits until the agent says that it holds this many ports.
  void expectHeld(int count, Milliseconds limit);
  // Of the ports that were there at the start, only these were ever down.
  void expectNoOtherDown(const Ports& ports) const;
  // The last cut that expectCuts() has seen.
  Clock::time_point cutAt() const { return cutAt_; }
  // The agent is alive, has grown in no way, and ends cleanly.
  void end();

 private:
  std::uint64_t innocentFrames() const;
  // Without those that came later.
  Ports onlyOriginal(Ports ports) const;

  Lab& lab_;
  const std::string name_;
  std::vector<std::string> ports_;  // in service at the start
  std::size_t statusAsked_ = 0;
  LinkWatch watch_;
  std::unique_ptr<Agent> agent_;
  std::size_t descriptors_ = 0;
  std::size_t ownKiB_ = 0;
  // Since the last arm().
  std::unique_ptr<ReturnWatch> returns_;
  Clock::time_point armedAt_;
  std::chrono::nanoseconds workBefore_{};
  std::uint64_t innocentBefore_ = 0;
  Clock::time_point cutAt_;  // The last cut of expectCuts().
};

}  // namespace RingwardLab
