// SPDX-License-Identifier: Apache-2.0
//
// What one count of a probe costs, two lookups and two writes, in tables that other processes can
// read; beside it in the same run a whole probe of the same engine, from its timer to a wire that
// costs nothing, of which the count is a part; and the same count in two std::unordered_map, which
// nobody else can read.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/Engine.h"
#include "engine/CountPacket.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Bench::Engine;
using Bench::firstVlans;
using Ringward::CounterKind;
using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;

// A directory in memory, as the one of a machine in service.
class Root {
 public:
  Root() {
    std::string pattern = "/dev/shm/count-bench-XXXXXX";  // mkdtemp(3) fills it in
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;
  ~Root() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void share(Ringward::Status::PacketCounter& counters, const std::string& root) {
  counters.tableRootIs(root);
  counters.counterIntfControl()->init(Quill::QuillType::writer, false, 256);
  counters.counterVlanControl()->init(Quill::QuillType::writer, false, 4096);
}

// Every port and VLAN in turn, as the timers of one tick give them: VLAN by VLAN.
struct Pairs {
  Pairs(benchmark::State& state)
      : ports(static_cast<std::uint32_t>(state.range(0))),
        vlans(static_cast<std::uint32_t>(state.range(1))) {
    for (std::uint32_t port = 1; port <= ports; ++port) {
      intfs.push_back(Portus::IntfId::fromName("eth" + std::to_string(port)));
    }
  }
  template <class Count>
  void forEach(Count&& count) const {
    for (std::uint32_t vlan = 1; vlan <= vlans; ++vlan) {
      for (const Portus::IntfId& intf : intfs) count(intf, Bridging::VlanIdOrNone(vlan));
    }
  }
  std::uint64_t size() const { return std::uint64_t{ports} * vlans; }

  std::uint32_t ports;
  std::uint32_t vlans;
  std::vector<Portus::IntfId> intfs;
};

void report(benchmark::State& state, std::uint64_t counts) {
  const auto all = static_cast<double>(counts) * static_cast<double>(state.iterations());
  state.counters["ns/count"] =
      benchmark::Counter(all / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void countInSharedTables(benchmark::State& state) {
  const Root root;
  Vex::VirtualActivityManager manager;
  const Vex::CurrentActivityManager current(manager);
  const auto counters = Ringward::Status::packetCounterFactory("packetCounter");
  share(*counters, root.path());
  const Pairs pairs(state);
  for (auto _ : state) {
    pairs.forEach([&](const Portus::IntfId& intf, Bridging::VlanIdOrNone vlan) {
      Ringward::countPacket(CounterKind::tx, intf, vlan, *counters);
    });
  }
  if (counters->counterVlanMap().members() != pairs.vlans)
    state.SkipWithError("a record is missing");
  report(state, pairs.size());
}

void countInTwoHashMaps(benchmark::State& state) {
  std::unordered_map<Portus::IntfId, CounterIntf> intfs;
  std::unordered_map<Bridging::VlanIdOrNone, CounterVlan> vlans;
  const Pairs pairs(state);
  for (auto _ : state) {
    pairs.forEach([&](const Portus::IntfId& intf, Bridging::VlanIdOrNone vlan) {
      CounterIntf& ofIntf = intfs[intf];
      ofIntf = {intf, ofIntf.tx + 1, 0, 0};
      CounterVlan& ofVlan = vlans[vlan];
      ofVlan = {vlan, ofVlan.tx + 1, 0, 0};
    });
    benchmark::ClobberMemory();
  }
  report(state, pairs.size());
}

void sizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"ports", "vlans"})->Args({4, 16})->Args({64, 64})->Args({64, 4094});
}
BENCHMARK(countInSharedTables)->Apply(sizes)->Unit(benchmark::kMicrosecond);
BENCHMARK(countInTwoHashMaps)->Apply(sizes)->Unit(benchmark::kMicrosecond);

// In nanoseconds, of this thread: the share is that of the work, whatever else the machine does.
double processorTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// A second of probes of a whole engine, then as many counts by hand: the count's share of a probe.
void probeAndItsCount(benchmark::State& state) {
  const Root root;
  Vex::VirtualActivityManager manager;
  const Vex::CurrentActivityManager current(manager);
  Engine engine;
  const Pairs pairs(state);
  const auto vlans = firstVlans(pairs.vlans);
  share(*engine.packetCounter, root.path());
  engine.config->globalIntfConfig()->transmitIntervalIs(1);
  engine.portsIs(pairs.ports, vlans);
  engine.vlansEnabledIs(vlans);
  engine.start();
  manager.runFor(2);
  double probes = 0;
  double counts = 0;
  std::uint64_t sent = 0;
  for (auto _ : state) {
    const std::uint64_t before = engine.sent;
    const double start = processorTime();
    manager.runFor(1);
    const double middle = processorTime();
    pairs.forEach([&](const Portus::IntfId& intf, Bridging::VlanIdOrNone vlan) {
      Ringward::countPacket(CounterKind::tx, intf, vlan, *engine.packetCounter);
    });
    const double end = processorTime();
    probes += middle - start;
    counts += end - middle;
    sent += engine.sent - before;
  }
  const auto expected = static_cast<double>(pairs.size()) * static_cast<double>(state.iterations());
  if (static_cast<double>(sent) < 0.9 * expected) state.SkipWithError("probes are missing");
  const double probe = probes / static_cast<double>(sent);
  const double count = counts / expected;
  state.counters["ns/probe"] = probe;
  state.counters["ns/count"] = count;
  state.counters["share"] = count / probe;
}
BENCHMARK(probeAndItsCount)->Apply(sizes)->Unit(benchmark::kMillisecond);

}  // namespace
