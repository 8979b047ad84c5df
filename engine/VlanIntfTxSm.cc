// SPDX-License-Identifier: Apache-2.0
#include "engine/VlanIntfTxSm.h"

#include <cstdlib>
#include <utility>

#include "engine/EngineTrace.h"
#include "runtime/vex/ActivityManager.h"

namespace Ringward {

VlanIntfTxSm::VlanIntfTxSm(const Portus::IntfId& intfId, Bridging::VlanId vlanId,
                           Vex::Ptr<Config::GlobalIntfConfig const> globalIntfConfig,
                           const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
                           const Vex::Ptr<Status::IntfStatus const>& intfStatus,
                           Vex::Ptr<Status::TransmitStatus> transmitStatus)
    : vlanId_(vlanId),
      intfId_(intfId),
      globalIntfConfig_(Vex::validPtr(std::move(globalIntfConfig))),
      sendPacketTimer_(Vex::newReactor<VexSendPacketTimer>(this, Vex::validPtr(timerWheel))),
      intfStatus_(Vex::newReactor<VexIntfStatus>(this, Vex::validPtr(intfStatus))),
      transmitStatus_(Vex::validPtr(std::move(transmitStatus))) {}

VlanIntfTxSm::~VlanIntfTxSm() { vexTeardown(); }

void VlanIntfTxSm::handleInitialized() {
  initialized_ = true;
  if (intfStatus()->disabled()) {
    handleDisabled();
    return;
  }
  // Spreads the probes of many pairs over the interval. The spread is what matters, not the
  // generator: nothing of value can be learned from its numbers.
  sendPacketTimer_->timeMinIs(Vex::now() + transmitInterval() * drand48());
}

void VlanIntfTxSm::handleSendPacket() {
  traceHandler("handleSendPacket", intfId_, vlanId_);
  if (intfStatus()->disabled()) return;
  if (!packetInQueue_) {
    // First the flag: the append can run the scheduler, which clears it again.
    packetInQueue_ = true;
    transmitStatus_->regularPriorityEnq({intfId_, vlanId_});
  }
  sendPacketTimer_->timeMinIs(Vex::now() + transmitInterval());
}

void VlanIntfTxSm::handleDisabled() {
  traceHandler("handleDisabled", intfId_, vlanId_);
  if (intfStatus()->disabled()) {
    sendPacketTimer_->timeMinIs(Vex::kNever);
    removeFromTransmitQueues();
    return;
  }
  sendPacketTimer_->timeMinIs(Vex::now() + transmitInterval());
  // Is the loop still there? Ahead of all regular probes.
  transmitStatus_->highPriorityEnq({intfId_, vlanId_});
}

void VlanIntfTxSm::removeFromTransmitQueues() {
  transmitStatus_->pairDel({intfId_, vlanId_});
  packetInQueue_ = false;
}

void VlanIntfTxSm::doPrepareToDie() { removeFromTransmitQueues(); }

Vex::Ptr<VlanIntfTxSm> vlanIntfTxSmFactory(
    const Portus::IntfId& intfId, Bridging::VlanId vlanId,
    const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Status::IntfStatus const>& intfStatus,
    const Vex::Ptr<Status::TransmitStatus>& transmitStatus) {
  auto sm = Vex::makePtr<VlanIntfTxSm>(intfId, vlanId, globalIntfConfig, timerWheel, intfStatus,
                                       transmitStatus);
  sm->handleInitialized();
  sm->hasNotificationActiveIs(true);
  return Vex::validPtr(std::move(sm));
}

}  // namespace Ringward
