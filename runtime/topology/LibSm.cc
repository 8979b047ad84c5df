// SPDX-License-Identifier: Apache-2.0
#include "runtime/topology/LibSm.h"

#include <algorithm>
#include <vector>

namespace Topology::Library {

namespace {
// Bits that no VLAN has may stand in what others wrote; nobody behind this machine sees them.
Bridging::VlanBitmap allVlans() {
  Bridging::VlanBitmap all;
  all.setRange(1, Bridging::kMaxVlanId);
  return all;
}
}  // namespace

LibSm::LibSm(const Vex::Name& name, const Vex::Ptr<Bridging::Topology::Config const>& config,
             const Vex::Ptr<Bridging::Topology::Status>& status, const StatusInst* statusInst,
             Vex::Ptr<Bridging::Config const> brConfig, Vex::Ptr<LibState> libState,
             std::uint32_t libSmMode, bool ignoreInternalVlan, bool deferProcessing,
             std::uint64_t validIntfPtr)
    : name_(name),
      config_(Vex::newReactor<VexConfig>(
          this, Vex::Ptr<Bridging::Topology::Config const>(Vex::validPtr(config)))),
      status_(Vex::newReactor<VexStatus>(
          this, Vex::Ptr<Bridging::Topology::Status const>(Vex::validPtr(status)))),
      statusInst_(statusInst),
      brConfig_(std::move(brConfig)),
      libState_(Vex::validPtr(std::move(libState))),
      ignoreInternalVlan_(ignoreInternalVlan),
      deferProcessing_(deferProcessing),
      validIntfPtr_(validIntfPtr),
      pass_(Vex::activityManager(), *this) {
  if (libSmMode > static_cast<std::uint32_t>(LibSmMode::vlanAware)) {
    vexTeardown();
    Vex::throwRangeException("LibSm::libSmMode > 1 not allowed");
  }
  libSmMode_ = static_cast<LibSmMode>(libSmMode);
  for (auto it = status->intfVlansIteratorConst(); it; ++it) changed_.insert(it.key());
  hasNotificationActiveIs(true);
  pendingIs();
}

LibSm::~LibSm() {
  vexTeardown();
  adminEnabled_.clear();
}

void LibSm::ethIntfStatusDirIs(const Vex::Ptr<Interface::EthIntfStatusDir const>& dir) {
  if (ethIntfStatusDir_) {
    ethIntfStatusDir_->vexDoZombieReactors(true);
    ethIntfStatusDir_->machineDel();
  }
  ethIntfStatusDir_ = Vex::newReactor<VexEthIntfStatusDir>(this, dir);
  if (ethIntfStatusDir_) {
    ethIntfStatusDir_->hasNotificationActiveIs(hasNotificationActive());
    if (isZombie()) ethIntfStatusDir_->vexDoZombieReactors(true);
  }
  for (auto it = status()->intfVlansIteratorConst(); it; ++it) changed_.insert(it.key());
  pendingIs();
}

void LibSm::handleIntf(const Portus::IntfId& intfId) {
  changed_.insert(intfId);
  if (!isAdmitted(intfId)) libState_->intfVlansDel(intfId);
  pendingIs();
}

void LibSm::handleVlans() { pendingIs(); }

void LibSm::pendingIs() {
  if (deferProcessing_) {
    pass_.schedule();
  } else {
    handlePending();
  }
}

void LibSm::handlePending() {
  const Vex::Ptr<LibSm> hold(this);
  // In the order of the ids: what is published first must not depend on the history of a set.
  std::vector<Portus::IntfId> order(changed_.begin(), changed_.end());
  changed_.clear();
  std::sort(order.begin(), order.end());
  for (const Portus::IntfId& intfId : order) publishIntf(intfId);

  Bridging::VlanBitmap vlans = config()->vlans() & allVlans();
  if (ignoreInternalVlan_) vlans -= config()->internalVlans();
  if (libSmMode_ == LibSmMode::vlanAware) libState_->vlansIs(vlans);
  libState_->initDoneIs(true);
}

void LibSm::publishIntf(const Portus::IntfId& intfId) {
  const auto* dir = watched(ethIntfStatusDir_);
  adminEnabled_.follow(this, intfId, dir != nullptr ? dir->ethIntfStatus(intfId) : nullptr);
  if (isAdmitted(intfId)) {
    libState_->intfVlansIs(intfId, *status()->intfVlans(intfId) & allVlans());
  } else {
    libState_->intfVlansDel(intfId);
  }
}

bool LibSm::isAdmitted(const Portus::IntfId& intfId) const {
  const auto* dir = watched(ethIntfStatusDir_);
  const auto intf = dir != nullptr ? dir->ethIntfStatus(intfId) : nullptr;
  return status()->intfVlans(intfId) != nullptr && intf && intf->intfConfig()->adminEnabled() &&
         (filter() == nullptr || filter()->isValidIntf(intfId));
}

const FilterIntf* LibSm::filter() const noexcept {
  const auto address = static_cast<std::uintptr_t>(validIntfPtr_);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): other features pass numbers of other kinds here
  return reinterpret_cast<const FilterIntf*>(address);
}

}  // namespace Topology::Library
