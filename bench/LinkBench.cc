// SPDX-License-Identifier: Apache-2.0
//
// What it costs to follow the links of a switch with 1,000 ports: LinkMonitor and LinkDirectory on
// real interfaces, read in slices as LinkService does, beside a dump of the same two families whose
// bytes are only counted, and beside `ip -j link`; then one link message alone, and the end of a
// dump that names half of the links no more. Without the right to make a network namespace it
// reports an error, not a figure.
#include <benchmark/benchmark.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/Namespace.h"
#include "platform/linux/LinkDirectory.h"
#include "platform/linux/LinkService.h"
#include "platform/linux/PacketAccess.h"
#include "runtime/vex/EpollActivityManager.h"

namespace {

using Platform::Linux::Fd;
using Platform::Linux::LinkDirectory;
using Platform::Linux::LinkInfo;
using Platform::Linux::LinkMonitor;
using Platform::Linux::LinkTable;
using Platform::Linux::PacketAccess;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kLinks = 1000;

// All ports of one bridge. Their far ends are away in a namespace of their own and stay down: a
// carrier would come and go up to a second after the ports, in the middle of another measurement.
bool enterLinks(benchmark::State& state) {
  static const Bench::Namespace far("");
  static const Bench::Namespace links([] {
    std::string commands = "link add name br0 type bridge\n";
    for (std::size_t i = 0; i < kLinks; ++i) {
      const std::string n = std::to_string(i);
      commands += "link add name eth" + n + " group 7 type veth peer name far" + n + " netns " +
                  far.path() + "\n";
    }
    for (std::size_t i = 0; i < kLinks; ++i) {
      commands += "link set dev eth" + std::to_string(i) + " master br0\n";
    }
    return commands + "link set dev br0 up\nlink set group 7 up\n";
  }());
  return links.enter(state);
}

// All ports at once: one request to the kernel, which tells of each port.
bool portsUpIs(bool up) {
  return std::system(up ? "ip link set group 7 up" : "ip link set group 7 down") == 0;
}

// A dump of one family, asked for as LinkMonitor does; `each` gets every datagram.
bool dump(std::uint8_t family, std::uint32_t mask, const std::function<void(const Bytes&)>& each) {
  struct {
    nlmsghdr header;
    ifinfomsg info;
    rtattr attribute;
    std::uint32_t mask;
  } request{};
  static_assert(sizeof request == NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_LENGTH(4));
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.info.ifi_family = family;
  request.attribute = {RTA_LENGTH(4), IFLA_EXT_MASK};
  request.mask = mask;
  const Fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (send(fd.get(), &request, sizeof request, 0) < 0) return false;
  Bytes buffer(std::size_t{64} << 10);
  for (;;) {
    buffer.resize(buffer.capacity());
    const ssize_t size = recv(fd.get(), buffer.data(), buffer.size(), 0);
    if (size < static_cast<ssize_t>(sizeof(nlmsghdr))) return false;
    buffer.resize(static_cast<std::size_t>(size));
    nlmsghdr first{};
    std::memcpy(&first, buffer.data(), sizeof first);
    if (first.nlmsg_type == NLMSG_ERROR) return false;
    if (first.nlmsg_type == NLMSG_DONE) return true;
    each(buffer);
  }
}

bool dumpBoth(const std::function<void(const Bytes&)>& each) {
  return dump(AF_UNSPEC, RTEXT_FILTER_SKIP_STATS, each) &&
         dump(AF_BRIDGE, RTEXT_FILTER_BRVLAN_COMPRESSED, each);
}

void bareDump(benchmark::State& state) {
  if (!enterLinks(state)) return;
  std::size_t bytes = 0;
  for (auto _ : state) {
    if (!dumpBoth([&](const Bytes& part) { bytes += part.size(); })) {
      return state.SkipWithError("dump failed");
    }
  }
  state.counters["bytes"] =
      benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kAvgIterations);
}
BENCHMARK(bareDump)->Unit(benchmark::kMillisecond);

void ipLinkAsJson(benchmark::State& state) {
  if (!enterLinks(state)) return;
  for (auto _ : state) {
    if (std::system("ip -j link >/dev/null") != 0) return state.SkipWithError("ip failed");
  }
}
BENCHMARK(ipLinkAsJson)->Unit(benchmark::kMillisecond)->UseRealTime();

// A directory as the agent has it, with the entities and no engine that watches them.
struct Directory final : LinkMonitor::Listener {
  Directory()
      : access(Vex::makePtr<PacketAccess>(manager, true)),
        entities{Vex::makePtr<Interface::AllIntfStatusDir>("allIntfStatusDir"),
                 Vex::makePtr<Interface::AllIntfStatusLocalDir>("allIntfStatusLocalDir"),
                 Vex::makePtr<Interface::EthIntfStatusDir>("ethIntfStatusDir"),
                 Vex::makePtr<Bridging::Config>("brConfig"),
                 Vex::makePtr<Bridging::Topology::Config>("brTopoConfig"),
                 Vex::makePtr<Bridging::Topology::Status>("brTopoStatus")} {
    Platform::Linux::PortSelection selection;
    selection.bridge = "br0";
    for (std::uint32_t vlan = 1; vlan <= 64; ++vlan) selection.vlans.set(vlan);
    directory = std::make_unique<LinkDirectory>(entities, access, selection);
  }
  void linkIs(const LinkInfo& now, const LinkInfo* before) override {
    ++told;
    directory->linkIs(now, before);
  }
  void linkDel(const LinkInfo& last) override {
    ++told;
    directory->linkDel(last);
  }

  Vex::EpollActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  const Vex::Ptr<PacketAccess> access;
  const Platform::Linux::DirectoryEntities entities;
  std::unique_ptr<LinkDirectory> directory;
  std::size_t told = 0;  // of how many differences the monitor has told
};

// What the loop does in as many turns as it takes.
void readAll(LinkMonitor& monitor) {
  while (monitor.process(Platform::Linux::LinkService::kMessagesPerTurn)) {
  }
}

void firstRead(benchmark::State& state) {
  if (!enterLinks(state)) return;
  for (auto _ : state) {
    state.PauseTiming();
    auto directory = std::make_unique<Directory>();
    auto monitor = std::make_unique<LinkMonitor>(*directory);
    state.ResumeTiming();
    const std::error_code error = monitor->start();
    state.PauseTiming();
    if (error || directory->directory->ports() != kLinks) {
      return state.SkipWithError("not all ports");
    }
    monitor.reset();
    directory.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(firstRead)->Unit(benchmark::kMillisecond);

void resyncWithNothingChanged(benchmark::State& state) {
  if (!enterLinks(state)) return;
  Directory directory;
  LinkMonitor monitor(directory);
  if (monitor.start()) return state.SkipWithError("cannot read the links");
  const std::size_t told = directory.told;
  for (auto _ : state) {
    monitor.resync();
    readAll(monitor);
  }
  if (!monitor.inSync() || directory.told != told) state.SkipWithError("something has changed");
}
BENCHMARK(resyncWithNothingChanged)->Unit(benchmark::kMillisecond);

// Each port goes down, or up again, while nobody reads: with the agent's receive buffer the monitor
// reads that from the kernel's messages; with the smallest one nearly all of them are lost, and a
// comparison finds it.
void allPortsChanged(benchmark::State& state, bool lost) {
  if (!enterLinks(state)) return;
  Directory directory;
  LinkMonitor::Config config;
  if (lost) config.receiveBuffer = 1;
  LinkMonitor monitor(directory, config);
  if (monitor.start()) return state.SkipWithError("cannot read the links");
  const std::uint64_t messages = monitor.statistics().messages;
  bool up = true;
  for (auto _ : state) {
    up = !up;
    const bool changed = portsUpIs(up);
    const std::size_t told = directory.told;
    const std::uint64_t resyncs = monitor.statistics().resyncs;
    const auto begin = std::chrono::steady_clock::now();
    readAll(monitor);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(seconds.count());
    const bool resynced = monitor.statistics().resyncs != resyncs;
    if (!changed || directory.told - told < kLinks || resynced != lost || !monitor.inSync()) {
      return state.SkipWithError("not every change was found, or not in the way expected");
    }
  }
  if (!up && !portsUpIs(true)) state.SkipWithError("cannot raise the ports again");
  state.counters["messages"] =
      benchmark::Counter(static_cast<double>(monitor.statistics().messages - messages),
                         benchmark::Counter::kAvgIterations);
}
void resyncWithEveryPortChanged(benchmark::State& state) { allPortsChanged(state, true); }
void messagesOfEveryPortChanged(benchmark::State& state) { allPortsChanged(state, false); }
BENCHMARK(resyncWithEveryPortChanged)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(10);
BENCHMARK(messagesOfEveryPortChanged)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(10);

// The messages of the first family's dump.
std::vector<Bytes> linkMessages() {
  std::vector<Bytes> messages;
  dump(AF_UNSPEC, RTEXT_FILTER_SKIP_STATS, [&](const Bytes& part) {
    for (std::size_t at = 0; at + sizeof(nlmsghdr) <= part.size();) {
      nlmsghdr header{};
      std::memcpy(&header, &part[at], sizeof header);
      if (header.nlmsg_len < sizeof header || header.nlmsg_len > part.size() - at) return;
      const auto begin = part.begin() + static_cast<std::ptrdiff_t>(at);
      messages.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(header.nlmsg_len));
      at += NLMSG_ALIGN(header.nlmsg_len);
    }
  });
  return messages;
}

void flipAdminUp(Bytes& message) {
  constexpr std::size_t kFlags = NLMSG_HDRLEN + offsetof(ifinfomsg, ifi_flags);
  message[kFlags] = static_cast<std::uint8_t>(message[kFlags] ^ IFF_UP);
}

enum MessageUse : std::int64_t { kParsed, kUnchanged, kChanged };

// One message: taken apart; through table and directory, with nothing new in it; and with each
// saying that the port went down, or came up.
void linkMessage(benchmark::State& state) {
  if (!enterLinks(state)) return;
  std::vector<Bytes> messages = linkMessages();
  if (messages.size() < kLinks) return state.SkipWithError("cannot read the links");
  Directory directory;
  LinkTable table;
  const auto heard = [&](const Bytes& bytes) {
    const auto message = Platform::Linux::parseLinkMessage(bytes);
    if (!message) return;
    if (const auto change = table.messageIs(*message)) {
      directory.linkIs(*change->now, change->before ? &*change->before : nullptr);
    }
  };
  for (const Bytes& message : messages) heard(message);
  const std::size_t told = directory.told;
  std::size_t next = 0;
  for (auto _ : state) {
    Bytes& message = messages[next];
    next = next + 1 < messages.size() ? next + 1 : 0;
    if (state.range(0) == kParsed) {
      benchmark::DoNotOptimize(Platform::Linux::parseLinkMessage(message));
    } else {
      if (state.range(0) == kChanged) flipAdminUp(message);
      heard(message);
    }
  }
  const auto expected = state.range(0) == kChanged ? state.iterations() : 0;
  if (directory.told - told != static_cast<std::size_t>(expected)) {
    state.SkipWithError("not one difference for each change");
  }
}
BENCHMARK(linkMessage)->ArgName("use")->Arg(kParsed)->Arg(kUnchanged)->Arg(kChanged);

// The end of a dump that no longer names the later half of the links: the time for each link.
void sweepOfHalf(benchmark::State& state) {
  const auto links = static_cast<int>(state.range(0));
  Platform::Linux::LinkMessage message;
  message.arpType = 1;  // ARPHRD_ETHER
  const auto tell = [&](LinkTable& table, int count) {
    for (message.ifindex = 1; message.ifindex <= count; ++message.ifindex) {
      message.name = "eth" + std::to_string(message.ifindex);
      table.messageIs(message);
    }
  };
  int gone = 0;
  for (auto _ : state) {
    state.PauseTiming();
    LinkTable table;
    tell(table, links);
    table.dumpBegin(AF_UNSPEC);
    tell(table, links / 2);
    state.ResumeTiming();
    while (table.unseenDel(AF_UNSPEC)) ++gone;
  }
  if (gone != links / 2 * state.iterations()) state.SkipWithError("not the half that was gone");
  state.counters["ns/link"] =
      benchmark::Counter(static_cast<double>(links) * static_cast<double>(state.iterations()) / 1e9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(sweepOfHalf)->ArgName("links")->Arg(1000)->Arg(4000)->Unit(benchmark::kMillisecond);

}  // namespace
