// SPDX-License-Identifier: Apache-2.0
#include "engine/GlobalSm.h"

#include <linux/filter.h>

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "engine/EngineTrace.h"
#include "engine/RingwardIntfFilter.h"
#include "runtime/vex/ActivityManager.h"

namespace Ringward {

using Topology::Library::LibSm;
using Topology::Library::LibState;
using Topology::Library::RingwardIntfFilter;
using Topology::Library::Vlan::LibVlanState;
using Topology::Library::Vlan::VlanLibSm;

namespace {

constexpr std::uint8_t kSockPrio = 3;
constexpr std::uint32_t kTickMsecs = 10;
constexpr std::uint32_t kMaxTicks = 60480000;  // seven days
constexpr std::uint32_t kBucketSize = 1024;
constexpr Portus::EthAddr kBroadcast(Portus::EthAddr::Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});

// Accepts frames of type 0x88B7, bare or behind one tag of type 0x8100 or 0x9100.
constexpr sock_filter kSocketFilter[] = {
    {0x28, 0, 0, 12},      // 0: the half-word at byte 12
    {0x15, 4, 0, 0x88B7},  // 1: equal: to 6
    {0x15, 1, 0, 0x8100},  // 2: equal: to 4
    {0x15, 0, 3, 0x9100},  // 3: equal: to 4, else to 7
    {0x28, 0, 0, 16},      // 4: the half-word at byte 16
    {0x15, 0, 1, 0x88B7},  // 5: equal: to 6, else to 7
    {0x06, 0, 0, 0xFFFF},  // 6: accept
    {0x06, 0, 0, 0},       // 7: reject
};

// Makes a filter that is never freed: the topology machine holds its address as a number. The list
// keeps those of earlier enables reachable.
RingwardIntfFilter* newIntfFilter() {
  static auto& made = *new std::vector<RingwardIntfFilter*>;  // outlives everything
  made.push_back(new RingwardIntfFilter);
  return made.back();
}

// A machine's numbers for MlagState, as far as the engine tells them apart.
constexpr auto kSharedAddress = Mlag::MlagState::primary;              // 3
constexpr auto kSharedAddressAggressive = Mlag::MlagState::secondary;  // 4
static_assert(static_cast<int>(kSharedAddress) == 3);
static_assert(static_cast<int>(kSharedAddressAggressive) == 4);

template <class T>
T& required(const Vex::Ptr<T>& pointer) {
  if (!pointer) Vex::throwRangeException("null ValidPtr");
  return *pointer;
}

}  // namespace

GlobalSm::GlobalSm(const Arguments& arguments)
    : arguments_(arguments),
      config_(Vex::newReactor<VexConfig>(this, arguments.config)),
      status_(Vex::newReactor<VexStatus>(this, Vex::Ptr<Status::Status const>(arguments.status))),
      mlagStatus_(Vex::newReactor<VexMlagStatus>(this, arguments.mlagStatus)),
      transmitStatus_(Vex::newReactor<VexTransmitStatus>(
          this, Vex::Ptr<Status::TransmitStatus const>(arguments.transmitStatus))),
      brConfig_(Vex::newReactor<VexBrConfig>(this, arguments.brConfig)) {}

GlobalSm::~GlobalSm() {
  vexTeardown();
  if (transmitSm_) transmitSm_->globalSmDel();
}

// Rebinding: the present reactor moves over, or one is made; null drops it. Ends by passing the
// machine's zombie flag on.
namespace {
template <class R, class T>
void rebind(GlobalSm* machine, Vex::Ptr<R>& reactor, const Vex::Ptr<T const>& notifier) {
  if (!notifier) {
    if (reactor) {
      reactor->vexDoZombieReactors(true);
      reactor->machineDel();
    }
    reactor = nullptr;
    return;
  }
  if (reactor) {
    reactor->notifierIs(notifier);
  } else {
    reactor = Vex::newReactor<R>(machine, notifier);
    reactor->hasNotificationActiveIs(machine->hasNotificationActive());
  }
  reactor->vexDoZombieReactors(machine->isZombie());
}
}  // namespace

void GlobalSm::configIs(const Vex::Ptr<Config::Config const>& config) {
  arguments_.config = config;
  rebind(this, config_, config);
}

void GlobalSm::statusIs(const Vex::Ptr<Status::Status>& status) {
  arguments_.status = status;
  rebind(this, status_, Vex::Ptr<Status::Status const>(status));
}

void GlobalSm::mlagStatusIs(const Vex::Ptr<Mlag::Status const>& mlagStatus) {
  arguments_.mlagStatus = mlagStatus;
  rebind(this, mlagStatus_, mlagStatus);
}

void GlobalSm::transmitStatusIs(const Vex::Ptr<Status::TransmitStatus>& transmitStatus) {
  arguments_.transmitStatus = transmitStatus;
  rebind(this, transmitStatus_, Vex::Ptr<Status::TransmitStatus const>(transmitStatus));
}

void GlobalSm::brConfigIs(const Vex::Ptr<Bridging::Config const>& brConfig) {
  arguments_.brConfig = brConfig;
  rebind(this, brConfig_, brConfig);
}

Vex::Ptr<VlanIntfTxSm> GlobalSm::vlanIntfTxSm(Bridging::VlanId vlanId,
                                              const Portus::IntfId& intfId) const {
  const auto vlan = vlanIntfSmManager_ ? vlanIntfSmManager_->vlanSm(vlanId) : nullptr;
  return vlan ? vlan->vlanIntfTxSm(intfId) : nullptr;
}

void GlobalSm::handleGlobalEnabled() {
  const bool enabled = required(arguments_.config).globalEnabled();
  Vex::trace(ringwardSmTrace, 8,
             [enabled](std::ostream& os) { os << "handleGlobalEnabled enabled: " << enabled; });
  if (enabled) {
    enable();
  } else {
    disable();
  }
}

void GlobalSm::enable() {
  required(arguments_.status).runningIs(true);
  Topology::Library::topoLibIntfFilter = newIntfFilter();
  topoLibStateIs("topoLibState");
  topoLibSmIs();
  topoLibSm_->ethIntfStatusDirIs(arguments_.ethIntfStatusDir);
  topoLibVlanStateIs("libVlanState");
  topoLibVlanSmIs();
  deviceIntfStatusDirIs("disd");
  pamDesiredIntfDirIs("pdid");
  ethDevPamCollectionIs("edpc");
  intfStatusManagerIs();
  ethDevPamManagerIs();
  ethDevPamManager_->sockPrioIs(kSockPrio);
  ethDevPamManager_->packetFilterIs(Portus::PacketFilter(std::span(kSocketFilter)));
  ethDevPamManager_->destinationIs(kBroadcast);
  ethDevPamManager_->perIntfSocketIs(false);
  ethDevPamManager_->activeIs(true);
  timerWheelIs();
  vlanIntfSmManagerIs();
  transmitSmIs();
}

void GlobalSm::disable() {
  // Held: what follows from its end may lead back here.
  if (const auto manager = vlanIntfSmManager_) {
    manager->doPrepareToDie();
    vlanIntfSmManager_ = nullptr;
  }
  transmitSm_ = nullptr;
  topoLibVlanSm_ = nullptr;
  topoLibVlanState_ = nullptr;
  topoLibSm_ = nullptr;
  topoLibState_ = nullptr;
  required(arguments_.transmitStatus).highPriorityDelAll();
  arguments_.transmitStatus->regularPriorityDelAll();
  // Behind every machine that holds a timer.
  timerWheel_ = nullptr;
  required(arguments_.status).runningIs(false);
}

void GlobalSm::handleMacAddr() {
  const Mlag::Status& mlagStatus = required(arguments_.mlagStatus);
  Status::Status& status = required(arguments_.status);
  const Mlag::MlagState state = mlagStatus.mlagState();
  if (state == kSharedAddress || state == kSharedAddressAggressive) {
    status.srcAddrIs(mlagStatus.systemId());
  } else {
    status.srcAddrIs(required(arguments_.brConfig).bridgeMacAddr());
  }
  status.aggressiveDisableIs(state == kSharedAddressAggressive);
  Vex::trace(ringwardSmTrace, 9,
             [&](std::ostream& os) { os << "Changing source address to: " << status.srcAddr(); });
}

void GlobalSm::handleMlagPeer() {
  Status::Status& status = required(arguments_.status);
  if (oldPeer_) status.sysIntfExcludeDel(oldPeer_);
  const auto peer = required(arguments_.mlagStatus).peerLinkIntf();
  if (!peer) return;
  status.sysIntfExcludeIs(peer->intfId(), true);
  oldPeer_ = peer->intfId();
}

void GlobalSm::handleClearCounters() {
  Status::PacketCounter& counters = required(arguments_.packetCounter);
  counters.counterVlanDelAll();
  counters.counterIntfDelAll();
}

void GlobalSm::topoLibStateIs(const Vex::Name& name) {
  if (topoLibState_ && topoLibState_->name() == name) return;
  topoLibState_ = Vex::makePtr<LibState>(name);
}

void GlobalSm::topoLibSmIs() {
  const Vex::Name name("topoLibSm");
  constexpr std::uint32_t kMode = 1;
  const auto filter = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(
      static_cast<Topology::Library::FilterIntf*>(Topology::Library::topoLibIntfFilter)));
  if (topoLibSm_ && topoLibSm_->name() == name &&
      topoLibSm_->config() == arguments_.brTopoConfig.get() &&
      topoLibSm_->status() == arguments_.brTopoStatus.get() &&
      topoLibSm_->brConfig() == arguments_.brConfig && topoLibSm_->libState() == topoLibState_ &&
      topoLibSm_->libSmMode() == kMode && topoLibSm_->validIntfPtr() == filter) {
    return;
  }
  topoLibSm_ = nullptr;
  topoLibSm_ =
      Vex::makePtr<LibSm>(name, arguments_.brTopoConfig, arguments_.brTopoStatus,
                          /*statusInst=*/nullptr, arguments_.brConfig, topoLibState_, kMode,
                          /*ignoreInternalVlan=*/false, /*deferProcessing=*/true, filter);
}

void GlobalSm::topoLibVlanStateIs(const Vex::Name& name) {
  if (topoLibVlanState_ && topoLibVlanState_->name() == name) return;
  topoLibVlanState_ = Vex::makePtr<LibVlanState>(name);
}

void GlobalSm::topoLibVlanSmIs() {
  if (topoLibVlanSm_ && topoLibVlanSm_->topoLib() == topoLibState_.get() &&
      topoLibVlanSm_->libVlanState() == topoLibVlanState_) {
    return;
  }
  topoLibVlanSm_ = nullptr;
  topoLibVlanSm_ = Vex::makePtr<VlanLibSm>(topoLibState_, topoLibVlanState_);
}

void GlobalSm::deviceIntfStatusDirIs(const Vex::Name& name) {
  if (deviceIntfStatusDir_ && deviceIntfStatusDir_->name() == name) return;
  deviceIntfStatusDir_ = Vex::makePtr<Interface::DeviceIntfStatusDir>(name);
}

void GlobalSm::pamDesiredIntfDirIs(const Vex::Name& name) {
  if (pamDesiredIntfDir_ && pamDesiredIntfDir_->name() == name) return;
  pamDesiredIntfDir_ = Vex::makePtr<Interface::PamDesiredIntfDir>(name);
}

void GlobalSm::ethDevPamCollectionIs(const Vex::Name& name) {
  if (ethDevPamCollection_ && ethDevPamCollection_->name() == name) return;
  ethDevPamCollection_ = Vex::makePtr<Interface::EthDevPamCollection>(name);
}

void GlobalSm::intfStatusManagerIs() {
  if (intfStatusManager_ &&
      intfStatusManager_->allIntfStatusDir() == arguments_.allIntfStatusDir.get() &&
      intfStatusManager_->allIntfStatusLocalDir() == arguments_.allIntfStatusLocalDir.get() &&
      intfStatusManager_->kernelIntfStatusDir() == deviceIntfStatusDir_) {
    return;
  }
  intfStatusManager_ = nullptr;
  intfStatusManager_ = Vex::makePtr<Interface::IntfStatusManager>(
      nullptr, arguments_.allIntfStatusDir, arguments_.allIntfStatusLocalDir, deviceIntfStatusDir_,
      nullptr, nullptr);
}

void GlobalSm::ethDevPamManagerIs() {
  if (ethDevPamManager_ && ethDevPamManager_->desiredIntfDir() == pamDesiredIntfDir_.get() &&
      ethDevPamManager_->pamCollection() == ethDevPamCollection_ &&
      ethDevPamManager_->deviceIntfStatusDir() == deviceIntfStatusDir_.get()) {
    return;
  }
  ethDevPamManager_ = nullptr;
  ethDevPamManager_ = Vex::makePtr<Interface::EthDevPamManager>(
      Vex::Ptr<Interface::PamDesiredIntfDir const>(pamDesiredIntfDir_), ethDevPamCollection_,
      Vex::Ptr<Interface::DeviceIntfStatusDir const>(deviceIntfStatusDir_));
}

void GlobalSm::timerWheelIs() {
  const auto clock = Vex::ActivityManagerConfig(Vex::activityManager()).clock();
  if (timerWheel_ && timerWheel_->clock() == clock && timerWheel_->tickMsecs() == kTickMsecs &&
      timerWheel_->initialMaxTicks() == kMaxTicks && timerWheel_->preserveOrder() &&
      timerWheel_->defaultBucketSize() == kBucketSize) {
    return;
  }
  timerWheel_ = nullptr;
  timerWheel_ = Vex::makePtr<Helm::TimerWheel>(nullptr, clock, kTickMsecs, kMaxTicks,
                                               /*preserveOrder=*/true, kBucketSize);
}

void GlobalSm::vlanIntfSmManagerIs() {
  const VlanIntfSmManager::Arguments wanted{
      arguments_.config,   topoLibVlanState_,          ethDevPamCollection_,
      arguments_.status,   arguments_.transmitStatus,  arguments_.ringwardCause,
      pamDesiredIntfDir_,  arguments_.packetCounter,   timerWheel_,
      arguments_.brConfig, arguments_.allIntfStatusDir};
  if (vlanIntfSmManager_ && vlanIntfSmManager_->arguments() == wanted) return;
  vlanIntfSmManager_ = nullptr;
  vlanIntfSmManager_ = vlanIntfSmManagerFactory(
      wanted.config, wanted.topoLibVlanState, wanted.ethDevPamCollection, wanted.status,
      wanted.transmitStatus, wanted.ringwardCause, wanted.pamDesiredIntfDir, wanted.packetCounter,
      wanted.timerWheel, wanted.brConfig, wanted.allIntfStatusDir);
}

void GlobalSm::transmitSmIs() {
  const auto transmitConfig = arguments_.config->transmitConfig();
  if (transmitSm_ && transmitSm_->timerWheel() == timerWheel_.get() &&
      transmitSm_->transmitConfig() == transmitConfig.get() &&
      transmitSm_->transmitStatus() == arguments_.transmitStatus &&
      transmitSm_->ethDevPamColl() == ethDevPamCollection_ &&
      transmitSm_->packetCounter() == arguments_.packetCounter &&
      transmitSm_->status() == arguments_.status && transmitSm_->topoLibState() == topoLibState_ &&
      transmitSm_->brConfig() == arguments_.brConfig) {
    return;
  }
  transmitSm_ = nullptr;
  transmitSm_ =
      transmitSmFactory(Vex::Ptr<Helm::TimerWheel const>(timerWheel_), transmitConfig,
                        arguments_.transmitStatus, ethDevPamCollection_, arguments_.packetCounter,
                        arguments_.status, topoLibState_, arguments_.brConfig, this);
}

Vex::Ptr<GlobalSm> globalSmFactory(
    const Vex::Ptr<Config::Config const>& config, const Vex::Ptr<Status::Status>& status,
    const Vex::Ptr<Mlag::Status const>& mlagStatus,
    const Vex::Ptr<Status::TransmitStatus>& transmitStatus,
    const Vex::Ptr<Bridging::Topology::Config const>& brTopoConfig,
    const Vex::Ptr<Bridging::Topology::Status>& brTopoStatus,
    const Vex::Ptr<Bridging::Config const>& brConfig,
    const Vex::Ptr<Interface::EthIntfStatusDir const>& ethIntfStatusDir,
    const Vex::Ptr<Interface::AllIntfStatusDir const>& allIntfStatusDir,
    const Vex::Ptr<Interface::AllIntfStatusLocalDir const>& allIntfStatusLocalDir,
    const Vex::Ptr<Errdisable::CauseStatus>& ringwardCause,
    const Vex::Ptr<Status::PacketCounter>& packetCounter) {
  auto sm = Vex::makePtr<GlobalSm>(GlobalSm::Arguments{
      config, status, mlagStatus, transmitStatus, brTopoConfig, brTopoStatus, brConfig,
      ethIntfStatusDir, allIntfStatusDir, allIntfStatusLocalDir, ringwardCause, packetCounter});
  sm->handleGlobalEnabled();
  sm->handleClearCounters();
  sm->handleMlagPeer();
  sm->handleMacAddr();
  sm->hasNotificationActiveIs(true);
  return Vex::validPtr(std::move(sm));
}

}  // namespace Ringward
