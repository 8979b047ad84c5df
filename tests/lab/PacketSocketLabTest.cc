// SPDX-License-Identifier: Apache-2.0
//
// The packet socket on real interfaces: veth pairs and a bridge in a namespace of its own. That
// something does not arrive is shown by a frame that was sent after it and does.
#include "platform/linux/PacketSocket.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/LinkMonitor.h"
#include "tests/lab/Namespace.h"

namespace Platform::Linux {
namespace {

using Frame = std::vector<std::uint8_t>;
using Portus::EthAddr;

constexpr EthAddr kOurs(0x02, 0x00, 0x5E, 0xA0, 0x00, 0x01);
constexpr EthAddr kTheirs(0x02, 0x00, 0x5E, 0xA0, 0x00, 0x02);

constexpr std::array<sock_filter, 8> kProbes{{{0x28, 0, 0, 12},
                                              {0x15, 4, 0, 0x88B7},
                                              {0x15, 1, 0, 0x8100},
                                              {0x15, 0, 3, 0x9100},
                                              {0x28, 0, 0, 16},
                                              {0x15, 0, 1, 0x88B7},
                                              {0x06, 0, 0, 0xFFFF},
                                              {0x06, 0, 0, 0}}};
constexpr std::array<sock_filter, 1> kEverything{{{0x06, 0, 0, 0xFFFF}}};

template <class Program>
PacketSocketConfig configOf(const Program& program, std::optional<EthAddr> source = std::nullopt) {
  return {Portus::PacketFilter{std::span<const sock_filter>(program)}, 3, std::size_t{1} << 20,
          source};
}

// A frame with `header` (tags and type) behind its addresses and `last` as its last byte.
Frame frameOf(const Frame& header, std::uint8_t last, const EthAddr& source = kOurs) {
  Frame frame(6, 0xFF);
  frame.insert(frame.end(), source.bytes().begin(), source.bytes().end());
  frame.insert(frame.end(), header.begin(), header.end());
  frame.insert(frame.end(), {0x0A, 0x1B, 0x2C, 3, 1, 0, 0, 0, 0, 0, 0, 0, 0});
  frame.push_back(last);
  return frame;
}

const Frame kProbeType{0x88, 0xB7};
constexpr std::uint8_t kSentinel = 0xFE;
constexpr std::uint8_t kOperUp = 6;  // IF_OPER_UP, RFC 2863

struct Heard {
  int ifindex = 0;
  Frame bytes;
  bool truncated = false;
};

bool isSentinel(const Frame& bytes) { return !bytes.empty() && bytes.back() == kSentinel; }

// Reads until `stop` says so of a frame, which is part of the result. Only frames with one of our
// two sources count: the kernel sends a few of its own when interfaces come up.
template <class Stop>
std::vector<Heard> hearUntil(PacketSocket& socket, const Stop& stop) {
  std::vector<Heard> heard;
  bool stopped = false;
  const PacketSocket::Sink sink = [&](const ReceivedFrame& frame) {
    Heard item{frame.ifindex, {frame.bytes.begin(), frame.bytes.end()}, frame.truncated};
    if (item.bytes.size() < 12 || item.bytes[6] != 0x02 || item.bytes[8] != 0x5E) return;
    stopped = stopped || stop(item);
    heard.push_back(std::move(item));
  };
  while (!stopped) {
    pollfd waiting{socket.fd(), POLLIN, 0};
    if (::poll(&waiting, 1, 5000) <= 0) {
      ADD_FAILURE() << "no frame for five seconds after " << heard.size();
      break;
    }
    socket.receiveBatch(sink, 1);
  }
  return heard;
}

// Sends the sentinel on `from` and returns all that was heard before it.
std::vector<Heard> hearAll(PacketSocket& socket, int from) {
  EXPECT_FALSE(socket.send(from, frameOf(kProbeType, kSentinel)));
  std::vector<Heard> heard = hearUntil(socket, [](const Heard& h) { return isSentinel(h.bytes); });
  if (!heard.empty()) heard.pop_back();
  return heard;
}

int indexOf(const char* name) {
  const auto index = static_cast<int>(::if_nametoindex(name));
  EXPECT_GT(index, 0) << name;
  return index;
}

class SilentListener : public LinkMonitor::Listener {
 public:
  void linkIs(const LinkInfo&, const LinkInfo*) override {}
  void linkDel(const LinkInfo&) override {}
};

// The kernel silently drops what is sent before it has noticed the carrier, up to a second later.
void waitUntilUp(const std::vector<std::string>& names) {
  SilentListener listener;
  LinkMonitor monitor(listener);
  ASSERT_FALSE(monitor.start());
  const auto isUp = [&](const std::string& name) {
    const LinkInfo* link = monitor.table().link(indexOf(name.c_str()));
    return link != nullptr && link->operState == kOperUp;
  };
  while (!std::all_of(names.begin(), names.end(), isUp)) {
    pollfd waiting{monitor.fd(), POLLIN, 0};
    ASSERT_GT(::poll(&waiting, 1, 5000), 0) << "no carrier for five seconds";
    while (monitor.process(100)) {
    }
  }
}

void newPair(const std::string& left, const std::string& right) {
  Lab::shell("ip link add name " + left + " type veth peer name " + right);
  for (const std::string& name : {left, right}) {
    std::ofstream("/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6") << "1";
    Lab::shell("ip link set " + name + " up");
  }
  waitUntilUp({left, right});
}

void sendAll(PacketSocket& socket, int ifindex, const Frame& frame, int times) {
  for (int i = 0; i < times; ++i) EXPECT_FALSE(socket.send(ifindex, frame));
}

struct Row {
  const char* what;
  Frame header;
  bool passesKernel;  // the kernel's filter lets it through
  bool passesRule;    // it is a probe in the form of the wire
};

const std::vector<Row> kRows{
    {"untagged", {0x88, 0xB7}, true, true},
    {"8100", {0x81, 0x00, 0xE0, 0x64, 0x88, 0xB7}, true, true},
    {"8100 DEI", {0x81, 0x00, 0xFF, 0xFE, 0x88, 0xB7}, true, true},
    {"8100 vid 0 priority 7", {0x81, 0x00, 0xE0, 0x00, 0x88, 0xB7}, true, true},
    {"8100 all zero", {0x81, 0x00, 0x00, 0x00, 0x88, 0xB7}, true, true},
    {"88A8", {0x88, 0xA8, 0x00, 0x05, 0x88, 0xB7}, true, false},
    {"9100", {0x91, 0x00, 0x00, 0x05, 0x88, 0xB7}, true, true},
    {"8100+8100", {0x81, 0x00, 0, 5, 0x81, 0x00, 0, 6, 0x88, 0xB7}, true, false},
    {"88A8+8100", {0x88, 0xA8, 0, 5, 0x81, 0x00, 0, 6, 0x88, 0xB7}, true, false},
    {"8100+9100", {0x81, 0x00, 0, 5, 0x91, 0x00, 0, 6, 0x88, 0xB7}, true, false},
    {"8100+88A8", {0x81, 0x00, 0, 5, 0x88, 0xA8, 0, 6, 0x88, 0xB7}, false, false},
    {"9100+8100", {0x91, 0x00, 0, 5, 0x81, 0x00, 0, 6, 0x88, 0xB7}, false, false},
    {"9100+9100", {0x91, 0x00, 0, 5, 0x91, 0x00, 0, 6, 0x88, 0xB7}, false, false},
    {"triple", {0x81, 0, 0, 5, 0x81, 0, 0, 6, 0x81, 0, 0, 7, 0x88, 0xB7}, false, false},
    {"IPv4", {0x08, 0x00}, false, false},
    {"88B8", {0x88, 0xB8}, false, false},
    {"LLC", {0x00, 0x0E, 0x42, 0x42, 0x03}, false, false},
    {"8100+IPv4", {0x81, 0x00, 0, 5, 0x08, 0x00}, false, false},
};

TEST(PacketSocketLab, ExactlyTheProbesInTheFormOfTheWireAreDelivered) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    for (const Row& row : kRows) {
      SCOPED_TRACE(row.what);
      const auto before = sut.statistics();
      const Frame sent = frameOf(row.header, 1);
      ASSERT_FALSE(sut.send(e0, sent));
      const std::vector<Heard> heard = hearAll(sut, e0);
      ASSERT_EQ(heard.size(), row.passesRule ? 1U : 0U);
      if (row.passesRule) {
        EXPECT_EQ(heard[0].bytes, sent);
        EXPECT_EQ(heard[0].ifindex, indexOf("e1"));
      }
      const auto& after = sut.statistics();
      EXPECT_EQ(after.rejectedByRule - before.rejectedByRule,
                row.passesKernel && !row.passesRule ? 1U : 0U);
    }
  });
}

TEST(PacketSocketLab, EveryFrameIsRebuiltByteForByte) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kEverything));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    for (const Row& row : kRows) {
      SCOPED_TRACE(row.what);
      const Frame sent = frameOf(row.header, 1);
      ASSERT_FALSE(sut.send(e0, sent));
      const std::vector<Heard> heard = hearAll(sut, e0);
      ASSERT_EQ(heard.size(), 1U);
      EXPECT_EQ(heard[0].bytes, sent);
    }
  });
}

TEST(PacketSocketLab, FramesOfEveryLengthArriveWholeExceptTaggedOnesTooShortForTheKernel) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    for (const std::size_t size : {14U, 15U, 28U, 60U, 64U, 1514U}) {
      Frame sent = frameOf(kProbeType, 1);
      sent.resize(size, 0x11);
      ASSERT_FALSE(sut.send(e0, sent)) << size;
      const std::vector<Heard> heard = hearAll(sut, e0);
      ASSERT_EQ(heard.size(), 1U) << size;
      EXPECT_EQ(heard[0].bytes, sent) << size;
    }
    for (const std::size_t size : {14U, 16U, 18U}) {
      Frame sent = frameOf({0x81, 0x00, 0xE0, 0x05, 0x88, 0xB7}, 1);
      sent.resize(size);
      ASSERT_FALSE(sut.send(e0, sent)) << size;
      EXPECT_TRUE(hearAll(sut, e0).empty()) << size;
    }
    Frame tagged = frameOf({0x81, 0x00, 0xE0, 0x05, 0x88, 0xB7}, 1);
    tagged.resize(1518, 0x22);
    ASSERT_FALSE(sut.send(e0, tagged));
    const std::vector<Heard> heard = hearAll(sut, e0);
    ASSERT_EQ(heard.size(), 1U);
    EXPECT_EQ(heard[0].bytes, tagged);
  });
}

TEST(PacketSocketLab, FrameToAnotherUnicastAddressIsHeard) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    Frame sent = frameOf(kProbeType, 1);
    const Frame other{0x02, 0x77, 0x77, 0x77, 0x77, 0x77};
    std::copy(other.begin(), other.end(), sent.begin());
    ASSERT_FALSE(sut.send(indexOf("e0"), sent));
    const std::vector<Heard> heard = hearAll(sut, indexOf("e0"));
    ASSERT_EQ(heard.size(), 1U);
    EXPECT_EQ(heard[0].bytes, sent);
  });
}

TEST(PacketSocketLab, OwnFramesAreNeverDelivered) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    PacketSocket other(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    ASSERT_FALSE(other.open());
    sendAll(sut, indexOf("e0"), frameOf(kProbeType, 1), 5);
    sendAll(other, indexOf("e0"), frameOf(kProbeType, 2), 5);
    const std::vector<Heard> heard = hearAll(sut, indexOf("e0"));
    EXPECT_EQ(heard.size(), 10U);
    for (const Heard& item : heard) EXPECT_EQ(item.ifindex, indexOf("e1"));
  });
}

TEST(PacketSocketLab, FrameOnABridgePortIsHeardOnThePortAndOnTheBridgeOnly) {
  Lab::runInNamespace([] {
    Lab::shell("ip link add name br0 type bridge");
    std::ofstream("/proc/sys/net/ipv6/conf/br0/disable_ipv6") << "1";
    newPair("e0", "e1");
    newPair("f0", "f1");
    Lab::shell("ip link set e1 master br0 && ip link set f1 master br0 && ip link set br0 up");
    waitUntilUp({"e1", "f1", "br0"});
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    const Frame sent = frameOf({0x81, 0x00, 0xE0, 0x64, 0x88, 0xB7}, 1);
    ASSERT_FALSE(sut.send(indexOf("e0"), sent));
    // In through port e1, up to the bridge device, and flooded out of f1 to its peer.
    ASSERT_FALSE(sut.send(indexOf("e0"), frameOf(kProbeType, kSentinel)));
    std::size_t sentinels = 0;
    const std::vector<Heard> heard = hearUntil(sut, [&](const Heard& item) {
      sentinels += isSentinel(item.bytes) ? 1U : 0U;
      return sentinels == 3;
    });
    std::map<int, int> counts;
    for (const Heard& item : heard) {
      if (isSentinel(item.bytes)) continue;
      ++counts[item.ifindex];
      EXPECT_EQ(item.bytes, sent) << item.ifindex;
    }
    const std::map<int, int> expected{{indexOf("e1"), 1}, {indexOf("br0"), 1}, {indexOf("f0"), 1}};
    EXPECT_EQ(counts, expected);
  });
}

TEST(PacketSocketLab, GuardDropsForeignFramesInTheKernelAndCountsThemExactly) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes, kOurs));
    PacketSocket sender(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    ASSERT_FALSE(sender.open());
    const int e0 = indexOf("e0");
    sendAll(sender, e0, frameOf(kProbeType, 1, kOurs), 5);
    sendAll(sender, e0, frameOf(kProbeType, 2, kTheirs), 700);
    sendAll(sender, e0, frameOf({0x81, 0, 0, 5, 0x88, 0xB7}, 2, kTheirs), 70);
    sendAll(sender, e0, frameOf({0x08, 0x00}, 3, kTheirs), 11);
    sendAll(sender, e0, frameOf({0x08, 0x00}, 3, kOurs), 11);
    const std::vector<Heard> heard = hearAll(sut, e0);
    EXPECT_EQ(heard.size(), 5U);
    EXPECT_EQ(sut.statistics().foreign, 770U);
    EXPECT_EQ(sut.statistics().foreign, 770U) << "reading twice must not count twice";
    EXPECT_EQ(sut.statistics().received, 6U);
    EXPECT_EQ(sut.statistics().kernelDrops, 0U);
  });
}

TEST(PacketSocketLab, GuardHoldsForFramesQueuedBeforeItWasSet) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    sendAll(sut, e0, frameOf(kProbeType, 1, kTheirs), 3);
    sendAll(sut, e0, frameOf(kProbeType, 1, kOurs), 2);
    ASSERT_FALSE(sut.sourceIs(kOurs));
    sendAll(sut, e0, frameOf(kProbeType, 1, kTheirs), 4);
    EXPECT_EQ(hearAll(sut, e0).size(), 2U);
    EXPECT_EQ(sut.statistics().foreign, 7U);
  });
}

TEST(PacketSocketLab, GuardCanBeMovedAndTakenOff) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes, kTheirs));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    sendAll(sut, e0, frameOf(kProbeType, 1, kOurs), 3);
    ASSERT_FALSE(sut.sourceIs(kOurs));
    sendAll(sut, e0, frameOf(kProbeType, 1, kTheirs), 5);
    sendAll(sut, e0, frameOf(kProbeType, 1, kOurs), 1);
    EXPECT_EQ(hearAll(sut, e0).size(), 1U);
    EXPECT_EQ(sut.statistics().foreign, 8U);
    ASSERT_FALSE(sut.sourceIs(std::nullopt));
    sendAll(sut, e0, frameOf(kProbeType, 1, kTheirs), 2);
    EXPECT_EQ(hearAll(sut, e0).size(), 2U);
    EXPECT_EQ(sut.statistics().foreign, 8U);
  });
}

TEST(PacketSocketLab, BatchReadsAtMostWhatItWasAllowed) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    sendAll(sut, indexOf("e0"), frameOf(kProbeType, 1), 100);
    std::size_t heard = 0;
    const PacketSocket::Sink sink = [&](const ReceivedFrame&) { ++heard; };
    EXPECT_EQ(sut.receiveBatch(sink, 0), 0U);
    EXPECT_EQ(sut.receiveBatch(sink, 1), 1U);
    EXPECT_EQ(sut.receiveBatch(sink, 33), 33U);
    EXPECT_EQ(sut.receiveBatch(sink, 64), 64U);
    EXPECT_EQ(heard, 98U);
    EXPECT_EQ(sut.receiveBatch(sink, 64), 2U);
    EXPECT_EQ(sut.receiveBatch(sink, 64), 0U);
    EXPECT_EQ(heard, 100U);
  });
}

TEST(PacketSocketLab, ExceptionOfTheSinkLosesOneFrameOnly) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    sendAll(sut, indexOf("e0"), frameOf(kProbeType, 1), 10);
    std::size_t heard = 0;
    const PacketSocket::Sink sink = [&](const ReceivedFrame&) {
      if (++heard == 4) throw std::runtime_error("sink");
    };
    EXPECT_THROW(sut.receiveBatch(sink, 100), std::runtime_error);
    EXPECT_EQ(sut.receiveBatch(sink, 100), 6U);
    EXPECT_EQ(heard, 10U);
  });
}

TEST(PacketSocketLab, LongFrameIsCutMarkedAndCounted) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    Lab::shell("ip link set e0 mtu 9000 && ip link set e1 mtu 9000");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    for (const std::size_t size : {std::size_t{2048}, std::size_t{2049}, std::size_t{9014}}) {
      Frame sent = frameOf(kProbeType, 1);
      sent.resize(size, 0x33);
      ASSERT_FALSE(sut.send(e0, sent));
      const std::vector<Heard> heard = hearAll(sut, e0);
      ASSERT_EQ(heard.size(), 1U) << size;
      EXPECT_EQ(heard[0].truncated, size > PacketSocket::kLargestFrame) << size;
      sent.resize(std::min(size, PacketSocket::kLargestFrame));
      EXPECT_EQ(heard[0].bytes, sent) << size;
    }
    EXPECT_EQ(sut.statistics().truncated, 2U);
  });
}

TEST(PacketSocketLab, FramesBeyondTheReceiveBufferAreCountedAsDropped) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocketConfig config = configOf(kProbes);
    config.receiveBuffer = 1;  // the kernel's minimum
    PacketSocket sut(config);
    ASSERT_FALSE(sut.open());
    sendAll(sut, indexOf("e0"), frameOf(kProbeType, 1), 500);
    const PacketSocket::Sink ignore = [](const ReceivedFrame&) {};
    const std::size_t kept = sut.receiveBatch(ignore, 1000);
    EXPECT_GT(kept, 0U);
    EXPECT_LT(kept, 500U);
    EXPECT_EQ(sut.statistics().kernelDrops + kept, 500U);
  });
}

TEST(PacketSocketLab, FailedSendsAreReturnedAndCountedByCause) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    newPair("f0", "f1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    const int f0 = indexOf("f0");
    const Frame probe = frameOf(kProbeType, 1);
    EXPECT_EQ(sut.send(e0, Frame(13, 0xFF)).value(), EINVAL);
    Frame giant = probe;
    giant.resize(4000);
    EXPECT_EQ(sut.send(e0, giant).value(), EMSGSIZE);
    Lab::shell("ip link set f0 down && ip link del e0");
    EXPECT_EQ(sut.send(f0, probe).value(), ENETDOWN);
    EXPECT_EQ(sut.send(e0, probe).value(), ENXIO);
    EXPECT_EQ(sut.send(0, probe).value(), ENXIO);
    EXPECT_EQ(sut.send(-5, probe).value(), ENXIO);
    const auto& statistics = sut.statistics();
    EXPECT_EQ(statistics.sent, 0U);
    PacketSocket::SendErrors expected;
    expected.invalid = 1;
    expected.messageSize = 1;
    expected.netDown = 1;
    expected.noDevice = 3;
    EXPECT_EQ(statistics.sendErrors, expected);
  });
}

TEST(PacketSocketLab, BatchIsSentInOrderAndAFailedFrameCostsOnlyItself) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    newPair("f0", "f1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    const int e0 = indexOf("e0");
    const int f0 = indexOf("f0");
    Lab::shell("ip link set f0 down");
    const Frame first = frameOf(kProbeType, 1);
    const Frame lost = frameOf(kProbeType, 2);
    const Frame second = frameOf(kProbeType, 3);
    const Frame shortOne(13, 0xFF);
    const Frame third = frameOf(kProbeType, 4);
    const std::vector<OutgoingFrame> batch{{f0, lost},     {e0, first}, {e0, second}, {f0, lost},
                                           {e0, shortOne}, {e0, third}, {-5, lost}};
    std::vector<std::pair<std::size_t, int>> failed;
    sut.send(batch, [&](std::size_t position, std::error_code error) {
      failed.emplace_back(position, error.value());
    });
    const std::vector<std::pair<std::size_t, int>> expected{
        {0, ENETDOWN}, {3, ENETDOWN}, {4, EINVAL}, {6, ENXIO}};
    EXPECT_EQ(failed, expected);
    EXPECT_EQ(sut.statistics().sent, 3U);
    std::vector<std::uint8_t> heard;
    for (const Heard& h : hearAll(sut, e0)) heard.push_back(h.bytes.back());
    EXPECT_EQ(heard, (std::vector<std::uint8_t>{1, 3, 4}));
    sut.send({}, [](std::size_t, std::error_code) { ADD_FAILURE() << "nothing to fail"; });
  });
}

TEST(PacketSocketLab, ReceptionOutlivesEveryInterface) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket sut(configOf(kProbes));
    ASSERT_FALSE(sut.open());
    Lab::shell("ip link set e1 down && ip link set e1 up && ip link set e1 name renamed");
    waitUntilUp({"e0", "renamed"});
    EXPECT_TRUE(hearAll(sut, indexOf("e0")).empty());
    Lab::shell("ip link del e0");
    newPair("e0", "e1");
    EXPECT_TRUE(hearAll(sut, indexOf("e0")).empty());
    EXPECT_EQ(sut.statistics().received, 2U);
  });
}

TEST(PacketSocketLab, NothingIsQueuedThatTheFilterHasNotSeen) {
  Lab::runInNamespace([] {
    newPair("e0", "e1");
    PacketSocket noise(configOf(kEverything));
    ASSERT_FALSE(noise.open());
    const int e0 = indexOf("e0");
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const Frame other = frameOf({0x08, 0x00}, 1);
      while (::getppid() == parent) noise.send(e0, other);
      ::_exit(0);
    }
    hearUntil(noise, [](const Heard&) { return true; });
    // Takes the kernel long to check and translate, so frames do come while it is attached.
    std::vector<sock_filter> nothing(4000, sock_filter{BPF_LD | BPF_IMM, 0, 0, 1});
    nothing.push_back({BPF_RET | BPF_K, 0, 0, 0});
    std::size_t read = 0;
    for (int i = 0; i < 30; ++i) {
      PacketSocket sut(configOf(nothing));
      EXPECT_FALSE(sut.open());
      read += sut.receiveBatch([](const ReceivedFrame&) {}, 1000);
    }
    EXPECT_EQ(read, 0U);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  });
}

TEST(PacketSocketLab, ClosedSocketReceivesNothingAndSaysWhySendingFails) {
  PacketSocket sut(configOf(kProbes));
  EXPECT_EQ(sut.fd(), -1);
  EXPECT_EQ(sut.receiveBatch([](const ReceivedFrame&) {}, 10), 0U);
  EXPECT_EQ(sut.send(1, frameOf(kProbeType, 1)).value(), EBADF);
  EXPECT_EQ(sut.statistics().sendErrors.other, 1U);
}

}  // namespace
}  // namespace Platform::Linux
