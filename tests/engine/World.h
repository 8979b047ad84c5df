// SPDX-License-Identifier: Apache-2.0
//
// What the machines of the engine stand on, real but for time and wires: entities, a timer wheel
// over virtual time, the log in memory. Activity thread only.
#pragma once

#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/VlanIntfSmManager.h"
#include "model/config/Config.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"
#include "runtime/bridging/Config.h"
#include "runtime/errdisable/CauseStatus.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/interface/IntfStatus.h"
#include "runtime/interface/PamDirectories.h"
#include "runtime/topology/LibState.h"
#include "runtime/vex/VirtualActivityManager.h"
#include "tests/engine/FakePam.h"

inline constexpr double kNever = std::numeric_limits<double>::infinity();

inline Portus::IntfId intfOf(std::string_view name) { return Portus::IntfId::fromName(name); }
inline Bridging::VlanId vlanOf(int number) { return Bridging::VlanId(number); }
inline Bridging::VlanIdOrNone vlanOrNone(int number) { return Bridging::VlanIdOrNone(number); }
inline Ringward::Status::IntfAndVlan pairOf(std::string_view name, int vlan) {
  return {intfOf(name), vlanOf(vlan)};
}

inline const Portus::EthAddr kSource(0x02, 0x11, 0x22, 0x33, 0x44, 0x55);

struct World {
  World() {
    manager.logService().sinkIs(log);
    config->transmitConfigIs("transmitConfig");
    config->globalIntfConfigIs("globalIntfConfig");
    topoLibState->initDoneIs(true);
    status->srcAddrIs(kSource);
  }

  double now() const { return manager.now(); }

  // An administratively enabled switch port; no packet access yet.
  Portus::IntfId port(std::string_view name, int nativeVlan = 1) {
    const auto intfId = intfOf(name);
    brConfig->switchIntfConfigIs(intfId)->nativeVlanIs(vlanOrNone(nativeVlan));
    const auto intfConfig = Vex::makePtr<Interface::IntfConfig>(intfId);
    intfConfig->adminEnabledIs(true);
    allIntfStatusDir->intfStatusIs(intfId, Vex::makePtr<Interface::IntfStatus>(intfId, intfConfig));
    return intfId;
  }
  void adminEnabledIs(const Portus::IntfId& intfId, bool enabled) {
    allIntfStatusDir->intfStatus(intfId)->intfConfig()->adminEnabledIs(enabled);
  }
  Vex::Ptr<FakePam> openPam(const Portus::IntfId& intfId) {
    auto pam = Vex::makePtr<FakePam>(intfId);
    pams->intfPamIs(intfId, pam);
    return pam;
  }
  Vex::Ptr<FakePam> portWithPam(std::string_view name, int nativeVlan = 1) {
    return openPam(port(name, nativeVlan));
  }

  std::vector<std::string> logIds() const {
    std::vector<std::string> ids;
    for (const auto& entry : log.entries()) ids.emplace_back(entry.handle->id());
    return ids;
  }
  std::vector<std::string> logTexts() const { return log.texts(); }

  Vex::MemorySink log;
  Vex::VirtualActivityManager manager{1000.0};
  Vex::CurrentActivityManager current{manager};
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  Vex::Ptr<Ringward::Status::TransmitStatus> queues =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  Vex::Ptr<Ringward::Status::PacketCounter> counters =
      Ringward::Status::packetCounterFactory("packetCounter");
  Vex::Ptr<Errdisable::CauseStatus> cause = Vex::makePtr<Errdisable::CauseStatus>("cause");
  Vex::Ptr<Bridging::Config> brConfig = Vex::makePtr<Bridging::Config>("brConfig");
  Vex::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir =
      Vex::makePtr<Interface::AllIntfStatusDir>("all");
  Vex::Ptr<Interface::EthDevPamCollection> pams =
      Vex::makePtr<Interface::EthDevPamCollection>("edpc");
  Vex::Ptr<Interface::PamDesiredIntfDir> desired =
      Vex::makePtr<Interface::PamDesiredIntfDir>("pdid");
  Vex::Ptr<Topology::Library::LibState> topoLibState =
      Vex::makePtr<Topology::Library::LibState>("topoLibState");
  Vex::Ptr<Topology::Library::Vlan::LibVlanState> vlans =
      Vex::makePtr<Topology::Library::Vlan::LibVlanState>("libVlanState");
  Vex::Ptr<Helm::TimerWheel> wheel =
      Vex::makePtr<Helm::TimerWheel>(nullptr, nullptr, 10U, 60480000U, true, 1024U);
};

// Collects what is traced. Switch levels on with ringwardSmTrace.
class TraceLines final : public Vex::TraceSink {
 public:
  TraceLines() { Vex::traceSinkIs(this); }
  ~TraceLines() { Vex::traceSinkIs(nullptr); }
  void line(std::string_view text) override { lines.emplace_back(text); }
  // How many lines end in `text`.
  int ending(std::string_view text) const {
    int count = 0;
    for (const auto& l : lines) count += l.ends_with(text) ? 1 : 0;
    return count;
  }
  std::vector<std::string> lines;
};

// The machine that reads a packet's text and raises what a test wants, told by its type.
template <class Exception, class Call>
std::string textOf(Call call) {
  try {
    call();
  } catch (const Exception& e) {
    return e.what();
  }
  return "(nothing was raised)";
}
