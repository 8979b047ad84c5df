// SPDX-License-Identifier: Apache-2.0
//
// Platform::Sim::System: one simulated switch. Makes and owns the twelve objects that the engine
// works on, has ports, keeps the directories as a real platform does, carries out errdisable and,
// if asked to, bridges frames between its ports. Any number of systems may live in one process.
//
// Activity thread only. The Fabric outlives the system, the system its engine. A port is named as
// its interface; on the wire (Tap) it is "<system>:<interface>".
//
// Order of the directories, which the engine relies on:
//  1. A port comes: all interfaces, local interfaces, switch port configuration, Ethernet
//     interfaces, and last its VLANs.
//  2. A port goes: the reverse, but from all interfaces first, so that whoever looks finds that the
//     operator no longer wants it up.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/GlobalSm.h"
#include "platform/sim/ErrdisableAction.h"
#include "platform/sim/Fabric.h"
#include "platform/sim/SimDevice.h"

namespace Platform::Sim {

// What errdisable does to an interface.
enum class ErrdisableMode : std::uint8_t {
  bridgePort,  // the bridge neither takes nor gives frames there; the engine still hears them
  adminDown,   // the interface is switched off and loses its carrier
  monitor      // nothing
};

struct SystemConfig {
  std::string name = "switch";
  Portus::EthAddr bridgeMacAddr{0x02, 0, 0, 0, 0, 1};
  ErrdisableMode errdisable = ErrdisableMode::bridgePort;
  bool forwarding = false;  // bridge between the ports
  bool sourceGuard = true;  // see SimDevice.h
  EgressConfig egress;      // of bridged frames; the engine's own probes do not queue
};

class System {
 public:
  explicit System(Fabric& fabric, const SystemConfig& config = {});
  System(const System&) = delete;
  System& operator=(const System&) = delete;
  ~System();

  // The twelve objects. Config has its two children from the start.
  const Vex::Ptr<Ringward::Config::Config> config;
  const Vex::Ptr<Ringward::Status::Status> status;
  const Vex::Ptr<Mlag::Status> mlagStatus;
  const Vex::Ptr<Ringward::Status::TransmitStatus> transmitStatus;
  const Vex::Ptr<Bridging::Topology::Config> brTopoConfig;
  const Vex::Ptr<Bridging::Topology::Status> brTopoStatus;
  const Vex::Ptr<Bridging::Config> brConfig;
  const Vex::Ptr<Interface::EthIntfStatusDir> ethIntfStatusDir;
  const Vex::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir;
  const Vex::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir;
  const Vex::Ptr<Errdisable::CauseStatus> ringwardCause;
  const Vex::Ptr<Ringward::Status::PacketCounter> packetCounter;

  // An engine over the twelve objects. It belongs to the caller.
  Vex::Ptr<Ringward::GlobalSm> newEngine();

  // The VLANs that the bridge has.
  void vlansIs(const Bridging::VlanBitmap& vlans) { brTopoConfig->vlansIs(vlans); }

  // Adds a port that the operator wants up, and returns its end of a wire. Untagged frames belong
  // to `nativeVlan`. Raises a range exception if there is such a port already, or for a bad name.
  Port& newPort(const std::string& intf, const Bridging::VlanBitmap& vlans,
                Bridging::VlanIdOrNone nativeVlan);
  // Takes the port away, with its wire. An absent one: nothing.
  void portDel(const std::string& intf);
  // The following raise a range exception for an interface that is no port here.
  Port& port(const std::string& intf);
  const SimDevice& device(const std::string& intf) const;
  Vex::Ptr<Interface::IntfStatus> intfStatus(const std::string& intf) const;
  // What the operator wants. Errdisable does not show here.
  void adminEnabledIs(const std::string& intf, bool enabled);
  void portVlansIs(const std::string& intf, const Bridging::VlanBitmap& vlans);
  void nativeVlanIs(const std::string& intf, Bridging::VlanIdOrNone vlan);

  // Whether the port is held down by errdisable, whatever the mode does about it.
  bool isHeld(const std::string& intf) const;
  const ErrdisableAction& errdisable() const noexcept { return *errdisable_; }
  void sourceGuardIs(bool on);
  // Frames that the bridge has given to a port's egress.
  std::uint64_t forwarded() const noexcept { return forwarded_; }

 private:
  class SwitchPort;

  SwitchPort* find(const Portus::IntfId& intfId) const;
  SwitchPort& require(const std::string& intf) const;
  void handleHold(const Portus::IntfId& intfId, bool down);
  void handleFrame(const Portus::IntfId& from, const FramePtr& frame);

  Fabric& fabric_;
  const SystemConfig settings_;
  bool sourceGuard_;
  std::uint64_t forwarded_ = 0;
  std::map<Portus::IntfId, std::unique_ptr<SwitchPort>> ports_;
  // Where the bridge has seen an address last.
  std::map<std::pair<std::uint16_t, Portus::EthAddr>, Portus::IntfId> stations_;
  Vex::Ptr<ErrdisableAction> errdisable_;
};

}  // namespace Platform::Sim
