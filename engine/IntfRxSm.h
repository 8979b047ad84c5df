// SPDX-License-Identifier: Apache-2.0
//
// Ringward::IntfRxSm: the receive machine of one interface under detection. Reads and counts
// frames, takes the interface down when a probe shows a loop, and brings it back when its time has
// run out. Owned by Ringward::VlanIntfSmManager. Activity thread only.
//
// `intfStatus` is null for an interface that is wanted for its errdisable cause alone when the
// engine starts. The machine then takes the entry that the status root has made by the time it
// needs one; without any it counts and does nothing else.
#pragma once

#include <string_view>
#include <tuple>

#include "model/config/GlobalIntfConfig.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/values/PacketEncapsulation.h"
#include "runtime/bridging/Config.h"
#include "runtime/errdisable/CauseStatus.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/portus/Pam.h"
#include "runtime/vex/Description.h"
#include "runtime/vex/HashMap.h"
#include "runtime/vex/Machine.h"

namespace Ringward {

class IntfRxSm final : public Vex::Machine<IntfRxSm>, public Vex::HashMapLink {
 public:
  static constexpr std::string_view kTypeName = "Ringward::IntfRxSm";

  // Use intfRxSmFactory. `switchIntfConfig` and `intfStatus` may be null.
  IntfRxSm(const Portus::IntfId& intfId, Vex::Ptr<Config::GlobalIntfConfig const> globalIntfConfig,
           Vex::Ptr<Bridging::SwitchIntfConfig const> switchIntfConfig,
           Vex::Ptr<Status::Status const> status,
           const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
           Vex::Ptr<Status::PacketCounter> packetCounter, Vex::Ptr<Status::IntfStatus> intfStatus,
           Vex::Ptr<Errdisable::CauseStatus> ringwardCause);
  ~IntfRxSm() override;

  const Portus::IntfId& fwkKey() const noexcept { return intfId_; }
  const Portus::IntfId& intfId() const noexcept { return intfId_; }
  const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig() const {
    return globalIntfConfig_;
  }
  const Vex::Ptr<Bridging::SwitchIntfConfig const>& switchIntfConfig() const {
    return switchIntfConfig_;
  }
  const Vex::Ptr<Status::Status const>& status() const { return status_; }
  const Helm::TimerWheel* timerWheel() const { return watched(bringIntfUpTimer_); }
  const Vex::Ptr<Status::PacketCounter>& packetCounter() const { return packetCounter_; }
  // As given to the factory.
  const Vex::Ptr<Status::IntfStatus>& intfStatus() const { return intfStatus_; }
  const Vex::Ptr<Errdisable::CauseStatus>& ringwardCause() const { return ringwardCause_; }
  const Vex::Ptr<Portus::Pam>& pam() const { return pamRef_; }
  // When the interface comes back, in seconds on the activity clock; +infinity: not by itself.
  double bringIntfUpTime() const { return bringIntfUpTimer_->timeMin(); }
  bool initialized() const noexcept { return initialized_; }

  // Follows another Pam, or none.
  void pamIs(const Vex::Ptr<Portus::Pam>& pam);
  void pamDel();

  // Takes one frame from the Pam and acts on it.
  void handleRx();
  void handleBringIntfUp();
  void handleInitialized();
  // Called by the owner before it lets the machine go: a machine never leaves its interface down.
  void doPrepareToDie();
  PacketEncapsulation parsePacket(const Vex::Ptr<Portus::Pkt>& pkt) const;

 private:
  friend class Vex::Machine<IntfRxSm>;
  friend struct Vex::Description<IntfRxSm>;

  class VexBringIntfUpTimer final : public Vex::Reactor<IntfRxSm, Helm::TimerWheel> {
   public:
    void onTime() override {
      react([](IntfRxSm& sm) { sm.handleBringIntfUp(); });
    }
  };
  class VexPam final : public Vex::Reactor<IntfRxSm, Portus::Pam> {
   public:
    void onReadableCount() override {
      react([](IntfRxSm& sm) { sm.handleRx(); });
    }
  };

  auto vexReactors() { return std::tie(bringIntfUpTimer_, pam_); }
  static auto vexOwned() { return std::tie(); }

  // Whether a valid probe shows a loop that takes this interface down.
  bool disables(const PacketEncapsulation& probe) const;
  void resetIntfStatus();
  // The status to work with, null for none.
  Vex::Ptr<Status::IntfStatus> presentIntfStatus() const;

  bool initialized_ = false;
  const Portus::IntfId intfId_;
  const Vex::Ptr<Config::GlobalIntfConfig const> globalIntfConfig_;
  const Vex::Ptr<Bridging::SwitchIntfConfig const> switchIntfConfig_;
  const Vex::Ptr<Status::Status const> status_;
  Vex::Ptr<VexBringIntfUpTimer> bringIntfUpTimer_;
  const Vex::Ptr<Status::PacketCounter> packetCounter_;
  const Vex::Ptr<Status::IntfStatus> intfStatus_;
  const Vex::Ptr<Errdisable::CauseStatus> ringwardCause_;
  Vex::Ptr<VexPam> pam_;
  Vex::Ptr<Portus::Pam> pamRef_;
};

// Makes the machine, takes up a disabled status that it finds, and sets notification active.
Vex::Ptr<IntfRxSm> intfRxSmFactory(
    const Portus::IntfId& intfId, const Vex::Ptr<Config::GlobalIntfConfig const>& globalIntfConfig,
    const Vex::Ptr<Bridging::SwitchIntfConfig const>& switchIntfConfig,
    const Vex::Ptr<Status::Status const>& status,
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Status::PacketCounter>& packetCounter,
    const Vex::Ptr<Status::IntfStatus>& intfStatus,
    const Vex::Ptr<Errdisable::CauseStatus>& ringwardCause);

}  // namespace Ringward
