// SPDX-License-Identifier: Apache-2.0
//
// Agent::RingwardAgent: the daemon without its process: makes the twelve objects that the engine
// takes, ties them to the Linux platform, and applies one configuration. main() gives it a loop and
// signals. Activity thread only.
//
// Start: what an earlier run holds is taken over, the links are read, then the engine is made with
// everything in place. Stop: the engine is disabled, which brings every port back, and only then
// does anything else go.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include "agent/Configuration.h"
#include "agent/CounterTables.h"
#include "agent/HeldFile.h"
#include "agent/LoopReport.h"
#include "agent/SelfCheck.h"
#include "agent/control/AgentControl.h"
#include "agent/control/ConfigFollower.h"
#include "engine/GlobalSm.h"
#include "platform/linux/Errdisable.h"
#include "platform/linux/LinkControl.h"
#include "platform/linux/LinkDirectory.h"
#include "platform/linux/LinkService.h"
#include "platform/linux/LostProbes.h"
#include "platform/linux/PacketAccess.h"
#include "platform/linux/PacketTotals.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/ActivityManager.h"

namespace Agent {

class RingwardAgent final {
 public:
  // `output` takes one line for the operator at a time.
  RingwardAgent(Vex::ActivityManager& manager, const Configuration& configuration,
                LoopReport::Output output);
  ~RingwardAgent();
  RingwardAgent(const RingwardAgent&) = delete;
  RingwardAgent& operator=(const RingwardAgent&) = delete;

  // Opens the kernel's interfaces, reads the links and starts the engine. On an error nothing runs
  // and `what` says what could not be done.
  struct StartError {
    std::string_view what;
    std::error_code error;
  };
  std::optional<StartError> start();

  // Takes another configuration in place of the present one. Only what differs between the two
  // reaches the entities, all of it before this returns: what clients have changed stays otherwise,
  // and what is held stays held by the action that holds it.
  // REQUIRES: start() has succeeded.
  void reload(const Configuration& configuration);

  // Writes what is going on as lines. REQUIRES: start() has succeeded.
  void reportStatus();

  // Disables the engine: every port that it holds comes back.
  void stop();

 private:
  class Actions;
  class SourceReactor;
  class Ready;
  class Holds;

  // `before` is the configuration that the entities have had; null: none.
  void applyConfiguration(const Configuration* before);
  Platform::Linux::PortSelection portSelection() const;
  void handleConfigChanged();
  void newControl();
  void applyScheduling();
  void applyCounters();
  void adoptHolds();
  void resumeHolds();
  void releaseStrays();
  void writeHolds();
  void reportReady();
  void resend(const Portus::IntfId& intfId, Bridging::VlanId vlanId);

  Vex::ActivityManager& manager_;
  Configuration configuration_;
  const LoopReport::Output output_;

  // What the engine takes, in the order in which it takes it.
  const Vex::Ptr<Ringward::Config::Config> config_;
  const Vex::Ptr<Ringward::Status::Status> status_;
  const Vex::Ptr<Mlag::Status> mlagStatus_;
  const Vex::Ptr<Ringward::Status::TransmitStatus> transmitStatus_;
  const Vex::Ptr<Bridging::Topology::Config> brTopoConfig_;
  const Vex::Ptr<Bridging::Topology::Status> brTopoStatus_;
  const Vex::Ptr<Bridging::Config> brConfig_;
  const Vex::Ptr<Interface::EthIntfStatusDir> ethIntfStatusDir_;
  const Vex::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir_;
  const Vex::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir_;
  const Vex::Ptr<Errdisable::CauseStatus> ringwardCause_;
  const Vex::Ptr<Ringward::Status::PacketCounter> packetCounter_;

  // What the platform counts beside the engine.
  const Vex::Ptr<Ringward::Status::IntfTotalsDir> intfTotalsDir_;

  // For retries and checks of the platform; the engine has its own.
  const Vex::Ptr<Helm::TimerWheel> timerWheel_;
  const Vex::Ptr<Platform::Linux::PacketAccess> access_;
  // Both outlive whatever counts.
  std::unique_ptr<CounterTables> counterTables_;
  std::unique_ptr<Platform::Linux::PacketTotals> packetTotals_;
  ProcessScheduling scheduling_;
  LoopReport report_;
  Platform::Linux::LostProbes lostProbes_;
  std::unique_ptr<HeldFile> heldFile_;
  std::vector<HeldPort> adopted_;  // what an earlier run has left, until the engine stands
  std::unique_ptr<Holds> holds_;
  Platform::Linux::LinkControl control_;
  std::unique_ptr<Actions> actions_;
  std::unique_ptr<Platform::Linux::LinkDirectory> directory_;
  Vex::Ptr<Platform::Linux::Errdisable> errdisable_;
  std::unique_ptr<Platform::Linux::LinkService> links_;
  Vex::Ptr<SourceReactor> source_;
  Vex::Ptr<Ringward::GlobalSm> globalSm_;
  std::unique_ptr<SelfCheck> selfCheck_;
  std::unique_ptr<Ready> ready_;
  Vex::Ptr<ConfigFollower> follower_;
  std::unique_ptr<AgentControl> agentControl_;
};

}  // namespace Agent
