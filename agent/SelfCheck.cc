// SPDX-License-Identifier: Apache-2.0
#include "agent/SelfCheck.h"

#include <algorithm>
#include <utility>

#include "runtime/vex/LogService.h"

namespace Agent {

namespace {

const Vex::LogHandle RINGWARD_SELF_CHECK(
    "RINGWARD_SELF_CHECK", Vex::LogSeverity::error, "Self-check: %s; this is being healed",
    "Something that protects against loops was missing without a reason in the configuration.",
    "Report this with the log before it. Nothing needs to be done on the switch.", 0.0, 1.0, 0);

constexpr double kShortestInterval = 1.0;  // seconds; the transmit interval may be 0
constexpr double kChecksPerInterval = 2.0;

}  // namespace

class SelfCheck::Timer final : public Helm::TimerWheel::NotifieeConst {
 public:
  explicit Timer(SelfCheck& check) : check_(check) {}
  void onTime() override { check_.begin(); }

 private:
  SelfCheck& check_;
};

SelfCheck::SelfCheck(Vex::ActivityManager& manager, const Vex::Ptr<Helm::TimerWheel>& timerWheel,
                     const Ringward::GlobalSm& engine, Ringward::Config::Config& config,
                     Interface::AllIntfStatusLocalDir& intfStatusLocalDir,
                     VerifyActions verifyActions)
    : DeferredTask(manager),
      engine_(engine),
      config_(config),
      intfStatusLocalDir_(intfStatusLocalDir),
      verifyActions_(std::move(verifyActions)),
      timer_(Vex::makePtr<Timer>(*this)) {
  timer_->notifierIs(Vex::Ptr<Vex::PtrInterface const>(timerWheel));
  timer_->isRegisteredNotifieeIs(true);
  wake();
}

SelfCheck::~SelfCheck() { timer_->isRegisteredNotifieeIs(false); }

double SelfCheck::pause() const {
  const auto& intfConfig = config_.globalIntfConfig();
  const double interval = intfConfig ? intfConfig->transmitInterval() : 0.0;
  return std::max(interval, kShortestInterval) / kChecksPerInterval;
}

bool SelfCheck::probing() const {
  const auto& manager = engine_.vlanIntfSmManager();
  if (!manager) return false;
  const auto& status = *engine_.status();
  // Without any port under detection the check goes on: that it is missing may be the fault.
  auto port = status.intfStatusIteratorConst();
  if (!port) return static_cast<bool>(engine_.topoLibVlanState()->topoVlanIteratorConst());
  for (; port; ++port) {
    if (!port->disabled()) return true;
  }
  return false;
}

void SelfCheck::wake() {
  if (nextVlan_ == 0 && !timer_->armed() && probing()) timer_->timeMinIs(Vex::now() + pause());
}

void SelfCheck::begin() {
  ++counts_.rounds;
  for (const Portus::IntfId& intfId : verifyActions_()) {
    ++counts_.actions;
    Vex::log(RINGWARD_SELF_CHECK,
             "held port " + intfId.name() + " was in service again without a message");
  }
  nextVlan_ = 1;
  schedule();
}

void SelfCheck::run() {
  const auto last = std::min<std::uint32_t>(nextVlan_ + kVlansPerTurn - 1, Bridging::kMaxVlanId);
  for (; nextVlan_ <= last; ++nextVlan_) {
    checkVlan(Bridging::VlanId(static_cast<std::uint16_t>(nextVlan_)));
  }
  if (nextVlan_ <= Bridging::kMaxVlanId) {
    schedule();
  } else {
    end();
  }
}

void SelfCheck::end() {
  nextVlan_ = 0;
  std::erase_if(faults_, [this](const auto& entry) { return entry.second.last != counts_.rounds; });
  wake();
}

bool SelfCheck::excluded(const Portus::IntfId& intfId) const {
  return config_.intfExclude(intfId) || engine_.status()->sysIntfExclude(intfId);
}

void SelfCheck::checkVlan(Bridging::VlanId vlanId) {
  const auto& manager = engine_.vlanIntfSmManager();
  const auto& topology = engine_.topoLibVlanState();
  if (!manager || !topology || !topology->initDone() || !config_.vlanEnabled(vlanId)) return;
  const auto topoVlan = topology->topoVlan(vlanId);
  if (!topoVlan) return;
  const auto machine = manager->vlanSm(vlanId);
  if (!machine) {
    seen({Kind::vlanMachine, vlanId.value(), {}});
    return;
  }
  bool complete = true;
  Portus::IntfId missing;
  for (auto port = topoVlan->topoPortIteratorConst(); port; ++port) {
    const Portus::IntfId intfId = port.key();
    if (excluded(intfId)) continue;
    if (manager->desiredIntfsWithVlan(intfId) && !engine_.ethDevPamCollection()->intfPam(intfId)) {
      seen({Kind::packetAccess, 0, intfId});
    } else if (!machine->vlanIntfTxSm(intfId)) {
      complete = false;
      missing = intfId;
    }
  }
  if (!complete) seen({Kind::transmitter, vlanId.value(), missing});
}

void SelfCheck::seen(const Fault& fault) {
  const std::uint64_t round = counts_.rounds;
  const auto [at, isNew] = faults_.try_emplace(fault, Sighting{round, round});
  // Another VLAN of this round may have led to the same port.
  if (isNew || at->second.last == round) return;
  at->second.last = round;
  if (round == at->second.first + 1) {
    std::string text;
    switch (fault.kind) {
      case Kind::vlanMachine:
        text = "VLAN " + std::to_string(fault.vlanId) + " had no machine";
        break;
      case Kind::packetAccess:
        text = "port " + fault.intfId.name() + " had no packet access";
        break;
      case Kind::transmitter:
        text = "port " + fault.intfId.name() + " had no transmitter in VLAN " +
               std::to_string(fault.vlanId);
        break;
    }
    Vex::log(RINGWARD_SELF_CHECK, text);
  }
  heal(fault);
}

void SelfCheck::heal(const Fault& fault) {
  switch (fault.kind) {
    case Kind::vlanMachine:
    case Kind::transmitter: {
      ++(fault.kind == Kind::vlanMachine ? counts_.vlanMachines : counts_.transmitters);
      const Bridging::VlanId vlanId(fault.vlanId);
      config_.vlanEnabledIs(vlanId, false);
      config_.vlanEnabledIs(vlanId, true);
      return;
    }
    case Kind::packetAccess: {
      ++counts_.packetAccess;
      const auto local = intfStatusLocalDir_.intfStatusLocal(fault.intfId);
      if (!local) return;
      intfStatusLocalDir_.intfStatusLocalDel(fault.intfId);
      intfStatusLocalDir_.intfStatusLocalIs(fault.intfId, local);
      return;
    }
  }
}

}  // namespace Agent
