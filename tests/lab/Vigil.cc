// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Vigil.h"

#include <algorithm>
#include <iterator>
#include <regex>
#include <utility>

namespace RingwardLab {

namespace {

// What a program's memory may grow by without being called a leak, once it has met a loop.
constexpr std::size_t kGrowthKiB = 256;
// Frames per second on the innocent port: probes of every VLAN and nothing else.
constexpr double kQuietRate = 100.0;
constexpr Milliseconds kQuietPatience{2000};

}  // namespace

std::vector<std::string> numbered(const std::string& stem, int first, int last) {
  std::vector<std::string> result;
  for (int i = first; i <= last; ++i) {
    result.push_back(stem + std::to_string(i));
  }
  return result;
}

void newPlant(Lab& lab, int count) {
  for (const char* host : {"sw1", "foreign", "innocent"}) {
    lab.newHost(host);
  }
  lab.newLink("sw1", "eth0", "innocent", "i0");
  for (int i = 1; i <= count; ++i) {
    lab.newLink("sw1", "eth" + std::to_string(i), "foreign", "f" + std::to_string(i));
  }
  newSwitch(lab, "sw1", numbered("eth", 0, count));
}

Vigil::Vigil(Lab& lab, std::string name, const AgentConfig& config)
    : lab_(lab), name_(std::move(name)), watch_(lab, "sw1") {
  const Ports down = watch_.downNow();
  for (const std::string& port : watch_.ports()) {
    if (!down.contains(port)) {
      ports_.push_back(port);
    }
  }
  arm();
  agent_ = std::make_unique<Agent>(lab, "sw1", config);
  descriptors_ = agent_->process().descriptors();
}

std::uint64_t Vigil::innocentFrames() const { return lab_.link("innocent", "i0").rxFrames; }

void Vigil::arm() {
  returns_.reset();
  returns_ = std::make_unique<ReturnWatch>(lab_, "sw1", ports_);
  workBefore_ = agent_ ? agent_->process().cpuTime() : std::chrono::nanoseconds(0);
  innocentBefore_ = innocentFrames();
  armedAt_ = Clock::now();
}

void Vigil::expectCuts(const std::vector<LoopPorts>& loops, Milliseconds limit, Ends ends) {
  double slowest = 0;
  Ports cut;
  for (const LoopPorts& loop : loops) {
    const auto down = watch_.waitChange(loop, true, limit, armedAt_);
    ASSERT_TRUE(down.has_value()) << "a loop was not cut: " << *loop.begin() << "\n"
                                  << agent_->process().output();
    cut.insert(down->port);
    cutAt_ = std::max(cutAt_, down->at);
    // What comes in on a port that is held already is no news.
    Clock::time_point open = armedAt_;
    for (const LinkWatch::Change& change : watch_.changes()) {
      if (!change.down && change.at < down->at && loop.contains(change.port)) {
        open = std::max(open, change.at);
      }
    }
    const auto first = returns_->first(loop, seconds(1), open);
    ASSERT_TRUE(first.has_value()) << "no probe was seen to come back on " << *loop.begin();
    slowest = std::max(slowest, millisecondsBetween(*first, down->at));
  }
  // A loop inside a neighbour goes on behind its port; what counts is that it stays there.
  lab_.waitQuiet("innocent", "i0", kQuietRate, Milliseconds(100), kQuietPatience);
  if (ends == Ends::kOneOrBoth) {
    for (const LoopPorts& loop : loops) {
      std::ranges::set_intersection(loop, watch_.downNow(), std::inserter(cut, cut.end()));
    }
  }
  EXPECT_EQ(onlyOriginal(watch_.downNow()), cut) << "one end of each loop, and nothing else\n"
                                                 << agent_->process().output();
  // Buffers are taken with the first frames.
  if (ownKiB_ == 0) {
    ownKiB_ = agent_->process().ownKiB();
  }
  std::printf(
      "figures %s: loops %zu, cut %.3f ms, innocent %llu frames, agent %.2f ms of processor time\n",
      name_.c_str(), loops.size(), slowest,
      static_cast<unsigned long long>(innocentFrames() - innocentBefore_),
      std::chrono::duration<double, std::milli>(agent_->process().cpuTime() - workBefore_).count());
  std::fflush(stdout);
}

void Vigil::expectBack(Milliseconds held) {
  for (const std::string& port : onlyOriginal(watch_.downNow())) {
    const auto back = watch_.waitChange(port, false, held + kRecoverySlack, cutAt_);
    ASSERT_TRUE(back.has_value()) << port << " did not come back\n" << agent_->process().output();
    EXPECT_GE(back->at - cutAt_, held - Milliseconds(100)) << port;
  }
}

void Vigil::expectRecoveries(std::size_t count) {
  EXPECT_TRUE(agent_->waitEvent(Kind::kRecovered, seconds(10), count).has_value())
      << agent_->process().output();
}

void Vigil::expectHeld(int count, Milliseconds limit) {
  static const std::regex held(R"(status: detection .*, (\d+) ports? held)");
  const auto deadline = Clock::now() + limit;
  for (;;) {
    agent_->process().signal(SIGUSR1);
    const auto line = agent_->waitText("status: detection", seconds(5), ++statusAsked_);
    ASSERT_TRUE(line.has_value()) << agent_->process().output();
    std::smatch match;
    if (std::regex_search(line->text, match, held) && std::stoi(match[1]) == count) {
      return;
    }
    ASSERT_LT(Clock::now(), deadline) << line->text << "\n" << agent_->process().output();
    lab_.frameRate("innocent", "i0", Milliseconds(50));  // lets the time pass
  }
}

void Vigil::expectNoOtherDown(const Ports& ports) const {
  for (const std::string& port : onlyOriginal(watch_.everDown())) {
    EXPECT_TRUE(ports.contains(port)) << port << "\n" << agent_->process().output();
  }
}

Ports Vigil::onlyOriginal(Ports ports) const {
  std::erase_if(ports, [&](const std::string& port) {
    return std::find(ports_.begin(), ports_.end(), port) == ports_.end();
  });
  return ports;
}

void Vigil::end() {
  EXPECT_FALSE(watch_.lost());
  ASSERT_TRUE(agent_->process().running()) << agent_->process().output();
  EXPECT_EQ(agent_->process().descriptors(), descriptors_);
  if (ownKiB_ != 0) {
    EXPECT_LE(agent_->process().ownKiB(), ownKiB_ + kGrowthKiB);
  }
  expectCleanEnd(*agent_);
}

}  // namespace RingwardLab
