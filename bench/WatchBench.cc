// SPDX-License-Identifier: Apache-2.0
//
// From a setter in one process to the other process that sleeps and is to hear of it: the agent's
// control server to a mirror's notification, and to a line that `ringward watch` has written,
// beside a property change of sd-bus without a bus daemon, and the bare socket that all of them
// stand on.
//
// Each round has every contestant once, so that whatever else the machine does meets all of them:
// the other process is seen to sleep, the setter runs, and the other process says when it had the
// value. Times are nanoseconds; `of_sdbus` is the p50, `of_sdbus_p99` the p99, in parts of the
// peer's. The setters have one processor, the others another.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "bench/SdBusServer.h"
#include "bench/Watchers.h"

namespace {

using WatchBench::Contestant;
using WatchBench::Mirror;
using WatchBench::Watch;

constexpr const char* kPath = "/ringward/config";
constexpr const char* kInterface = "ringward.Config";

std::array<int, 2> newSockets() {
  std::array<int, 2> ends{};
  required(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()));
  return ends;
}

class SdBus final : public Contestant {
 public:
  SdBus() {
    const std::array<int, 2> ends = newSockets();
    helperIs([this, ends] { follow(ends[1]); });
    static const std::array<sd_bus_vtable, 3> kTable = {
        {SD_BUS_VTABLE_START(0),
         SD_BUS_PROPERTY("ClearCounters", "u", nullptr, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
         SD_BUS_VTABLE_END}};
    bus_ = newSdBusServer(ends[0]);
    required(sd_bus_add_object_vtable(bus_, nullptr, kPath, kInterface, kTable.data(), &value_));
    close(ends[1]);
  }
  SdBus(const SdBus&) = delete;
  SdBus& operator=(const SdBus&) = delete;
  ~SdBus() override { sd_bus_close_unref(bus_); }
  void turn() override { required(sd_bus_process(bus_, nullptr)); }
  void change() override {
    ++value_;
    required(sd_bus_emit_properties_changed(bus_, kPath, kInterface, "ClearCounters",
                                            static_cast<char*>(nullptr)));
    required(sd_bus_flush(bus_));
  }

 private:
  static int onMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Properties", "PropertiesChanged") >
        0) {
      const char* text = nullptr;
      std::uint32_t value = 0;
      required(sd_bus_message_read(message, "s", &text));
      required(sd_bus_message_enter_container(message, 'a', "{sv}"));
      required(sd_bus_message_enter_container(message, 'e', "sv"));
      required(sd_bus_message_read(message, "s", &text));
      required(sd_bus_message_read(message, "v", "u", &value));
      static_cast<SdBus*>(self)->stamp();
    }
    return 1;
  }
  void follow(int fd) {
    sd_bus* bus = nullptr;
    required(sd_bus_new(&bus));
    required(sd_bus_set_fd(bus, fd, fd));
    required(sd_bus_set_anonymous(bus, 1));
    required(sd_bus_start(bus));
    required(sd_bus_add_filter(bus, nullptr, onMessage, this));
    for (bool ready = false;;) {
      if (required(sd_bus_process(bus, nullptr)) > 0) continue;
      if (!ready && sd_bus_is_ready(bus) > 0) {
        ready = true;
        stamp();
      }
      required(sd_bus_wait(bus, UINT64_MAX));
    }
  }
  sd_bus* bus_ = nullptr;
};

class Bare final : public Contestant {
 public:
  Bare() {
    helperIs([this] {
      std::array<char, 64> message{};
      do {
        stamp();
      } while (recv(ends_[1], message.data(), message.size(), 0) > 0);
    });
  }
  ~Bare() override {
    for (const int end : ends_) close(end);
  }
  // As long as the frame of the log that carries the value.
  void change() override {
    const std::array<char, 47> message{};
    if (send(ends_[0], message.data(), message.size(), MSG_NOSIGNAL) < 0) std::abort();
  }

 private:
  const std::array<int, 2> ends_ = newSockets();
};

constexpr unsigned kRounds = 1'000;
constexpr std::size_t kSdBus = 2;

struct Times {
  std::array<std::vector<std::uint64_t>, 4> of;
  std::string error;
};

Times measured() {
  StoreBench::processorIs(0);
  Times times;
  const std::array<std::unique_ptr<Contestant>, 4> contestants{
      std::make_unique<Mirror>(), std::make_unique<Watch>(), std::make_unique<SdBus>(),
      std::make_unique<Bare>()};
  for (unsigned round = 0; round < kRounds; ++round) {
    for (std::size_t i = 0; i < contestants.size(); ++i) {
      Contestant& each = *contestants[i];
      const auto turn = [&each] { each.turn(); };
      const auto waits = [&each] { return each.page().seen[0] != 0 && each.asleep(); };
      if (!StoreBench::await(waits, turn)) return times.error = "no process that waits", times;
      const std::uint64_t seen = each.page().seen[0];
      const std::uint64_t begin = StoreBench::nanoseconds();
      each.change();
      if (!StoreBench::await([&] { return each.page().seen[0] != seen; }, [] {})) {
        return times.error = "the other process has not heard of a change", times;
      }
      times.of[i].push_back(each.page().stamp - begin);
    }
  }
  for (auto& each : times.of) std::sort(each.begin(), each.end());
  return times;
}

void latency(benchmark::State& state, std::size_t contestant) {
  static const Times times = measured();
  if (!times.error.empty()) return state.SkipWithError(times.error.c_str());
  for (auto _ : state) {
  }
  const auto at = [](std::size_t which, std::size_t percent) {
    return static_cast<double>(times.of[which][kRounds * percent / 100]);
  };
  state.counters["p50"] = at(contestant, 50);
  state.counters["p99"] = at(contestant, 99);
  state.counters["of_sdbus"] = at(contestant, 50) / at(kSdBus, 50);
  state.counters["of_sdbus_p99"] = at(contestant, 99) / at(kSdBus, 99);
}

BENCHMARK_CAPTURE(latency, mirror, 0)->Iterations(1);
BENCHMARK_CAPTURE(latency, watch, 1)->Iterations(1);
BENCHMARK_CAPTURE(latency, sdBus, kSdBus)->Iterations(1);
BENCHMARK_CAPTURE(latency, socket, 3)->Iterations(1);

}  // namespace
