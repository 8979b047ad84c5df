// SPDX-License-Identifier: Apache-2.0
#include "engine/TransmitSm.h"

#include <optional>
#include <utility>

#include "engine/CountPacket.h"
#include "engine/EngineLogs.h"
#include "engine/EngineTrace.h"
#include "engine/GlobalSm.h"
#include "engine/ProbeFrame.h"

namespace Ringward {

using Status::IntfAndVlan;
using Status::TransmitStatus;

namespace {
constexpr double kWindow = 1.0;  // seconds
// What a drain leaves for the next one; a long one gives its memory back.
constexpr std::size_t kMostSpareLevels = 64;
}  // namespace

enum class TransmitSm::At : std::uint8_t {
  begin,     // of the handler
  highDone,  // regular only: the call of the high handler has returned
  loop,      // the head of the loop
  dequeued   // the level below, opened by a dequeue, has returned
};

struct TransmitSm::Level {
  bool regular;
  bool notified;  // opened by a notification, which also catches what it raises
  At at = At::begin;
  std::optional<TransmitStatus::Dequeue> taken;
};

TransmitSm::TransmitSm(const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
                       const Vex::Ptr<Config::TransmitConfig const>& transmitConfig,
                       const Vex::Ptr<TransmitStatus>& transmitStatus,
                       Vex::Ptr<Interface::EthDevPamCollection const> ethDevPamColl,
                       Vex::Ptr<Status::PacketCounter> packetCounter,
                       Vex::Ptr<Status::Status const> status,
                       Vex::Ptr<Topology::Library::LibState const> topoLibState,
                       Vex::Ptr<Bridging::Config const> brConfig, GlobalSm* globalSm)
    : throttleTimer_(Vex::newReactor<VexThrottleTimer>(this, Vex::validPtr(timerWheel))),
      transmitConfig_(Vex::newReactor<VexTransmitConfig>(this, Vex::validPtr(transmitConfig))),
      transmitStatus_(Vex::newReactor<VexTransmitStatus>(
          this, Vex::Ptr<TransmitStatus const>(Vex::validPtr(transmitStatus)))),
      transmitStatusRef_(transmitStatus),
      ethDevPamColl_(std::move(ethDevPamColl)),
      packetCounter_(std::move(packetCounter)),
      status_(std::move(status)),
      topoLibState_(std::move(topoLibState)),
      brConfig_(std::move(brConfig)),
      globalSm_(globalSm) {}

TransmitSm::~TransmitSm() { vexTeardown(); }

// One run of a handler with all the levels that its dequeues open. A level is what one call of
// handleHighPriority() or handleRegularPriority() would be.
class TransmitSm::Drain {
 public:
  // The levels of the last drain are taken over empty, so that a probe on its own allocates none.
  explicit Drain(TransmitSm& sm) noexcept : sm_(sm), levels_(std::move(sm.spareLevels_)) {}
  Drain(const Drain&) = delete;
  Drain& operator=(const Drain&) = delete;
  ~Drain() {
    levels_.clear();
    if (levels_.capacity() <= kMostSpareLevels) sm_.spareLevels_ = std::move(levels_);
  }

  // Runs a handler to its end and gives its result.
  bool run(bool regular) {
    open(regular, /*notified=*/false);
    while (!levels_.empty()) {
      try {
        step();
      } catch (...) {
        unwind();
      }
    }
    return result_;
  }

 private:
  void open(bool regular, bool notified) {
    levels_.push_back(Level{regular, notified, At::begin, {}});
  }

  void close(bool result) {
    result_ = result;
    levels_.pop_back();
  }

  // Runs the top level up to the point where it opens another or ends.
  void step() {
    switch (levels_.back().at) {
      case At::begin:
        if (levels_.back().regular) {
          levels_.back().at = At::highDone;
          open(/*regular=*/false, /*notified=*/false);
        } else {
          levels_.back().at = At::loop;
        }
        return;
      case At::highDone:
        // No regular request is served while a high one waits.
        if (result_) {
          levels_.back().at = At::loop;
        } else {
          close(false);
        }
        return;
      case At::loop:
        loop();
        return;
      case At::dequeued:
        dequeued();
        return;
    }
  }

  void loop() {
    const bool regular = levels_.back().regular;
    TransmitStatus& queues = *sm_.transmitStatusRef_;
    const auto& queue = regular ? queues.regularPriority() : queues.highPriority();
    if (queue.empty()) {
      close(true);
      return;
    }
    if (!sm_.admits()) {
      if (RINGWARD_THROTTLE.okToLog(0)) Vex::log(RINGWARD_THROTTLE);
      close(false);
      return;
    }
    ++sm_.transmitCount_;
    levels_.back().taken =
        regular ? queues.regularPriorityDeqBegin() : queues.highPriorityDeqBegin();
    levels_.back().at = At::dequeued;
    // What follows may run foreign handlers, but they cannot reach this object: a handler of this
    // machine that they lead to is a drain of its own.
    const VexTransmitStatus& own = *sm_.transmitStatus_;
    if (levels_.back().taken->notification.tellUntil(own) && !own.isZombie()) {
      open(regular, /*notified=*/true);
    }
  }

  void dequeued() {
    levels_.back().taken->notification.tellRest();
    const IntfAndVlan request = levels_.back().taken->value;
    levels_.back().taken.reset();
    levels_.back().at = At::loop;
    if (levels_.back().regular) sm_.packetInQueueClear(request);
    sm_.sendPacket(request);
  }

  // An exception ends the levels up to the notification that opened them, and the walk goes on
  // behind it. Without one it is the caller's. Called inside the catch clause.
  void unwind() {
    while (!levels_.empty()) {
      const bool notified = levels_.back().notified;
      const bool regular = levels_.back().regular;
      levels_.pop_back();
      if (notified) {
        sm_.transmitStatus_->onNotificationException(regular ? TransmitStatus::kRegularPriority
                                                             : TransmitStatus::kHighPriority);
        return;
      }
    }
    throw;
  }

  TransmitSm& sm_;
  std::vector<Level> levels_;
  bool result_ = true;
};

void TransmitSm::handleThrottleTimer() {
  traceHandler("handleThrottleTimer");
  const bool limited = transmitConfig()->rateLimit() != 0;
  throttleTimer_->timeMinIs(limited ? Vex::now() + kWindow : Vex::kNever);
  transmitCount_ = 0;
  // The high queue is served twice in a row: handleRegularPriority() begins with it.
  handleHighPriority();
  handleRegularPriority();
}

bool TransmitSm::handleHighPriority() {
  const Vex::Ptr<TransmitSm> hold(this);
  return Drain(*this).run(/*regular=*/false);
}

bool TransmitSm::handleRegularPriority() {
  const Vex::Ptr<TransmitSm> hold(this);
  return Drain(*this).run(/*regular=*/true);
}

void TransmitSm::packetInQueueClear(const IntfAndVlan& intfAndVlan) {
  if (globalSm_ == nullptr) return;
  if (const auto transmitter = globalSm_->vlanIntfTxSm(intfAndVlan.vlanId, intfAndVlan.intfId)) {
    transmitter->packetInQueueIs(false);
  }
}

void TransmitSm::sendPacket(const IntfAndVlan& intfAndVlan) {
  const Bridging::VlanIdOrNone vlanId(intfAndVlan.vlanId.value());  // judged here
  const Vex::Ptr<Portus::Pam> pam = ethDevPamColl_->intfPam(intfAndVlan.intfId);
  if (!pam) return;
  VEX_ASSERT_TEXT(topoLibState_->initDone(), "topoLibState()->initDone()");
  pam->txPkt(generatePacket({status_->srcAddr(), vlanId, intfAndVlan.intfId}));
  countPacket(CounterKind::tx, intfAndVlan.intfId, vlanId, *packetCounter_);
}

Vex::Ptr<Portus::Pkt> TransmitSm::generatePacket(const PacketEncapsulation& pktInfo) {
  auto pkt = Portus::globalPktManager()->newPkt();
  if (!pkt) {
    Vex::trace(ringwardSmTrace, 7, [&](std::ostream& os) {
      os << "Packet allocation failed for pktInfo: " << pktInfo;
    });
    return nullptr;
  }
  const auto port = Vex::validPtr(brConfig_->switchIntfConfig(pktInfo.senderIntfId));
  writeProbe(*pkt, pktInfo, port->nativeVlan());
  return pkt;
}

void TransmitSm::handleInitialized() {
  handleThrottleTimer();
  initialized_ = true;
}

Vex::Ptr<TransmitSm> transmitSmFactory(
    const Vex::Ptr<Helm::TimerWheel const>& timerWheel,
    const Vex::Ptr<Config::TransmitConfig const>& transmitConfig,
    const Vex::Ptr<TransmitStatus>& transmitStatus,
    const Vex::Ptr<Interface::EthDevPamCollection const>& ethDevPamColl,
    const Vex::Ptr<Status::PacketCounter>& packetCounter,
    const Vex::Ptr<Status::Status const>& status,
    const Vex::Ptr<Topology::Library::LibState const>& topoLibState,
    const Vex::Ptr<Bridging::Config const>& brConfig, GlobalSm* globalSm) {
  auto sm = Vex::makePtr<TransmitSm>(timerWheel, transmitConfig, transmitStatus, ethDevPamColl,
                                     packetCounter, status, topoLibState, brConfig, globalSm);
  sm->handleInitialized();
  sm->hasNotificationActiveIs(true);
  return Vex::validPtr(std::move(sm));
}

}  // namespace Ringward
