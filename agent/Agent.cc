// SPDX-License-Identifier: Apache-2.0
#include "agent/Agent.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <utility>

#include "agent/PortMatch.h"

namespace Agent {

namespace PL = Platform::Linux;

namespace {

PL::ErrdisableAction platformAction(ErrdisableAction action) {
  switch (action) {
    case ErrdisableAction::kAuto:
      return PL::ErrdisableAction::automatic;
    case ErrdisableAction::kBridgePort:
      return PL::ErrdisableAction::bridgePort;
    case ErrdisableAction::kAdminDown:
      return PL::ErrdisableAction::adminDown;
    case ErrdisableAction::kMonitor:
      return PL::ErrdisableAction::monitor;
  }
  return PL::ErrdisableAction::monitor;
}

PL::PortSelection portSelection(const Configuration& configuration) {
  PL::PortSelection selection;
  selection.vlans = configuration.vlans;
  if (!configuration.ports) return selection;
  selection.bridge = configuration.ports->bridge;
  selection.nativeVlan = Bridging::VlanIdOrNone(configuration.ports->nativeVlan);
  if (selection.bridge.empty()) {
    selection.match = [match = PortMatch(configuration.ports->match)](std::string_view name) {
      return match.matches(name);
    };
  }
  return selection;
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
  std::optional<PL::LinkInfo> read(int ifindex) override { return control_.read(ifindex); }

 private:
  PL::LinkControl& control_;
};

// The link monitor on the activity loop.
class RingwardAgent::Links final : private Vex::ReadableHandler, private Vex::DeferredTask {
 public:
  static constexpr std::size_t kMessagesPerTurn = 256;

  Links(Vex::ActivityManager& manager, PL::LinkMonitor::Listener& listener)
      : DeferredTask(manager), manager_(manager), monitor_(listener) {}
  ~Links() override {
    if (watched_) manager_.readableDel(monitor_.fd());
  }

  std::error_code start() {
    if (const std::error_code error = monitor_.start()) return error;
    manager_.readableIs(monitor_.fd(), *this);
    watched_ = true;
    return {};
  }

 private:
  void onReadable() override { run(); }
  void run() override {
    if (monitor_.process(kMessagesPerTurn)) schedule();
  }

  Vex::ActivityManager& manager_;
  PL::LinkMonitor monitor_;
  bool watched_ = false;
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
  void run() override { agent_.reportReady(); }

 private:
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
      access_(Vex::makePtr<PL::PacketAccess>(manager, !configuration.acceptForeignSource)),
      report_(status_, brConfig_, *access_, output_) {}

RingwardAgent::~RingwardAgent() {
  stop();
  ready_.reset();
  globalSm_.reset();
  links_.reset();
  if (directory_) directory_->errdisableIs(nullptr);
}

std::optional<RingwardAgent::StartError> RingwardAgent::start() {
  if (const std::error_code error = PL::PacketAccess::permission()) {
    return StartError{"cannot open a packet socket", error};
  }
  if (const std::error_code error = control_.open()) {
    return StartError{"cannot open rtnetlink", error};
  }
  applyConfiguration();
  actions_ = std::make_unique<Actions>(control_);
  directory_ = std::make_unique<PL::LinkDirectory>(
      PL::DirectoryEntities{allIntfStatusDir_, allIntfStatusLocalDir_, ethIntfStatusDir_, brConfig_,
                            brTopoConfig_, brTopoStatus_},
      access_, portSelection(configuration_));
  errdisable_ = Vex::makePtr<PL::Errdisable>(ringwardCause_, *actions_, *directory_, report_,
                                             platformAction(configuration_.errdisableAction));
  directory_->errdisableIs(errdisable_.get());
  links_ = std::make_unique<Links>(manager_, *directory_);
  if (const std::error_code error = links_->start()) {
    links_.reset();
    return StartError{"cannot read the links from rtnetlink", error};
  }
  source_ = Vex::makePtr<SourceReactor>(status_, access_);
  globalSm_ = Ringward::globalSmFactory(
      config_, status_, mlagStatus_, transmitStatus_, brTopoConfig_, brTopoStatus_, brConfig_,
      ethIntfStatusDir_, allIntfStatusDir_, allIntfStatusLocalDir_, ringwardCause_, packetCounter_);
  ready_ = std::make_unique<Ready>(*this);
  ready_->schedule();
  return std::nullopt;
}

void RingwardAgent::stop() { config_->globalEnabledIs(false); }

void RingwardAgent::applyConfiguration() {
  const auto intf = config_->globalIntfConfigIs("globalIntfConfig");
  intf->transmitIntervalIs(static_cast<std::uint8_t>(configuration_.transmitInterval));
  intf->disabledTimeIs(configuration_.disabledTime);
  config_->transmitConfigIs("transmitConfig")->rateLimitIs(configuration_.rateLimit);
  configuration_.vlans.forEach(
      [this](std::uint16_t vlan) { config_->vlanEnabledIs(Bridging::VlanId(vlan), true); });
  for (const std::string& name : configuration_.exclude) {
    config_->intfExcludeIs(Portus::IntfId::fromName(name), true);
  }
  // Last: what is above must be in place when the machines are made.
  config_->globalEnabledIs(configuration_.enabled);
}

void RingwardAgent::reportReady() {
  std::size_t pairs = 0;
  if (globalSm_->vlanIntfSmManager()) {
    for (auto vlan = globalSm_->vlanIntfSmManager()->vlanSmIteratorConst(); vlan; ++vlan) {
      for (auto port = vlan->vlanIntfTxSmIteratorConst(); port; ++port) ++pairs;
    }
  }
  std::ostringstream line;
  line << "ready: " << directory_->ports() << " ports, " << configuration_.vlans.count()
       << " VLANs, " << pairs << " pairs to probe";
  if (!configuration_.enabled) line << "; detection is not enabled";
  double cycle = configuration_.transmitInterval;
  if (configuration_.rateLimit != 0) {
    cycle = std::max(cycle, static_cast<double>(pairs) / configuration_.rateLimit);
  }
  char seconds[32] = "";
  std::snprintf(seconds, sizeof seconds, "%.1f", cycle);
  line << "; one full probe cycle takes " << seconds << " s";
  output_(line.str());
  if (cycle > configuration_.transmitInterval) {
    std::ostringstream warning;
    warning << "warning: " << pairs << " pairs at rate-limit " << configuration_.rateLimit
            << " take " << seconds << " s, longer than transmit-interval "
            << configuration_.transmitInterval << " s: a loop is found within " << seconds
            << " s, not within the interval";
    output_(warning.str());
  }
}

}  // namespace Agent
