// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanSm: the machine of one VLAN that is enabled and known to the topology. Keeps the
// VLAN's transmitters in step with its ports, the exclusions and the packet access, and records the
// VLAN in the set of each interface that it wants. Owned by Ringward::VlanIntfSmManager. Activity
// thread only.
#pragma once

#include <string_view>
#include <tuple>

#include "engine/VlanIntfTxSm.h"
#include "model/config/Config.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"
#include "runtime/interface/PamDirectories.h"
#include "runtime/topology/LibState.h"
#include "runtime/vex/HashMap.h"
#include "runtime/vex/Machine.h"

namespace Ringward {

class VlanIntfSmManager;

class VlanSm final : public Vex::Machine<VlanSm>, public Vex::HashMapLink {
 public:
  static constexpr std::string_view kTypeName = "Ringward::VlanSm";
  using VlanIntfTxSmMap = Vex::HashMap<VlanIntfTxSm, Portus::IntfId>;

  // Use vlanSmFactory.
  VlanSm(Bridging::VlanId vlanId, const Vex::Ptr<Topology::Library::Vlan::TopoVlan const>& topoVlan,
         const Vex::Ptr<Config::Config const>& config,
         const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamCollection,
         const Vex::Ptr<Status::Status>& status, Vex::Ptr<Status::TransmitStatus> transmitStatus,
         Vex::Ptr<Status::PacketCounter> packetCounter, VlanIntfSmManager* vlanIntfSmManager,
         Vex::Ptr<Helm::TimerWheel const> timerWheel);
  ~VlanSm() override;

  const Bridging::VlanId& fwkKey() const noexcept { return vlanId_; }
  Bridging::VlanId vlanId() const noexcept { return vlanId_; }
  const Topology::Library::Vlan::TopoVlan* topoVlan() const { return watched(topoVlan_); }
  const Config::Config* config() const { return watched(config_); }
  const Interface::EthDevPamCollection* ethDevPamCollection() const {
    return watched(ethDevPamCollection_);
  }
  const Vex::Ptr<Status::Status>& status() const { return statusRef_; }
  const Vex::Ptr<Status::TransmitStatus>& transmitStatus() const { return transmitStatus_; }
  const Vex::Ptr<Status::PacketCounter>& packetCounter() const { return packetCounter_; }
  VlanIntfSmManager* vlanIntfSmManager() const { return vlanIntfSmManager_; }
  const Vex::Ptr<Helm::TimerWheel const>& timerWheel() const { return timerWheel_; }
  bool initialized() const noexcept { return initialized_; }

  // The transmitter of an interface, null for none.
  Vex::Ptr<VlanIntfTxSm> vlanIntfTxSm(const Portus::IntfId& intfId) const {
    return Vex::Ptr<VlanIntfTxSm>(vlanIntfTxSm_.member(intfId));
  }
  const VlanIntfTxSmMap& vlanIntfTxSmColl() const noexcept { return vlanIntfTxSm_; }
  VlanIntfTxSmMap::IteratorConst vlanIntfTxSmIteratorConst() const {
    return vlanIntfTxSm_.iteratorConst();
  }
  // Makes the transmitter or checks that the present one was made with these arguments.
  Vex::Ptr<VlanIntfTxSm> vlanIntfTxSmIs(
      const Portus::IntfId& intfId, Bridging::VlanId vlanId,
      const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig,
      const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
      const Vex::Ptr<Status::IntfStatus const>& intfStatus,
      const Vex::Ptr<Status::TransmitStatus>& transmitStatus);
  void vlanIntfTxSmDel(const Portus::IntfId& intfId) { vlanIntfTxSm_.memberDel(intfId); }
  void vlanIntfTxSmDelAll() { vlanIntfTxSm_.memberDelAll(); }

  void handleVlanIntf(const Portus::IntfId& intfId);
  void handleVlanIntf();
  void handleIntfExclude(const Portus::IntfId& intfId);
  void handleIntfExclude();
  // Ends the transmitter and takes the VLAN out of the interface's set, which may end the
  // interface.
  void removeIntf(const Portus::IntfId& intfId);
  void handleInitialized();
  // Called by the owner when the engine is turned off. A VLAN that merely ends is dropped without
  // it.
  void doPrepareToDie();

 private:
  friend class Vex::Machine<VlanSm>;

  class VexTopoVlan final : public Vex::Reactor<VlanSm, Topology::Library::Vlan::TopoVlan> {
   public:
    void onTopoPort(const Portus::IntfId& intfId) override {
      react([&](VlanSm& sm) { sm.handleVlanIntf(intfId); });
    }
  };
  class VexConfig final : public Vex::Reactor<VlanSm, Config::Config> {
   public:
    using NotifieeConst::onIntfExclude;
    void onIntfExclude(const Portus::IntfId& intfId) override {
      react([&](VlanSm& sm) { sm.handleIntfExclude(intfId); });
    }
  };
  class VexEthDevPamCollection final : public Vex::Reactor<VlanSm, Interface::EthDevPamCollection> {
   public:
    void onIntfPam(const Portus::IntfId& intfId) override {
      react([&](VlanSm& sm) { sm.handleVlanIntf(intfId); });
    }
  };
  class VexStatus final : public Vex::Reactor<VlanSm, Status::Status> {
   public:
    using NotifieeConst::onSysIntfExclude;
    void onSysIntfExclude(const Portus::IntfId& intfId) override {
      react([&](VlanSm& sm) { sm.handleIntfExclude(intfId); });
    }
  };

  auto vexReactors() { return std::tie(topoVlan_, config_, ethDevPamCollection_, status_); }
  static auto vexOwned() { return std::tie(); }
  template <class Call>
  void vexOwnedCollections(Call call) {
    for (auto it = vlanIntfTxSm_.iterator(); it; ++it) call(*it);
  }

  bool excluded(const Portus::IntfId& intfId) const;

  bool initialized_ = false;
  const Bridging::VlanId vlanId_;
  Vex::Ptr<VexTopoVlan> topoVlan_;
  Vex::Ptr<VexConfig> config_;
  Vex::Ptr<VexEthDevPamCollection> ethDevPamCollection_;
  Vex::Ptr<VexStatus> status_;
  const Vex::Ptr<Status::Status> statusRef_;
  const Vex::Ptr<Status::TransmitStatus> transmitStatus_;
  const Vex::Ptr<Status::PacketCounter> packetCounter_;
  // The owner; not counted, since the owner would otherwise never end.
  VlanIntfSmManager* const vlanIntfSmManager_;
  const Vex::Ptr<Helm::TimerWheel const> timerWheel_;
  VlanIntfTxSmMap vlanIntfTxSm_;
};

// Makes the machine with its transmitters and sets notification active.
Vex::Ptr<VlanSm> vlanSmFactory(
    Bridging::VlanId vlanId, const Vex::Ptr<Topology::Library::Vlan::TopoVlan const>& topoVlan,
    const Vex::Ptr<Config::Config const>& config,
    const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamCollection,
    const Vex::Ptr<Status::Status>& status, const Vex::Ptr<Status::TransmitStatus>& transmitStatus,
    const Vex::Ptr<Status::PacketCounter>& packetCounter, VlanIntfSmManager* vlanIntfSmManager,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel);

}  // namespace Ringward
