// SPDX-License-Identifier: Apache-2.0
//
// Agent::TreeService: the agent's entities and machines as the control socket offers them: by paths
// for requests, by the attribute log for subscriptions.
//
// Activity thread only. Holds counted references to the roots; streams must go before it.
//
// Invariants:
//  1. Who may not write meets adapters that are const, and an attribute log that refuses. Whatever
//     of the status may be set by nobody is const for everybody. No request takes an object away
//     that the engine's machines hold.
//  2. An answer to ls has at most kMostNodes nodes and fits into a frame, whatever they hold.
#pragma once

#include <string>
#include <vector>

#include "agent/control/ControlService.h"
#include "engine/GlobalSm.h"
#include "model/config/Config.h"
#include "model/generic/PathAccess.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"

namespace Agent {

class TreeService final : public ControlService {
 public:
  static constexpr std::size_t kMostNodes = 128;
  // Of each stream; what does not fit waits in the entities themselves.
  static constexpr std::size_t kStreamBuffer = 64 * 1024;

  struct Roots {
    Vex::Ptr<Ringward::Config::Config> config;
    Vex::Ptr<Ringward::Status::Status> status;
    Vex::Ptr<Ringward::Status::TransmitStatus> transmitStatus;
    Vex::Ptr<Ringward::Status::PacketCounter> packetCounter;
    // Null while there is none.
    std::function<Vex::Ptr<Ringward::GlobalSm>()> globalSm;
  };
  explicit TreeService(Roots roots);

  Platform::Linux::Control::Answer answer(const Platform::Linux::Control::Request& request,
                                          const std::string& refusal) override;
  std::unique_ptr<ControlStream> newStream(const std::vector<std::string>& roots,
                                           const std::string& refusal,
                                           std::function<void()> outputReady) override;

 private:
  class Stream;

  std::vector<Ringward::Generic::PathAccess::Root> treeRoots(bool readOnly) const;
  void carryOut(const Platform::Linux::Control::Request& request,
                Ringward::Generic::PathAccess& tree, Platform::Linux::Control::Answer& answer);
  static void list(const Platform::Linux::Control::Request& request,
                   const Ringward::Generic::PathAccess& tree,
                   Platform::Linux::Control::Answer& answer);

  const Roots roots_;
  Ringward::Generic::PathAccess readers_;
  Ringward::Generic::PathAccess writers_;
};

}  // namespace Agent
