// SPDX-License-Identifier: Apache-2.0
#include "agent/StatusReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "runtime/vex/ActivityManager.h"

namespace Agent {

using Platform::Linux::Errdisable;

namespace {

// "0.8" for seconds from now, never below 0.
std::string secondsUntil(double time) {
  char text[32] = "";
  std::snprintf(text, sizeof text, "%.1f", std::max(time - Vex::now(), 0.0));
  return text;
}

std::string holdLine(const Portus::IntfId& intfId, const Errdisable::Hold& hold,
                     const LoopReport& report) {
  using State = Errdisable::Hold::State;
  std::ostringstream line;
  const auto since = std::llround(Vex::now() - report.since(intfId));
  line << "status: ";
  const auto attempts = [&] {
    line << " FAILED " << hold.attempts << (hold.attempts == 1 ? " time" : " times") << " ("
         << hold.error.message() << "), next attempt in " << secondsUntil(hold.nextAttempt) << " s";
  };
  switch (hold.state) {
    case State::standing:
      line << "held " << intfId << " by " << errdisableActionName(hold.action) << " since " << since
           << " s, " << report.until(intfId);
      break;
    case State::failing:
      line << "holding " << intfId << " by " << errdisableActionName(hold.action);
      attempts();
      break;
    case State::raised:
      line << "held " << intfId << " was raised by the operator, " << report.until(intfId);
      break;
    case State::releasing:
      line << "putting back " << intfId << " from " << errdisableActionName(hold.action);
      attempts();
      break;
  }
  return line.str();
}

}  // namespace

std::size_t countPairs(const Ringward::GlobalSm& engine) {
  std::size_t pairs = 0;
  if (!engine.vlanIntfSmManager()) return pairs;
  for (auto vlan = engine.vlanIntfSmManager()->vlanSmIteratorConst(); vlan; ++vlan) {
    for (auto port = vlan->vlanIntfTxSmIteratorConst(); port; ++port) ++pairs;
  }
  return pairs;
}

void writeStatus(const StatusSources& sources, const LoopReport::Output& output) {
  const auto& holds = sources.errdisable.holds();
  const auto held = std::count_if(holds.begin(), holds.end(), [](const auto& entry) {
    return entry.second.state == Errdisable::Hold::State::standing;
  });
  std::ostringstream line;
  const auto put = [&] {
    output(line.str());
    line.str({});
  };
  line << "status: detection " << (sources.engine.vlanIntfSmManager() ? "on" : "off") << ", "
       << sources.directory.ports() << " ports, " << countPairs(sources.engine) << " pairs probed, "
       << held << (held == 1 ? " port held" : " ports held");
  put();
  for (const auto& [intfId, hold] : holds) output(holdLine(intfId, hold, sources.report));

  const auto& packets = sources.packets;
  line << "status: frames received " << packets.received << ", foreign " << packets.foreign
       << ", not probes " << packets.rejectedByRule << ", cut short " << packets.truncated
       << ", dropped by the kernel " << packets.kernelDrops << ", failed reads "
       << packets.receiveErrors;
  put();
  const auto& errors = packets.sendErrors;
  const auto other = errors.messageSize + errors.invalid + errors.other;
  const auto lost = sources.lostProbes.count();
  line << "status: probes sent " << packets.sent << ", not sent "
       << lost + errors.noBuffers + errors.noDevice + errors.wouldBlock + other << " (no carrier "
       << lost << ", queue full " << errors.noBuffers << ", no port " << errors.noDevice
       << ", buffer full " << errors.wouldBlock << ", other " << other << "), "
       << sources.lostProbes.waiting() << " pairs wait for a carrier";
  put();
  line << "status: links: " << sources.links.messages << " messages, " << sources.links.malformed
       << " malformed, " << sources.links.overruns << " overruns, " << sources.links.resyncs
       << " resynchronisations";
  put();
  const auto& check = sources.selfCheck.counts();
  line << "status: self-check: " << check.rounds << " rounds, healed " << check.vlanMachines
       << " VLAN machines, " << check.transmitters << " VLANs with missing transmitters, "
       << check.packetAccess << " packet accesses, " << check.actions << " actions";
  put();
}

}  // namespace Agent
