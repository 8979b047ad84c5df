// SPDX-License-Identifier: Apache-2.0
//
// ringward_sim_demo: the story of `make demo` over a simulated wire, for machines where network
// namespaces are not permitted. The engine is the real one; wires, ports and time are not. Times
// are milliseconds of virtual time since the start. Ends with status 0 only if the whole story came
// true.
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "engine/GlobalSm.h"
#include "platform/sim/Element.h"
#include "platform/sim/System.h"
#include "platform/sim/Tap.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace Platform::Sim {
namespace {

constexpr double kStart = 1000.0;
constexpr std::uint32_t kDisabledTime = 3;  // seconds

void need(bool seen, const std::string& what) {
  if (!seen) throw std::runtime_error("this did not happen: " + what);
}

__attribute__((format(printf, 2, 3))) void tell(double at, const char* format, ...) {
  std::printf("%10.3f ms  ", (at - kStart) * 1000);
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::printf("\n");
}

// The first probe that passed a port in one direction; null for none.
const Tap::Record* firstProbe(const Tap& tap, const std::string& port, bool outgoing) {
  for (const auto& record : tap.records()) {
    if (record.port == port && record.outgoing == outgoing) return &record;
  }
  return nullptr;
}

void story() {
  Vex::VirtualActivityManager manager(kStart);
  const Vex::CurrentActivityManager current(manager);
  Fabric fabric(manager, /*seed=*/7);
  SystemConfig settings;
  settings.forwarding = true;
  System system(fabric, settings);
  LearningSwitch neighbour(fabric, "neighbour", 3);
  Injector host(fabric, "host");

  system.vlansIs(Bridging::VlanBitmap::parse("1"));
  for (const char* name : {"eth1", "eth2", "eth3"}) {
    system.newPort(name, Bridging::VlanBitmap::parse("1"), Bridging::VlanIdOrNone(1));
  }
  system.config->globalIntfConfig()->transmitIntervalIs(1);
  system.config->globalIntfConfig()->disabledTimeIs(kDisabledTime);
  system.config->vlanEnabledIs(Bridging::VlanId(1), true);
  system.config->globalEnabledIs(true);
  const auto engine = system.newEngine();
  fabric.wireIs(system.port("eth1"), neighbour.port(1));
  fabric.wireIs(neighbour.port(3), host.port(1));
  manager.runFor(2);
  need(system.errdisable().history().empty(), "a quiet start");
  tell(manager.now(), "a switch probes eth1, eth2 and eth3; nothing is wrong");

  Tap probes(fabric, Tap::Keep::probes);
  fabric.wireIs(system.port("eth2"), neighbour.port(2));
  tell(manager.now(), "eth2 is patched to the same neighbour as eth1: a loop");
  Frame broadcast(60, 0);
  for (std::size_t i = 0; i < 6; ++i) broadcast[i] = 0xFF;
  broadcast[6] = 0x02;
  broadcast[11] = 0x99;
  broadcast[12] = 0x08;
  host.send(broadcast);
  const double loopMade = manager.now();
  const auto& history = system.errdisable().history();
  // In small steps, so that the storm is measured up to the cut.
  const std::uint64_t eventsBefore = fabric.events();
  while (history.empty() && manager.now() < loopMade + 2) manager.runFor(0.001);
  need(!history.empty(), "a port goes down within one interval");
  const double stormSeconds = history[0].time - loopMade;
  const auto stormFrames = static_cast<double>(fabric.events() - eventsBefore);
  need(stormFrames > 1000 * stormSeconds, "a storm");
  tell(loopMade, "a single broadcast frame becomes a storm of %.0f frames a second",
       stormFrames / stormSeconds);

  const std::string down = history[0].intfId.name();
  const std::string other = down == "eth1" ? "eth2" : "eth1";
  const auto* sent = firstProbe(probes, "switch:" + other, true);
  const auto* back = firstProbe(probes, "switch:" + down, false);
  need(sent != nullptr && back != nullptr, "a probe goes out and comes back");
  tell(sent->time, "probe out of %s", other.c_str());
  tell(back->time, "the probe is back on %s", down.c_str());
  need(history[0].down && history.size() == 1, "exactly one port goes down");
  tell(history[0].time, "%s is taken down, %.3f ms after the probe left", down.c_str(),
       (history[0].time - sent->time) * 1000);

  manager.runFor(0.5);
  const std::uint64_t quietBefore = fabric.events();
  manager.runFor(1);
  const std::uint64_t quiet = fabric.events() - quietBefore;
  need(quiet < 50, "the storm ends");
  tell(manager.now(), "the storm is over: %llu frames in the last second",
       static_cast<unsigned long long>(quiet));

  fabric.wireDel(neighbour.port(2));
  tell(manager.now(), "the patch cable is pulled");
  manager.runUntil(history[0].time + kDisabledTime + 0.1);
  need(history.size() == 2 && !history[1].down && history[1].intfId == history[0].intfId,
       "the port comes back");
  tell(history[1].time, "%s is back in service after %u s", down.c_str(), kDisabledTime);
  manager.runFor(3);
  need(history.size() == 2, "the port stays up");
  tell(manager.now(), "and stays so");
}

}  // namespace
}  // namespace Platform::Sim

int main() {
  try {
    std::puts("The same story over a simulated wire, in virtual time:");
    Platform::Sim::story();
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ringward_sim_demo: %s\n", e.what());
    return 1;
  }
}
