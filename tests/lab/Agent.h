// SPDX-License-Identifier: Apache-2.0
//
// Agent: the daemon ringwardd, running on a host of the lab, and what it says about loops. Its
// configuration and the exact words of its lines are known in Agent.cc and nowhere else in the lab.
// Any thread may call it.
#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "tests/lab/Process.h"

namespace RingwardLab {

struct AgentConfig {
  std::string vlans = "1";
  std::vector<std::string> exclude;
  int transmitInterval = 1;  // Seconds, as all times here.
  int disabledTime = 3;
  int rateLimit = 1000;
  std::string bridge = "br0";
  std::vector<std::string> match;  // If not empty, instead of the bridge.
  int nativeVlan = 1;
  std::string action = "auto";
  bool acceptForeignSource = false;
  std::string scheduling = "auto";

  std::string toToml() const;
};

struct AgentEvent {
  enum class Kind { kReady, kLoop, kRecovered };
  Kind kind = Kind::kReady;
  Clock::time_point at;
  int ports = 0;       // kReady.
  std::string port;    // kLoop: where the probe came in; kRecovered: what is back.
  std::string sender;  // kLoop: where the probe had left.
  int vlan = 0;
  std::string action;
  std::optional<int> seconds;  // The hold time; none for a port that stays down for good.
};

// Reads one line of the agent's; nothing if it is none of the known ones.
std::optional<AgentEvent> parseAgentLine(const Line& line);

// The path of the daemon: the environment's RINGWARDD, or where a build puts it; empty if absent.
std::string findAgent();

class Agent {
 public:
  // Starts it and waits until it says that it is ready. Throws std::runtime_error with all that it
  // wrote if it does not.
  Agent(const Lab& lab, const std::string& host, const AgentConfig& config);

  // Changes the file and sends the signal to read it again; `text` may be no valid file.
  void reload(const AgentConfig& config) { reload(config.toToml()); }
  void reload(const std::string& text);
  // The count-th line that contains `text`; nothing at the time limit.
  std::optional<Line> waitText(const std::string& text, Milliseconds limit,
                               std::size_t count = 1) const;

  Process& process() { return process_; }
  const AgentEvent& ready() const { return ready_; }
  std::vector<AgentEvent> events(AgentEvent::Kind kind) const;
  // The count-th event of the kind since the start; nothing at the time limit.
  std::optional<AgentEvent> waitEvent(AgentEvent::Kind kind, Milliseconds limit,
                                      std::size_t count = 1) const;
  // Asks it to end in the ordinary way; "exit 0" is what it should answer.
  std::string stop() { return process_.end(SIGTERM, Milliseconds(5000)); }

 private:
  const std::string configPath_;
  Process process_;
  AgentEvent ready_;
};

}  // namespace RingwardLab
