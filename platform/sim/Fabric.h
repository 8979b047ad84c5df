// SPDX-License-Identifier: Apache-2.0
//
// Platform::Sim::Fabric: the cables of a simulation, and Port, the end of a cable. A frame that a
// port sends arrives at the other end after the wire's delay, as an event of its own in virtual
// time.
//
// Activity thread only. A Port belongs to whoever has the interface (Element.h, System.h); the
// Fabric and the activity manager must outlive it. The Fabric owns the wires, and each of several
// fabrics of one process has its own. A Receiver must outlive its port.
//
// Invariants:
//  1. Nothing is delivered inside send(): every frame takes at least one event.
//  2. Events of one time happen in the order in which their frames were sent.
//  3. Equal seeds and equal calls give equal runs. The seed is also that of the C library's
//     drand48(), from which the engine draws the first phase of its probes.
//  4. A port's queued frames leave at a finite rate from a bounded queue, so that even a broadcast
//     storm is a finite number of events in each second.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/sim/Frame.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace Platform::Sim {

class Fabric;
class Port;
class Tap;

class Receiver {
 public:
  // A frame has arrived. The receiver may send, wire, unwire and end ports, this one included.
  virtual void onFrame(Port& port, const FramePtr& frame) = 0;
  // The port's carrier has come or gone.
  virtual void onCarrier(Port& /*port*/, bool /*carrier*/) {}

 protected:
  ~Receiver() = default;
};

// How fast queued frames leave, and how many may wait. Neither may be 0.
struct EgressConfig {
  double framesPerSecond = 10'000;
  std::uint32_t queueLength = 64;
};

struct WireConfig {
  double delay = 10e-6;  // seconds; above 0
  double loss = 0;       // probability that a frame is lost, 0 to 1
};

class Port {
 public:
  struct Counts {
    std::uint64_t sent = 0;      // put on the wire
    std::uint64_t received = 0;  // arrived and given to the receiver
    std::uint64_t lost = 0;      // sent without a carrier, or lost on the way
    std::uint64_t dropped = 0;   // the egress queue was full
  };

  // Raises a range exception for an egress of rate or length 0.
  Port(Fabric& fabric, std::string name, Receiver& receiver, EgressConfig egress = {});
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;
  ~Port();

  const std::string& name() const noexcept { return name_; }
  const Counts& counts() const noexcept { return counts_; }

  // Whether this end is switched on, from the start. Off: no carrier for either end.
  bool enabled() const noexcept { return enabled_; }
  void enabledIs(bool enabled);
  // Whether there is a wire, it is up, and both ends are switched on.
  bool carrier() const noexcept;
  bool wired() const noexcept { return wire_ != nullptr; }

  // Puts the frame on the wire now, ahead of all queued ones.
  void send(const FramePtr& frame);
  // Puts it behind what the egress holds, or drops it if the queue is full.
  void sendQueued(const FramePtr& frame);

 private:
  friend class Fabric;
  struct Wire;

  Port* peer() const noexcept;
  void transmit(const FramePtr& frame, double departure);
  void carrierCheck();

  Fabric& fabric_;
  const std::string name_;
  Receiver& receiver_;
  const EgressConfig egress_;
  bool enabled_ = true;
  bool toldCarrier_ = false;
  double egressFree_ = 0;  // when the last queued frame will have left
  std::shared_ptr<Wire> wire_;
  Counts counts_;
};

class Fabric final : private Vex::TimerSource {
 public:
  Fabric(Vex::VirtualActivityManager& manager, std::uint64_t seed);
  Fabric(const Fabric&) = delete;
  Fabric& operator=(const Fabric&) = delete;
  ~Fabric();

  Vex::VirtualActivityManager& manager() const noexcept { return manager_; }
  double now() const noexcept { return manager_.now(); }
  // How many frames have arrived somewhere or were lost on the way.
  std::uint64_t events() const noexcept { return eventCount_; }

  // Joins two ports; wires that they have go first. Raises a range exception for a delay that is
  // not above 0 (or vanishes in the rounding of the present time), a loss outside 0 to 1, and a
  // port joined with itself.
  void wireIs(Port& a, Port& b, const WireConfig& config = {});
  // Takes the port's wire away with the frames on it. A port without one: nothing.
  void wireDel(Port& end);
  // A wire that is down stays in its place; frames that arrive meanwhile are lost.
  void wireUpIs(Port& end, bool up);
  void lossIs(Port& end, double loss);

  // A number from 0 up to, not including, 1, of this fabric's own sequence.
  double random();

 private:
  friend class Port;
  friend class Tap;
  struct Event {
    double time;
    std::uint64_t number;
    std::shared_ptr<Port::Wire> wire;
    std::uint8_t toEnd;
    FramePtr frame;
  };

  double nextDue() override { return events_.empty() ? Vex::kNever : events_.front().time; }
  void runDue(double now) override;
  void deliver(const Event& event);
  void record(double time, const Port& port, bool outgoing, const FramePtr& frame);

  Vex::VirtualActivityManager& manager_;
  std::mt19937_64 generator_;
  std::vector<Event> events_;  // a heap, the earliest first
  std::uint64_t lastNumber_ = 0;
  std::uint64_t eventCount_ = 0;
  std::vector<Tap*> taps_;
};

}  // namespace Platform::Sim
