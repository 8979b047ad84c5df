// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Agent.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>

namespace RingwardLab {

namespace {

std::string quotedList(const std::vector<std::string>& items) {
  std::string result;
  for (const std::string& item : items) {
    result += (result.empty() ? "\"" : ", \"") + item + "\"";
  }
  return "[" + result + "]";
}

std::vector<std::string> commandLine(const std::string& path, const AgentConfig& config) {
  // The agent sees its host's part of the directory as /run.
  std::ofstream(path) << config.toToml();
  return {findAgent(), "--config", "/run/ringward-lab.toml", "--foreground"};
}

}  // namespace

std::string AgentConfig::toToml() const {
  return "enabled = true\nvlans = \"" + vlans + "\"\nexclude = " + quotedList(exclude) +
         "\ntransmit-interval = " + std::to_string(transmitInterval) +
         "\ndisabled-time = " + std::to_string(disabledTime) +
         "\nrate-limit = " + std::to_string(rateLimit) + "\nscheduling = \"" + scheduling +
         "\"\n[ports]\n" +
         (match.empty() ? "bridge = \"" + bridge + "\"" : "match = " + quotedList(match)) +
         "\nnative-vlan = " + std::to_string(nativeVlan) + "\n[errdisable]\naction = \"" + action +
         "\"\n[packet]\naccept-foreign-source = " + (acceptForeignSource ? "true" : "false") + "\n";
}

std::optional<AgentEvent> parseAgentLine(const Line& line) {
  static const std::regex ready(R"(\bready: (\d+) ports?\b)");
  // A port that was held down already when the agent came has no sender to be named.
  static const std::regex loop(
      R"(\bloop: received on ([^\s,]+)(?:, sent from (\S+), vlan (\d+))?.*, action ([^\s,]+)(.*))");
  static const std::regex held(R"(\((\d+) s\))");
  static const std::regex recovered(R"(\brecovered: (\S+) after (\d+) s)");
  std::smatch match;
  AgentEvent event;
  event.at = line.at;
  if (std::regex_search(line.text, match, ready)) {
    event.ports = std::stoi(match[1]);
    return event;
  }
  if (std::regex_search(line.text, match, loop)) {
    event.kind = AgentEvent::Kind::kLoop;
    event.port = match[1];
    if (match[2].matched) {
      event.sender = match[2];
      event.vlan = std::stoi(match[3]);
    }
    event.action = match[4];
    const std::string rest = match[5];
    if (std::smatch time; std::regex_search(rest, time, held)) {
      event.seconds = std::stoi(time[1]);
    }
    return event;
  }
  if (std::regex_search(line.text, match, recovered)) {
    event.kind = AgentEvent::Kind::kRecovered;
    event.port = match[1];
    event.seconds = std::stoi(match[2]);
    return event;
  }
  return std::nullopt;
}

std::string findAgent() {
  if (const char* path = std::getenv("RINGWARDD"); path != nullptr && *path != '\0') {
    return path;
  }
  const auto own = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  for (const auto& candidate :
       {own / "ringwardd", own / "../agent/ringwardd", own / "../../agent/ringwardd",
        std::filesystem::absolute("build/release/agent/ringwardd")}) {
    if (access(candidate.c_str(), X_OK) == 0) {
      return std::filesystem::canonical(candidate);
    }
  }
  return "";
}

Agent::Agent(const Lab& lab, const std::string& host, const AgentConfig& config)
    : configPath_(lab.directory(host) + "/run/ringward-lab.toml"),
      process_(lab, host, commandLine(configPath_, config)) {
  const auto ready = waitEvent(AgentEvent::Kind::kReady, Milliseconds(10'000));
  if (!ready) {
    throw std::runtime_error("ringwardd did not become ready; it wrote:\n" + process_.output());
  }
  ready_ = *ready;
}

void Agent::reload(const std::string& text) {
  std::ofstream(configPath_) << text;
  process_.signal(SIGHUP);
}

std::optional<Line> Agent::waitText(const std::string& text, Milliseconds limit,
                                    std::size_t count) const {
  return process_.waitLine(
      [&](const std::string& line) { return line.find(text) != std::string::npos; }, limit, count);
}

std::vector<AgentEvent> Agent::events(AgentEvent::Kind kind) const {
  std::vector<AgentEvent> result;
  for (const Line& line : process_.lines()) {
    if (const auto event = parseAgentLine(line); event && event->kind == kind) {
      result.push_back(*event);
    }
  }
  return result;
}

std::optional<AgentEvent> Agent::waitEvent(AgentEvent::Kind kind, Milliseconds limit,
                                           std::size_t count) const {
  const auto line = process_.waitLine(
      [kind](const std::string& text) {
        const auto event = parseAgentLine({{}, text});
        return event && event->kind == kind;
      },
      limit, count);
  return line ? parseAgentLine(*line) : std::nullopt;
}

}  // namespace RingwardLab
