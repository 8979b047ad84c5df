// SPDX-License-Identifier: Apache-2.0
//
// ringward_sim_demo: the engine at work on a simulated switch, told with virtual times. A switch
// bridges three ports; somebody connects two of them to the same neighbour; a storm breaks out, a
// probe comes back, one port goes down, the storm ends, and the port returns when its time is up.
// Nothing is staged: every line reports what the simulation did, and the program ends with status 0
// only if the whole story came true. It needs no rights of any kind.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

#include "platform/sim/Element.h"
#include "platform/sim/System.h"
#include "platform/sim/Tap.h"
#include "runtime/vex/LogService.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace Platform::Sim {
namespace {

using Bridging::VlanBitmap;
using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Portus::EthAddr;
using Portus::IntfId;

constexpr unsigned kHold = 4;  // seconds
constexpr double kStart = 1000.0;

// A part of the story that did not come true.
class Broken : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

void need(bool seen, const std::string& what) {
  if (!seen) throw Broken("this did not happen: " + what);
}

class Story {
 public:
  void run();

 private:
  __attribute__((format(printf, 2, 3))) static void tell(double at, const char* format, ...) {
    std::printf("%9.3f ms  ", (at - kStart) * 1000);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::printf("\n");
  }

  // Moves time on by hundredths of milliseconds until something is seen.
  void runUntilSeen(double seconds, const std::string& what, const std::function<bool()>& seen) {
    const double end = manager_.now() + seconds;
    while (!seen()) {
      need(manager_.now() < end, what);
      manager_.runFor(1e-5);
    }
  }
  std::uint64_t stormCount() {
    return switch_.port("eth1").counts().received + switch_.port("eth2").counts().received;
  }
  // Frames a second that arrive on the two looped ports, measured over `seconds`.
  double stormRate(double seconds) {
    const auto before = stormCount();
    manager_.runFor(seconds);
    return static_cast<double>(stormCount() - before) / seconds;
  }
  const ErrdisableAction::Action* action(std::size_t number) const {
    const auto& history = switch_.errdisable().history();
    return history.size() > number ? &history[number] : nullptr;
  }
  const Tap::Record* firstRecord(bool outgoing, double since, const Frame* frame) const {
    const auto& records = tap_.records();
    const auto found = std::find_if(records.begin(), records.end(), [&](const auto& r) {
      return r.port.starts_with("switch:") && r.outgoing == outgoing && r.time >= since &&
             (frame == nullptr || *r.frame == *frame);
    });
    return found != records.end() ? &*found : nullptr;
  }

  void build();
  void breakItAll();
  void repair();

  Vex::VirtualActivityManager manager_{kStart};
  const Vex::CurrentActivityManager current_{manager_};
  Vex::MemorySink logs_;
  Fabric fabric_{manager_, 7};
  Tap tap_{fabric_, Tap::Keep::probes};
  SystemConfig settings_ = [] {
    SystemConfig settings;
    settings.forwarding = true;
    return settings;
  }();
  System switch_{fabric_, settings_};
  LearningSwitch neighbour_{fabric_, "neighbour", 3};
  Injector station_{fabric_, "station"};
  Vex::Ptr<Ringward::GlobalSm> engine_;
};

void Story::build() {
  manager_.logService().sinkIs(logs_);
  switch_.vlansIs(VlanBitmap::parse("10"));
  for (const char* name : {"eth1", "eth2", "eth3"}) {
    switch_.newPort(name, VlanBitmap::parse("10"), VlanIdOrNone(10));
  }
  fabric_.wireIs(switch_.port("eth1"), neighbour_.port(1));
  fabric_.wireIs(switch_.port("eth3"), station_.port(1));
  tell(manager_.now(), "a switch bridges eth1, eth2 and eth3; eth1 leads to a neighbour");

  switch_.config->globalIntfConfig()->transmitIntervalIs(1);
  switch_.config->globalIntfConfig()->disabledTimeIs(kHold);
  switch_.config->vlanEnabledIs(VlanId(10), true);
  switch_.config->globalEnabledIs(true);
  engine_ = switch_.newEngine();
  tell(manager_.now(), "the engine runs: one probe a second, ports are held down for %u s", kHold);
  manager_.runFor(3);
  need(switch_.status->running(), "a running engine");
  need(switch_.errdisable().history().empty(), "quiet before the loop");
  need(stormRate(1) < 10, "a quiet network");
}

void Story::breakItAll() {
  // Away from every probe, so that the storm can be seen before it is ended.
  runUntilSeen(3, "a gap between the probes", [this] {
    double next = Vex::kNever;
    for (const char* name : {"eth1", "eth2", "eth3"}) {
      const auto transmitter = engine_->vlanIntfTxSm(VlanId(10), IntfId::fromName(name));
      need(static_cast<bool>(transmitter), std::string("a transmitter of ") + name);
      next = std::min(next, transmitter->sendPacketTime());
    }
    return next > manager_.now() + 0.3;
  });
  manager_.runFor(0.01);  // the probe before the gap must have left the wires
  const double looped = manager_.now();
  fabric_.wireIs(switch_.port("eth2"), neighbour_.port(2));
  tell(looped, "LOOP: somebody connects eth2 to the same neighbour");
  station_.send(broadcastFrame(EthAddr(0x02, 0, 0, 0, 0, 0x77)));
  tell(manager_.now(), "one broadcast frame is sent into it");
  const double storm = stormRate(0.2);
  need(storm > 1000, "a storm, not just " + std::to_string(storm) + " frames/s");
  tell(manager_.now(), "STORM: %.0f frames/s, %llu frames so far", storm,
       static_cast<unsigned long long>(stormCount()));

  runUntilSeen(3, "a port going down", [this] { return action(0) != nullptr; });
  const ErrdisableAction::Action cut = *action(0);
  need(cut.down, "a port going down");
  // The probe that did it is the one that has just arrived there.
  const std::string downPort = "switch:" + cut.intfId.name();
  const auto arrived = tap_.records(downPort, /*outgoing=*/false);
  need(!arrived.empty() && arrived.back().time == cut.time, "the probe's return at that moment");
  const Tap::Record* out = firstRecord(/*outgoing=*/true, looped, arrived.back().frame.get());
  need(out != nullptr, "a probe sent into the loop");
  tell(out->time, "probe out of %s: %s", out->port.c_str(), toHex(*out->frame).c_str());
  tell(arrived.back().time, "the same probe comes back on %s", downPort.c_str());
  tell(cut.time, "CUT: %s is down, %.3f ms after the probe went out", cut.intfId.name().c_str(),
       (cut.time - out->time) * 1000);
  need(switch_.isHeld(cut.intfId.name()), "the port's hold");

  // What is on its way leaves the queues.
  manager_.runFor(0.1);
  const double quiet = stormRate(0.5);
  need(quiet < 10, "the end of the storm");
  tell(manager_.now(), "the storm is over: %.0f frames/s", quiet);
}

void Story::repair() {
  const ErrdisableAction::Action cut = *action(0);
  fabric_.wireDel(switch_.port("eth2"));
  tell(manager_.now(), "the loop is removed; %s waits for the end of its %u s",
       cut.intfId.name().c_str(), kHold);
  runUntilSeen(kHold + 1, "the port's return", [this] { return action(1) != nullptr; });
  const ErrdisableAction::Action back = *action(1);
  need(!back.down && back.intfId == cut.intfId, "the return of the same port");
  const double held = back.time - cut.time;
  need(held >= kHold && held < kHold + 0.02, "a return after the configured time");
  tell(back.time, "BACK: %s is in service again, %.3f s after it went down",
       back.intfId.name().c_str(), held);
  const auto texts = logs_.texts();
  need(texts.size() == 1 && texts[0] == "Bringing interface " + cut.intfId.name() +
                                            " back up after a loop was detected",
       "the log entry of the return");
  tell(back.time, "log: %s", texts[0].c_str());
  manager_.runFor(5);
  need(switch_.errdisable().history().size() == 2, "exactly one cut");
  need(stormRate(1) < 10, "a quiet network in the end");
  need(switch_.port("eth1").counts().sent > 0, "probes to the end");
  switch_.config->globalEnabledIs(false);
  need(!switch_.status->running(), "the engine's end");
  tell(manager_.now(), "all is quiet; the engine has ended in good order");
}

void Story::run() {
  build();
  breakItAll();
  repair();
}

}  // namespace
}  // namespace Platform::Sim

int main() {
  try {
    Platform::Sim::Story().run();
    return 0;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "ringward_sim_demo: %s\n", error.what());
    return 1;
  }
}
