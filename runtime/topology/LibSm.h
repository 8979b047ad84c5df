// SPDX-License-Identifier: Apache-2.0
//
// Topology::Library::LibSm: turns the bridge's VLANs and the ports' memberships into LibState. A
// port counts if the feature's filter admits it, the Ethernet directory lists it and the operator
// wants it up. Activity thread only.
//
// With deferProcessing the machine takes its inputs in at the next turn of the activity loop, the
// first time as well as later: changes of one turn are compared with what is published and told
// once each. A port that ceases to be one is told of at once: its users act on what made it cease,
// and if it returned within the turn they would never hear of the return.
//
// Invariants:
//  1. Ports are published before the VLANs that they make visible, and initDone last.
//  2. Nothing is published that equals what stands.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_set>

#include "runtime/bridging/Config.h"
#include "runtime/bridging/TopologyStatus.h"
#include "runtime/interface/AdminEnabledReactor.h"
#include "runtime/topology/LibState.h"
#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/Machine.h"

namespace Topology::Library {

// Which interfaces a feature wants to see at all.
class FilterIntf {
 public:
  virtual bool isValidIntf(Portus::IntfId intfId) const = 0;
  virtual ~FilterIntf() = default;
};

enum class LibSmMode : std::uint32_t {
  portsOnly = 0,  // ports without VLANs
  vlanAware = 1   // ports and the VLANs that they carry
};

// Instance of a spanning tree. Only named here: a feature that follows the bridge as a whole passes
// null.
class StatusInst;

class LibSm final : public Vex::Machine<LibSm> {
 public:
  static constexpr std::string_view kTypeName = "Topology::Library::LibSm";

  // `validIntfPtr` is the address of a FilterIntf that outlives the machine; 0 admits everything. A
  // mode that LibSmMode does not have raises a range exception.
  LibSm(const Vex::Name& name, const Vex::Ptr<Bridging::Topology::Config const>& config,
        const Vex::Ptr<Bridging::Topology::Status>& status, const StatusInst* statusInst,
        Vex::Ptr<Bridging::Config const> brConfig, Vex::Ptr<LibState> libState,
        std::uint32_t libSmMode, bool ignoreInternalVlan, bool deferProcessing,
        std::uint64_t validIntfPtr);
  ~LibSm() override;

  // The directory of Ethernet interfaces; without one there are no ports.
  void ethIntfStatusDirIs(const Vex::Ptr<Interface::EthIntfStatusDir const>& dir);

  const Vex::Name& name() const noexcept { return name_; }
  const Bridging::Topology::Config* config() const { return watched(config_); }
  const Bridging::Topology::Status* status() const { return watched(status_); }
  const StatusInst* statusInst() const noexcept { return statusInst_; }
  const Vex::Ptr<Bridging::Config const>& brConfig() const noexcept { return brConfig_; }
  const Vex::Ptr<LibState>& libState() const noexcept { return libState_; }
  std::uint32_t libSmMode() const noexcept { return static_cast<std::uint32_t>(libSmMode_); }
  bool ignoreInternalVlan() const noexcept { return ignoreInternalVlan_; }
  bool deferProcessing() const noexcept { return deferProcessing_; }
  std::uint64_t validIntfPtr() const noexcept { return validIntfPtr_; }

  // An input of one interface has changed.
  void handleIntf(const Portus::IntfId& intfId);
  // The VLANs of the bridge have changed.
  void handleVlans();
  // Compares what has changed with what is published, and publishes the difference.
  void handlePending();

 private:
  friend class Vex::Machine<LibSm>;

  class VexConfig final : public Vex::Reactor<LibSm, Bridging::Topology::Config> {
   public:
    void onVlans() override {
      react([](LibSm& sm) { sm.handleVlans(); });
    }
    void onInternalVlans() override {
      react([](LibSm& sm) { sm.handleVlans(); });
    }
  };
  class VexStatus final : public Vex::Reactor<LibSm, Bridging::Topology::Status> {
   public:
    void onIntfVlans(const Portus::IntfId& intfId) override {
      react([&](LibSm& sm) { sm.handleIntf(intfId); });
    }
  };
  class VexEthIntfStatusDir final : public Vex::Reactor<LibSm, Interface::EthIntfStatusDir> {
   public:
    void onEthIntfStatus(const Portus::IntfId& intfId) override {
      react([&](LibSm& sm) { sm.handleIntf(intfId); });
    }
  };
  class Pass final : public Vex::DeferredTask {
   public:
    Pass(Vex::ActivityManager& manager, LibSm& sm) noexcept : DeferredTask(manager), sm_(sm) {}
    void run() override { sm_.handlePending(); }

   private:
    LibSm& sm_;
  };

  auto vexReactors() { return std::tie(config_, status_, ethIntfStatusDir_); }
  static auto vexOwned() { return std::tie(); }
  template <class Call>
  void vexOwnedCollections(Call call) {
    adminEnabled_.forEach(call);
  }

  void pendingIs();
  void publishIntf(const Portus::IntfId& intfId);
  bool isAdmitted(const Portus::IntfId& intfId) const;
  const FilterIntf* filter() const noexcept;

  const Vex::Name name_;
  Vex::Ptr<VexConfig> config_;
  Vex::Ptr<VexStatus> status_;
  Vex::Ptr<VexEthIntfStatusDir> ethIntfStatusDir_;
  const StatusInst* const statusInst_;
  const Vex::Ptr<Bridging::Config const> brConfig_;
  const Vex::Ptr<LibState> libState_;
  LibSmMode libSmMode_ = LibSmMode::vlanAware;
  const bool ignoreInternalVlan_;
  const bool deferProcessing_;
  const std::uint64_t validIntfPtr_;
  Interface::AdminEnabledReactors<LibSm> adminEnabled_;
  std::unordered_set<Portus::IntfId> changed_;
  Pass pass_;
};

}  // namespace Topology::Library
