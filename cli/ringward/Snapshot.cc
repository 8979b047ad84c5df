// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Snapshot.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"
#include "cli/ringward/Paths.h"

namespace RingwardCli {

using Control::Operation;
using Ringward::Generic::unquotedKey;

namespace {

bool isTrue(const std::string& text) { return text == "true"; }

double secondsOf(const std::string& text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && std::isfinite(value) ? value : 0.0;
}

std::string textOf(const std::vector<Node>& nodes, const std::string& name) {
  for (const Node& node : nodes) {
    if (node.name == name) return node.text;
  }
  return {};
}

// The keys whose value is true.
std::vector<std::string> trueKeys(AgentLink& agent, const std::string& path) {
  std::vector<std::string> keys;
  for (const Node& node : agent.ls(path)) {
    if (isTrue(node.text)) keys.push_back(unquotedKey(node.name));
  }
  return keys;
}

std::vector<IntfState> readIntfs(AgentLink& agent) {
  std::vector<IntfState> intfs;
  std::vector<AgentLink::Request> requests;
  for (const Node& node : agent.ls(kIntfStatusPath)) {
    intfs.push_back({unquotedKey(node.name), false, 0, 0});
    for (const char* const attribute : {"disabled", "disabledAt", "disabledUntil"}) {
      requests.push_back(
          {Operation::get, {listedPath(kIntfStatusPath, node.name) + "/" + attribute}});
    }
  }
  const auto answers = agent.askAll(requests);
  for (std::size_t i = 0; i < intfs.size(); ++i) {
    const auto text = [&](std::size_t which) {
      const auto& texts = answers[3 * i + which].texts;
      // One that has gone meanwhile is held no more.
      return answers[3 * i + which].status == Control::Status::done && texts.size() == 1
                 ? texts.front()
                 : std::string();
    };
    intfs[i].held = isTrue(text(0));
    intfs[i].since = secondsOf(text(1));
    intfs[i].until = secondsOf(text(2));
  }
  std::sort(intfs.begin(), intfs.end(),
            [](const IntfState& a, const IntfState& b) { return a.name < b.name; });
  return intfs;
}

}  // namespace

std::size_t Snapshot::held() const {
  return static_cast<std::size_t>(
      std::count_if(intfs.begin(), intfs.end(), [](const IntfState& i) { return i.held; }));
}

Snapshot readSnapshot(AgentLink& agent) {
  Snapshot snapshot;
  const std::vector<Node> status = agent.ls("status");
  snapshot.enabled = isTrue(agent.get(kEnabledPath));
  snapshot.running = isTrue(textOf(status, "running"));
  snapshot.aggressive = isTrue(textOf(status, "aggressiveDisable"));
  snapshot.sourceAddress = textOf(status, "srcAddr");
  const std::vector<Node> intf = agent.ls("config/globalIntfConfig");
  snapshot.transmitInterval = textOf(intf, "transmitInterval");
  snapshot.disabledTime = textOf(intf, "disabledTime");
  snapshot.rateLimit = textOf(agent.ls("config/transmitConfig"), "rateLimit");
  for (const std::string& key : trueKeys(agent, kVlansPath)) {
    std::uint32_t vlan = 0;
    std::from_chars(key.data(), key.data() + key.size(), vlan);
    if (vlan >= 1 && vlan < Bridging::VlanBitmap::kBits) snapshot.vlans.set(vlan);
  }
  snapshot.excluded = trueKeys(agent, kExcludePath);
  snapshot.excludedBySystem = trueKeys(agent, "status/sysIntfExclude");
  snapshot.intfs = readIntfs(agent);
  return snapshot;
}

}  // namespace RingwardCli
