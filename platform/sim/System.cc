// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/System.h"

#include <utility>

#include "runtime/vex/Exception.h"

namespace Platform::Sim {

using Bridging::VlanBitmap;
using Bridging::VlanIdOrNone;
using Portus::IntfId;

// One interface of the system, with everything that the platform knows of it.
class System::SwitchPort final : private Receiver {
 public:
  SwitchPort(System& system, const IntfId& id, const VlanBitmap& vlanSet, VlanIdOrNone native)
      : intfId(id),
        port(system.fabric_, system.settings_.name + ":" + id.name(), *this,
             system.settings_.egress),
        device(Vex::makePtr<SimDevice>(port, system.status, system.sourceGuard_)),
        intfConfig(Vex::makePtr<Interface::IntfConfig>(id)),
        intfStatus(Vex::makePtr<Interface::IntfStatus>(id, intfConfig)),
        vlans(vlanSet),
        nativeVlan(native),
        system_(system) {}
  ~SwitchPort() {
    device->portDel();
    system_.fabric_.wireDel(port);  // while there is an interface to tell
  }

  // Takes part in bridging.
  bool forwards() const {
    return intfConfig->adminEnabled() &&
           !(held && system_.settings_.errdisable == ErrdisableMode::bridgePort);
  }
  // Switches the interface on or off as the operator and errdisable ask.
  void enabledCheck(bool adminEnabled) {
    port.enabledIs(adminEnabled &&
                   !(held && system_.settings_.errdisable == ErrdisableMode::adminDown));
  }

  const IntfId intfId;
  Port port;
  const Vex::Ptr<SimDevice> device;
  const Vex::Ptr<Interface::IntfConfig> intfConfig;
  const Vex::Ptr<Interface::IntfStatus> intfStatus;
  VlanBitmap vlans;
  VlanIdOrNone nativeVlan;
  bool held = false;

 private:
  void onFrame(Port& /*port*/, const FramePtr& frame) override {
    // Packet access sees a frame before the bridge does. What it leads to may hold the port down,
    // or end it.
    System& system = system_;
    const IntfId id = intfId;
    const Vex::Ptr<SimDevice> keep = device;
    keep->receive(frame);
    if (system.settings_.forwarding) system.handleFrame(id, frame);
  }
  void onCarrier(Port& /*port*/, bool carrier) override { intfStatus->linkUpIs(carrier); }

  System& system_;
};

System::System(Fabric& fabric, const SystemConfig& settings)
    : config(Ringward::Config::configFactory("config")),
      status(Ringward::Status::statusFactory("status")),
      mlagStatus(Vex::makePtr<Mlag::Status>("mlagStatus")),
      transmitStatus(Ringward::Status::transmitStatusFactory("transmitStatus")),
      brTopoConfig(Vex::makePtr<Bridging::Topology::Config>("brTopoConfig")),
      brTopoStatus(Vex::makePtr<Bridging::Topology::Status>("brTopoStatus")),
      brConfig(Vex::makePtr<Bridging::Config>("brConfig")),
      ethIntfStatusDir(Vex::makePtr<Interface::EthIntfStatusDir>("ethIntfStatusDir")),
      allIntfStatusDir(Vex::makePtr<Interface::AllIntfStatusDir>("allIntfStatusDir")),
      allIntfStatusLocalDir(
          Vex::makePtr<Interface::AllIntfStatusLocalDir>("allIntfStatusLocalDir")),
      ringwardCause(Vex::makePtr<Errdisable::CauseStatus>("ringwardCause")),
      packetCounter(Ringward::Status::packetCounterFactory("packetCounter")),
      fabric_(fabric),
      settings_(settings),
      sourceGuard_(settings.sourceGuard) {
  config->transmitConfigIs("transmitConfig");
  config->globalIntfConfigIs("globalIntfConfig");
  brConfig->bridgeMacAddrIs(settings.bridgeMacAddr);
  errdisable_ = Vex::makePtr<ErrdisableAction>(
      ringwardCause, [this](const IntfId& intfId, bool down) { handleHold(intfId, down); });
}

System::~System() {
  errdisable_ = nullptr;
  ports_.clear();
}

Vex::Ptr<Ringward::GlobalSm> System::newEngine() {
  return Ringward::globalSmFactory(config, status, mlagStatus, transmitStatus, brTopoConfig,
                                   brTopoStatus, brConfig, ethIntfStatusDir, allIntfStatusDir,
                                   allIntfStatusLocalDir, ringwardCause, packetCounter);
}

System::SwitchPort* System::find(const IntfId& intfId) const {
  const auto at = ports_.find(intfId);
  return at != ports_.end() ? at->second.get() : nullptr;
}

System::SwitchPort& System::require(const std::string& intf) const {
  SwitchPort* found = find(IntfId::fromName(intf));
  if (found == nullptr) {
    Vex::throwRangeException("interface " + intf + ": system " + settings_.name +
                             " has no such port");
  }
  return *found;
}

Port& System::newPort(const std::string& intf, const VlanBitmap& vlans, VlanIdOrNone nativeVlan) {
  const IntfId intfId = IntfId::fromName(intf);
  if (find(intfId) != nullptr) {
    Vex::throwRangeException("interface " + intf + ": system " + settings_.name +
                             " has this port already");
  }
  auto& made = *(ports_[intfId] = std::make_unique<SwitchPort>(*this, intfId, vlans, nativeVlan));
  made.held = errdisable_->isHeld(intfId);
  made.enabledCheck(true);
  made.intfConfig->adminEnabledIs(true);
  allIntfStatusDir->intfStatusIs(intfId, made.intfStatus);
  allIntfStatusLocalDir->intfStatusLocalIs(intfId,
                                           Vex::makePtr<Interface::IntfStatusLocal>(made.device));
  brConfig->switchIntfConfigIs(intfId)->nativeVlanIs(nativeVlan);
  ethIntfStatusDir->ethIntfStatusIs(intfId, made.intfStatus);
  brTopoStatus->intfVlansIs(intfId, vlans);
  return made.port;
}

void System::portDel(const std::string& intf) {
  const IntfId intfId = IntfId::fromName(intf);
  const auto at = ports_.find(intfId);
  if (at == ports_.end()) return;
  // The device is gone before anybody is told; what is still sent fails.
  const auto gone = std::move(at->second);
  ports_.erase(at);
  gone->port.enabledIs(false);
  allIntfStatusDir->intfStatusDel(intfId);
  brTopoStatus->intfVlansDel(intfId);
  ethIntfStatusDir->ethIntfStatusDel(intfId);
  brConfig->switchIntfConfigDel(intfId);
  allIntfStatusLocalDir->intfStatusLocalDel(intfId);
}

Port& System::port(const std::string& intf) { return require(intf).port; }

const SimDevice& System::device(const std::string& intf) const { return *require(intf).device; }

Vex::Ptr<Interface::IntfStatus> System::intfStatus(const std::string& intf) const {
  return require(intf).intfStatus;
}

void System::adminEnabledIs(const std::string& intf, bool enabled) {
  SwitchPort& port = require(intf);
  port.enabledCheck(enabled);  // the device changes, then whoever follows it is told
  port.intfConfig->adminEnabledIs(enabled);
}

void System::portVlansIs(const std::string& intf, const VlanBitmap& vlans) {
  SwitchPort& port = require(intf);
  port.vlans = vlans;
  brTopoStatus->intfVlansIs(port.intfId, vlans);
}

void System::nativeVlanIs(const std::string& intf, VlanIdOrNone vlan) {
  SwitchPort& port = require(intf);
  port.nativeVlan = vlan;
  brConfig->switchIntfConfigIs(port.intfId)->nativeVlanIs(vlan);
}

bool System::isHeld(const std::string& intf) const { return require(intf).held; }

void System::sourceGuardIs(bool on) {
  sourceGuard_ = on;
  for (const auto& [intfId, port] : ports_) port->device->sourceGuardIs(on);
}

void System::handleHold(const IntfId& intfId, bool down) {
  SwitchPort* port = find(intfId);
  if (port == nullptr) return;
  port->held = down;
  port->enabledCheck(port->intfConfig->adminEnabled());
}

void System::handleFrame(const IntfId& from, const FramePtr& frame) {
  const SwitchPort* ingress = find(from);
  if (ingress == nullptr || !ingress->forwards()) return;
  const std::uint16_t tag = tagOf(*frame).value_or(0);
  const std::uint16_t vlan = tag != 0 ? tag : ingress->nativeVlan.value();
  if (vlan == 0 || vlan > Bridging::kMaxVlanId || !ingress->vlans.test(std::uint32_t{vlan})) return;

  if (const auto source = sourceOf(*frame); !source.isMulticast()) {
    stations_[{vlan, source}] = from;
  }
  const auto destination = destinationOf(*frame);
  const auto known =
      destination.isMulticast() ? stations_.end() : stations_.find({vlan, destination});
  // Made at most once each, for all the ports that need them.
  FramePtr tagged;
  FramePtr untagged;
  for (const auto& [intfId, port] : ports_) {
    if (intfId == from || !port->forwards() || !port->vlans.test(std::uint32_t{vlan})) continue;
    if (known != stations_.end() && known->second != intfId) continue;
    FramePtr& form = port->nativeVlan.value() == vlan ? untagged : tagged;
    if (!form) {
      form = newFrame(&form == &untagged ? withoutTag(*frame) : withTag(*frame, vlan));
    }
    ++forwarded_;
    port->port.sendQueued(form);
  }
}

}  // namespace Platform::Sim
