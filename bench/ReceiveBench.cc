// SPDX-License-Identifier: Apache-2.0
//
// What it costs to read a probe: PacketSocket and PacketAccess beside a bare recvmmsg(2) and
// recvfrom(2) with the same filter and buffer on the same veth pair. Frames are sent in bursts that
// the receive buffer holds; only the reading is timed. Without the right to make a network
// namespace it reports an error, not a figure.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "bench/Namespace.h"
#include "engine/ProbeFrame.h"
#include "platform/linux/LinkMonitor.h"
#include "platform/linux/PacketAccess.h"
#include "runtime/vex/EpollActivityManager.h"

namespace {

using Platform::Linux::Fd;
using Platform::Linux::LinkInfo;
using Platform::Linux::LinkMonitor;
using Platform::Linux::PacketAccess;
using Platform::Linux::PacketSocket;

constexpr std::size_t kFrames = 4096;  // sent and then read at once; the receive buffer holds more
constexpr unsigned kBatch = 32;
constexpr Portus::EthAddr kOurs(0x02, 0x00, 0x5E, 0xA0, 0x00, 0x01);
constexpr std::array<sock_filter, 8> kProbes{{{0x28, 0, 0, 12},
                                              {0x15, 4, 0, 0x88B7},
                                              {0x15, 1, 0, 0x8100},
                                              {0x15, 0, 3, 0x9100},
                                              {0x28, 0, 0, 16},
                                              {0x15, 0, 1, 0x88B7},
                                              {0x06, 0, 0, 0xFFFF},
                                              {0x06, 0, 0, 0}}};

bool enterWire(benchmark::State& state) {
  static const Bench::Namespace wire(
      "link add name wire0 type veth peer name wire1\nlink set wire0 up\nlink set wire1 up\n");
  if (!wire.enter(state)) return false;
  // What is sent before the kernel has noticed the carrier is lost: up to a second later.
  static const bool up = [] {
    struct Silent final : LinkMonitor::Listener {
      void linkIs(const LinkInfo&, const LinkInfo*) override {}
      void linkDel(const LinkInfo&) override {}
    } listener;
    constexpr std::uint8_t kOperUp = 6;  // IF_OPER_UP, RFC 2863
    LinkMonitor monitor(listener);
    if (monitor.start()) return false;
    for (const char* name : {"wire0", "wire1"}) {
      const auto index = static_cast<int>(if_nametoindex(name));
      while (monitor.table().link(index)->operState != kOperUp) {
        pollfd waiting{monitor.fd(), POLLIN, 0};
        if (poll(&waiting, 1, 5000) <= 0) return false;
        while (monitor.process(256)) {
        }
      }
    }
    return true;
  }();
  if (!up) state.SkipWithError("the veth pair has no carrier");
  return up;
}

sockaddr_ll wireEnd(const char* name) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(if_nametoindex(name));
  address.sll_halen = 6;
  return address;
}

// Sends our own probes, tagged as most are.
class Sender {
 public:
  Sender() : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
    const auto pkt = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(*pkt,
                         {kOurs, Bridging::VlanIdOrNone(10), Portus::IntfId::fromName("wire0")},
                         Bridging::VlanIdOrNone(1));
    frame_.assign(pkt->bytes().begin(), pkt->bytes().end());
    vector_ = {frame_.data(), frame_.size()};
    for (mmsghdr& header : headers_) {
      header.msg_hdr.msg_name = &address_;
      header.msg_hdr.msg_namelen = sizeof address_;
      header.msg_hdr.msg_iov = &vector_;
      header.msg_hdr.msg_iovlen = 1;
    }
  }
  bool sendFrames() {
    for (std::size_t sent = 0; sent < kFrames;) {
      const int count = sendmmsg(fd_.get(), headers_.data(), kBatch, 0);
      if (count <= 0) return false;
      sent += static_cast<std::size_t>(count);
    }
    return true;
  }

 private:
  Fd fd_;
  std::vector<std::uint8_t> frame_;
  iovec vector_{};
  sockaddr_ll address_ = wireEnd("wire0");
  std::array<mmsghdr, kBatch> headers_{};
};
static_assert(kFrames % kBatch == 0);

// Times `readSome`, which returns how many frames it has read, over kFrames frames at a time.
void receive(benchmark::State& state, int fd, const std::function<std::size_t()>& readSome) {
  Sender sender;
  for (auto _ : state) {
    state.PauseTiming();
    const bool sent = sender.sendFrames();
    state.ResumeTiming();
    for (std::size_t read = 0; read < kFrames;) {
      const std::size_t count = readSome();
      read += count;
      pollfd waiting{fd, POLLIN, 0};
      if (!sent || (count == 0 && poll(&waiting, 1, 1000) <= 0)) {
        return state.SkipWithError("frames were lost");
      }
    }
  }
  state.counters["ns/frame"] = benchmark::Counter(
      static_cast<double>(kFrames) * static_cast<double>(state.iterations()) / 1e9,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A socket on one interface with the filter and the buffer that PacketSocket has.
Fd bareSocket() {
  Fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sock_fprog program{kProbes.size(), const_cast<sock_filter*>(kProbes.data())};
  sockaddr_ll address = wireEnd("wire1");
  address.sll_protocol = htons(ETH_P_ALL);
  if (setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0 ||
      Platform::Linux::receiveBufferIs(fd, std::size_t{16} << 20) ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fd.close();
  }
  return fd;
}

void receiveBareRecvfrom(benchmark::State& state) {
  if (!enterWire(state)) return;
  const Fd fd = bareSocket();
  std::array<std::uint8_t, PacketSocket::kLargestFrame> frame{};
  receive(state, fd.get(), [&]() -> std::size_t {
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    return recvfrom(fd.get(), frame.data(), frame.size(), MSG_DONTWAIT,
                    reinterpret_cast<sockaddr*>(&from), &length) > 0;
  });
}
BENCHMARK(receiveBareRecvfrom)->Unit(benchmark::kMillisecond);

void receiveBareRecvmmsg(benchmark::State& state) {
  if (!enterWire(state)) return;
  const Fd fd = bareSocket();
  struct Entry {
    sockaddr_ll from;
    iovec vector;
    std::array<std::uint8_t, PacketSocket::kLargestFrame> frame;
  };
  const auto entries = std::make_unique<std::array<Entry, kBatch>>();
  std::array<mmsghdr, kBatch> headers{};
  receive(state, fd.get(), [&]() -> std::size_t {
    for (std::size_t i = 0; i < kBatch; ++i) {
      Entry& entry = (*entries)[i];
      entry.vector = {entry.frame.data(), entry.frame.size()};
      headers[i].msg_hdr.msg_name = &entry.from;
      headers[i].msg_hdr.msg_namelen = sizeof entry.from;
      headers[i].msg_hdr.msg_iov = &entry.vector;
      headers[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = recvmmsg(fd.get(), headers.data(), kBatch, MSG_DONTWAIT, nullptr);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  });
}
BENCHMARK(receiveBareRecvmmsg)->Unit(benchmark::kMillisecond);

// In slices of the size that the loop uses.
void receivePacketSocket(benchmark::State& state) {
  if (!enterWire(state)) return;
  PacketSocket socket({.filter = Portus::PacketFilter(std::span(kProbes)), .source = kOurs});
  if (socket.open()) return state.SkipWithError("cannot open the socket");
  std::uint64_t bytes = 0;
  const PacketSocket::Sink sink = [&](const Platform::Linux::ReceivedFrame& frame) {
    bytes += frame.bytes.size();
  };
  receive(state, socket.fd(),
          [&] { return socket.receiveBatch(sink, PacketAccess::kFramesPerTurn); });
  if (bytes < kFrames * Ringward::kTaggedProbeSize) state.SkipWithError("frames came short");
}
BENCHMARK(receivePacketSocket)->Unit(benchmark::kMillisecond);

// All the way to whoever watches the port: a turn of the loop, a packet, a notification.
void receivePacketAccess(benchmark::State& state) {
  if (!enterWire(state)) return;
  Vex::EpollActivityManager manager;
  const Vex::CurrentActivityManager current(manager);
  const auto access = Vex::makePtr<PacketAccess>(manager, true);
  access->sourceIs(kOurs);
  Portus::PamConfig config;
  config.filter = Portus::PacketFilter(std::span(kProbes));
  const auto pam = access->newDevice(static_cast<int>(if_nametoindex("wire1")))
                       ->newPam(Portus::IntfId::fromName("wire1"), config);
  if (!pam) return state.SkipWithError("no packet access");
  class Reader final : public Portus::Pam::NotifieeConst {
   public:
    explicit Reader(Vex::Ptr<Portus::Pam> pam) : pam_(std::move(pam)) {
      notifierIs(Vex::Ptr<Vex::PtrInterface const>(pam_));
      isRegisteredNotifieeIs(true);
    }
    void onReadableCount() override {
      if (pam_->rxPkt()) ++count;
    }
    std::size_t count = 0;

   private:
    const Vex::Ptr<Portus::Pam> pam_;
  };
  const auto reader = Vex::makePtr<Reader>(pam);
  receive(state, -1, [&] {
    const std::size_t before = reader->count;
    manager.runTurn(1);
    return reader->count - before;
  });
}
BENCHMARK(receivePacketAccess)->Unit(benchmark::kMillisecond);

}  // namespace
