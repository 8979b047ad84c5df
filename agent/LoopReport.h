// SPDX-License-Identifier: Apache-2.0
//
// Agent::LoopReport: tells whoever runs the agent of each loop, one line when a port goes down and
// one when it comes back, and one each when an action fails and when it succeeds after all. Follows
// the errdisable actions and reads the rest from the frame that is being delivered. Activity thread
// only; everything given to it must outlive it.
//
//   loop: received on eth2, sent from eth1, vlan 10, action bridge-port, until 2026-11-21 10:00:00
//   UTC (30 s)
//   recovered: eth2 after 30 s
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "model/status/Status.h"
#include "platform/linux/Errdisable.h"
#include "platform/linux/PacketAccess.h"
#include "runtime/bridging/Config.h"

namespace Agent {

class LoopReport final : public Platform::Linux::Errdisable::Listener {
 public:
  // Takes one line without its end.
  using Output = std::function<void(std::string_view line)>;

  LoopReport(Vex::Ptr<Ringward::Status::Status const> status,
             Vex::Ptr<Bridging::Config const> brConfig, const Platform::Linux::PacketAccess& access,
             Output output);

  using Hold = Platform::Linux::Errdisable::Hold;
  void held(const Portus::IntfId& intfId, const Hold& hold) override;
  void heldAtLast(const Portus::IntfId& intfId, const Hold& hold) override;
  void released(const Portus::IntfId& intfId, const Hold& hold) override;
  void releasedAtLast(const Portus::IntfId& intfId, const Hold& hold) override;

  // The hold of an earlier run goes on: `since` on the activity clock.
  void adopted(const Portus::IntfId& intfId, double since) { since_.emplace(intfId, since); }
  // Since when the interface is held, on the activity clock; 0 if it is not.
  double since(const Portus::IntfId& intfId) const;
  // "until 2026-11-21 10:00:00 UTC (30 s)" or "for good".
  std::string until(const Portus::IntfId& intfId) const;

 private:
  std::string sender(const Portus::IntfId& intfId, int ifindex) const;

  const Vex::Ptr<Ringward::Status::Status const> status_;
  const Vex::Ptr<Bridging::Config const> brConfig_;
  const Platform::Linux::PacketAccess& access_;
  const Output output_;
  std::unordered_map<Portus::IntfId, double> since_;  // seconds on the activity clock
};

// A time of the activity clock as a date in UTC, by the difference between the two clocks now.
std::string dateOf(double activityTime, double activityNow);

}  // namespace Agent
