// SPDX-License-Identifier: Apache-2.0
//
// Agent::RingwardAgent: the daemon without its process: makes the twelve objects that the engine
// takes, ties them to the Linux platform, and applies one configuration. main() gives it a loop and
// signals. Activity thread only.
//
// Start: the links are read first, then the engine is made with everything in place. Stop: the
// engine is disabled, which brings every port back, and only then does anything else go.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>

#include "agent/Configuration.h"
#include "agent/LoopReport.h"
#include "engine/GlobalSm.h"
#include "platform/linux/Errdisable.h"
#include "platform/linux/LinkControl.h"
#include "platform/linux/LinkDirectory.h"
#include "platform/linux/LinkMonitor.h"
#include "platform/linux/PacketAccess.h"
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

  // Disables the engine: every port that it holds comes back.
  void stop();

 private:
  class Links;
  class Actions;
  class SourceReactor;
  class Ready;

  void applyConfiguration();
  void reportReady();

  Vex::ActivityManager& manager_;
  const Configuration configuration_;
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

  const Vex::Ptr<Platform::Linux::PacketAccess> access_;
  LoopReport report_;
  Platform::Linux::LinkControl control_;
  std::unique_ptr<Actions> actions_;
  std::unique_ptr<Platform::Linux::LinkDirectory> directory_;
  Vex::Ptr<Platform::Linux::Errdisable> errdisable_;
  std::unique_ptr<Links> links_;
  Vex::Ptr<SourceReactor> source_;
  Vex::Ptr<Ringward::GlobalSm> globalSm_;
  std::unique_ptr<Ready> ready_;
};

}  // namespace Agent
