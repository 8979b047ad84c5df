// SPDX-License-Identifier: Apache-2.0
//
// What an engine at full size costs while nothing is due: 64 ports x 4,094 VLANs, every port held
// down, on the real activity loop in a process of its own. The kernel's count of voluntary context
// switches is how often it woke. Beside it an epoll loop with the one timer of one second that most
// daemons run.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "bench/Engine.h"
#include "runtime/vex/EpollActivityManager.h"

namespace {

constexpr unsigned kSeconds = 3;

// Runs `body` in a child, which calls its argument when it is ready to idle and then idles until it
// is killed; returns the context switches of kSeconds of idling, -1 if the child failed.
long switchesWhileIdle(const std::function<void(const std::function<void()>&)>& body) {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    body([&] { static_cast<void>(!write(ready[1], "r", 1)); });
    _exit(1);
  }
  close(ready[1]);
  char byte = 0;
  const bool isReady = child > 0 && read(ready[0], &byte, 1) == 1;
  close(ready[0]);
  const auto switches = [child] {
    std::string path = "/proc/" + std::to_string(child) + "/status";
    long count = -1;
    if (std::FILE* file = std::fopen(path.c_str(), "r")) {
      char line[256];
      while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::sscanf(line, "voluntary_ctxt_switches: %ld", &count) == 1) break;
      }
      std::fclose(file);
    }
    return count;
  };
  long result = -1;
  if (isReady) {
    poll(nullptr, 0, 500);  // into the wait
    const long before = switches();
    poll(nullptr, 0, static_cast<int>(kSeconds * 1000));
    result = switches() - before;
  }
  if (child > 0) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  return result;
}

void idleEngine(benchmark::State& state) {
  const auto rateLimit = static_cast<std::uint32_t>(state.range(0));
  long switches = 0;
  for (auto _ : state) {
    switches = switchesWhileIdle([&](const std::function<void()>& ready) {
      Vex::EpollActivityManager manager;
      const Vex::CurrentActivityManager current(manager);
      const auto vlans = Bench::firstVlans(4094);
      Bench::Engine engine;
      engine.config->transmitConfig()->rateLimitIs(rateLimit);
      engine.portsIs(64, vlans);
      engine.vlansEnabledIs(vlans);
      engine.start();
      class Held final : public Vex::DeferredTask {
       public:
        Held(Vex::ActivityManager& m, Bench::Engine& e, const std::function<void()>& r)
            : DeferredTask(m), engine(e), ready(r) {}
        void run() override {
          if (engine.pairs() != std::size_t{64} * 4094) _exit(2);
          for (const auto& port : engine.ports) {
            engine.status->intfStatus(port)->disabledIs(true);
          }
          ready();
        }
        Bench::Engine& engine;
        const std::function<void()>& ready;
      };
      Held held(manager, engine, ready);
      held.schedule();
      manager.run();
    });
  }
  if (switches < 0) return state.SkipWithError("the engine did not stand");
  if (rateLimit == 0 && switches != 0) return state.SkipWithError("woke without something due");
  state.counters["wakeups/s"] = static_cast<double>(switches) / kSeconds;
}
BENCHMARK(idleEngine)
    ->ArgName("rateLimit")
    ->Arg(0)
    ->Arg(1000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

void peerLoopWithATimer(benchmark::State& state) {
  long switches = 0;
  for (auto _ : state) {
    switches = switchesWhileIdle([](const std::function<void()>& ready) {
      const int timer = timerfd_create(CLOCK_MONOTONIC, 0);
      const itimerspec every{{1, 0}, {1, 0}};
      timerfd_settime(timer, 0, &every, nullptr);
      ready();
      for (std::uint64_t count = 0; read(timer, &count, sizeof count) > 0;) {
      }
    });
  }
  state.counters["wakeups/s"] = static_cast<double>(switches) / kSeconds;
}
BENCHMARK(peerLoopWithATimer)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
