// SPDX-License-Identifier: Apache-2.0
//
// The road of one probe from its timer to the wire, at a full interval's load: over a wire that
// costs nothing, and over a real packet socket beside a bare sendto(2) of the same frame on the
// same interface. The real one runs in a network namespace that the benchmark makes; without the
// right to do so it reports an error, not a figure.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench/Engine.h"
#include "engine/ProbeFrame.h"
#include "platform/linux/PacketAccess.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Bench::Engine;
using Bench::firstVlans;

// Ports eth1 to eth<ports> with VLANs 1 to <vlans>, probing every second.
struct Running {
  Running(std::uint32_t ports, std::uint32_t vlanCount,
          const Vex::Ptr<Portus::Device>& device = nullptr) {
    const auto vlans = firstVlans(vlanCount);
    engine.config->globalIntfConfig()->transmitIntervalIs(1);
    engine.portsIs(ports, vlans, device);
    engine.vlansEnabledIs(vlans);
    engine.start();
    manager.runFor(2);  // all first probes are over
  }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Engine engine;
};

// A second of virtual time is one probe of each pair; timers of one tick come together, as they do
// in service.
void wholeEngineOverANullWire(benchmark::State& state) {
  Running running(64, static_cast<std::uint32_t>(state.range(0)));
  const std::uint64_t before = running.engine.sent;
  for (auto _ : state) running.manager.runFor(1);
  const auto sent = static_cast<double>(running.engine.sent - before);
  const auto expected =
      static_cast<double>(running.engine.pairs()) * static_cast<double>(state.iterations());
  if (sent < 0.98 * expected || sent > 1.02 * expected) {
    state.SkipWithError("not one probe for each pair and second");
  }
  state.counters["ns/probe"] =
      benchmark::Counter(sent / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.SetItemsProcessed(static_cast<std::int64_t>(sent));
}
BENCHMARK(wholeEngineOverANullWire)
    ->ArgName("vlans")
    ->Arg(1)
    ->Arg(64)
    ->Arg(1024)
    ->Arg(4094)
    ->Unit(benchmark::kMillisecond);

// A pair of interfaces in a namespace of its own, for this process from then on.
const std::string& namespaceError() {
  static const std::string error = [] {
    if (unshare(CLONE_NEWNET) != 0) return std::string("no right to make a network namespace");
    const int far = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (unshare(CLONE_NEWNET) != 0) return std::string("no right to make a network namespace");
    const int near = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    // The other end in a namespace of its own: in this one the access's own socket would hear it.
    const std::string make = "ip link add wire0 type veth peer name wire1 netns /proc/" +
                             std::to_string(getpid()) + "/fd/" + std::to_string(far) +
                             " && ip link set wire0 up";
    const bool made = std::system(make.c_str()) == 0 && setns(far, CLONE_NEWNET) == 0 &&
                      std::system("ip link set wire1 up") == 0 && setns(near, CLONE_NEWNET) == 0;
    return std::string(made ? "" : "cannot make a veth pair");
  }();
  return error;
}

void bareSendto(benchmark::State& state) {
  if (!namespaceError().empty()) return state.SkipWithError(namespaceError().c_str());
  const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(if_nametoindex("wire0"));
  address.sll_halen = 6;
  Vex::VirtualActivityManager manager;
  const Vex::CurrentActivityManager current(manager);
  const auto pkt = Portus::globalPktManager()->newPkt();
  Ringward::writeProbe(
      *pkt, {{2, 0, 0, 0, 0, 1}, Bridging::VlanIdOrNone(10), Portus::IntfId::fromName("wire0")},
      Bridging::VlanIdOrNone(1));
  const auto bytes = pkt->bytes();
  for (auto _ : state) {
    if (sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
      state.SkipWithError("sendto failed");
      break;
    }
  }
  close(fd);
  state.counters["ns/probe"] =
      benchmark::Counter(static_cast<double>(state.iterations()) / 1e9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(bareSendto);

void wholeEngineOverAPacketSocket(benchmark::State& state) {
  if (!namespaceError().empty()) return state.SkipWithError(namespaceError().c_str());
  auto manager = std::make_unique<Vex::VirtualActivityManager>();
  const Vex::CurrentActivityManager current(*manager);
  const auto access = Vex::makePtr<Platform::Linux::PacketAccess>(*manager, true);
  Running running(64, static_cast<std::uint32_t>(state.range(0)),
                  access->newDevice(static_cast<int>(if_nametoindex("wire0"))));
  const std::uint64_t before = access->statistics().sent;
  for (auto _ : state) running.manager.runFor(1);
  const auto sent = static_cast<double>(access->statistics().sent - before);
  if (sent < 0.98 * static_cast<double>(running.engine.pairs()) *
                 static_cast<double>(state.iterations())) {
    state.SkipWithError("not one probe for each pair and second");
  }
  state.counters["ns/probe"] =
      benchmark::Counter(sent / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(wholeEngineOverAPacketSocket)
    ->ArgName("vlans")
    ->Arg(1)
    ->Arg(64)
    ->Arg(1024)
    ->Unit(benchmark::kMillisecond);

}  // namespace
