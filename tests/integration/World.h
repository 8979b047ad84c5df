// SPDX-License-Identifier: Apache-2.0
//
// What the whole-tree tests share: virtual time, a fabric, and switches whose engine is made by
// globalSmFactory and by nothing else. Belongs to one test.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/EngineLogs.h"
#include "engine/GlobalSm.h"
#include "platform/sim/Element.h"
#include "platform/sim/System.h"
#include "platform/sim/Tap.h"
#include "runtime/vex/LogService.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace Integration {

using Bridging::VlanBitmap;
using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Platform::Sim::ErrdisableMode;
using Platform::Sim::Fabric;
using Platform::Sim::Frame;
using Platform::Sim::Hub;
using Platform::Sim::Injector;
using Platform::Sim::LearningSwitch;
using Platform::Sim::Reflector;
using Platform::Sim::System;
using Platform::Sim::SystemConfig;
using Platform::Sim::Tap;
using Portus::EthAddr;
using Portus::IntfId;

inline constexpr double kStart = 1000.0;  // of the virtual clock
inline constexpr double kTick = 0.01;
inline constexpr double kDelay = 10e-6;  // of a wire

inline IntfId intf(const std::string& name) { return IntfId::fromName(name); }
inline VlanBitmap vlans(const std::string& list) { return VlanBitmap::parse(list); }

// A system with its engine. Ports carry VLAN 10 tagged; the engine is enabled on it and probes each
// second, unless a test says otherwise.
struct Switch {
  explicit Switch(Fabric& fabric, const SystemConfig& settings = {}) : system(fabric, settings) {
    system.vlansIs(vlans("1-4094"));
    config().globalIntfConfig()->transmitIntervalIs(1);
    config().globalIntfConfig()->disabledTimeIs(30);
    config().vlanEnabledIs(VlanId(10), true);
  }

  void start() {
    config().globalEnabledIs(true);
    engine = system.newEngine();
  }
  Platform::Sim::Port& newPort(const std::string& name, const std::string& list = "10",
                               VlanIdOrNone native = VlanIdOrNone(1)) {
    return system.newPort(name, vlans(list), native);
  }

  Ringward::Config::Config& config() const { return *system.config; }
  Ringward::Status::Status& status() const { return *system.status; }
  const Ringward::VlanIntfSmManager& manager() const { return *engine->vlanIntfSmManager(); }
  Vex::Ptr<Ringward::Status::IntfStatus> intfStatus(const std::string& name) const {
    return system.status->intfStatus(intf(name));
  }
  bool disabled(const std::string& name) const {
    const auto found = intfStatus(name);
    return found && found->disabled();
  }
  bool inCause(const std::string& name) const {
    return system.ringwardCause->intfStatusHas(intf(name));
  }
  Vex::Ptr<Ringward::VlanIntfTxSm> transmitter(const std::string& name, unsigned vlan = 10) const {
    return engine->vlanIntfTxSm(VlanId(vlan), intf(name));
  }
  Vex::Ptr<Ringward::VlanSet> vlanSet(const std::string& name) const {
    return manager().desiredIntfsWithVlan(intf(name));
  }
  Vex::Ptr<Ringward::IntfRxSm> receiver(const std::string& name) const {
    return manager().intfRxSm(intf(name));
  }
  bool hasPam(const std::string& name) const {
    return static_cast<bool>(engine->ethDevPamCollection()->intfPam(intf(name)));
  }
  Ringward::Status::CounterIntf counts(const std::string& name) const {
    return system.packetCounter->counterIntf(intf(name));
  }
  // Asks for one probe now.
  void probe(const std::string& name, unsigned vlan = 10) const {
    system.transmitStatus->regularPriorityEnq({intf(name), VlanId(vlan)});
  }

  System system;
  Vex::Ptr<Ringward::GlobalSm> engine;
};

class World : public ::testing::Test {
 protected:
  World() { manager.logService().sinkIs(logs); }

  void runFor(double seconds) { manager.runFor(seconds); }
  // What is due at this instant, such as the topology's first pass.
  void settle() { manager.runFor(0); }
  double now() const { return manager.now(); }
  // Whole log texts, for the most part of the interface's return.
  std::vector<std::string> logTexts() const { return logs.texts(); }

  Vex::VirtualActivityManager manager{kStart};
  Vex::CurrentActivityManager current{manager};
  Vex::MemorySink logs;
  Fabric fabric{manager, 1};
};

// A notifiee that lives as long as its reference; Base is the entity's NotifieeConst.
template <class Entity>
class Observer : public Entity::NotifieeConst {
 public:
  explicit Observer(const Vex::Ptr<Entity>& entity) {
    this->notifierIs(Vex::Ptr<Vex::PtrInterface const>(entity));
    this->isRegisteredNotifieeIs(true);
  }
};

}  // namespace Integration
