// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/Fabric.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "platform/sim/Tap.h"
#include "runtime/vex/Exception.h"

namespace Platform::Sim {

struct Port::Wire {
  Port* ends[2];  // null for an end that has gone
  WireConfig config;
  bool up = true;
};

namespace {

// Part of a frame that the sum of many departures may be off by rounding.
constexpr double kSlack = 0.01;

bool isLater(double timeA, std::uint64_t numberA, double timeB, std::uint64_t numberB) {
  return timeA != timeB ? timeA > timeB : numberA > numberB;
}

void checkLoss(double loss) {
  if (!(loss >= 0 && loss <= 1)) {
    Vex::throwRangeException("loss " + std::to_string(loss) + " of a wire: not from 0 to 1");
  }
}

}  // namespace

Port::Port(Fabric& fabric, std::string name, Receiver& receiver, EgressConfig egress)
    : fabric_(fabric), name_(std::move(name)), receiver_(receiver), egress_(egress) {
  if (!(egress_.framesPerSecond > 0) || egress_.queueLength == 0) {
    Vex::throwRangeException("egress of port " + name_ + ": rate and queue length must be above 0");
  }
}

Port::~Port() { fabric_.wireDel(*this); }

Port* Port::peer() const noexcept {
  if (!wire_) return nullptr;
  return wire_->ends[0] == this ? wire_->ends[1] : wire_->ends[0];
}

bool Port::carrier() const noexcept {
  const Port* other = peer();
  return other != nullptr && wire_->up && enabled_ && other->enabled_;
}

void Port::carrierCheck() {
  const bool now = carrier();
  if (now == toldCarrier_) return;
  toldCarrier_ = now;
  receiver_.onCarrier(*this, now);  // may end the port
}

void Port::enabledIs(bool enabled) {
  if (enabled == enabled_) return;
  enabled_ = enabled;
  // What waits in the egress goes with the carrier.
  if (!enabled) egressFree_ = 0;
  Port* other = peer();
  if (other != nullptr) other->carrierCheck();
  carrierCheck();
}

void Port::send(const FramePtr& frame) { transmit(frame, fabric_.now()); }

void Port::sendQueued(const FramePtr& frame) {
  const double now = fabric_.now();
  const double departure = std::max(now, egressFree_);
  if ((departure - now) * egress_.framesPerSecond >= egress_.queueLength - kSlack) {
    ++counts_.dropped;
    return;
  }
  if (carrier()) egressFree_ = departure + 1 / egress_.framesPerSecond;
  transmit(frame, departure);
}

void Port::transmit(const FramePtr& frame, double departure) {
  if (!carrier()) {
    ++counts_.lost;
    return;
  }
  ++counts_.sent;
  fabric_.record(departure, *this, /*outgoing=*/true, frame);
  if (wire_->config.loss > 0 && fabric_.random() < wire_->config.loss) {
    ++counts_.lost;
    return;
  }
  const std::uint8_t toEnd = wire_->ends[0] == this ? 1 : 0;
  fabric_.events_.push_back(
      {departure + wire_->config.delay, ++fabric_.lastNumber_, wire_, toEnd, frame});
  std::push_heap(fabric_.events_.begin(), fabric_.events_.end(), [](const auto& a, const auto& b) {
    return isLater(a.time, a.number, b.time, b.number);
  });
}

Fabric::Fabric(Vex::VirtualActivityManager& manager, std::uint64_t seed)
    : manager_(manager), generator_(seed) {
  srand48(static_cast<long>(seed & 0x7FFFFFFF));
  manager_.timerSourceIs(*this);
}

Fabric::~Fabric() { manager_.timerSourceDel(*this); }

double Fabric::random() { return static_cast<double>(generator_() >> 11) * 0x1p-53; }

void Fabric::wireIs(Port& a, Port& b, const WireConfig& config) {
  if (&a == &b) Vex::throwRangeException("port " + a.name() + " cannot be wired to itself");
  if (!(config.delay > 0) || !(now() + config.delay > now())) {
    Vex::throwRangeException("delay " + std::to_string(config.delay) + " of a wire at time " +
                             std::to_string(now()) + ": too small");
  }
  checkLoss(config.loss);
  wireDel(a);
  wireDel(b);
  a.wire_ = b.wire_ = std::make_shared<Port::Wire>(Port::Wire{{&a, &b}, config});
  a.egressFree_ = b.egressFree_ = 0;
  a.carrierCheck();
  b.carrierCheck();
}

void Fabric::wireDel(Port& end) {
  const auto wire = std::exchange(end.wire_, nullptr);
  if (!wire) return;
  Port* other = wire->ends[0] == &end ? wire->ends[1] : wire->ends[0];
  wire->ends[0] = wire->ends[1] = nullptr;
  wire->up = false;
  other->wire_ = nullptr;
  other->carrierCheck();
  end.carrierCheck();
}

void Fabric::wireUpIs(Port& end, bool up) {
  if (!end.wire_ || end.wire_->up == up) return;
  end.wire_->up = up;
  Port* other = end.peer();
  other->carrierCheck();
  end.carrierCheck();
}

void Fabric::lossIs(Port& end, double loss) {
  checkLoss(loss);
  if (end.wire_) end.wire_->config.loss = loss;
}

void Fabric::record(double time, const Port& port, bool outgoing, const FramePtr& frame) {
  for (Tap* tap : taps_) tap->record(time, port, outgoing, frame);
}

void Fabric::deliver(const Event& event) {
  ++eventCount_;
  Port* to = event.wire->ends[event.toEnd];
  if (to == nullptr) return;
  if (!to->carrier()) {
    ++event.wire->ends[1 - event.toEnd]->counts_.lost;
    return;
  }
  ++to->counts_.received;
  record(event.time, *to, /*outgoing=*/false, event.frame);
  to->receiver_.onFrame(*to, event.frame);  // may end the port
}

void Fabric::runDue(double now) {
  // Whatever is sent here arrives later than now (invariant 1), so this ends.
  while (!events_.empty() && events_.front().time <= now) {
    std::pop_heap(events_.begin(), events_.end(), [](const auto& a, const auto& b) {
      return isLater(a.time, a.number, b.time, b.number);
    });
    const Event event = std::move(events_.back());
    events_.pop_back();
    deliver(event);
  }
}

}  // namespace Platform::Sim
