// SPDX-License-Identifier: Apache-2.0
//
// Agent::writeStatus: what the agent is doing, in lines for the operator (SIGUSR1). Activity thread
// only; reads everything, changes nothing but the kernel's own counters, which reset on reading and
// are added up by their owner.
#pragma once

#include "agent/LoopReport.h"
#include "agent/SelfCheck.h"
#include "engine/GlobalSm.h"
#include "platform/linux/Errdisable.h"
#include "platform/linux/LinkDirectory.h"
#include "platform/linux/LinkMonitor.h"
#include "platform/linux/LostProbes.h"
#include "platform/linux/PacketAccess.h"

namespace Agent {

struct StatusSources {
  const Ringward::GlobalSm& engine;
  const Platform::Linux::LinkDirectory& directory;
  const Platform::Linux::Errdisable& errdisable;
  const LoopReport& report;
  const SelfCheck& selfCheck;
  const Platform::Linux::LostProbes& lostProbes;
  Platform::Linux::PacketSocket::Statistics packets;
  Platform::Linux::LinkMonitor::Statistics links;
};

// Machines of pairs of port and VLAN that send probes.
std::size_t countPairs(const Ringward::GlobalSm& engine);

// Every line begins with "status: ".
//   status: detection on, 4 ports, 44 pairs probed, 1 port held
//   status: held eth1 by bridge-port since 3 s, until 2026-11-21 10:00:00 UTC (27 s)
//   status: held eth2 by admin-down FAILED 4 times (Operation not permitted), next attempt in 0.8 s
//   status: frames received 12, foreign 0, not probes 0, cut short 0, dropped by the kernel 0,
//   failed reads 0
//   status: probes sent 44, not sent 0 (no carrier 0, queue full 0, no port 0, buffer full 0, other
//   0), 0 pairs wait for a carrier
//   status: links: 20 messages, 0 malformed, 0 overruns, 0 resynchronisations
//   status: self-check: 9 rounds, healed 0 VLAN machines, 0 VLANs with missing transmitters, 0
//   packet accesses, 0 actions
void writeStatus(const StatusSources& sources, const LoopReport::Output& output);

}  // namespace Agent
