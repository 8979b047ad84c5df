// SPDX-License-Identifier: Apache-2.0
//
// Bench::Engine: an engine of any size over devices that lead nowhere, driven as the agent drives
// it: through the entities and globalSmFactory alone. One thread; needs a current activity manager.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/GlobalSm.h"
#include "runtime/interface/IntfStatus.h"
#include "runtime/portus/Pam.h"

namespace Bench {

// Takes each frame for sent.
class NullPam final : public Portus::Pam {
 public:
  NullPam(const Portus::IntfId& intfId, std::uint64_t& sent) : Pam(intfId), sent_(sent) {}
  Vex::Ptr<Portus::Pkt> rxPkt() override { return std::exchange(arrived_, nullptr); }
  void txPkt(const Vex::Ptr<Portus::Pkt>& pkt) override {
    if (pkt) ++sent_;
  }
  // A frame comes in.
  void deliver(Vex::Ptr<Portus::Pkt> pkt) {
    arrived_ = std::move(pkt);
    readableCountInc();
  }

 private:
  std::uint64_t& sent_;
  Vex::Ptr<Portus::Pkt> arrived_;
};

class NullDevice final : public Portus::Device {
 public:
  explicit NullDevice(std::uint64_t& sent) : sent_(sent) {}
  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId, const Portus::PamConfig&) override {
    return Vex::makePtr<NullPam>(intfId, sent_);
  }

 private:
  std::uint64_t& sent_;
};

class Engine {
 public:
  Engine() {
    config->globalIntfConfigIs("globalIntfConfig")->transmitIntervalIs(255);
    config->transmitConfigIs("transmitConfig")->rateLimitIs(0);
    brConfig->bridgeMacAddrIs(Portus::EthAddr(2, 0, 0, 0, 0, 1));
  }

  // Ports eth1 to eth<count>, each with all of `vlans`, on devices of `device` (null: NullDevice).
  void portsIs(std::uint32_t count, const Bridging::VlanBitmap& vlans,
               const Vex::Ptr<Portus::Device>& device = nullptr) {
    brTopoConfig->vlansIs(vlans);
    for (std::uint32_t port = 1; port <= count; ++port) {
      portIs("eth" + std::to_string(port), vlans,
             device ? device : Vex::Ptr<Portus::Device>(Vex::makePtr<NullDevice>(sent)));
    }
  }
  void portIs(const std::string& name, const Bridging::VlanBitmap& vlans,
              const Vex::Ptr<Portus::Device>& device) {
    const auto intfId = Portus::IntfId::fromName(name);
    const auto intfConfig = Vex::makePtr<Interface::IntfConfig>(intfId);
    intfConfig->adminEnabledIs(true);
    const auto intfStatus = Vex::makePtr<Interface::IntfStatus>(intfId, intfConfig);
    allIntfStatusDir->intfStatusIs(intfId, intfStatus);
    allIntfStatusLocalDir->intfStatusLocalIs(intfId,
                                             Vex::makePtr<Interface::IntfStatusLocal>(device));
    brConfig->switchIntfConfigIs(intfId)->nativeVlanIs(Bridging::VlanIdOrNone(1));
    ethIntfStatusDir->ethIntfStatusIs(intfId, intfStatus);
    brTopoStatus->intfVlansIs(intfId, vlans);
    ports.push_back(intfId);
  }
  void vlansEnabledIs(const Bridging::VlanBitmap& vlans) {
    vlans.forEach(
        [this](std::uint16_t vlan) { config->vlanEnabledIs(Bridging::VlanId(vlan), true); });
  }

  // The machines stand after the manager's next turn.
  void start() {
    config->globalEnabledIs(true);
    globalSm = Ringward::globalSmFactory(config, status, mlagStatus, transmitStatus, brTopoConfig,
                                         brTopoStatus, brConfig, ethIntfStatusDir, allIntfStatusDir,
                                         allIntfStatusLocalDir, ringwardCause, packetCounter);
  }
  std::size_t pairs() const {
    std::size_t count = 0;
    if (!globalSm || !globalSm->vlanIntfSmManager()) return count;
    for (auto vlan = globalSm->vlanIntfSmManager()->vlanSmIteratorConst(); vlan; ++vlan) {
      for (auto port = vlan->vlanIntfTxSmIteratorConst(); port; ++port) ++count;
    }
    return count;
  }

  std::uint64_t sent = 0;
  std::vector<Portus::IntfId> ports;
  const Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  const Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  const Vex::Ptr<Mlag::Status> mlagStatus = Vex::makePtr<Mlag::Status>("mlagStatus");
  const Vex::Ptr<Ringward::Status::TransmitStatus> transmitStatus =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  const Vex::Ptr<Bridging::Topology::Config> brTopoConfig =
      Vex::makePtr<Bridging::Topology::Config>("brTopoConfig");
  const Vex::Ptr<Bridging::Topology::Status> brTopoStatus =
      Vex::makePtr<Bridging::Topology::Status>("brTopoStatus");
  const Vex::Ptr<Bridging::Config> brConfig = Vex::makePtr<Bridging::Config>("brConfig");
  const Vex::Ptr<Interface::EthIntfStatusDir> ethIntfStatusDir =
      Vex::makePtr<Interface::EthIntfStatusDir>("ethIntfStatusDir");
  const Vex::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir =
      Vex::makePtr<Interface::AllIntfStatusDir>("allIntfStatusDir");
  const Vex::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir =
      Vex::makePtr<Interface::AllIntfStatusLocalDir>("allIntfStatusLocalDir");
  const Vex::Ptr<Errdisable::CauseStatus> ringwardCause =
      Vex::makePtr<Errdisable::CauseStatus>("ringward");
  const Vex::Ptr<Ringward::Status::PacketCounter> packetCounter =
      Ringward::Status::packetCounterFactory("packetCounter");
  Vex::Ptr<Ringward::GlobalSm> globalSm;
};

// VLANs 1 to `count`.
inline Bridging::VlanBitmap firstVlans(std::uint32_t count) {
  Bridging::VlanBitmap vlans;
  for (std::uint32_t vlan = 1; vlan <= count; ++vlan) vlans.set(vlan);
  return vlans;
}

}  // namespace Bench
