// SPDX-License-Identifier: Apache-2.0
#include "runtime/interface/IntfStatusManager.h"

namespace Interface {

IntfStatusManager::IntfStatusManager(
    Vex::Ptr<Vex::ActivityConfig> activityConfig,
    const Vex::Ptr<AllIntfStatusDir const>& allIntfStatusDir,
    const Vex::Ptr<AllIntfStatusLocalDir const>& allIntfStatusLocalDir,
    Vex::Ptr<DeviceIntfStatusDir> kernelIntfStatusDir,
    const NeighborDirByIntfName* neighborDirByIntfName,
    const ArpNeighborSharedData* arpNeighborSharedData)
    : activityConfig_(std::move(activityConfig)),
      kernelIntfStatusDir_(Vex::validPtr(std::move(kernelIntfStatusDir))),
      neighborDirByIntfName_(neighborDirByIntfName),
      arpNeighborSharedData_(arpNeighborSharedData),
      allIntfStatusDir_(
          Vex::newReactor<VexAllIntfStatusDir>(this, Vex::validPtr(allIntfStatusDir))),
      allIntfStatusLocalDir_(
          Vex::newReactor<VexAllIntfStatusLocalDir>(this, Vex::validPtr(allIntfStatusLocalDir))) {
  // Entries of interfaces that went while nobody looked.
  for (auto it = kernelIntfStatusDir_->deviceIntfStatusIteratorConst(); it; ++it) {
    handleIntf(it.key());
  }
  for (auto it = allIntfStatusLocalDir->intfStatusLocalIteratorConst(); it; ++it) {
    handleIntf(it.key());
  }
  hasNotificationActiveIs(true);
}

IntfStatusManager::~IntfStatusManager() {
  vexTeardown();
  adminEnabled_.clear();
}

void IntfStatusManager::handleIntf(const Portus::IntfId& intfId) {
  const auto status = allIntfStatusDir()->intfStatus(intfId);
  const auto local = allIntfStatusLocalDir()->intfStatusLocal(intfId);
  adminEnabled_.follow(this, intfId, local ? status : nullptr);
  if (!status || !local) {
    kernelIntfStatusDir_->deviceIntfStatusDel(intfId);
    return;
  }
  kernelIntfStatusDir_->deviceIntfStatusIs(intfId,
                                           {local->device(), status->intfConfig()->adminEnabled()});
}

}  // namespace Interface
