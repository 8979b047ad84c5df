// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanIntfTxSm: the transmitter of one pair of interface and VLAN. It paces: every
// transmitInterval seconds it asks the scheduler for one probe, and it stops asking while its
// interface is disabled. Owned by the Ringward::VlanSm of its VLAN; there may be 262,144, so its
// size counts. Activity thread only.
#pragma once

#include <string_view>
#include <tuple>

#include "model/config/GlobalIntfConfig.h"
#include "model/status/IntfStatus.h"
#include "model/status/TransmitStatus.h"
#include "runtime/bridging/VlanId.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/HashMap.h"
#include "runtime/vex/Machine.h"

namespace Ringward {

class VlanIntfTxSm final : public Vex::Machine<VlanIntfTxSm>, public Vex::HashMapLink {
 public:
  static constexpr std::string_view kTypeName = "Ringward::VlanIntfTxSm";

  // Use vlanIntfTxSmFactory.
  VlanIntfTxSm(const Portus::IntfId& intfId, Bridging::VlanId vlanId,
               Vex::Ptr<Config::GlobalIntfConfig const> globalIntfConfig,
               const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
               const Vex::Ptr<Status::IntfStatus const>& intfStatus,
               Vex::Ptr<Status::TransmitStatus> transmitStatus);
  ~VlanIntfTxSm() override;

  const Portus::IntfId& fwkKey() const noexcept { return intfId_; }
  const Portus::IntfId& intfId() const noexcept { return intfId_; }
  Bridging::VlanId vlanId() const noexcept { return vlanId_; }
  const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig() const {
    return globalIntfConfig_;
  }
  const Helm::TimerWheel* timerWheel() const { return watched(sendPacketTimer_); }
  const Status::IntfStatus* intfStatus() const { return watched(intfStatus_); }
  const Vex::Ptr<Status::TransmitStatus>& transmitStatus() const { return transmitStatus_; }

  // When the next probe is asked for, in seconds on the activity clock; +infinity: not at all.
  double sendPacketTime() const { return sendPacketTimer_->timeMin(); }
  // A request of this pair waits in the regular queue. Cleared by the scheduler when it takes it.
  bool packetInQueue() const noexcept { return packetInQueue_; }
  void packetInQueueIs(bool inQueue) noexcept { packetInQueue_ = inQueue; }
  bool initialized() const noexcept { return initialized_; }

  void handleInitialized();
  void handleSendPacket();
  void handleDisabled();
  // Deletes the pair's requests from both queues, head to tail.
  void removeFromTransmitQueues();
  // Called by the owner before it lets the machine go.
  void doPrepareToDie();

 private:
  friend class Vex::Machine<VlanIntfTxSm>;

  class VexSendPacketTimer final : public Vex::Reactor<VlanIntfTxSm, Helm::TimerWheel> {
   public:
    void onTime() override {
      react([](VlanIntfTxSm& sm) { sm.handleSendPacket(); });
    }
  };
  class VexIntfStatus final : public Vex::Reactor<VlanIntfTxSm, Status::IntfStatus> {
   public:
    void onDisabled() override {
      react([](VlanIntfTxSm& sm) { sm.handleDisabled(); });
    }
  };

  auto vexReactors() { return std::tie(sendPacketTimer_, intfStatus_); }
  static auto vexOwned() { return std::tie(); }

  double transmitInterval() const { return globalIntfConfig_->transmitInterval(); }

  // In the padding behind the base's count word.
  bool packetInQueue_ = false;
  bool initialized_ = false;
  const Bridging::VlanId vlanId_;
  const Portus::IntfId intfId_;
  const Vex::Ptr<Config::GlobalIntfConfig const> globalIntfConfig_;
  Vex::Ptr<VexSendPacketTimer> sendPacketTimer_;
  Vex::Ptr<VexIntfStatus> intfStatus_;
  const Vex::Ptr<Status::TransmitStatus> transmitStatus_;
};

// Makes the machine, arms its first send and sets notification active.
Vex::Ptr<VlanIntfTxSm> vlanIntfTxSmFactory(
    const Portus::IntfId& intfId, Bridging::VlanId vlanId,
    const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Status::IntfStatus const>& intfStatus,
    const Vex::Ptr<Status::TransmitStatus>& transmitStatus);

}  // namespace Ringward
