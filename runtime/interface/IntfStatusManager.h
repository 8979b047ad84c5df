// SPDX-License-Identifier: Apache-2.0
//
// Interface::IntfStatusManager: keeps a DeviceIntfStatusDir current. An interface has an entry
// there while it is listed both among all interfaces and among the local ones; the entry's
// `enabled` follows adminEnabled of its configuration. Activity thread only; the directories are
// shared with whoever fills and reads them.
#pragma once

#include "runtime/interface/AdminEnabledReactor.h"
#include "runtime/interface/IntfStatus.h"
#include "runtime/interface/PamDirectories.h"
#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/Machine.h"

namespace Interface {

// Where neighbours of an interface are found. Only named here: features without neighbours pass
// null.
class NeighborDirByIntfName;
class ArpNeighborSharedData;

class IntfStatusManager final : public Vex::Machine<IntfStatusManager> {
 public:
  static constexpr std::string_view kTypeName = "Interface::IntfStatusManager";

  IntfStatusManager(Vex::Ptr<Vex::ActivityConfig> activityConfig,
                    const Vex::Ptr<AllIntfStatusDir const>& allIntfStatusDir,
                    const Vex::Ptr<AllIntfStatusLocalDir const>& allIntfStatusLocalDir,
                    Vex::Ptr<DeviceIntfStatusDir> kernelIntfStatusDir,
                    const NeighborDirByIntfName* neighborDirByIntfName,
                    const ArpNeighborSharedData* arpNeighborSharedData);
  ~IntfStatusManager() override;

  const AllIntfStatusDir* allIntfStatusDir() const { return watched(allIntfStatusDir_); }
  const AllIntfStatusLocalDir* allIntfStatusLocalDir() const {
    return watched(allIntfStatusLocalDir_);
  }
  const Vex::Ptr<DeviceIntfStatusDir>& kernelIntfStatusDir() const { return kernelIntfStatusDir_; }
  const Vex::Ptr<Vex::ActivityConfig>& activityConfig() const { return activityConfig_; }
  const NeighborDirByIntfName* neighborDirByIntfName() const { return neighborDirByIntfName_; }
  const ArpNeighborSharedData* arpNeighborSharedData() const { return arpNeighborSharedData_; }

  // Brings the entry of one interface up to date.
  void handleIntf(const Portus::IntfId& intfId);

 private:
  friend class Vex::Machine<IntfStatusManager>;

  class VexAllIntfStatusDir final : public Vex::Reactor<IntfStatusManager, AllIntfStatusDir> {
   public:
    void onIntfStatus(const Portus::IntfId& intfId) override {
      react([&](IntfStatusManager& sm) { sm.handleIntf(intfId); });
    }
  };
  class VexAllIntfStatusLocalDir final
      : public Vex::Reactor<IntfStatusManager, AllIntfStatusLocalDir> {
   public:
    void onIntfStatusLocal(const Portus::IntfId& intfId) override {
      react([&](IntfStatusManager& sm) { sm.handleIntf(intfId); });
    }
  };

  auto vexReactors() { return std::tie(allIntfStatusDir_, allIntfStatusLocalDir_); }
  static auto vexOwned() { return std::tie(); }
  template <class Call>
  void vexOwnedCollections(Call call) {
    adminEnabled_.forEach(call);
  }

  const Vex::Ptr<Vex::ActivityConfig> activityConfig_;
  const Vex::Ptr<DeviceIntfStatusDir> kernelIntfStatusDir_;
  const NeighborDirByIntfName* const neighborDirByIntfName_;
  const ArpNeighborSharedData* const arpNeighborSharedData_;
  Vex::Ptr<VexAllIntfStatusDir> allIntfStatusDir_;
  Vex::Ptr<VexAllIntfStatusLocalDir> allIntfStatusLocalDir_;
  AdminEnabledReactors<IntfStatusManager> adminEnabled_;
};

}  // namespace Interface
