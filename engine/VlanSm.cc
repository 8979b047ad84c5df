// SPDX-License-Identifier: Apache-2.0
#include "engine/VlanSm.h"

#include <utility>

#include "engine/EngineTrace.h"
#include "engine/Reinstantiation.h"
#include "engine/VlanIntfSmManager.h"

namespace Ringward {

VlanSm::VlanSm(Bridging::VlanId vlanId,
               const Vex::Ptr<Topology::Library::Vlan::TopoVlan const>& topoVlan,
               const Vex::Ptr<Config::Config const>& config,
               const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamCollection,
               const Vex::Ptr<Status::Status>& status,
               Vex::Ptr<Status::TransmitStatus> transmitStatus,
               Vex::Ptr<Status::PacketCounter> packetCounter, VlanIntfSmManager* vlanIntfSmManager,
               Vex::Ptr<Helm::TimerWheel const> timerWheel)
    : vlanId_(vlanId),
      topoVlan_(Vex::newReactor<VexTopoVlan>(this, Vex::validPtr(topoVlan))),
      config_(Vex::newReactor<VexConfig>(this, Vex::validPtr(config))),
      ethDevPamCollection_(
          Vex::newReactor<VexEthDevPamCollection>(this, Vex::validPtr(ethDevPamCollection))),
      status_(
          Vex::newReactor<VexStatus>(this, Vex::Ptr<Status::Status const>(Vex::validPtr(status)))),
      statusRef_(status),
      transmitStatus_(Vex::validPtr(std::move(transmitStatus))),
      packetCounter_(Vex::validPtr(std::move(packetCounter))),
      vlanIntfSmManager_(vlanIntfSmManager),
      timerWheel_(Vex::validPtr(std::move(timerWheel))) {}

VlanSm::~VlanSm() {
  vexTeardown();
  vlanIntfTxSmDelAll();
}

bool VlanSm::excluded(const Portus::IntfId& intfId) const {
  return config()->intfExclude(intfId) || statusRef_->sysIntfExclude(intfId);
}

void VlanSm::handleVlanIntf(const Portus::IntfId& intfId) {
  if (!initialized_) return;
  traceHandler("handleVlanIntf", intfId, vlanId_);
  const Vex::Ptr<VlanIntfSmManager> hold(vlanIntfSmManager_);
  const bool port = topoVlan()->topoPort(intfId) != nullptr;
  if (port && !excluded(intfId) && !vlanIntfTxSm_.has(intfId)) {
    statusRef_->intfStatusIs(intfId);
    // This can make the receive machine and open the packet access on the spot.
    const auto set = vlanIntfSmManager_->desiredIntfsWithVlanIs(intfId);
    set->vlanIs(vlanId_.value(), true);
    // Without packet access the transmitter waits for it: onIntfPam() leads back here.
    if (!ethDevPamCollection()->intfPam(intfId)) return;
    vlanIntfTxSmIs(intfId, vlanId_, config()->globalIntfConfig(), timerWheel_,
                   statusRef_->intfStatus(intfId), transmitStatus_);
    return;
  }
  if (port && ethDevPamCollection()->intfPam(intfId)) return;

  // The port or its packet access is gone. An interface that the operator still wants stays desired
  // under this VLAN, so that its receive machine and its way back from errdisable persist.
  const auto intf = vlanIntfSmManager_->allIntfStatusDir()->intfStatus(intfId);
  if (!intf || !intf->intfConfig()->adminEnabled()) {
    vlanIntfSmManager_->desiredIntfsWithVlanDel(intfId);
  }
  if (const auto transmitter = vlanIntfTxSm(intfId)) {
    transmitter->doPrepareToDie();
    vlanIntfTxSmDel(intfId);
  }
}

void VlanSm::handleVlanIntf() {
  for (auto it = topoVlan()->topoPortIteratorConst(); it; ++it) handleVlanIntf(it.key());
}

void VlanSm::removeIntf(const Portus::IntfId& intfId) {
  const Vex::Ptr<VlanIntfSmManager> hold(vlanIntfSmManager_);
  if (const auto transmitter = vlanIntfTxSm(intfId)) {
    transmitter->doPrepareToDie();
    vlanIntfTxSmDel(intfId);
  }
  const auto set = vlanIntfSmManager_->desiredIntfsWithVlan(intfId);
  if (!set) return;
  set->vlanDel(vlanId_.value());
  if (set->members() == 0) vlanIntfSmManager_->desiredIntfsWithVlanDel(intfId);
}

void VlanSm::handleIntfExclude(const Portus::IntfId& intfId) {
  traceHandler("handleIntfExclude", intfId, vlanId_);
  if (excluded(intfId)) {
    removeIntf(intfId);
  } else {
    handleVlanIntf(intfId);
  }
}

void VlanSm::handleIntfExclude() {
  for (auto it = config()->intfExcludeIteratorConst(); it; ++it) handleIntfExclude(it.key());
  for (auto it = statusRef_->sysIntfExcludeIteratorConst(); it; ++it) handleIntfExclude(it.key());
}

void VlanSm::handleInitialized() {
  initialized_ = true;
  handleIntfExclude();
  handleVlanIntf();
}

void VlanSm::doPrepareToDie() {
  initialized_ = false;
  for (auto it = vlanIntfTxSm_.iterator(); it; ++it) removeIntf(it.key());
  vlanIntfTxSmDelAll();
  packetCounter_->counterVlanDel(Bridging::VlanIdOrNone(topoVlan()->vlanId().value()));
}

Vex::Ptr<VlanIntfTxSm> VlanSm::vlanIntfTxSmIs(
    const Portus::IntfId& intfId, Bridging::VlanId vlanId,
    const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Status::IntfStatus const>& intfStatus,
    const Vex::Ptr<Status::TransmitStatus>& transmitStatus) {
  if (auto present = vlanIntfTxSm(intfId)) {
    requireSameArgument("_vlanId", vlanId, present->vlanId());
    requireSameArgument("_globalIntfConfig", globalIntfConfig, present->globalIntfConfig());
    requireSameArgument("_sendPacketTimer", timerWheel.get(), present->timerWheel());
    requireSameArgument("_intfStatus", intfStatus.get(), present->intfStatus());
    requireSameArgument("_transmitStatus", transmitStatus, present->transmitStatus());
    return present;
  }
  auto made =
      vlanIntfTxSmFactory(intfId, vlanId, globalIntfConfig, timerWheel, intfStatus, transmitStatus);
  vlanIntfTxSm_.memberIs(made);
  return Vex::validPtr(std::move(made));
}

Vex::Ptr<VlanSm> vlanSmFactory(
    Bridging::VlanId vlanId, const Vex::Ptr<Topology::Library::Vlan::TopoVlan const>& topoVlan,
    const Vex::Ptr<Config::Config const>& config,
    const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamCollection,
    const Vex::Ptr<Status::Status>& status, const Vex::Ptr<Status::TransmitStatus>& transmitStatus,
    const Vex::Ptr<Status::PacketCounter>& packetCounter, VlanIntfSmManager* vlanIntfSmManager,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel) {
  auto sm = Vex::makePtr<VlanSm>(vlanId, topoVlan, config, ethDevPamCollection, status,
                                 transmitStatus, packetCounter, vlanIntfSmManager, timerWheel);
  sm->handleInitialized();
  sm->hasNotificationActiveIs(true);
  return Vex::validPtr(std::move(sm));
}

}  // namespace Ringward
