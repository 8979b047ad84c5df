// SPDX-License-Identifier: Apache-2.0
//
// The attribute log beside the property changes of sd-bus, both without a process between: one
// change from its setter to the other end, in memory and over a pair of sockets; 64 changes that
// go together; and a new mirror that receives a full queue and all VLANs. Times are per change, or
// per element of the new mirror. Allocations are those of the sending side while it sends.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <vector>

#include "bench/SdBusServer.h"
#include "model/attrlog/Session.h"
#include "model/config/Config.h"
#include "model/status/TransmitStatus.h"

namespace {
std::uint64_t allocations = 0;
}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* const block = std::malloc(size); block != nullptr) return block;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}

namespace {

using Ringward::AttrLog::Session;

// Two stream sockets that are connected to each other.
struct Sockets {
  std::array<int, 2> fd{};
  Sockets() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd.data()) != 0) {
      throw std::runtime_error("socketpair");
    }
  }
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;
  ~Sockets() {
    for (const int one : fd) {
      if (one >= 0) close(one);
    }
  }
};

void moveInMemory(Session& from, Session& to) {
  to.bytesIn(from.output());
  from.outputDel(from.output().size());
}

void moveOverSockets(const Sockets& sockets, Session& from, Session& to) {
  const auto output = from.output();
  const ssize_t written = write(sockets.fd[0], output.data(), output.size());
  if (written < 0) throw std::runtime_error("write");
  from.outputDel(static_cast<std::size_t>(written));
  // Not cleared: that would be measured, too, and read() says how much of it is good.
  std::array<std::uint8_t, 65536> bytes;
  const ssize_t got = read(sockets.fd[1], bytes.data(), bytes.size());
  if (got < 0) throw std::runtime_error("read");
  to.bytesIn({bytes.data(), static_cast<std::size_t>(got)});
}

struct Mirrored {
  Vex::Ptr<Ringward::Config::Config> original = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Config::Config> mirror = Ringward::Config::configFactory("config");
  Session server{{}};
  Session client{{}};
  Mirrored() {
    client.mirrorIs(*mirror);
    server.rootIs(*original);
    moveInMemory(server, client);
  }
};

template <class Move>
void changes(benchmark::State& state, Move&& move) {
  Mirrored at;
  const auto together = static_cast<std::uint32_t>(state.range(0));
  std::uint32_t value = 0;
  std::uint64_t allocated = 0;
  for (auto _ : state) {
    const std::uint64_t before = allocations;
    for (std::uint32_t i = 0; i < together; ++i) at.original->clearCountersIs(++value);
    allocated += allocations - before;
    move(at.server, at.client);
  }
  if (at.mirror->clearCounters() != value) state.SkipWithError("the mirror did not follow");
  state.SetItemsProcessed(state.iterations() * together);
  state.counters["allocations"] =
      static_cast<double>(allocated) / static_cast<double>(state.iterations() * together);
}

void attrLogInMemory(benchmark::State& state) { changes(state, moveInMemory); }
void attrLogOverSockets(benchmark::State& state) {
  const Sockets sockets;
  changes(state, [&](Session& from, Session& to) { moveOverSockets(sockets, from, to); });
}

constexpr const char* kPath = "/ringward/config";
constexpr const char* kInterface = "ringward.Config";

// A private connection of two ends, without a bus daemon.
struct Bus {
  Sockets sockets;
  sd_bus* server = nullptr;
  sd_bus* client = nullptr;
  std::uint32_t value = 0;
  std::uint32_t seen = 0;
  std::uint64_t signals = 0;

  Bus() {
    static const std::array<sd_bus_vtable, 3> kTable = {
        {SD_BUS_VTABLE_START(0),
         SD_BUS_PROPERTY("ClearCounters", "u", nullptr, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
         SD_BUS_VTABLE_END}};
    server = newSdBusServer(sockets.fd[0]);
    required(sd_bus_new(&client));
    required(sd_bus_set_fd(client, sockets.fd[1], sockets.fd[1]));
    required(sd_bus_set_anonymous(client, 1));
    required(sd_bus_start(client));
    sockets.fd = {-1, -1};  // the connections close them
    required(sd_bus_add_object_vtable(server, nullptr, kPath, kInterface, kTable.data(), &value));
    required(sd_bus_add_filter(client, nullptr, onMessage, this));
    while (sd_bus_is_ready(server) <= 0 || sd_bus_is_ready(client) <= 0) {
      required(sd_bus_process(server, nullptr));
      required(sd_bus_process(client, nullptr));
    }
  }
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  ~Bus() {
    sd_bus_close_unref(client);
    sd_bus_close_unref(server);
  }

  static int onMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    auto& bus = *static_cast<Bus*>(self);
    if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Properties", "PropertiesChanged") <=
        0) {
      return 0;
    }
    const char* text = nullptr;
    required(sd_bus_message_read(message, "s", &text));
    required(sd_bus_message_enter_container(message, 'a', "{sv}"));
    required(sd_bus_message_enter_container(message, 'e', "sv"));
    required(sd_bus_message_read(message, "s", &text));
    required(sd_bus_message_read(message, "v", "u", &bus.seen));
    ++bus.signals;
    return 1;
  }
};

void sdBusProperty(benchmark::State& state) {
  Bus bus;
  const auto together = static_cast<std::uint32_t>(state.range(0));
  std::uint64_t wanted = 0;
  for (auto _ : state) {
    for (std::uint32_t i = 0; i < together; ++i) {
      ++bus.value;
      required(sd_bus_emit_properties_changed(bus.server, kPath, kInterface, "ClearCounters",
                                              static_cast<char*>(nullptr)));
    }
    required(sd_bus_flush(bus.server));
    wanted += together;
    while (bus.signals < wanted) required(sd_bus_process(bus.client, nullptr));
  }
  if (bus.seen != bus.value) state.SkipWithError("the other end did not follow");
  state.SetItemsProcessed(state.iterations() * together);
}

// 262,016 queue entries: 64 interfaces with all VLANs.
void attrLogNewMirror(benchmark::State& state) {
  const auto config = Ringward::Config::configFactory("config");
  const auto transmit = Ringward::Status::transmitStatusFactory("transmit");
  for (std::uint16_t vlan = 1; vlan <= Bridging::kMaxVlanId; ++vlan) {
    config->vlanEnabledIs(Bridging::VlanId(vlan), true);
    for (unsigned port = 0; port < 64; ++port) {
      transmit->regularPriorityEnq(
          {Portus::IntfId::fromName("eth" + std::to_string(port)), Bridging::VlanId(vlan)});
    }
  }
  const std::uint32_t elements =
      transmit->regularPriority().members() + config->vlanEnabledColl().members();
  for (auto _ : state) {
    const auto configMirror = Ringward::Config::configFactory("config");
    const auto transmitMirror = Ringward::Status::transmitStatusFactory("transmit");
    Session server({});
    Session client({});
    client.mirrorIs(*configMirror);
    client.mirrorIs(*transmitMirror);
    server.rootIs(*config);
    server.rootIs(*transmit);
    while (!server.output().empty()) moveInMemory(server, client);
    if (transmitMirror->regularPriority().members() + configMirror->vlanEnabledColl().members() !=
        elements) {
      state.SkipWithError("the mirror is not complete");
    }
  }
  state.SetItemsProcessed(state.iterations() * elements);
}

BENCHMARK(attrLogInMemory)->Arg(1)->Arg(64);
BENCHMARK(attrLogOverSockets)->Arg(1)->Arg(64);
BENCHMARK(sdBusProperty)->Arg(1)->Arg(64);
BENCHMARK(attrLogNewMirror)->Unit(benchmark::kMillisecond);

}  // namespace
