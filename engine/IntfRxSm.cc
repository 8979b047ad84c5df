// SPDX-License-Identifier: Apache-2.0
#include "engine/IntfRxSm.h"

#include <utility>

#include "engine/CountPacket.h"
#include "engine/EngineLogs.h"
#include "engine/EngineTrace.h"
#include "engine/ProbeFrame.h"
#include "runtime/vex/ActivityManager.h"

namespace Ringward {

IntfRxSm::IntfRxSm(const Portus::IntfId& intfId,
                   Vex::Ptr<Config::GlobalIntfConfig const> globalIntfConfig,
                   Vex::Ptr<Bridging::SwitchIntfConfig const> switchIntfConfig,
                   Vex::Ptr<Status::Status const> status,
                   const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
                   Vex::Ptr<Status::PacketCounter> packetCounter,
                   Vex::Ptr<Status::IntfStatus> intfStatus,
                   Vex::Ptr<Errdisable::CauseStatus> ringwardCause)
    : intfId_(intfId),
      globalIntfConfig_(Vex::validPtr(std::move(globalIntfConfig))),
      switchIntfConfig_(std::move(switchIntfConfig)),
      status_(Vex::validPtr(std::move(status))),
      bringIntfUpTimer_(Vex::newReactor<VexBringIntfUpTimer>(this, Vex::validPtr(timerWheel))),
      packetCounter_(Vex::validPtr(std::move(packetCounter))),
      intfStatus_(std::move(intfStatus)),
      ringwardCause_(Vex::validPtr(std::move(ringwardCause))) {}

IntfRxSm::~IntfRxSm() { vexTeardown(); }

void IntfRxSm::pamIs(const Vex::Ptr<Portus::Pam>& pam) {
  if (!pam) {
    pamDel();
    return;
  }
  pamRef_ = pam;
  if (pam_) {
    pam_->notifierIs(Vex::Ptr<Portus::Pam const>(pam));
  } else {
    pam_ = Vex::newReactor<VexPam>(this, Vex::Ptr<Portus::Pam const>(pam));
    pam_->hasNotificationActiveIs(hasNotificationActive());
  }
}

void IntfRxSm::pamDel() {
  if (!pam_) return;
  const auto gone = std::exchange(pam_, nullptr);
  gone->vexDoZombieReactors(true);
  gone->machineDel();
  pamRef_ = nullptr;
}

PacketEncapsulation IntfRxSm::parsePacket(const Vex::Ptr<Portus::Pkt>& pkt) const {
  return readProbe(*pkt,
                   switchIntfConfig_ ? switchIntfConfig_->nativeVlan() : Bridging::VlanIdOrNone());
}

bool IntfRxSm::disables(const PacketEncapsulation& probe) const {
  if (status_->aggressiveDisable()) return true;
  // A probe is this system's own if its sender is among this system's interfaces. While the sender
  // is down its probes are old news: of the two ends of a loop only the first to hear goes down.
  const auto sender = status_->intfStatus(probe.senderIntfId);
  return sender && !sender->disabled();
}

void IntfRxSm::handleRx() {
  const Vex::Ptr<Portus::Pkt> pkt = pamRef_ ? pamRef_->rxPkt() : nullptr;
  if (!pkt) {
    Vex::trace(ringwardSmTrace, 8, [](std::ostream& os) { os << "handleRx but no pkt"; });
    return;
  }
  const PacketEncapsulation enc = parsePacket(pkt);
  if (!enc.mac) {
    countPacket(CounterKind::rxOther, intfId_, enc.vlanId, *packetCounter_);
    Vex::log(RINGWARD_RX_OTHER, intfId_);
    return;
  }
  countPacket(CounterKind::rx, intfId_, enc.vlanId, *packetCounter_);
  if (!disables(enc)) return;
  const auto own = presentIntfStatus();
  if (!own) return;
  own->disabledAtIs(Vex::now());
  // A deadline that runs is not moved by later probes.
  if (own->disabledUntil() == 0 && globalIntfConfig_->disabledTime() != 0) {
    own->disabledUntilIs(Vex::now() + globalIntfConfig_->disabledTime());
  }
  if (own->disabledUntil() != 0) bringIntfUpTimer_->timeMinIs(own->disabledUntil());
  ringwardCause_->intfStatusIs(intfId_, Vex::now());
  // Last, since what follows from it must find everything else done.
  own->disabledIs(true);
}

void IntfRxSm::handleBringIntfUp() {
  traceHandler("handleBringIntfUp", intfId_);
  const auto own = presentIntfStatus();
  if (!own || !own->disabled()) return;
  Vex::log(RINGWARD_INTF_UP, intfId_);
  bringIntfUpTimer_->timeMinIs(Vex::kNever);
  ringwardCause_->intfStatusDel(intfId_);
  resetIntfStatus();
}

void IntfRxSm::resetIntfStatus() {
  const auto own = presentIntfStatus();
  if (!own) return;
  own->disabledUntilIs(0);
  own->disabledAtIs(0);
  // Last, so that whoever follows it finds the times cleared.
  own->disabledIs(false);
}

void IntfRxSm::handleInitialized() {
  initialized_ = true;
  const auto own = presentIntfStatus();
  if (!own || !own->disabled()) return;
  own->disabledAtIs(Vex::now());
  if (own->disabledUntil() != 0) bringIntfUpTimer_->timeMinIs(own->disabledUntil());
  ringwardCause_->intfStatusIs(intfId_, Vex::now());
}

void IntfRxSm::doPrepareToDie() {
  initialized_ = false;
  const auto own = presentIntfStatus();
  if (own && own->disabled()) handleBringIntfUp();
  packetCounter_->counterIntfDel(intfId_);
}

Vex::Ptr<Status::IntfStatus> IntfRxSm::presentIntfStatus() const {
  return intfStatus_ ? intfStatus_ : status_->intfStatus(intfId_);
}

Vex::Ptr<IntfRxSm> intfRxSmFactory(
    const Portus::IntfId& intfId, const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig,
    const Vex::Ptr<Bridging::SwitchIntfConfig const>& switchIntfConfig,
    const Vex::Ptr<Status::Status const>& status,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Status::PacketCounter>& packetCounter,
    const Vex::Ptr<Status::IntfStatus>& intfStatus,
    const Vex::Ptr<Errdisable::CauseStatus>& ringwardCause) {
  auto sm = Vex::makePtr<IntfRxSm>(intfId, globalIntfConfig, switchIntfConfig, status, timerWheel,
                                   packetCounter, intfStatus, ringwardCause);
  sm->handleInitialized();
  sm->hasNotificationActiveIs(true);
  return Vex::validPtr(std::move(sm));
}

}  // namespace Ringward
