// SPDX-License-Identifier: Apache-2.0
//
// Ringward::TransmitSm: the transmit scheduler, through which every probe leaves. Drains the two
// queues of TransmitStatus, the high one first, under a limit of probes per window of one second.
// One for each system, owned by Ringward::GlobalSm. Activity thread only.
//
// The rule that the order of everything follows from is a nested one: taking a request off a queue
// notifies, the notification runs the handler again, and only then is the request sent. So a
// handler that finds N requests sends them in reverse, charges each before it takes it, and each
// level that ends with work left makes its own attempt at the throttle entry. This class gives
// exactly that order without the nesting: levels are frames on a heap (Drain), and what the
// notification owes to the other notifiees is delivered ahead of the level below and behind it, as
// the walk would.
#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>
#include <vector>

#include "model/config/TransmitConfig.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"
#include "model/values/PacketEncapsulation.h"
#include "runtime/bridging/Config.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/interface/PamDirectories.h"
#include "runtime/topology/LibState.h"
#include "runtime/vex/Machine.h"

namespace Ringward {

class GlobalSm;

class TransmitSm final : public Vex::Machine<TransmitSm> {
 public:
  static constexpr std::string_view kTypeName = "Ringward::TransmitSm";

  // Use transmitSmFactory.
  TransmitSm(const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
             const Vex::Ptr<Config::TransmitConfig const>& transmitConfig,
             const Vex::Ptr<Status::TransmitStatus>& transmitStatus,
             Vex::Ptr<Interface::EthDevPamCollection const> ethDevPamColl,
             Vex::Ptr<Status::PacketCounter> packetCounter, Vex::Ptr<Status::Status const> status,
             Vex::Ptr<Topology::Library::LibState const> topoLibState,
             Vex::Ptr<Bridging::Config const> brConfig, GlobalSm* globalSm);
  ~TransmitSm() override;

  const Helm::TimerWheel* timerWheel() const { return watched(throttleTimer_); }
  const Config::TransmitConfig* transmitConfig() const { return watched(transmitConfig_); }
  const Vex::Ptr<Status::TransmitStatus>& transmitStatus() const { return transmitStatusRef_; }
  const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamColl() const {
    return ethDevPamColl_;
  }
  const Vex::Ptr<Status::PacketCounter>& packetCounter() const { return packetCounter_; }
  const Vex::Ptr<Status::Status const>& status() const { return status_; }
  const Vex::Ptr<Topology::Library::LibState const>& topoLibState() const { return topoLibState_; }
  const Vex::Ptr<Bridging::Config const>& brConfig() const { return brConfig_; }
  // When the window ends, in seconds on the activity clock; +infinity without a limit.
  double throttleTime() const { return throttleTimer_->timeMin(); }
  // Requests taken off either queue since the window began.
  std::uint32_t transmitCount() const noexcept { return transmitCount_; }
  void transmitCountIs(std::uint32_t count) noexcept { transmitCount_ = count; }
  bool initialized() const noexcept { return initialized_; }
  GlobalSm* globalSm() const noexcept { return globalSm_; }
  // The owner goes; this machine may live on until a transmission under way has ended.
  void globalSmDel() noexcept { globalSm_ = nullptr; }

  // Begins a new window and serves what waits.
  void handleThrottleTimer();
  // Serves the high queue; true if it was left empty.
  bool handleHighPriority();
  // Serves both queues; true if both were left empty.
  bool handleRegularPriority();
  // Sends one probe and counts the attempt. Without packet access to the interface nothing happens.
  // Raises a range exception for a VLAN above 4094 and "null ValidPtr" for an interface that is no
  // switch port.
  void sendPacket(const Status::IntfAndVlan& intfAndVlan);
  // The frame of a probe; null if there is no buffer for it.
  Vex::Ptr<Portus::Pkt> generatePacket(const PacketEncapsulation& pktInfo);
  void handleInitialized();

 private:
  friend class Vex::Machine<TransmitSm>;

  class VexThrottleTimer final : public Vex::Reactor<TransmitSm, Helm::TimerWheel> {
   public:
    void onTime() override {
      react([](TransmitSm& sm) { sm.handleThrottleTimer(); });
    }
  };
  class VexTransmitConfig final : public Vex::Reactor<TransmitSm, Config::TransmitConfig> {
   public:
    void onRateLimit() override {
      react([](TransmitSm& sm) { sm.handleThrottleTimer(); });
    }
  };
  class VexTransmitStatus final : public Vex::Reactor<TransmitSm, Status::TransmitStatus> {
   public:
    using NotifieeConst::onHighPriority;
    using NotifieeConst::onRegularPriority;
    void onHighPriority(std::uint32_t /*index*/) override {
      react([](TransmitSm& sm) { sm.handleHighPriority(); });
    }
    void onRegularPriority(std::uint32_t /*index*/) override {
      react([](TransmitSm& sm) { sm.handleRegularPriority(); });
    }
  };

  class Drain;
  enum class At : std::uint8_t;
  struct Level;

  auto vexReactors() { return std::tie(throttleTimer_, transmitConfig_, transmitStatus_); }
  static auto vexOwned() { return std::tie(); }

  // Whether the window admits one more request.
  bool admits() const {
    const std::uint32_t limit = transmitConfig()->rateLimit();
    return limit == 0 || transmitCount_ < limit;
  }
  void packetInQueueClear(const Status::IntfAndVlan& intfAndVlan);

  Vex::Ptr<VexThrottleTimer> throttleTimer_;
  Vex::Ptr<VexTransmitConfig> transmitConfig_;
  Vex::Ptr<VexTransmitStatus> transmitStatus_;
  const Vex::Ptr<Status::TransmitStatus> transmitStatusRef_;
  const Vex::Ptr<Interface::EthDevPamCollection const> ethDevPamColl_;
  const Vex::Ptr<Status::PacketCounter> packetCounter_;
  const Vex::Ptr<Status::Status const> status_;
  const Vex::Ptr<Topology::Library::LibState const> topoLibState_;
  const Vex::Ptr<Bridging::Config const> brConfig_;
  std::uint32_t transmitCount_ = 0;
  bool initialized_ = false;
  GlobalSm* globalSm_;
  std::vector<Level> spareLevels_;
};

// Makes the machine, serves what the queues already hold and sets notification active. `globalSm`
// may be null; then no transmitter is found.
Vex::Ptr<TransmitSm> transmitSmFactory(
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Config::TransmitConfig const>& transmitConfig,
    const Vex::Ptr<Status::TransmitStatus>& transmitStatus,
    const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamColl,
    const Vex::Ptr<Status::PacketCounter>& packetCounter,
    const Vex::Ptr<Status::Status const>& status,
    const Vex::Ptr<Topology::Library::LibState const>& topoLibState,
    const Vex::Ptr<Bridging::Config const>& brConfig, GlobalSm* globalSm);

}  // namespace Ringward
