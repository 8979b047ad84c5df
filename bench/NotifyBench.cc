// SPDX-License-Identifier: Apache-2.0
//
// An attribute change with its notification beside what else tells somebody of something: a virtual
// call, a std::function, a sigc++ signal. With 1 and with 64 watchers; times are per change.
#include <benchmark/benchmark.h>
#include <sigc++/sigc++.h>

#include <functional>
#include <memory>
#include <vector>

#include "model/status/IntfStatus.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

struct Listener {
  virtual ~Listener() = default;
  virtual void changed() = 0;
};
struct Counting final : Listener {
  explicit Counting(std::uint64_t& count) : count_(count) {}
  void changed() override { ++count_; }
  std::uint64_t& count_;
};

class Watcher final : public Ringward::Status::IntfStatus::NotifieeConst {
 public:
  Watcher(const Vex::Ptr<Ringward::Status::IntfStatus>& status, std::uint64_t& count)
      : count_(count) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(status));
    isRegisteredNotifieeIs(true);
  }
  void onDisabledUntil() override { ++count_; }

 private:
  std::uint64_t& count_;
};

void check(benchmark::State& state, std::uint64_t count) {
  const auto told = static_cast<std::uint64_t>(state.iterations() * state.range(0));
  if (count != told) state.SkipWithError("not everybody was told");
}

void attributeChange(benchmark::State& state) {
  Vex::VirtualActivityManager manager;
  const Vex::CurrentActivityManager current(manager);
  const auto status = Vex::makePtr<Ringward::Status::IntfStatus>(Portus::IntfId::fromName("eth1"));
  std::uint64_t count = 0;
  std::vector<Vex::Ptr<Watcher>> watchers;
  for (int i = 0; i < state.range(0); ++i) watchers.push_back(Vex::makePtr<Watcher>(status, count));
  double value = 1;
  for (auto _ : state) status->disabledUntilIs(value += 1);
  check(state, count);
}

void virtualCall(benchmark::State& state) {
  std::uint64_t count = 0;
  std::vector<std::unique_ptr<Listener>> listeners;
  for (int i = 0; i < state.range(0); ++i) listeners.push_back(std::make_unique<Counting>(count));
  double value = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value += 1);
    for (const auto& listener : listeners) {
      Listener* told = listener.get();
      benchmark::DoNotOptimize(told);  // its class is not known here
      told->changed();
    }
  }
  check(state, count);
}

void stdFunction(benchmark::State& state) {
  std::uint64_t count = 0;
  std::vector<std::function<void()>> listeners;
  for (int i = 0; i < state.range(0); ++i) listeners.emplace_back([&count] { ++count; });
  double value = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value += 1);
    for (auto& listener : listeners) {
      benchmark::DoNotOptimize(listener);
      listener();
    }
  }
  check(state, count);
}

void sigcSignal(benchmark::State& state) {
  std::uint64_t count = 0;
  sigc::signal<void> signal;
  for (int i = 0; i < state.range(0); ++i) signal.connect([&count] { ++count; });
  double value = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(value += 1);
    signal.emit();
  }
  check(state, count);
}

BENCHMARK(attributeChange)->ArgName("watchers")->Arg(1)->Arg(64);
BENCHMARK(virtualCall)->ArgName("watchers")->Arg(1)->Arg(64);
BENCHMARK(stdFunction)->ArgName("watchers")->Arg(1)->Arg(64);
BENCHMARK(sigcSignal)->ArgName("watchers")->Arg(1)->Arg(64);

}  // namespace
