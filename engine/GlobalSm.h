// SPDX-License-Identifier: Apache-2.0
//
// Ringward::GlobalSm: the root of the engine and, with globalSmFactory, the one point at which an
// agent enters it. Builds the tree of machines when the engine is enabled and takes it down when it
// is disabled, decides the source address of the probes, keeps the peer link out of detection and
// clears the counters. Owned by the agent; activity thread only.
//
// Disabling keeps the directories and managers of packet access, which may hold sockets, and builds
// everything else anew at the next enabling. Dropping the last reference releases everything
// without running the disable path: an agent that wants its interfaces back disables first.
#pragma once

#include <string_view>
#include <tuple>

#include "engine/TransmitSm.h"
#include "engine/VlanIntfSmManager.h"
#include "model/config/Config.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"
#include "runtime/bridging/Config.h"
#include "runtime/bridging/TopologyStatus.h"
#include "runtime/errdisable/CauseStatus.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/interface/EthDevPamManager.h"
#include "runtime/interface/IntfStatusManager.h"
#include "runtime/mlag/Status.h"
#include "runtime/topology/LibSm.h"
#include "runtime/topology/VlanLibSm.h"
#include "runtime/vex/Machine.h"

namespace Ringward {

class GlobalSm final : public Vex::Machine<GlobalSm> {
 public:
  static constexpr std::string_view kTypeName = "Ringward::GlobalSm";

  // The twelve objects that the agent owns. Those that are watched (config, status, mlagStatus,
  // transmitStatus, brConfig) may be null here; a handler that needs one raises "null ValidPtr".
  struct Arguments {
    Vex::Ptr<Config::Config const> config;
    Vex::Ptr<Status::Status> status;
    Vex::Ptr<Mlag::Status const> mlagStatus;
    Vex::Ptr<Status::TransmitStatus> transmitStatus;
    Vex::Ptr<Bridging::Topology::Config const> brTopoConfig;
    Vex::Ptr<Bridging::Topology::Status> brTopoStatus;
    Vex::Ptr<Bridging::Config const> brConfig;
    Vex::Ptr<Interface::EthIntfStatusDir const> ethIntfStatusDir;
    Vex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir;
    Vex::Ptr<Interface::AllIntfStatusLocalDir const> allIntfStatusLocalDir;
    Vex::Ptr<Errdisable::CauseStatus> ringwardCause;
    Vex::Ptr<Status::PacketCounter> packetCounter;
  };

  // Use globalSmFactory.
  explicit GlobalSm(const Arguments& arguments);
  ~GlobalSm() override;

  const Arguments& arguments() const noexcept { return arguments_; }
  const Vex::Ptr<Config::Config const>& config() const noexcept { return arguments_.config; }
  const Vex::Ptr<Status::Status>& status() const noexcept { return arguments_.status; }
  const Vex::Ptr<Mlag::Status const>& mlagStatus() const noexcept { return arguments_.mlagStatus; }
  const Vex::Ptr<Status::TransmitStatus>& transmitStatus() const noexcept {
    return arguments_.transmitStatus;
  }
  const Vex::Ptr<Bridging::Config const>& brConfig() const noexcept { return arguments_.brConfig; }

  // Rebind the reactors; a null argument drops the reactor. Binding to another object replays the
  // handlers of what is watched.
  void configIs(const Vex::Ptr<Config::Config const>& config);
  void statusIs(const Vex::Ptr<Status::Status>& status);
  void mlagStatusIs(const Vex::Ptr<Mlag::Status const>& mlagStatus);
  void transmitStatusIs(const Vex::Ptr<Status::TransmitStatus>& transmitStatus);
  void brConfigIs(const Vex::Ptr<Bridging::Config const>& brConfig);

  // What the machine owns; null while it does not exist.
  const Vex::Ptr<Interface::DeviceIntfStatusDir>& deviceIntfStatusDir() const noexcept {
    return deviceIntfStatusDir_;
  }
  const Vex::Ptr<Interface::PamDesiredIntfDir>& pamDesiredIntfDir() const noexcept {
    return pamDesiredIntfDir_;
  }
  const Vex::Ptr<Interface::EthDevPamCollection>& ethDevPamCollection() const noexcept {
    return ethDevPamCollection_;
  }
  const Vex::Ptr<Interface::IntfStatusManager>& intfStatusManager() const noexcept {
    return intfStatusManager_;
  }
  const Vex::Ptr<Interface::EthDevPamManager>& ethDevPamManager() const noexcept {
    return ethDevPamManager_;
  }
  const Vex::Ptr<Topology::Library::LibState>& topoLibState() const noexcept {
    return topoLibState_;
  }
  const Vex::Ptr<Topology::Library::LibSm>& topoLibSm() const noexcept { return topoLibSm_; }
  const Vex::Ptr<Topology::Library::Vlan::LibVlanState>& topoLibVlanState() const noexcept {
    return topoLibVlanState_;
  }
  const Vex::Ptr<Topology::Library::Vlan::VlanLibSm>& topoLibVlanSm() const noexcept {
    return topoLibVlanSm_;
  }
  const Vex::Ptr<Helm::TimerWheel>& timerWheel() const noexcept { return timerWheel_; }
  const Vex::Ptr<VlanIntfSmManager>& vlanIntfSmManager() const noexcept {
    return vlanIntfSmManager_;
  }
  const Vex::Ptr<TransmitSm>& transmitSm() const noexcept { return transmitSm_; }
  // The peer link interface that was last put into sysIntfExclude.
  const Portus::IntfId& oldPeer() const noexcept { return oldPeer_; }

  // The transmitter of a pair, null for none.
  Vex::Ptr<VlanIntfTxSm> vlanIntfTxSm(Bridging::VlanId vlanId, const Portus::IntfId& intfId) const;

  void handleGlobalEnabled();
  void handleClearCounters();
  void handleMlagPeer();
  void handleMacAddr();

 private:
  friend class Vex::Machine<GlobalSm>;

  class VexConfig final : public Vex::Reactor<GlobalSm, Config::Config> {
   public:
    void onGlobalEnabled() override {
      react([](GlobalSm& sm) { sm.handleGlobalEnabled(); });
    }
    void onClearCounters() override {
      react([](GlobalSm& sm) { sm.handleClearCounters(); });
    }

   protected:
    void vexReplay() override {
      onGlobalEnabled();
      onClearCounters();
    }
  };
  class VexStatus final : public Vex::Reactor<GlobalSm, Status::Status> {};
  class VexMlagStatus final : public Vex::Reactor<GlobalSm, Mlag::Status> {
   public:
    void onMlagState() override {
      react([](GlobalSm& sm) { sm.handleMacAddr(); });
    }
    void onSystemId() override {
      react([](GlobalSm& sm) { sm.handleMacAddr(); });
    }
    void onPeerLinkIntf() override {
      react([](GlobalSm& sm) { sm.handleMlagPeer(); });
    }

   protected:
    void vexReplay() override {
      onMlagState();
      onPeerLinkIntf();
    }
  };
  class VexTransmitStatus final : public Vex::Reactor<GlobalSm, Status::TransmitStatus> {};
  class VexBrConfig final : public Vex::Reactor<GlobalSm, Bridging::Config> {
   public:
    void onBridgeMacAddr() override {
      react([](GlobalSm& sm) { sm.handleMacAddr(); });
    }

   protected:
    void vexReplay() override { onBridgeMacAddr(); }
  };

  auto vexReactors() { return std::tie(config_, status_, mlagStatus_, transmitStatus_, brConfig_); }
  auto vexOwned() {
    return std::tie(intfStatusManager_, ethDevPamManager_, topoLibSm_, topoLibVlanSm_, timerWheel_,
                    vlanIntfSmManager_, transmitSm_);
  }

  void enable();
  void disable();

  // Each makes its object exist with these arguments and returns it: the present one if it was made
  // with equal ones, else a new one in its place.
  void topoLibStateIs(const Vex::Name& name);
  void topoLibSmIs();
  void topoLibVlanStateIs(const Vex::Name& name);
  void topoLibVlanSmIs();
  void deviceIntfStatusDirIs(const Vex::Name& name);
  void pamDesiredIntfDirIs(const Vex::Name& name);
  void ethDevPamCollectionIs(const Vex::Name& name);
  void intfStatusManagerIs();
  void ethDevPamManagerIs();
  void timerWheelIs();
  void vlanIntfSmManagerIs();
  void transmitSmIs();

  Arguments arguments_;
  Vex::Ptr<VexConfig> config_;
  Vex::Ptr<VexStatus> status_;
  Vex::Ptr<VexMlagStatus> mlagStatus_;
  Vex::Ptr<VexTransmitStatus> transmitStatus_;
  Vex::Ptr<VexBrConfig> brConfig_;
  Vex::Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir_;
  Vex::Ptr<Interface::PamDesiredIntfDir> pamDesiredIntfDir_;
  Vex::Ptr<Interface::EthDevPamCollection> ethDevPamCollection_;
  Vex::Ptr<Interface::IntfStatusManager> intfStatusManager_;
  Vex::Ptr<Interface::EthDevPamManager> ethDevPamManager_;
  Vex::Ptr<Topology::Library::LibState> topoLibState_;
  Vex::Ptr<Topology::Library::LibSm> topoLibSm_;
  Vex::Ptr<Topology::Library::Vlan::LibVlanState> topoLibVlanState_;
  Vex::Ptr<Topology::Library::Vlan::VlanLibSm> topoLibVlanSm_;
  Vex::Ptr<Helm::TimerWheel> timerWheel_;
  Vex::Ptr<VlanIntfSmManager> vlanIntfSmManager_;
  Vex::Ptr<TransmitSm> transmitSm_;
  Portus::IntfId oldPeer_;
};

// Makes the machine and brings it into the state that its inputs ask for. Empties the counters.
Vex::Ptr<GlobalSm> globalSmFactory(
    const Vex::Ptr<Config::Config const>& config, const Vex::Ptr<Status::Status>& status,
    const Vex::Ptr<Mlag::Status const>& mlagStatus,
    const Vex::Ptr<Status::TransmitStatus>& transmitStatus,
    const Vex::Ptr<Bridging::Topology::Config const>& brTopoConfig,
    const Vex::Ptr<Bridging::Topology::Status>& brTopoStatus,
    const Vex::Ptr<Bridging::Config const>& brConfig,
    const Vex::Ptr<Interface::EthIntfStatusDir const>& ethIntfStatusDir,
    const Vex::Ptr<Interface::AllIntfStatusDir const>& allIntfStatusDir,
    const Vex::Ptr<Interface::AllIntfStatusLocalDir const>& allIntfStatusLocalDir,
    const Vex::Ptr<Errdisable::CauseStatus>& ringwardCause,
    const Vex::Ptr<Status::PacketCounter>& packetCounter);

}  // namespace Ringward
