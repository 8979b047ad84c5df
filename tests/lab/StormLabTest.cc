// SPDX-License-Identifier: Apache-2.0
//
// Packet access in a storm: 64 ports on real veth pairs, the real activity loop, and more probes
// than it can read. What is asserted is counted in frames and turns; the rates that are printed are
// for the reader. A flood comes from a process of its own and is bounded in frames.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "engine/ProbeFrame.h"
#include "platform/linux/LinkMonitor.h"
#include "platform/linux/PacketAccess.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/EpollActivityManager.h"
#include "tests/lab/Namespace.h"

namespace Platform::Linux {
namespace {

constexpr std::size_t kPorts = 64;
// What one turn may handle at most. Not PacketAccess::kFramesPerTurn: a slice that grows fails.
constexpr std::size_t kSlice = 256;
constexpr std::uint8_t kOperUp = 6;  // IF_OPER_UP, RFC 2863
constexpr double kPatience = 5;      // seconds, for what takes less than one
constexpr Portus::EthAddr kOurs(0x02, 0x00, 0x5E, 0xA0, 0x00, 0x01);

// What the engine attaches: probes without a tag and with one.
constexpr std::array<sock_filter, 8> kProbes{{{0x28, 0, 0, 12},
                                              {0x15, 4, 0, 0x88B7},
                                              {0x15, 1, 0, 0x8100},
                                              {0x15, 0, 3, 0x9100},
                                              {0x28, 0, 0, 16},
                                              {0x15, 0, 1, 0x88B7},
                                              {0x06, 0, 0, 0xFFFF},
                                              {0x06, 0, 0, 0}}};

std::string farName(std::size_t port) { return "far" + std::to_string(port); }
std::string portName(std::size_t port) { return "eth" + std::to_string(port); }

void waitUntilUp() {
  class Silent final : public LinkMonitor::Listener {
    void linkIs(const LinkInfo&, const LinkInfo*) override {}
    void linkDel(const LinkInfo&) override {}
  } listener;
  LinkMonitor monitor(listener);
  ASSERT_FALSE(monitor.start());
  // The kernel silently drops what is sent before it has noticed the carrier.
  const auto up = [&] {
    return static_cast<std::size_t>(
        std::count_if(monitor.table().links().begin(), monitor.table().links().end(),
                      [](const auto& link) { return link.second.operState == kOperUp; }));
  };
  while (up() < 2 * kPorts) {
    pollfd waiting{monitor.fd(), POLLIN, 0};
    ASSERT_GT(::poll(&waiting, 1, 5000), 0) << "no carrier for five seconds";
    while (monitor.process(100)) {
    }
  }
}

void makePairs() {
  std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << "1";
  std::string batch;
  for (std::size_t port = 0; port < kPorts; ++port) {
    batch += "link add name " + farName(port) + " type veth peer name " + portName(port) + "\n";
    batch += "link set " + farName(port) + " up\nlink set " + portName(port) + " up\n";
  }
  Lab::shell("ip -batch - <<EOF\n" + batch + "EOF\n");
  waitUntilUp();
}

// Frames that the kernel took from a sender and lost before any socket could: its queue between
// the two ends of a pair is short.
std::uint64_t lostOnTheWire() {
  std::ifstream file("/proc/self/net/dev");
  std::uint64_t lost = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.find("far") == std::string::npos) continue;
    std::istringstream fields(line.substr(line.find(':') + 1));
    std::array<std::uint64_t, 16> counts{};
    for (std::uint64_t& count : counts) fields >> count;
    constexpr std::size_t kTransmitDrops = 11;
    lost += counts[kTransmitDrops];
  }
  return lost;
}

// Sends our own probes into the far ends, one into each in turn.
class Sender {
 public:
  Sender() : fd_(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
    EXPECT_TRUE(fd_) << std::strerror(errno);
    for (std::size_t port = 0; port < kPorts; ++port) {
      const auto pkt = Portus::globalPktManager()->newPkt();
      Ringward::writeProbe(
          *pkt, {kOurs, Bridging::VlanIdOrNone(10), Portus::IntfId::fromName(farName(port))},
          Bridging::VlanIdOrNone(1));
      frames_[port].assign(pkt->bytes().begin(), pkt->bytes().end());
      addresses_[port].sll_family = AF_PACKET;
      addresses_[port].sll_ifindex = static_cast<int>(::if_nametoindex(farName(port).c_str()));
      addresses_[port].sll_halen = 6;
      vectors_[port] = {frames_[port].data(), frames_[port].size()};
      headers_[port].msg_hdr.msg_name = &addresses_[port];
      headers_[port].msg_hdr.msg_namelen = sizeof(sockaddr_ll);
      headers_[port].msg_hdr.msg_iov = &vectors_[port];
      headers_[port].msg_hdr.msg_iovlen = 1;
    }
  }

  // Into the first `ports` far ends; returns how many the kernel took.
  std::size_t send(std::size_t ports = kPorts) {
    const int sent = ::sendmmsg(fd_.get(), headers_.data(), static_cast<unsigned>(ports), 0);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  std::size_t sendAll(std::size_t frames) {
    std::size_t sent = 0;
    while (frames > 0) {
      const std::size_t ports = std::min(frames, kPorts);
      sent += send(ports);
      frames -= ports;
    }
    return sent;
  }

 private:
  Fd fd_;
  std::array<std::vector<std::uint8_t>, kPorts> frames_;
  std::array<sockaddr_ll, kPorts> addresses_{};
  std::array<iovec, kPorts> vectors_{};
  std::array<mmsghdr, kPorts> headers_{};
};

// A process that sends as fast as it can until it is told to stop, or has gone round 40,000 times.
class Flood {
 public:
  explicit Flood(Sender& sender) {
    EXPECT_EQ(::pipe2(stop_.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(report_.data(), O_CLOEXEC), 0);
    child_ = ::fork();
    EXPECT_GE(child_, 0) << std::strerror(errno);
    if (child_ == 0) run(sender);
    ::close(report_[1]);
  }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;
  ~Flood() { stop(); }

  // Returns how many frames the kernel took, once all of them are sent.
  std::uint64_t stop() {
    if (child_ <= 0) return sent_;
    // Not by closing it: a later flood has a copy of this end.
    EXPECT_EQ(::write(stop_[1], "s", 1), 1);
    for (const int end : stop_) ::close(end);
    EXPECT_EQ(::read(report_[0], &sent_, sizeof sent_), static_cast<ssize_t>(sizeof sent_));
    ::close(report_[0]);
    EXPECT_EQ(::waitpid(child_, nullptr, 0), child_);
    child_ = -1;
    return sent_;
  }

 private:
  [[noreturn]] void run(Sender& sender) {
    constexpr int kMostRounds = 40'000;
    ::close(stop_[1]);
    std::uint64_t sent = 0;
    for (int round = 0; round < kMostRounds; ++round) {
      sent += sender.send();
      pollfd stopped{stop_[0], POLLIN, 0};
      if (::poll(&stopped, 1, 0) > 0) break;
    }
    const bool told = ::write(report_[1], &sent, sizeof sent) == sizeof sent;
    ::_exit(told ? 0 : 1);
  }

  std::array<int, 2> stop_{};
  std::array<int, 2> report_{};
  pid_t child_ = -1;
  std::uint64_t sent_ = 0;
};

// Called once in kInterval, each time anew from the time at which it was called.
class Heartbeat final : public Helm::TimerWheel::NotifieeConst {
 public:
  static constexpr std::uint32_t kTickMsecs = 1;
  static constexpr std::uint32_t kTicks = 1024;
  static constexpr double kInterval = 0.010;

  explicit Heartbeat(Vex::ActivityManager& manager) : manager_(manager) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(Vex::makePtr<Helm::TimerWheel>(
        Vex::makePtr<Vex::ActivityConfig>(manager), nullptr, kTickMsecs, kTicks, true, kTicks)));
    isRegisteredNotifieeIs(true);
    arm();
  }
  void onTime() override {
    ++calls;
    mostSinceDue = std::max(mostSinceDue, sinceDue);
    sinceDue = 0;
    arm();
  }
  // By now at the latest: its own time, rounded up to a tick.
  bool due() const { return manager_.clock()->now() >= timeMin() + kTickMsecs / 1000.0; }
  void frame() {
    if (due()) ++sinceDue;
  }

  std::uint64_t calls = 0;
  std::uint64_t sinceDue = 0;  // frames handled while it should have been called
  std::uint64_t mostSinceDue = 0;

 private:
  void arm() { timeMinIs(manager_.clock()->now() + kInterval); }

  Vex::ActivityManager& manager_;
};

// The ports on the loop, read as the engine reads them.
class Storm {
 public:
  Storm() : access(Vex::makePtr<PacketAccess>(manager, true)) {
    access->sourceIs(kOurs);
    Portus::PamConfig config;
    config.filter = Portus::PacketFilter(std::span(kProbes));
    for (std::size_t port = 0; port < kPorts; ++port) {
      const auto device =
          access->newDevice(static_cast<int>(::if_nametoindex(portName(port).c_str())));
      const auto pam = device->newPam(Portus::IntfId::fromName(portName(port)), config);
      if (!pam) throw std::runtime_error("no packet access");
      readers_.push_back(Vex::makePtr<Reader>(*this, pam));
    }
  }

  // Returns how many frames the turn has handled.
  std::size_t turn(double wait = 0.1) {
    const std::uint64_t before = received();
    manager.runTurn(wait);
    const auto handled = static_cast<std::size_t>(received() - before);
    mostInATurn = std::max(mostInATurn, handled);
    return handled;
  }
  // Runs until as many frames are accounted for as were sent; false: some have vanished.
  bool turnUntilAllOf(std::uint64_t sent) {
    const double deadline = manager.clock()->now() + kPatience;
    while (accounted() < sent && manager.clock()->now() < deadline) turn();
    return accounted() == sent;
  }

  std::uint64_t received() const { return received_; }
  std::uint64_t receivedOn(std::size_t port) const { return readers_[port]->count; }
  std::uint64_t dropped() { return access->statistics().kernelDrops; }
  std::uint64_t accounted() { return received() + dropped() + lostOnTheWire(); }

  Vex::EpollActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Vex::Ptr<PacketAccess> access;
  Heartbeat* heartbeat = nullptr;
  std::size_t mostInATurn = 0;

 private:
  class Reader final : public Portus::Pam::NotifieeConst {
   public:
    Reader(Storm& storm, const Vex::Ptr<Portus::Pam>& pam) : storm_(storm), pam_(pam) {
      notifierIs(Vex::Ptr<Vex::PtrInterface const>(pam));
      isRegisteredNotifieeIs(true);
    }
    void onReadableCount() override {
      const auto pkt = pam_->rxPkt();
      if (!pkt || Ringward::readProbe(*pkt, Bridging::VlanIdOrNone(1)).mac != kOurs) return;
      ++count;
      ++storm_.received_;
      if (storm_.heartbeat != nullptr) storm_.heartbeat->frame();
    }
    std::uint64_t count = 0;

   private:
    Storm& storm_;
    const Vex::Ptr<Portus::Pam> pam_;
  };

  std::uint64_t received_ = 0;
  std::vector<Vex::Ptr<Reader>> readers_;
};

// Sends until the receive buffer is full, so that a storm need not be faster than its reader to
// overrun it. Returns how many the kernel took.
std::uint64_t fillBuffer(Storm& storm, Sender& sender) {
  std::uint64_t sent = 0;
  for (int round = 0; round < 4000 && storm.dropped() < 1000; ++round) sent += sender.send();
  EXPECT_GE(storm.dropped(), 1000U) << "after " << sent << " frames";
  return sent;
}

double threadSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return Vex::secondsOf(time);
}

TEST(StormLab, OneTurnHandlesOneSliceHoweverManyFramesWait) {
  Lab::runInNamespace([] {
    makePairs();
    Storm sut;
    Sender sender;
    constexpr std::size_t kFrames = 20 * kSlice + 7;
    ASSERT_EQ(sender.sendAll(kFrames), kFrames);
    std::vector<std::size_t> turns;
    while (sut.received() < kFrames && turns.size() < 1000) turns.push_back(sut.turn());
    EXPECT_EQ(sut.received(), kFrames);
    EXPECT_EQ(sut.mostInATurn, kSlice) << "a full slice while more wait, and never more";
    EXPECT_GE(turns.size(), 21U);
  });
}

TEST(StormLab, TimerThatIsDueWaitsForOneSliceAtMost) {
  Lab::runInNamespace([] {
    makePairs();
    Storm sut;
    Sender sender;
    // With the queue full from the beginning, a turn without a bound would take many milliseconds.
    std::uint64_t sent = fillBuffer(sut, sender);
    const auto heartbeat = Vex::makePtr<Heartbeat>(sut.manager);
    sut.heartbeat = heartbeat.get();
    // Two of them send more than is read, also where one would not.
    Flood flood(sender);
    Flood other(sender);
    constexpr std::uint64_t kCalls = 50;
    const double deadline = sut.manager.clock()->now() + kPatience;
    std::uint64_t missed = 0;
    while (heartbeat->calls < kCalls && sut.manager.clock()->now() < deadline) {
      const bool due = heartbeat->due();
      const std::uint64_t calls = heartbeat->calls;
      sut.turn();
      if (due && heartbeat->calls == calls) ++missed;
    }
    sent += flood.stop();
    sent += other.stop();
    EXPECT_GE(heartbeat->calls, kCalls);
    EXPECT_EQ(missed, 0U) << "turns that began with the timer due and did not call it";
    EXPECT_LE(heartbeat->mostSinceDue, kSlice) << "frames between its due time and its call";
    EXPECT_LE(sut.mostInATurn, kSlice);
    EXPECT_GT(sut.received(), kCalls * kSlice) << "it was no storm";
    std::fprintf(
        stderr, "timer of 10 ms: %llu calls in %llu of %llu frames; after its time at most %llu\n",
        static_cast<unsigned long long>(heartbeat->calls),
        static_cast<unsigned long long>(sut.received()), static_cast<unsigned long long>(sent),
        static_cast<unsigned long long>(heartbeat->mostSinceDue));
  });
}

TEST(StormLab, EveryFrameIsDeliveredOrCountedAndNothingIsLostAfterTheFlood) {
  Lab::runInNamespace([] {
    makePairs();
    Storm sut;
    Sender sender;
    std::uint64_t sent = fillBuffer(sut, sender);
    constexpr std::uint64_t kFrames = 400'000;
    const double begin = sut.manager.clock()->now();
    const double cpuBegin = threadSeconds();
    Flood flood(sender);
    Flood other(sender);
    while (sut.received() < kFrames && sut.manager.clock()->now() < begin + kPatience) sut.turn();
    const double seconds = sut.manager.clock()->now() - begin;
    const double cpu = threadSeconds() - cpuBegin;
    const std::uint64_t handled = sut.received();
    EXPECT_GE(handled, kFrames);
    sent += flood.stop();
    sent += other.stop();
    static_cast<void>(sut.turnUntilAllOf(sent));
    const std::uint64_t dropped = sut.dropped();
    const std::uint64_t lost = lostOnTheWire();
    ASSERT_EQ(sut.received() + dropped + lost, sent);
    EXPECT_EQ(sut.received(), sut.access->statistics().received);
    EXPECT_GT(dropped, 0U) << "nothing to count";
    EXPECT_EQ(sut.access->statistics().foreign, 0U);
    EXPECT_EQ(sut.access->statistics().receiveErrors, 0U);
    std::fprintf(stderr,
                 "storm: %.0f frames/s handled, %.0f ns of this thread each; of %llu sent %llu "
                 "received, %llu dropped by the socket, %llu before it\n",
                 static_cast<double>(handled) / seconds, cpu * 1e9 / static_cast<double>(handled),
                 static_cast<unsigned long long>(sent),
                 static_cast<unsigned long long>(sut.received()),
                 static_cast<unsigned long long>(dropped), static_cast<unsigned long long>(lost));

    constexpr std::uint64_t kRounds = 64;
    std::array<std::uint64_t, kPorts> before{};
    for (std::size_t port = 0; port < kPorts; ++port) before[port] = sut.receivedOn(port);
    for (std::uint64_t round = 0; round < kRounds; ++round) {
      ASSERT_EQ(sender.send(), kPorts);
      sent += kPorts;
      ASSERT_TRUE(sut.turnUntilAllOf(sent));
    }
    for (std::size_t port = 0; port < kPorts; ++port) {
      EXPECT_EQ(sut.receivedOn(port) - before[port], kRounds) << portName(port);
    }
    EXPECT_EQ(sut.dropped(), dropped);
    EXPECT_EQ(lostOnTheWire(), lost);
  });
}

}  // namespace
}  // namespace Platform::Linux
