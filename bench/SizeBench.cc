// SPDX-License-Identifier: Apache-2.0
//
// The engine at full size: 64 ports x 4,094 VLANs built from configuration, taken down, changed in
// one place; the memory of a pair; a port that goes down while every queue is full; a long drain.
// Beside them a std::map of the same pairs, which is what one would write without thinking.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <memory>

#include "bench/Engine.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Bench::Engine;
using Bench::firstVlans;
constexpr std::uint32_t kPorts = 64;
constexpr std::uint32_t kAllVlans = 4094;

double residentBytes() {
  unsigned long long total = 0;
  unsigned long long resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr) return 0;
  const bool read = std::fscanf(file, "%llu %llu", &total, &resident) == 2;
  std::fclose(file);
  return read ? static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) : 0;
}

double heapBytes() { return static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd); }

struct Whole {
  explicit Whole(std::uint32_t vlanCount, std::uint32_t portCount = kPorts)
      : vlans(firstVlans(vlanCount)) {
    engine.portsIs(portCount, vlans);
    engine.vlansEnabledIs(vlans);
  }
  void start() {
    engine.start();
    manager.runFor(0);
  }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  const Bridging::VlanBitmap vlans;
  Engine engine;
};

void fail(benchmark::State& state, const char* what) { state.SkipWithError(what); }

void buildAndTearDown(benchmark::State& state) {
  const auto vlanCount = static_cast<std::uint32_t>(state.range(0));
  double perPair = 0;
  double perPairHeap = 0;
  double tearDown = 0;
  for (auto _ : state) {
    malloc_trim(0);
    auto whole = std::make_unique<Whole>(vlanCount);
    const double resident = residentBytes();
    const double heap = heapBytes();
    const auto begin = std::chrono::steady_clock::now();
    whole->start();
    const auto built = std::chrono::steady_clock::now();
    const std::size_t pairs = whole->engine.pairs();
    if (pairs != std::size_t{kPorts} * vlanCount) return fail(state, "pairs are missing");
    perPair = (residentBytes() - resident) / static_cast<double>(pairs);
    perPairHeap = (heapBytes() - heap) / static_cast<double>(pairs);
    const auto before = std::chrono::steady_clock::now();
    whole->engine.config->globalEnabledIs(false);
    tearDown = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
    if (whole->engine.pairs() != 0) return fail(state, "pairs are left");
    state.SetIterationTime(std::chrono::duration<double>(built - begin).count());
  }
  state.counters["pairs"] = static_cast<double>(kPorts) * vlanCount;
  state.counters["B/pair_resident"] = perPair;
  state.counters["B/pair_heap"] = perPairHeap;
  state.counters["teardown_ms"] = tearDown * 1e3;
}
BENCHMARK(buildAndTearDown)
    ->ArgName("vlans")
    ->Arg(16)
    ->Arg(256)
    ->Arg(kAllVlans)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void peerMapOfPairs(benchmark::State& state) {
  struct Pair {
    double next;
    bool queued;
  };
  for (auto _ : state) {
    std::map<std::pair<Portus::IntfId, std::uint16_t>, std::unique_ptr<Pair>> pairs;
    for (std::uint32_t port = 1; port <= kPorts; ++port) {
      const auto intfId = Portus::IntfId::fromName("eth" + std::to_string(port));
      for (std::uint32_t vlan = 1; vlan <= kAllVlans; ++vlan) {
        pairs[{intfId, static_cast<std::uint16_t>(vlan)}] = std::make_unique<Pair>();
      }
    }
    benchmark::DoNotOptimize(pairs);
  }
}
BENCHMARK(peerMapOfPairs)->Unit(benchmark::kMillisecond);

// One port is excluded and comes back, among more and more pairs of others.
void excludeOnePort(benchmark::State& state) {
  Whole whole(256, static_cast<std::uint32_t>(state.range(0)));
  whole.start();
  const auto port = whole.engine.ports.front();
  for (auto _ : state) {
    whole.engine.config->intfExcludeIs(port, true);
    whole.engine.config->intfExcludeDel(port);
    whole.manager.runFor(0);
  }
  if (whole.engine.pairs() != std::size_t{256} * whole.engine.ports.size()) {
    return fail(state, "pairs are missing");
  }
  state.counters["pairs"] = static_cast<double>(whole.engine.pairs());
}
BENCHMARK(excludeOnePort)
    ->ArgName("ports")
    ->RangeMultiplier(8)
    ->Range(8, 512)
    ->Unit(benchmark::kMicrosecond);

// One VLAN is taken off a port and put back.
void changeOnePair(benchmark::State& state) {
  Whole whole(static_cast<std::uint32_t>(state.range(0)));
  whole.start();
  const auto port = whole.engine.ports.front();
  auto fewer = whole.vlans;
  fewer.clear(7);
  for (auto _ : state) {
    whole.engine.brTopoStatus->intfVlansIs(port, fewer);
    whole.manager.runFor(0);
    whole.engine.brTopoStatus->intfVlansIs(port, whole.vlans);
    whole.manager.runFor(0);
  }
  if (whole.engine.pairs() != std::size_t{kPorts} * whole.vlans.count()) {
    return fail(state, "pairs are missing");
  }
}
BENCHMARK(changeOnePair)
    ->ArgName("vlans")
    ->Arg(16)
    ->Arg(256)
    ->Arg(kAllVlans)
    ->Unit(benchmark::kMicrosecond);

// A loop is found on one port while both queues hold a request of every pair.
void disableWithFullQueues(benchmark::State& state) {
  Whole whole(kAllVlans);
  auto& engine = whole.engine;
  engine.config->transmitConfig()->rateLimitIs(1);
  whole.start();
  engine.transmitStatus->regularPriorityEnq({engine.ports.front(), Bridging::VlanId(1)});
  const auto fill = [&] {
    for (const auto& port : engine.ports) {
      for (std::uint32_t vlan = 1; vlan <= kAllVlans; ++vlan) {
        const Ringward::Status::IntfAndVlan pair{
            port, Bridging::VlanId(static_cast<std::uint16_t>(vlan))};
        engine.transmitStatus->regularPriorityEnq(pair);
        engine.transmitStatus->highPriorityEnq(pair);
      }
    }
  };
  fill();
  const auto status = engine.status->intfStatus(engine.ports[kPorts / 2]);
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    status->disabledIs(true);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    const auto& queue = engine.transmitStatus->regularPriority();
    state.counters["waiting_then"] = static_cast<double>(queue.members());
    status->disabledIs(false);
    for (std::uint32_t vlan = 1; vlan <= kAllVlans; ++vlan) {
      engine.transmitStatus->regularPriorityEnq(
          {engine.ports[kPorts / 2], Bridging::VlanId(static_cast<std::uint16_t>(vlan))});
    }
  }
}
BENCHMARK(disableWithFullQueues)->UseManualTime()->Unit(benchmark::kMillisecond);

// Requests that have waited for the throttle and go out in one nested drain.
void drain(benchmark::State& state) {
  Whole whole(16);
  auto& engine = whole.engine;
  whole.start();
  const auto count = static_cast<std::uint32_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    engine.globalSm->transmitSm()->hasNotificationActiveIs(false);
    for (std::uint32_t i = 0; i < count; ++i) {
      engine.transmitStatus->regularPriorityEnq(
          {engine.ports[i % kPorts], Bridging::VlanId(static_cast<std::uint16_t>(1 + i % 16))});
    }
    engine.globalSm->transmitSm()->hasNotificationActiveIs(true);
    const std::uint64_t before = engine.sent;
    state.ResumeTiming();
    engine.globalSm->transmitSm()->handleRegularPriority();
    state.PauseTiming();
    if (engine.sent - before != count) return fail(state, "not all were sent");
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(drain)
    ->ArgName("requests")
    ->RangeMultiplier(10)
    ->Range(1000, 1'000'000)
    ->Unit(benchmark::kMillisecond);

}  // namespace
