// SPDX-License-Identifier: Apache-2.0
#include "runtime/interface/EthDevPamManager.h"

namespace Interface {

EthDevPamManager::EthDevPamManager(const Vex::Ptr<PamDesiredIntfDir const>& desiredIntfDir,
                                   Vex::Ptr<EthDevPamCollection> pamCollection,
                                   const Vex::Ptr<DeviceIntfStatusDir const>& deviceIntfStatusDir)
    : desiredIntfDir_(Vex::newReactor<VexDesiredIntfDir>(this, Vex::validPtr(desiredIntfDir))),
      pamCollection_(Vex::validPtr(std::move(pamCollection))),
      deviceIntfStatusDir_(
          Vex::newReactor<VexDeviceIntfStatusDir>(this, Vex::validPtr(deviceIntfStatusDir))) {
  hasNotificationActiveIs(true);
}

EthDevPamManager::~EthDevPamManager() { vexTeardown(); }

void EthDevPamManager::sockPrioIs(std::uint8_t priority) {
  if (priority > 15) {
    Vex::throwRangeException("EthDevPamManager::sockPrio < 0 or > 15 not allowed");
  }
  config_.sockPrio = priority;
}

void EthDevPamManager::activeIs(bool active) {
  if (active == active_) return;
  active_ = active;
  for (auto it = pamCollection_->intfPamIteratorConst(); it; ++it) handleIntf(it.key());
  for (auto it = desiredIntfDir()->intfDesiredIteratorConst(); it; ++it) handleIntf(it.key());
}

Vex::Ptr<Portus::Device> EthDevPamManager::wantedDevice(const Portus::IntfId& intfId) const {
  if (!active_ || !desiredIntfDir()->intfDesired(intfId)) return nullptr;
  const DeviceIntfStatus status = deviceIntfStatusDir()->deviceIntfStatus(intfId);
  return status.enabled ? status.device : nullptr;
}

void EthDevPamManager::handleIntf(const Portus::IntfId& key) {
  const Portus::IntfId intfId = key;  // the caller's key may live in an entry that goes
  if (const auto open = openDevices_.valueOr(intfId); open && open == wantedDevice(intfId)) return;
  openDevices_.valueDel(intfId);
  pamCollection_->intfPamDel(intfId);
  // The notification of the closing may have changed what is wanted, and this may have run inside.
  if (openDevices_.find(intfId) != nullptr) return;
  const auto device = wantedDevice(intfId);
  if (!device) return;
  const Vex::Ptr<Portus::Pam> pam = device->newPam(intfId, config_);
  if (!pam) return;
  openDevices_.valueIs(intfId, device);
  pamCollection_->intfPamIs(intfId, pam);
}

}  // namespace Interface
