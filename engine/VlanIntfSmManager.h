// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanIntfSmManager: decides which VLANs have a Ringward::VlanSm and which interfaces
// have a Ringward::IntfRxSm, a wish for packet access and a status entry. Owned by
// Ringward::GlobalSm while the engine is enabled. Activity thread only.
//
// Invariant: intfRxSm has a member for an interface exactly when desiredIntfsWithVlan does,
// whenever a handler starts. Changing the latter runs handleDesiredIntf() on the spot.
#pragma once

#include <string_view>
#include <tuple>

#include "engine/IntfRxSm.h"
#include "engine/VlanSet.h"
#include "engine/VlanSm.h"
#include "model/config/Config.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"
#include "runtime/bridging/Config.h"
#include "runtime/errdisable/CauseStatus.h"
#include "runtime/interface/IntfStatus.h"
#include "runtime/interface/PamDirectories.h"
#include "runtime/topology/LibState.h"
#include "runtime/vex/HashMap.h"
#include "runtime/vex/Machine.h"

namespace Ringward {

class VlanIntfSmManager final : public Vex::Machine<VlanIntfSmManager> {
 public:
  static constexpr std::string_view kTypeName = "Ringward::VlanIntfSmManager";
  using LibVlanState = Topology::Library::Vlan::LibVlanState;
  using VlanSmMap = Vex::HashMap<VlanSm, Bridging::VlanId>;
  using IntfRxSmMap = Vex::HashMap<IntfRxSm, Portus::IntfId>;
  using VlanSetMap = Vex::HashMap<VlanSet, Portus::IntfId>;

  // What the machine is made with, in order; GlobalSm compares it before it makes another.
  struct Arguments {
    Vex::Ptr<Config::Config const> config;
    Vex::Ptr<LibVlanState const> topoLibVlanState;
    Vex::Ptr<Interface::EthDevPamCollection const> ethDevPamCollection;
    Vex::Ptr<Status::Status> status;
    Vex::Ptr<Status::TransmitStatus> transmitStatus;
    Vex::Ptr<Errdisable::CauseStatus> ringwardCause;
    Vex::Ptr<Interface::PamDesiredIntfDir> pamDesiredIntfDir;
    Vex::Ptr<Status::PacketCounter> packetCounter;
    Vex::Ptr<Helm::TimerWheel const> timerWheel;
    Vex::Ptr<Bridging::Config const> brConfig;
    Vex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir;
    bool operator==(const Arguments&) const = default;
  };

  // Use vlanIntfSmManagerFactory.
  explicit VlanIntfSmManager(const Arguments& arguments);
  ~VlanIntfSmManager() override;

  const Arguments& arguments() const noexcept { return arguments_; }
  const Vex::Ptr<Interface::AllIntfStatusDir const>& allIntfStatusDir() const noexcept {
    return arguments_.allIntfStatusDir;
  }

  // The machine of a VLAN, null for none.
  Vex::Ptr<VlanSm> vlanSm(Bridging::VlanId vlanId) const {
    return Vex::Ptr<VlanSm>(vlanSm_.member(vlanId));
  }
  const VlanSmMap& vlanSmColl() const noexcept { return vlanSm_; }
  VlanSmMap::IteratorConst vlanSmIteratorConst() const { return vlanSm_.iteratorConst(); }
  // Makes the machine or checks that the present one was made with these arguments.
  Vex::Ptr<VlanSm> vlanSmIs(Bridging::VlanId vlanId,
                            const Vex::Ptr<Topology::Library::Vlan::TopoVlan const>& topoVlan);
  // Drops the machine as it stands, without doPrepareToDie().
  void vlanSmDel(Bridging::VlanId vlanId) { vlanSm_.memberDel(vlanId); }

  // The receive machine of an interface, null for none.
  Vex::Ptr<IntfRxSm> intfRxSm(const Portus::IntfId& intfId) const {
    return Vex::Ptr<IntfRxSm>(intfRxSm_.member(intfId));
  }
  const IntfRxSmMap& intfRxSmColl() const noexcept { return intfRxSm_; }
  IntfRxSmMap::IteratorConst intfRxSmIteratorConst() const { return intfRxSm_.iteratorConst(); }

  // The VLANs for which an interface is wanted, null for an interface that is not.
  Vex::Ptr<VlanSet> desiredIntfsWithVlan(const Portus::IntfId& intfId) const {
    return Vex::Ptr<VlanSet>(desiredIntfsWithVlan_.member(intfId));
  }
  const VlanSetMap& desiredIntfsWithVlanColl() const noexcept { return desiredIntfsWithVlan_; }
  VlanSetMap::IteratorConst desiredIntfsWithVlanIteratorConst() const {
    return desiredIntfsWithVlan_.iteratorConst();
  }
  // As above, making it if it is absent; the interface is under detection when this returns.
  Vex::Ptr<VlanSet> desiredIntfsWithVlanIs(const Portus::IntfId& intfId);
  // Ends the detection on an interface; an absent one does nothing.
  void desiredIntfsWithVlanDel(const Portus::IntfId& intfId);
  void desiredIntfsWithVlanDelAll();

  bool initialized() const noexcept { return initialized_; }

  void handleVlanConfigEnabled(Bridging::VlanId vlanId);
  void handleVlanConfigEnabled();
  void handleDesiredIntf(const Portus::IntfId& intfId);
  void handleDesiredIntf();
  void handleEthDevPam(const Portus::IntfId& intfId);
  void handleEthDevPam();
  void handleCauseStatus(const Portus::IntfId& intfId);
  void handleCauseStatus();
  void handleInitialized();
  // Called by the owner before it lets the machine go.
  void doPrepareToDie();

 private:
  friend class Vex::Machine<VlanIntfSmManager>;

  class VexConfig final : public Vex::Reactor<VlanIntfSmManager, Config::Config> {
   public:
    using NotifieeConst::onVlanEnabled;
    void onVlanEnabled(const Bridging::VlanId& vlanId) override {
      react([&](VlanIntfSmManager& sm) { sm.handleVlanConfigEnabled(vlanId); });
    }
  };
  class VexTopoLibVlanState final : public Vex::Reactor<VlanIntfSmManager, LibVlanState> {
   public:
    void onTopoVlan(const Bridging::VlanId& vlanId) override {
      react([&](VlanIntfSmManager& sm) { sm.handleVlanConfigEnabled(vlanId); });
    }
    void onInitDone() override {
      react([](VlanIntfSmManager& sm) { sm.handleVlanConfigEnabled(); });
    }

   protected:
    void vexReplay() override {
      react([](VlanIntfSmManager& sm) { sm.handleVlanConfigEnabled(); });
    }
  };
  class VexEthDevPamCollection final
      : public Vex::Reactor<VlanIntfSmManager, Interface::EthDevPamCollection> {
   public:
    void onIntfPam(const Portus::IntfId& intfId) override {
      react([&](VlanIntfSmManager& sm) { sm.handleEthDevPam(intfId); });
    }
  };
  class VexTransmitStatus final : public Vex::Reactor<VlanIntfSmManager, Status::TransmitStatus> {};
  class VexRingwardCause final : public Vex::Reactor<VlanIntfSmManager, Errdisable::CauseStatus> {
   public:
    void onIntfStatus(const Portus::IntfId& intfId) override {
      react([&](VlanIntfSmManager& sm) { sm.handleCauseStatus(intfId); });
    }
  };

  auto vexReactors() {
    return std::tie(config_, topoLibVlanState_, ethDevPamCollection_, transmitStatus_,
                    ringwardCause_);
  }
  static auto vexOwned() { return std::tie(); }
  template <class Call>
  void vexOwnedCollections(Call call) {
    for (auto it = vlanSm_.iterator(); it; ++it) call(*it);
    for (auto it = intfRxSm_.iterator(); it; ++it) call(*it);
  }

  void intfRxSmIs(const Portus::IntfId& intfId);

  const Arguments arguments_;
  Vex::Ptr<VexConfig> config_;
  Vex::Ptr<VexTopoLibVlanState> topoLibVlanState_;
  Vex::Ptr<VexEthDevPamCollection> ethDevPamCollection_;
  Vex::Ptr<VexTransmitStatus> transmitStatus_;
  Vex::Ptr<VexRingwardCause> ringwardCause_;
  VlanSmMap vlanSm_;
  IntfRxSmMap intfRxSm_;
  VlanSetMap desiredIntfsWithVlan_;
  bool initialized_ = false;
};

// Makes the machine with all that its inputs ask for and sets notification active.
Vex::Ptr<VlanIntfSmManager> vlanIntfSmManagerFactory(
    const Vex::Ptr<Config::Config const>& config,
    const Vex::Ptr<Topology::Library::Vlan::LibVlanState const>& topoLibVlanState,
    const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamCollection,
    const Vex::Ptr<Status::Status>& status, const Vex::Ptr<Status::TransmitStatus>& transmitStatus,
    const Vex::Ptr<Errdisable::CauseStatus>& ringwardCause,
    const Vex::Ptr<Interface::PamDesiredIntfDir>& pamDesiredIntfDir,
    const Vex::Ptr<Status::PacketCounter>& packetCounter,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Bridging::Config const>& brConfig,
    const Vex::Ptr<Interface::AllIntfStatusDir const>& allIntfStatusDir);

}  // namespace Ringward
