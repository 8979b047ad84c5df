// SPDX-License-Identifier: Apache-2.0
//
// Generic access beside the direct call of the same operation in the same run: a scalar read and
// set by number, an element read by key, the same by path and text, and the text form of a value
// beside printf. Times are per operation.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "model/generic/ModelTypes.h"
#include "model/generic/PathAccess.h"

namespace {

using Ringward::Status::CounterIntf;
using Vex::GenericIf;

struct Tree {
  Tree() {
    config->transmitConfigIs("transmitConfig");
    for (int vlan = 1; vlan <= 4094; ++vlan) config->vlanEnabledIs(Bridging::VlanId(vlan), true);
  }
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Config::TransmitConfig> leaf = config->transmitConfigIs("transmitConfig");
  Vex::Ptr<GenericIf> generic = Vex::genericIf(leaf);
  Vex::Ptr<GenericIf> root = Vex::genericIf(config);
  Ringward::Generic::PathAccess paths{{{"config", [this] { return Vex::genericIf(config); }}}};
};

constexpr Vex::AttributeId kRateLimit = Ringward::Config::TransmitConfig::kRateLimit;
constexpr Vex::AttributeId kVlanEnabled = Ringward::Config::Config::kVlanEnabled;

void readDirect(benchmark::State& state) {
  Tree tree;
  const auto* leaf = tree.leaf.get();
  for (auto _ : state) {
    benchmark::DoNotOptimize(leaf);
    benchmark::DoNotOptimize(leaf->rateLimit());
  }
}

void readGeneric(benchmark::State& state) {
  Tree tree;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tree.generic->attributeOp({kRateLimit, GenericIf::kRead}));
  }
}

void readByPath(benchmark::State& state) {
  Tree tree;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tree.paths.get("config/transmitConfig/rateLimit"));
  }
}

void setDirect(benchmark::State& state) {
  Tree tree;
  auto* leaf = tree.leaf.get();
  std::uint32_t value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(leaf);
    leaf->rateLimitIs(++value);
  }
  if (tree.leaf->rateLimit() != value) state.SkipWithError("not set");
}

void setGeneric(benchmark::State& state) {
  Tree tree;
  std::uint32_t value = 0;
  for (auto _ : state) {
    tree.generic->attributeOp({kRateLimit, GenericIf::kSet}, nullptr, Vex::genericValue(++value));
  }
  if (tree.leaf->rateLimit() != value) state.SkipWithError("not set");
}

void setByPath(benchmark::State& state) {
  Tree tree;
  std::uint32_t value = 0;
  for (auto _ : state) {
    tree.paths.set("config/transmitConfig/rateLimit", std::to_string(++value));
  }
  if (tree.leaf->rateLimit() != value) state.SkipWithError("not set");
}

void elementDirect(benchmark::State& state) {
  Tree tree;
  int vlan = 0;
  for (auto _ : state) {
    vlan = vlan % 4094 + 1;
    benchmark::DoNotOptimize(tree.config->vlanEnabled(Bridging::VlanId(vlan)));
  }
}

void elementGeneric(benchmark::State& state) {
  Tree tree;
  int vlan = 0;
  for (auto _ : state) {
    vlan = vlan % 4094 + 1;
    const auto key = Vex::genericValue(Bridging::VlanId(vlan));
    benchmark::DoNotOptimize(tree.root->attributeOp({kVlanEnabled, GenericIf::kRead}, key));
  }
}

CounterIntf counter() { return {Portus::IntfId::fromName("eth1"), 1, 2, 4294967295U}; }

void printfText(benchmark::State& state) {
  const CounterIntf value = counter();
  for (auto _ : state) {
    char text[200];
    const std::string name = value.key.name();
    std::snprintf(text, sizeof text,
                  "Value('Ringward::Status::CounterIntf', ** {'key': %s, 'tx': %u, 'rx': %u, "
                  "'rxOther': %u})",
                  name.c_str(), value.tx, value.rx, value.rxOther);
    benchmark::DoNotOptimize(text);
  }
}

void writeText(benchmark::State& state) {
  const CounterIntf value = counter();
  for (auto _ : state) benchmark::DoNotOptimize(valueToStrep(value));
}

void scanfText(benchmark::State& state) {
  const std::string text = valueToStrep(counter()).str();
  for (auto _ : state) {
    char name[64];
    unsigned tx = 0;
    unsigned rx = 0;
    unsigned other = 0;
    const int read =
        std::sscanf(text.c_str(),
                    "Value('Ringward::Status::CounterIntf', ** {'key': %63[^,], 'tx': %u, "
                    "'rx': %u, 'rxOther': %u})",
                    name, &tx, &rx, &other);
    if (read != 4) state.SkipWithError("not read");
    const CounterIntf value(Portus::IntfId::fromName(name), tx, rx, other);
    benchmark::DoNotOptimize(value);
  }
}

void readText(benchmark::State& state) {
  const Vex::String8 text = valueToStrep(counter());
  for (auto _ : state) benchmark::DoNotOptimize(Vex::strepToValue<CounterIntf>(text));
}

BENCHMARK(readDirect);
BENCHMARK(readGeneric);
BENCHMARK(readByPath);
BENCHMARK(setDirect);
BENCHMARK(setGeneric);
BENCHMARK(setByPath);
BENCHMARK(elementDirect);
BENCHMARK(elementGeneric);
BENCHMARK(printfText);
BENCHMARK(writeText);
BENCHMARK(scanfText);
BENCHMARK(readText);

}  // namespace
