// SPDX-License-Identifier: Apache-2.0
#include "agent/Agent.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>
#include <utility>

#include "agent/PortMatch.h"
#include "agent/StatusReport.h"
#include "runtime/vex/LogService.h"

#ifndef RINGWARD_VERSION
#define RINGWARD_VERSION "0.1"
#endif

namespace Agent {

namespace PL = Platform::Linux;

namespace {

constexpr std::uint32_t kTickMsecs = 10;
constexpr std::uint32_t kTicks = 1024;

const Vex::LogHandle RINGWARD_HELD_FILE(
    "RINGWARD_HELD_FILE", Vex::LogSeverity::warning,
    "Cannot remember which ports are held down: %s",
    "Should the agent be killed, the ports that it holds then stay down until they are raised by "
    "hand.",
    "Make the directory of state-file writable for the agent, or choose another.", 0.0, 1.0, 0);

Bridging::VlanBitmap enabledVlans(const Ringward::Config::Config& config) {
  Bridging::VlanBitmap vlans;
  for (auto vlan = config.vlanEnabledIteratorConst(); vlan; ++vlan) {
    if (config.vlanEnabled(vlan.key())) vlans.set(vlan.key());
  }
  return vlans;
}

}  // namespace

// The actions of errdisable on the kernel.
class RingwardAgent::Actions final : public PL::LinkActions {
 public:
  explicit Actions(PL::LinkControl& control) noexcept : control_(control) {}
  std::error_code adminUpIs(int ifindex, bool up) override {
    return control_.adminUpIs(ifindex, up);
  }
  std::error_code bridgePortStateIs(int ifindex, std::uint8_t state) override {
    return control_.bridgePortStateIs(ifindex, state);
  }
  std::error_code protoDownIs(int ifindex, bool down) override {
    return control_.protoDownIs(ifindex, down, PL::kProtoDownReasonBit);
  }
  std::optional<PL::LinkInfo> read(int ifindex) override { return control_.read(ifindex); }

 private:
  PL::LinkControl& control_;
};

// Keeps the source guard of the packet access at the address that the probes carry.
class RingwardAgent::SourceReactor final : public Ringward::Status::Status::NotifieeConst {
 public:
  SourceReactor(const Vex::Ptr<Ringward::Status::Status>& status, Vex::Ptr<PL::PacketAccess> access)
      : access_(std::move(access)) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(status));
    isRegisteredNotifieeIs(true);
    onSrcAddr();
  }
  void onSrcAddr() override {
    access_->sourceIs(static_cast<const Ringward::Status::Status*>(notifier())->srcAddr());
  }

 private:
  const Vex::Ptr<PL::PacketAccess> access_;
};

// Tells that the engine stands, once the topology has been taken in.
class RingwardAgent::Ready final : public Vex::DeferredTask {
 public:
  explicit Ready(RingwardAgent& agent) : DeferredTask(agent.manager_), agent_(agent) {}
  ~Ready() override = default;
  void run() override {
    agent_.releaseStrays();
    agent_.reportReady();
  }

 private:
  RingwardAgent& agent_;
};

// Follows what errdisable does: tells the operator, and remembers it on disk a turn later, so that
// writing a file never stands between a loop and its cut.
class RingwardAgent::Holds final : public PL::Errdisable::Listener, private Vex::DeferredTask {
 public:
  using Hold = PL::Errdisable::Hold;

  explicit Holds(RingwardAgent& agent) : DeferredTask(agent.manager_), agent_(agent) {}
  ~Holds() override = default;

  void held(const Portus::IntfId& intfId, const Hold& hold) override {
    agent_.report_.held(intfId, hold);
    schedule();
  }
  void heldAtLast(const Portus::IntfId& intfId, const Hold& hold) override {
    agent_.report_.heldAtLast(intfId, hold);
    schedule();
  }
  void released(const Portus::IntfId& intfId, const Hold& hold) override {
    agent_.report_.released(intfId, hold);
    schedule();
  }
  void releasedAtLast(const Portus::IntfId& intfId, const Hold& hold) override {
    agent_.report_.releasedAtLast(intfId, hold);
    schedule();
  }

  using DeferredTask::schedule;

 private:
  void run() override { agent_.writeHolds(); }

  RingwardAgent& agent_;
};

RingwardAgent::RingwardAgent(Vex::ActivityManager& manager, const Configuration& configuration,
                             LoopReport::Output output)
    : manager_(manager),
      configuration_(configuration),
      output_(std::move(output)),
      config_(Ringward::Config::configFactory("config")),
      status_(Ringward::Status::statusFactory("status")),
      mlagStatus_(Vex::makePtr<Mlag::Status>("mlagStatus")),
      transmitStatus_(Ringward::Status::transmitStatusFactory("transmitStatus")),
      brTopoConfig_(Vex::makePtr<Bridging::Topology::Config>("brTopoConfig")),
      brTopoStatus_(Vex::makePtr<Bridging::Topology::Status>("brTopoStatus")),
      brConfig_(Vex::makePtr<Bridging::Config>("brConfig")),
      ethIntfStatusDir_(Vex::makePtr<Interface::EthIntfStatusDir>("ethIntfStatusDir")),
      allIntfStatusDir_(Vex::makePtr<Interface::AllIntfStatusDir>("allIntfStatusDir")),
      allIntfStatusLocalDir_(
          Vex::makePtr<Interface::AllIntfStatusLocalDir>("allIntfStatusLocalDir")),
      ringwardCause_(Vex::makePtr<Errdisable::CauseStatus>("ringward")),
      packetCounter_(Ringward::Status::packetCounterFactory("packetCounter")),
      intfTotalsDir_(Vex::makePtr<Ringward::Status::IntfTotalsDir>("packetAccess")),
      timerWheel_(Vex::makePtr<Helm::TimerWheel>(Vex::makePtr<Vex::ActivityConfig>(manager),
                                                 nullptr, kTickMsecs, kTicks, true, kTicks)),
      access_(Vex::makePtr<PL::PacketAccess>(manager, !configuration.acceptForeignSource)),
      counterTables_(std::make_unique<CounterTables>(
          packetCounter_, intfTotalsDir_, [this] { packetTotals_->handleTableMounted(); })),
      packetTotals_(std::make_unique<PL::PacketTotals>(intfTotalsDir_,
                                                       [this] { return access_->statistics(); })),
      report_(status_, brConfig_, *access_, output_),
      lostProbes_(brConfig_, [this](const Portus::IntfId& intfId, Bridging::VlanId vlanId) {
        resend(intfId, vlanId);
      }) {
  access_->lossListenerIs(&lostProbes_);
  access_->floodListenerIs(&scheduling_);
  access_->totalsIs(packetTotals_.get());
}

RingwardAgent::~RingwardAgent() {
  agentControl_.reset();
  follower_.reset();
  stop();
  ready_.reset();
  selfCheck_.reset();
  globalSm_.reset();
  links_.reset();
  if (directory_) directory_->errdisableIs(nullptr);
  access_->lossListenerIs(nullptr);
  access_->floodListenerIs(nullptr);
  access_->totalsIs(nullptr);
}

std::optional<RingwardAgent::StartError> RingwardAgent::start() {
  if (const std::error_code error = PL::PacketAccess::permission()) {
    return StartError{"cannot open a packet socket", error};
  }
  if (const std::error_code error = control_.open()) {
    return StartError{"cannot open rtnetlink", error};
  }
  applyScheduling();
  applyCounters();
  applyConfiguration(nullptr);
  actions_ = std::make_unique<Actions>(control_);
  holds_ = std::make_unique<Holds>(*this);
  directory_ = std::make_unique<PL::LinkDirectory>(
      PL::DirectoryEntities{allIntfStatusDir_, allIntfStatusLocalDir_, ethIntfStatusDir_, brConfig_,
                            brTopoConfig_, brTopoStatus_},
      access_, portSelection());
  directory_->sourceAddressIs(configuration_.sourceAddress);
  errdisable_ = Vex::makePtr<PL::Errdisable>(ringwardCause_, timerWheel_, *actions_, *directory_,
                                             *holds_, configuration_.errdisableAction);
  directory_->errdisableIs(errdisable_.get());
  // Before the links: a port that is down by our own hand is not shut by the operator.
  adoptHolds();
  links_ = std::make_unique<PL::LinkService>(manager_, timerWheel_, *directory_);
  if (const std::error_code error = links_->start()) {
    links_.reset();
    return StartError{"cannot read the links from rtnetlink", error};
  }
  resumeHolds();
  source_ = Vex::makePtr<SourceReactor>(status_, access_);
  globalSm_ = Ringward::globalSmFactory(
      config_, status_, mlagStatus_, transmitStatus_, brTopoConfig_, brTopoStatus_, brConfig_,
      ethIntfStatusDir_, allIntfStatusDir_, allIntfStatusLocalDir_, ringwardCause_, packetCounter_);
  selfCheck_ = std::make_unique<SelfCheck>(manager_, timerWheel_, *globalSm_, *config_,
                                           *allIntfStatusLocalDir_,
                                           [this] { return errdisable_->verify(); });
  ready_ = std::make_unique<Ready>(*this);
  ready_->schedule();
  newControl();
  return std::nullopt;
}

void RingwardAgent::newControl() {
  follower_ = Vex::makePtr<ConfigFollower>(manager_, config_, [this] { handleConfigChanged(); });
  agentControl_ = std::make_unique<AgentControl>(
      manager_,
      TreeService::Roots{config_, status_, transmitStatus_, packetCounter_,
                         [this] { return globalSm_; }},
      "ringwardd " RINGWARD_VERSION, output_);
  agentControl_->configurationIs(configuration_.control);
}

PL::PortSelection RingwardAgent::portSelection() const {
  PL::PortSelection selection;
  selection.vlans = enabledVlans(*config_);
  if (!configuration_.ports) return selection;
  selection.bridge = configuration_.ports->bridge;
  selection.nativeVlan = Bridging::VlanIdOrNone(configuration_.ports->nativeVlan);
  if (selection.bridge.empty()) {
    selection.match = [match = PortMatch(configuration_.ports->match)](std::string_view name) {
      return match.matches(name);
    };
  }
  return selection;
}

// The ports of a bridge that does not filter carry the VLANs that are enabled, whoever enabled
// them.
void RingwardAgent::handleConfigChanged() {
  directory_->selectionIs(portSelection());
  selfCheck_->wake();
}

void RingwardAgent::stop() {
  config_->globalEnabledIs(false);
  if (errdisable_) writeHolds();
}

void RingwardAgent::applyScheduling() {
  const std::error_code error = scheduling_.schedulingIs(configuration_.scheduling);
  if (!error) return;
  output_("warning: no real-time scheduling (" + error.message() +
          "): a storm may delay the cut by several milliseconds");
}

void RingwardAgent::applyCounters() {
  packetTotals_->mostInterfacesIs(configuration_.counters.interfaces);
  counterTables_->configurationIs(configuration_.counters);
}

void RingwardAgent::applyConfiguration(const Configuration* before) {
  const Configuration& now = configuration_;
  const auto differs = [&](auto key) { return before == nullptr || before->*key != now.*key; };
  const bool enabledDiffers = differs(&Configuration::enabled);
  // What goes, goes first; what comes, comes last and finds everything in place.
  if (enabledDiffers && !now.enabled) config_->globalEnabledIs(false);
  const auto child = [](const auto& present, const auto& make) {
    return present ? present : make();
  };
  const auto intf = child(config_->globalIntfConfig(),
                          [this] { return config_->globalIntfConfigIs("globalIntfConfig"); });
  const auto transmit = child(config_->transmitConfig(),
                              [this] { return config_->transmitConfigIs("transmitConfig"); });
  if (differs(&Configuration::transmitInterval)) {
    intf->transmitIntervalIs(static_cast<std::uint8_t>(now.transmitInterval));
  }
  if (differs(&Configuration::disabledTime)) intf->disabledTimeIs(now.disabledTime);
  if (differs(&Configuration::rateLimit)) transmit->rateLimitIs(now.rateLimit);
  const Bridging::VlanBitmap had = before != nullptr ? before->vlans : Bridging::VlanBitmap();
  (had - now.vlans).forEach([this](std::uint16_t vlan) {
    config_->vlanEnabledDel(Bridging::VlanId(vlan));
  });
  (now.vlans - had).forEach([this](std::uint16_t vlan) {
    config_->vlanEnabledIs(Bridging::VlanId(vlan), true);
  });
  const auto idsOf = [](const Configuration* of) {
    std::set<Portus::IntfId> ids;
    if (of == nullptr) return ids;
    for (const std::string& name : of->exclude) ids.insert(Portus::IntfId::fromName(name));
    return ids;
  };
  const std::set<Portus::IntfId> excluded = idsOf(before);
  const std::set<Portus::IntfId> exclude = idsOf(&now);
  for (const Portus::IntfId& id : excluded) {
    if (!exclude.contains(id)) config_->intfExcludeDel(id);
  }
  for (const Portus::IntfId& id : exclude) {
    if (!excluded.contains(id)) config_->intfExcludeIs(id, true);
  }
  if (enabledDiffers) config_->globalEnabledIs(now.enabled);
}

void RingwardAgent::reload(const Configuration& configuration) {
  agentControl_->configurationIs(configuration.control);
  if (configuration == configuration_) {
    output_("reloaded: nothing has changed");
    return;
  }
  const Configuration before = std::exchange(configuration_, configuration);
  errdisable_->actionIs(configuration_.errdisableAction);
  access_->guardSourceIs(!configuration_.acceptForeignSource);
  if (configuration_.stateFile != before.stateFile) {
    // What the old file says would be taken up by a run that reads it again.
    static_cast<void>(heldFile_->write({}));
    heldFile_ = std::make_unique<HeldFile>(configuration_.stateFile);
    holds_->schedule();
  }
  applyScheduling();
  applyCounters();
  applyConfiguration(&before);
  directory_->sourceAddressIs(configuration_.sourceAddress);
  directory_->selectionIs(portSelection());
  selfCheck_->wake();
  output_("reloaded");
  ready_->schedule();
}

// Ahead of all regular probes, as the probes of a port that has just come back, and within the rate
// limit.
void RingwardAgent::resend(const Portus::IntfId& intfId, Bridging::VlanId vlanId) {
  if (!globalSm_ || !globalSm_->vlanIntfTxSm(vlanId, intfId)) return;
  const auto status = status_->intfStatus(intfId);
  if (status && !status->disabled()) transmitStatus_->highPriorityEnq({intfId, vlanId});
}

void RingwardAgent::reportStatus() {
  writeStatus({*globalSm_, *directory_, *errdisable_, report_, *selfCheck_, lostProbes_,
               access_->statistics(), links_->statistics()},
              output_);
}

void RingwardAgent::adoptHolds() {
  heldFile_ = std::make_unique<HeldFile>(configuration_.stateFile);
  std::string error;
  for (HeldPort& port : heldFile_->read(error)) {
    try {
      const auto intfId = Portus::IntfId::fromName(port.interface);
      errdisable_->holdIs(intfId, port.ifindex, port.action);
      report_.adopted(intfId, port.since);
      adopted_.push_back(std::move(port));
    } catch (const Vex::RangeException& e) {
      error = e.text();
    }
  }
  if (!error.empty()) {
    output_("warning: " + heldFile_->path() +
            ", the list of ports that an earlier run holds down, cannot be used: " + error);
  }
}

// Lets the engine find the ports as the earlier run has left them: held, until their time is over.
void RingwardAgent::resumeHolds() {
  for (const HeldPort& port : adopted_) {
    const auto intfId = Portus::IntfId::fromName(port.interface);
    const PL::LinkInfo* link = directory_->link(intfId);
    if (link == nullptr || link->ifindex != port.ifindex) {
      errdisable_->handleLinkGone(intfId);
      continue;
    }
    const auto status = status_->intfStatusIs(intfId);
    status->disabledAtIs(port.since);
    status->disabledUntilIs(port.until);
    status->disabledIs(true);
  }
}

// Puts back what the engine has no use for: the port is excluded by now, or detection is off.
void RingwardAgent::releaseStrays() {
  for (const HeldPort& port : adopted_) {
    const auto intfId = Portus::IntfId::fromName(port.interface);
    if (ringwardCause_->intfStatusHas(intfId)) {
      output_("held on: " + port.interface + " by " +
              std::string(PL::errdisableActionName(port.action)) + ", " + report_.until(intfId));
      continue;
    }
    errdisable_->strayDel(intfId);
    status_->intfStatusDel(intfId);
  }
  if (!adopted_.empty()) holds_->schedule();
  adopted_.clear();
}

void RingwardAgent::writeHolds() {
  using State = PL::Errdisable::Hold::State;
  std::vector<HeldPort> ports;
  for (const auto& [intfId, hold] : errdisable_->holds()) {
    if (!hold.ours || hold.state == State::raised) continue;
    const auto status = status_->intfStatus(intfId);
    ports.push_back({intfId.name(), hold.ifindex, hold.action, report_.since(intfId),
                     status ? status->disabledUntil() : 0.0});
  }
  if (const std::error_code error = heldFile_->write(ports)) {
    Vex::log(RINGWARD_HELD_FILE, heldFile_->path() + ": " + error.message());
  }
  if (selfCheck_) selfCheck_->wake();
}

void RingwardAgent::reportReady() {
  const std::size_t pairs = countPairs(*globalSm_);
  std::ostringstream line;
  line << "ready: " << directory_->ports() << " ports, " << enabledVlans(*config_).count()
       << " VLANs, " << pairs << " pairs to probe";
  if (!config_->globalEnabled()) line << "; detection is not enabled";
  const std::uint32_t interval = config_->globalIntfConfig()->transmitInterval();
  const std::uint32_t rateLimit = config_->transmitConfig()->rateLimit();
  double cycle = interval;
  if (rateLimit != 0) cycle = std::max(cycle, static_cast<double>(pairs) / rateLimit);
  char seconds[32] = "";
  std::snprintf(seconds, sizeof seconds, "%.1f", cycle);
  line << "; one full probe cycle takes " << seconds << " s";
  output_(line.str());
  if (cycle > interval) {
    std::ostringstream warning;
    warning << "warning: " << pairs << " pairs at rate-limit " << rateLimit << " take " << seconds
            << " s, longer than transmit-interval " << interval << " s: a loop is found within "
            << seconds << " s, not within the interval";
    output_(warning.str());
  }
}

}  // namespace Agent
