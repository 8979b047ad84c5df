// SPDX-License-Identifier: Apache-2.0
//
// Agent::SelfCheck: looks twice in each transmit interval whether what should stand does stand, and
// heals what does not: an enabled VLAN of the topology without its machine, an eligible port
// without packet access or without its transmitter, a held port whose action is gone. It trusts no
// notification, so it finds what a lost one has left behind. Activity thread only; everything given
// to it must outlive it.
//
// Invariants:
//  1. A fault in the machines is healed when two checks in a row have seen it, that is within one
//     interval of its beginning; what is merely under way is not touched.
//  2. Machines are healed through the configuration entities alone, as an operator would: nothing
//     is made or ended behind the engine's back.
//  3. A fault is logged once for as long as it lasts, and counted each time that it is healed.
//  4. One turn of the loop looks at kVlansPerTurn VLANs at most.
//  5. While nothing is probed (detection off, no port, or all ports held) no timer runs: whoever
//     changes that calls wake().
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "engine/GlobalSm.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/interface/IntfStatus.h"
#include "runtime/vex/ActivityManager.h"

namespace Agent {

class SelfCheck final : private Vex::DeferredTask {
 public:
  static constexpr std::uint32_t kVlansPerTurn = 8;

  struct Counts {
    std::uint64_t rounds = 0;
    std::uint64_t vlanMachines = 0;  // healed
    std::uint64_t transmitters = 0;  // VLANs in which some were missing
    std::uint64_t packetAccess = 0;
    std::uint64_t actions = 0;

    bool operator==(const Counts&) const = default;
  };

  // Asks the kernel after the actions of all held ports, makes again those that are gone and tells
  // which.
  using VerifyActions = std::function<std::vector<Portus::IntfId>()>;

  SelfCheck(Vex::ActivityManager& manager, const Vex::Ptr<Helm::TimerWheel>& timerWheel,
            const Ringward::GlobalSm& engine, Ringward::Config::Config& config,
            Interface::AllIntfStatusLocalDir& intfStatusLocalDir, VerifyActions verifyActions);
  ~SelfCheck() override;

  // Something may be probed again: the checks go on if they had stopped.
  void wake();

  const Counts& counts() const noexcept { return counts_; }

 private:
  class Timer;

  enum class Kind : std::uint8_t { vlanMachine, packetAccess, transmitter };
  struct Fault {
    Kind kind;
    std::uint16_t vlanId;   // 0: of the port as a whole
    Portus::IntfId intfId;  // empty: of the VLAN as a whole
    auto operator<=>(const Fault&) const = default;
  };
  struct Sighting {
    std::uint64_t first;  // round
    std::uint64_t last;
  };

  double pause() const;
  bool probing() const;
  void begin();
  void run() override;  // the next part of a round
  void end();
  void checkVlan(Bridging::VlanId vlanId);
  void seen(const Fault& fault);
  void heal(const Fault& fault);
  bool excluded(const Portus::IntfId& intfId) const;

  const Ringward::GlobalSm& engine_;
  Ringward::Config::Config& config_;
  Interface::AllIntfStatusLocalDir& intfStatusLocalDir_;
  const VerifyActions verifyActions_;
  Vex::Ptr<Timer> timer_;
  std::uint32_t nextVlan_ = 0;  // 0: no round is under way
  std::map<Fault, Sighting> faults_;
  Counts counts_;
};

}  // namespace Agent
