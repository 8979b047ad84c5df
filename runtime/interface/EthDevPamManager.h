// SPDX-License-Identifier: Apache-2.0
//
// Interface::EthDevPamManager: opens and closes packet access. An interface has a Pam in the
// collection while the manager is active, the interface is desired, a device for it exists and the
// operator wants it up. An interface that errdisable holds down keeps its Pam. Activity thread
// only.
//
// The device decides how a Pam is opened; this class decides when. Settings hold for Pams opened
// after them, so they come before the activation.
#pragma once

#include "runtime/interface/PamDirectories.h"
#include "runtime/portus/Pam.h"
#include "runtime/vex/Machine.h"

namespace Interface {

class EthDevPamManager final : public Vex::Machine<EthDevPamManager> {
 public:
  static constexpr std::string_view kTypeName = "Interface::EthDevPamManager";

  EthDevPamManager(const Vex::Ptr<PamDesiredIntfDir const>& desiredIntfDir,
                   Vex::Ptr<EthDevPamCollection> pamCollection,
                   const Vex::Ptr<DeviceIntfStatusDir const>& deviceIntfStatusDir);
  ~EthDevPamManager() override;

  const PamDesiredIntfDir* desiredIntfDir() const { return watched(desiredIntfDir_); }
  const Vex::Ptr<EthDevPamCollection>& pamCollection() const { return pamCollection_; }
  const DeviceIntfStatusDir* deviceIntfStatusDir() const { return watched(deviceIntfStatusDir_); }

  // The queueing priority of sent frames (SO_PRIORITY). Above 15 raises the range exception
  // "EthDevPamManager::sockPrio < 0 or > 15 not allowed".
  void sockPrioIs(std::uint8_t priority);
  std::uint8_t sockPrio() const noexcept { return config_.sockPrio; }
  void packetFilterIs(const Portus::PacketFilter& filter) { config_.filter = filter; }
  void destinationIs(const Portus::EthAddr& address) { config_.destination = address; }
  void perIntfSocketIs(bool flag) noexcept { config_.perIntfSocket = flag; }
  const Portus::PamConfig& pamConfig() const noexcept { return config_; }

  // Turning it on opens what is desired, turning it off closes everything.
  void activeIs(bool active);
  bool active() const noexcept { return active_; }

  // Opens or closes the Pam of one interface as its inputs ask.
  void handleIntf(const Portus::IntfId& intfId);

 private:
  friend class Vex::Machine<EthDevPamManager>;

  class VexDesiredIntfDir final : public Vex::Reactor<EthDevPamManager, PamDesiredIntfDir> {
   public:
    void onIntfDesired(const Portus::IntfId& intfId) override {
      react([&](EthDevPamManager& sm) { sm.handleIntf(intfId); });
    }
  };
  class VexDeviceIntfStatusDir final : public Vex::Reactor<EthDevPamManager, DeviceIntfStatusDir> {
   public:
    void onDeviceIntfStatus(const Portus::IntfId& intfId) override {
      react([&](EthDevPamManager& sm) { sm.handleIntf(intfId); });
    }
  };

  // The device through which the interface's Pam is to go, null if there is to be none.
  Vex::Ptr<Portus::Device> wantedDevice(const Portus::IntfId& intfId) const;

  auto vexReactors() { return std::tie(desiredIntfDir_, deviceIntfStatusDir_); }
  static auto vexOwned() { return std::tie(); }

  Vex::Ptr<VexDesiredIntfDir> desiredIntfDir_;
  const Vex::Ptr<EthDevPamCollection> pamCollection_;
  Vex::Ptr<VexDeviceIntfStatusDir> deviceIntfStatusDir_;
  Portus::PamConfig config_;
  bool active_ = false;
  // Which device each open Pam belongs to: one that returns as another device needs a new Pam.
  Vex::ValueCollection<Portus::IntfId, Vex::Ptr<Portus::Device>> openDevices_;
};

}  // namespace Interface
