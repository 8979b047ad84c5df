// SPDX-License-Identifier: Apache-2.0
//
// The agent where there is no loop: neighbours, strange frames and many quiet ports take nothing
// down, and what it puts on the wire is right to the bit and on time.
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <thread>

#include "tests/lab/LoopScenario.h"

namespace RingwardLab {
namespace {

// Two systems whose ports have the same name, so their probes carry the same identifier, on one
// segment without a loop.
void newNeighbours(Lab& lab) {
  lab.newHost("foreign");
  for (const char* n : {"1", "2"}) {
    const std::string host = std::string("sw") + n;
    lab.newHost(host);
    lab.newLink(host, "eth1", "foreign", std::string("f") + n);
    newSwitch(lab, host, {"eth1"}, std::string("02:00:00:00:10:0") + n);
  }
  lab.newBridge("foreign", "fbr", {"f1", "f2"});
  lab.waitForwarding("foreign", {"f1", "f2"});
}

TEST(NoLoopLab, NeighbourWithPortsOfTheSameNameIsNotTakenForALoop) {
  agentScenario([](Lab& lab) {
    newNeighbours(lab);
    LinkWatch first(lab, "sw1");
    LinkWatch second(lab, "sw2");
    Sniffer firstHears(lab, "sw1", "eth1", Sniffer::Keep::kProbes);
    Sniffer secondHears(lab, "sw2", "eth1", Sniffer::Keep::kProbes);
    Agent agent1(lab, "sw1", {});
    Agent agent2(lab, "sw2", {});
    // Three intervals, in which each has heard the other's probes.
    std::vector<Probe> heard;
    for (const Sniffer* sniffer : {&firstHears, &secondHears}) {
      const auto third = sniffer->waitFrame(
          [](const Frame& frame) { return !frame.outgoing && asProbe(frame.bytes); }, seconds(8),
          agent2.ready().at, 4);
      ASSERT_TRUE(third.has_value());
      heard.push_back(*asProbe(third->bytes));
    }
    EXPECT_EQ(heard[0].id, heard[1].id) << "or the case is not the one meant";
    EXPECT_NE(heard[0].source, heard[1].source);
    EXPECT_TRUE(first.changes().empty());
    EXPECT_TRUE(second.changes().empty());
    EXPECT_TRUE(agent1.events(Kind::kLoop).empty()) << agent1.process().output();
    EXPECT_TRUE(agent2.events(Kind::kLoop).empty()) << agent2.process().output();
    expectCleanEnd(agent1);
    expectCleanEnd(agent2);
  });
}

TEST(NoLoopLab, NeighbourIsTakenForALoopWhenForeignSourcesAreAccepted) {
  agentScenario([](Lab& lab) {
    newNeighbours(lab);
    LinkWatch first(lab, "sw1");
    LinkWatch second(lab, "sw2");
    AgentConfig config;
    config.acceptForeignSource = true;
    config.disabledTime = 0;
    Agent agent1(lab, "sw1", config);
    Agent agent2(lab, "sw2", config);
    // Whoever probes first takes the other down, which then is silent.
    const auto loop1 = agent1.waitEvent(Kind::kLoop, seconds(3));
    const auto loop2 = agent2.waitEvent(Kind::kLoop, Milliseconds(loop1 ? 100 : 3000));
    EXPECT_NE(loop1.has_value(), loop2.has_value())
        << agent1.process().output() << agent2.process().output();
    EXPECT_EQ(first.everDown(), loop1 ? Ports{"eth1"} : Ports{});
    EXPECT_EQ(second.everDown(), loop2 ? Ports{"eth1"} : Ports{});
    for (const auto& loop : {loop1, loop2}) {
      if (loop) {
        EXPECT_EQ(loop->seconds, std::nullopt) << "down for good";
      }
    }
    expectCleanEnd(agent1);
    expectCleanEnd(agent2);
  });
}

// How late the machine wakes a thread that asks for every fifth millisecond: what no program on it
// can do better than.
class WakeMeter {
 public:
  WakeMeter() : timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)), thread_([this] { run(); }) {}
  ~WakeMeter() {
    if (thread_.joinable()) {
      worst();
    }
    close(timer_);
  }
  WakeMeter(const WakeMeter&) = delete;
  WakeMeter& operator=(const WakeMeter&) = delete;

  // Ends the measuring. Milliseconds.
  double worst() {
    stop_ = true;
    thread_.join();
    return worst_;
  }

 private:
  void run() {
    while (!stop_) {
      itimerspec when{};
      when.it_value.tv_nsec = 5'000'000;
      const auto due = Clock::now() + Milliseconds(5);
      timerfd_settime(timer_, 0, &when, nullptr);
      std::uint64_t expiries = 0;
      [[maybe_unused]] const auto size = read(timer_, &expiries, sizeof expiries);
      worst_ = std::max(worst_, millisecondsBetween(due, Clock::now()));
    }
  }

  const int timer_;
  std::atomic<bool> stop_{false};
  double worst_ = 0;
  std::thread thread_;
};

TEST(NoLoopLab, SixtyFourQuietPortsCarryExactProbesAtExactTimes) {
  agentScenario([](Lab& lab) {
    constexpr std::size_t kPorts = 64;
    constexpr std::size_t kVlans = 4;
    constexpr std::size_t kRounds = 6;
    lab.newHost("sw1");
    lab.newHost("foreign");
    std::vector<std::string> ports;
    for (std::size_t i = 1; i <= kPorts; ++i) {
      ports.push_back("eth" + std::to_string(i));
      lab.newLink("sw1", ports.back(), "foreign", "f" + std::to_string(i));
    }
    newSwitch(lab, "sw1", ports);
    LinkWatch watch(lab, "sw1");
    Sniffer sniffer(lab, "foreign", "", Sniffer::Keep::kAll);
    AgentConfig config;
    config.vlans = "1,10-12";
    Agent agent(lab, "sw1", config);
    EXPECT_EQ(agent.ready().ports, 64);
    const auto workBefore = agent.process().cpuTime();
    WakeMeter meter;
    ASSERT_TRUE(sniffer.waitFrame([](const Frame&) { return true; }, seconds(20), {},
                                  kPorts * kVlans * kRounds));
    const auto work = agent.process().cpuTime() - workBefore;
    const double late = meter.worst();
    const auto frames = sniffer.frames();
    EXPECT_EQ(sniffer.dropped(), 0U);

    // Derived from the bridge's address and not equal to it.
    MacAddress source = macOf(kBridgeAddress);
    source[0] ^= 0x40;
    std::map<std::string, ProbeId> ids;
    for (const Frame& frame : frames) {
      const auto probe = asProbe(frame.bytes);
      ASSERT_TRUE(probe.has_value()) << "not a probe to the bit: " << hex(frame.bytes);
      EXPECT_EQ(probe->source, source) << hex(frame.bytes);
      EXPECT_TRUE(!probe->vlan || (*probe->vlan >= 10 && *probe->vlan <= 12)) << hex(frame.bytes);
      EXPECT_EQ(ids.emplace(frame.port, probe->id).first->second, probe->id) << frame.port;
    }
    std::set<ProbeId> distinct;
    for (const auto& [port, id] : ids) {
      distinct.insert(id);
    }
    EXPECT_EQ(distinct.size(), kPorts) << "each port has an identifier of its own";

    const auto streams = probeStreams(frames);
    EXPECT_EQ(streams.size(), kPorts * kVlans);
    // The first probes are spread over the interval: none of its quarters is nearly empty.
    std::array<std::size_t, 4> quarters{};
    for (const auto& [stream, times] : streams) {
      const double phase = millisecondsBetween(frames.front().at, times.front()) / 250.0;
      ++quarters.at(static_cast<std::size_t>(std::clamp(phase, 0.0, 3.0)));
    }
    for (const std::size_t streamsInQuarter : quarters) {
      EXPECT_GE(streamsInQuarter, kPorts * kVlans / 8);
    }
    double worst = 0;
    for (const auto& [stream, times] : streams) {
      EXPECT_GE(times.size(), kRounds - 1) << stream.first << " vlan " << stream.second;
      for (std::size_t i = 1; i < times.size(); ++i) {
        const double off = std::abs(millisecondsBetween(times[i - 1], times[i]) - 1000.0);
        worst = std::max(worst, off);
        EXPECT_LE(off, 15.0 + late) << stream.first << " vlan " << stream.second << " probe " << i;
      }
    }
    std::printf(
        "  %zu probes; spacing off by at most %.2f ms (the machine wakes up to %.2f ms "
        "late); %.2f ms of processor time\n",
        frames.size(), worst, late, std::chrono::duration<double, std::milli>(work).count());
    EXPECT_TRUE(watch.changes().empty());
    EXPECT_TRUE(agent.events(Kind::kLoop).empty()) << agent.process().output();
    expectCleanEnd(agent);
  });
}

// Frames that a careless reader would stumble over or take for a probe of its own.
std::vector<std::pair<std::string, Bytes>> strangeFrames(const Probe& own) {
  std::vector<std::pair<std::string, Bytes>> result;
  const Bytes plain = probeBytes({own.source, std::nullopt, own.id});
  const Bytes tagged = probeBytes({own.source, 1, own.id});
  const auto changed = [](Bytes bytes, std::size_t at, std::uint8_t value) {
    bytes[at] = value;
    return bytes;
  };
  const auto cut = [](Bytes bytes, std::size_t size) {
    bytes.resize(size);
    return bytes;
  };
  const auto withTags = [&](std::size_t count, std::uint8_t type) {
    Bytes bytes = tagged;
    for (; count > 1; --count) {
      const Bytes tag{type, 0x00, 0xE0, 0x01};
      bytes.insert(bytes.begin() + 12, tag.begin(), tag.end());
    }
    return bytes;
  };
  result.emplace_back("a header without anything", cut(plain, 14));
  result.emplace_back("one byte short", cut(plain, 27));
  result.emplace_back("one byte short behind a tag", cut(tagged, 31));
  result.emplace_back("28 bytes with a tag", cut(tagged, 28));
  result.emplace_back("another organisation", changed(plain, 16, 0x2D));
  result.emplace_back("another protocol", changed(plain, 18, 4));
  result.emplace_back("another version", changed(plain, 19, 2));
  result.emplace_back("another ether type", changed(plain, 13, 0xB6));
  result.emplace_back("vlan id 4095 in the tag", changed(changed(tagged, 14, 0xEF), 15, 0xFF));
  result.emplace_back("two tags", withTags(2, 0x81));
  result.emplace_back("three tags", withTags(3, 0x81));
  result.emplace_back("a full frame of tags", cut(withTags(374, 0x81), 1514));
  result.emplace_back("two tags, the outer of a provider", withTags(2, 0x88));
  ProbeId stranger = own.id;
  std::reverse(stranger.begin(), stranger.end());
  stranger[3] = static_cast<std::uint8_t>(~stranger[3]);
  result.emplace_back("an identifier that no port has", probeBytes({own.source, 1, stranger}));
  MacAddress foreign = own.source;
  foreign[5] = static_cast<std::uint8_t>(foreign[5] ^ 1);
  result.emplace_back("a foreign source", probeBytes({foreign, std::nullopt, own.id}));
  result.emplace_back("a foreign source with a tag", probeBytes({foreign, 1, own.id}));
  std::uint8_t noise = 1;
  Bytes random(1514);
  for (std::size_t i = 0; i < random.size(); ++i) {
    noise = static_cast<std::uint8_t>(noise * 29 + 71);
    random[i] = i < 14 ? plain[i] : noise;
  }
  result.emplace_back("a long frame of noise", random);
  return result;
}

TEST(NoLoopLab, StrangeFramesTakeNothingDownAndOwnProbeDoes) {
  agentScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "eth1", "foreign", "f1");
    lab.newLink("sw1", "eth2", "foreign", "f2");
    newSwitch(lab, "sw1", {"eth1", "eth2"});
    LinkWatch watch(lab, "sw1");
    Sniffer sniffer(lab, "sw1", "", Sniffer::Keep::kAll);
    Agent agent(lab, "sw1", {});
    const auto own = sniffer.waitFrame(
        [](const Frame& frame) {
          return frame.outgoing && frame.port == "eth2" && asProbe(frame.bytes);
        },
        seconds(3));
    ASSERT_TRUE(own.has_value()) << agent.process().output();

    Injector injector(lab, "foreign", "f1");
    for (const auto& [what, bytes] : strangeFrames(*asProbe(own->bytes))) {
      SCOPED_TRACE(what);
      injector.send(bytes);
      // So much later that any effect would have shown: the agent answers within milliseconds.
      EXPECT_FALSE(agent.waitEvent(Kind::kLoop, Milliseconds(30)).has_value())
          << agent.process().output();
      EXPECT_TRUE(watch.changes().empty());
      EXPECT_TRUE(agent.process().running()) << agent.process().output();
    }
    waitProbesOut(sniffer, "eth1", 2);
    EXPECT_TRUE(watch.changes().empty());

    // The proof that the road was open all the time.
    const auto sent = Clock::now();
    injector.send(own->bytes);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(1));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_EQ(loop->port, "eth1");
    EXPECT_EQ(loop->sender, "eth2");
    expectCut(watch, *loop, sent);
    EXPECT_EQ(watch.everDown(), Ports{"eth1"});
    expectCleanEnd(agent);
  });
}

TEST(NoLoopLab, ProbeOfAPortThatIsDownTakesNothingDown) {
  agentScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "eth1", "foreign", "f1");
    lab.newLink("sw1", "eth2", "foreign", "f2");
    newSwitch(lab, "sw1", {"eth1", "eth2"});
    LinkWatch watch(lab, "sw1");
    Sniffer sniffer(lab, "foreign", "", Sniffer::Keep::kProbes);
    AgentConfig config;
    config.disabledTime = 600;
    Agent agent(lab, "sw1", config);
    const auto probeOn = [&](const std::string& port) {
      return sniffer.waitFrame([&](const Frame& f) { return f.port == port && asProbe(f.bytes); },
                               seconds(3));
    };
    const auto of1 = probeOn("f1");
    const auto of2 = probeOn("f2");
    ASSERT_TRUE(of1 && of2) << agent.process().output();

    const auto sent = Clock::now();
    Injector(lab, "foreign", "f1").send(of2->bytes);
    const auto first = agent.waitEvent(Kind::kLoop, seconds(1));
    ASSERT_TRUE(first.has_value()) << agent.process().output();
    expectCut(watch, *first, sent);
    // The other end of the same loop hears the port that is down already.
    Injector(lab, "foreign", "f2").send(of1->bytes);
    EXPECT_FALSE(agent.waitEvent(Kind::kLoop, Milliseconds(100), 2).has_value())
        << agent.process().output();
    EXPECT_EQ(watch.everDown(), Ports{"eth1"});
    // Its own probe is another matter.
    Injector(lab, "foreign", "f2").send(of2->bytes);
    const auto second = agent.waitEvent(Kind::kLoop, seconds(1), 2);
    ASSERT_TRUE(second.has_value()) << agent.process().output();
    EXPECT_EQ(second->port, "eth2");
    EXPECT_TRUE(watch.waitChange("eth2", true, seconds(1)).has_value());
    expectCleanEnd(agent);
    EXPECT_TRUE(watch.waitChange("eth1", false, kRecoverySlack).has_value());
    EXPECT_TRUE(watch.waitChange("eth2", false, kRecoverySlack).has_value());
  });
}

}  // namespace
}  // namespace RingwardLab
