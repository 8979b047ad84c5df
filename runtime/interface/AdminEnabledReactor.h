// SPDX-License-Identifier: Apache-2.0
//
// Interface::AdminEnabledReactor: follows adminEnabled of one interface for a machine that follows
// it for all interfaces of a directory. Owned by that machine, one per interface; activity thread
// only. MachineType has `void handleIntf(const Portus::IntfId&)`.
#pragma once

#include <unordered_map>

#include "runtime/interface/IntfStatus.h"
#include "runtime/vex/Machine.h"

namespace Interface {

template <class MachineType>
class AdminEnabledReactor final : public Vex::Reactor<MachineType, IntfConfig> {
 public:
  void onAdminEnabled() override {
    this->react([this](MachineType& machine) {
      if (machine.isZombie()) return;
      // A copy: the handler may let the interface go, and this reactor with it.
      const Portus::IntfId intfId = static_cast<const IntfConfig*>(this->notifier())->intfId();
      machine.handleIntf(intfId);
    });
  }
};

// The reactors of one machine, by interface.
template <class MachineType>
class AdminEnabledReactors {
 public:
  // Follows the interface's present configuration; a null status ends it.
  void follow(MachineType* machine, const Portus::IntfId& intfId,
              const Vex::Ptr<IntfStatus>& status) {
    if (!status) {
      release(intfId);
      return;
    }
    const auto at = reactors_.find(intfId);
    if (at != reactors_.end() && at->second->notifier() == status->intfConfig().get()) return;
    release(intfId);
    reactors_.emplace(
        intfId, Vex::newReactor<AdminEnabledReactor<MachineType>>(machine, status->intfConfig()));
  }

  // For the machine's notification-active walk.
  template <class Call>
  void forEach(Call call) {
    for (auto& [intfId, reactor] : reactors_) call(*reactor);
  }

  void clear() {
    while (!reactors_.empty()) release(reactors_.begin()->first);
  }

 private:
  void release(const Portus::IntfId& intfId) {
    const auto at = reactors_.find(intfId);
    if (at == reactors_.end()) return;
    at->second->vexDoZombieReactors(true);
    at->second->machineDel();
    reactors_.erase(at);
  }

  std::unordered_map<Portus::IntfId, Vex::Ptr<AdminEnabledReactor<MachineType>>> reactors_;
};

}  // namespace Interface
