// SPDX-License-Identifier: Apache-2.0
#include "engine/VlanIntfSmManager.h"

#include <utility>

#include "engine/EngineTrace.h"
#include "engine/Reinstantiation.h"

namespace Ringward {

using Topology::Library::Vlan::TopoVlan;

VlanIntfSmManager::VlanIntfSmManager(const Arguments& arguments)
    : arguments_(arguments),
      config_(Vex::newReactor<VexConfig>(this, Vex::validPtr(arguments.config))),
      topoLibVlanState_(
          Vex::newReactor<VexTopoLibVlanState>(this, Vex::validPtr(arguments.topoLibVlanState))),
      ethDevPamCollection_(Vex::newReactor<VexEthDevPamCollection>(
          this, Vex::validPtr(arguments.ethDevPamCollection))),
      transmitStatus_(Vex::newReactor<VexTransmitStatus>(
          this, Vex::Ptr<Status::TransmitStatus const>(Vex::validPtr(arguments.transmitStatus)))),
      ringwardCause_(Vex::newReactor<VexRingwardCause>(
          this, Vex::Ptr<Errdisable::CauseStatus const>(Vex::validPtr(arguments.ringwardCause)))) {}

VlanIntfSmManager::~VlanIntfSmManager() {
  vexTeardown();
  vlanSm_.memberDelAll();
  intfRxSm_.memberDelAll();
  desiredIntfsWithVlan_.memberDelAll();
}

Vex::Ptr<VlanSm> VlanIntfSmManager::vlanSmIs(Bridging::VlanId vlanId,
                                             const Vex::Ptr<TopoVlan const>& topoVlan) {
  if (auto present = vlanSm(vlanId)) {
    requireSameArgument("_topoVlan", topoVlan.get(), present->topoVlan());
    requireSameArgument("_config", arguments_.config.get(), present->config());
    requireSameArgument("_ethDevPamCollection", arguments_.ethDevPamCollection.get(),
                        present->ethDevPamCollection());
    requireSameArgument("_status", arguments_.status, present->status());
    requireSameArgument("_transmitStatus", arguments_.transmitStatus, present->transmitStatus());
    requireSameArgument("_packetCounter", arguments_.packetCounter, present->packetCounter());
    requireSameArgument("_vlanIntfSmManager", this, present->vlanIntfSmManager());
    requireSameArgument("_timerWheel", arguments_.timerWheel, present->timerWheel());
    return present;
  }
  auto made = vlanSmFactory(vlanId, topoVlan, arguments_.config, arguments_.ethDevPamCollection,
                            arguments_.status, arguments_.transmitStatus, arguments_.packetCounter,
                            this, arguments_.timerWheel);
  vlanSm_.memberIs(made);
  return Vex::validPtr(std::move(made));
}

void VlanIntfSmManager::intfRxSmIs(const Portus::IntfId& intfId) {
  const auto& globalIntfConfig = arguments_.config->globalIntfConfig();
  const auto switchIntfConfig = arguments_.brConfig->switchIntfConfig(intfId);
  const auto intfStatus = arguments_.status->intfStatus(intfId);
  if (const auto present = intfRxSm(intfId)) {
    requireSameArgument("_globalIntfConfig", globalIntfConfig, present->globalIntfConfig());
    requireSameArgument("_switchIntfConfig", switchIntfConfig, present->switchIntfConfig());
    requireSameArgument("_status", arguments_.status, present->status());
    requireSameArgument("_bringIntfUpTimer", arguments_.timerWheel.get(), present->timerWheel());
    requireSameArgument("_packetCounter", arguments_.packetCounter, present->packetCounter());
    requireSameArgument("_intfStatus", intfStatus, present->intfStatus());
    requireSameArgument("_ringwardCause", arguments_.ringwardCause, present->ringwardCause());
    return;
  }
  intfRxSm_.memberIs(intfRxSmFactory(intfId, globalIntfConfig, switchIntfConfig, arguments_.status,
                                     arguments_.timerWheel, arguments_.packetCounter, intfStatus,
                                     arguments_.ringwardCause));
}

Vex::Ptr<VlanSet> VlanIntfSmManager::desiredIntfsWithVlanIs(const Portus::IntfId& intfId) {
  if (auto present = desiredIntfsWithVlan(intfId)) return present;
  auto made = vlanSetFactory(intfId);
  desiredIntfsWithVlan_.memberIs(made);
  handleDesiredIntf(intfId);
  return Vex::validPtr(std::move(made));
}

void VlanIntfSmManager::desiredIntfsWithVlanDel(const Portus::IntfId& key) {
  const Portus::IntfId intfId = key;  // the caller's key may live in what goes
  if (desiredIntfsWithVlan_.memberDel(intfId)) handleDesiredIntf(intfId);
}

void VlanIntfSmManager::desiredIntfsWithVlanDelAll() {
  for (auto it = desiredIntfsWithVlan_.iterator(); it; ++it) desiredIntfsWithVlanDel(it.key());
}

void VlanIntfSmManager::handleVlanConfigEnabled(Bridging::VlanId vlanId) {
  traceHandler("handleVlanConfigEnabled", vlanId);
  const bool enabled = arguments_.config->vlanEnabled(vlanId);
  const Vex::Ptr<TopoVlan const> topoVlan = arguments_.topoLibVlanState->topoVlan(vlanId);
  const bool valid = arguments_.topoLibVlanState->initDone() && topoVlan;
  if (enabled && valid && !vlanSm_.has(vlanId)) {
    vlanSmIs(vlanId, topoVlan);
  } else {
    // Every other case, an enabled VLAN that has its machine included: a second event for such a
    // VLAN ends its machine, and it takes a further one to bring it back. So the topology tells of
    // each change once.
    vlanSmDel(vlanId);
  }
}

void VlanIntfSmManager::handleVlanConfigEnabled() {
  for (auto it = arguments_.config->vlanEnabledIteratorConst(); it; ++it) {
    handleVlanConfigEnabled(it.key());
  }
}

void VlanIntfSmManager::handleDesiredIntf(const Portus::IntfId& intfId) {
  traceHandler("handleDesiredIntf", intfId);
  if (desiredIntfsWithVlan_.has(intfId)) {
    intfRxSmIs(intfId);
    arguments_.pamDesiredIntfDir->intfDesiredIs(intfId, true);
    return;
  }
  if (const auto receiver = intfRxSm(intfId)) {
    receiver->doPrepareToDie();
    intfRxSm_.memberDel(intfId);
  }
  arguments_.pamDesiredIntfDir->intfDesiredDel(intfId);
  arguments_.status->intfStatusDel(intfId);
}

void VlanIntfSmManager::handleDesiredIntf() {
  for (auto it = desiredIntfsWithVlan_.iterator(); it; ++it) handleDesiredIntf(it.key());
}

void VlanIntfSmManager::handleEthDevPam(const Portus::IntfId& intfId) {
  traceHandler("handleEthDevPam", intfId);
  const auto pam = arguments_.ethDevPamCollection->intfPam(intfId);
  if (!desiredIntfsWithVlan_.has(intfId)) {
    VEX_ASSERT_TEXT(!intfRxSm(intfId), "!intfRxSm( intfId )");
    return;
  }
  VEX_ASSERT_TEXT(intfRxSm(intfId), "intfRxSm( intfId )");
  if (pam) {
    intfRxSm(intfId)->pamIs(pam);
  } else {
    intfRxSm(intfId)->pamDel();
  }
}

void VlanIntfSmManager::handleEthDevPam() {
  for (auto it = arguments_.ethDevPamCollection->intfPamIteratorConst(); it; ++it) {
    handleEthDevPam(it.key());
  }
}

void VlanIntfSmManager::handleCauseStatus(const Portus::IntfId& intfId) {
  traceHandler("handleCauseStatus", intfId);
  if (arguments_.ringwardCause->intfStatusHas(intfId)) {
    desiredIntfsWithVlanIs(intfId)->vlanIs(VlanSet::kErrdisabled, true);
    return;
  }
  const auto set = desiredIntfsWithVlan(intfId);
  if (!set) return;
  set->vlanDel(VlanSet::kErrdisabled);
  if (set->members() != 0) {
    const auto intf = arguments_.allIntfStatusDir->intfStatus(intfId);
    if (intf && intf->intfConfig()->adminEnabled()) return;
  }
  desiredIntfsWithVlanDel(intfId);
}

void VlanIntfSmManager::handleCauseStatus() {
  for (auto it = arguments_.ringwardCause->intfStatusIteratorConst(); it; ++it) {
    handleCauseStatus(it.key());
  }
}

void VlanIntfSmManager::handleInitialized() {
  initialized_ = true;
  handleCauseStatus();
  handleEthDevPam();
  handleDesiredIntf();
  handleVlanConfigEnabled();
}

void VlanIntfSmManager::doPrepareToDie() {
  for (auto it = vlanSm_.iterator(); it; ++it) {
    it->doPrepareToDie();
    vlanSm_.memberDel(it.key());
  }
  desiredIntfsWithVlanDelAll();
  initialized_ = false;
}

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
    const Vex::Ptr<Interface::AllIntfStatusDir const>& allIntfStatusDir) {
  auto sm = Vex::makePtr<VlanIntfSmManager>(VlanIntfSmManager::Arguments{
      config, topoLibVlanState, ethDevPamCollection, status, transmitStatus, ringwardCause,
      pamDesiredIntfDir, packetCounter, timerWheel, brConfig, allIntfStatusDir});
  sm->handleVlanConfigEnabled();
  sm->handleInitialized();
  sm->hasNotificationActiveIs(true);
  return Vex::validPtr(std::move(sm));
}

}  // namespace Ringward
