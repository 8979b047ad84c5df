// SPDX-License-Identifier: Apache-2.0
//
// Frames that look like probes and are none, by the ten thousand, and reloads in a storm: nothing
// that is not asked for may come of either.
#include <memory>
#include <random>

#include "tests/lab/Reflector.h"
#include "tests/lab/Vigil.h"

namespace RingwardLab {
namespace {

AgentConfig shortHold() {
  AgentConfig config;
  config.disabledTime = 2;
  return config;
}

// Any length from a bare header to a full frame, up to three tags, and behind the probe's type any
// bytes, or those of a probe with some of them wrong.
Bytes noise(std::mt19937& random, const Probe& own) {
  const auto any = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
  Bytes frame = probeBytes({own.source, std::nullopt, own.id});
  if (any(2) == 0) {
    frame.resize(14);
    for (unsigned size = any(1500); size > 0; --size) {
      frame.push_back(static_cast<std::uint8_t>(random()));
    }
  } else {
    // One of the bytes that make it a probe of ours; the sender's are as they may.
    const std::size_t at = 14 + any(6);
    frame[at] = static_cast<std::uint8_t>(frame[at] ^ (1U << any(8)));
  }
  for (unsigned tags = any(4); tags > 0; --tags) {
    constexpr std::uint8_t kTypes[] = {0x81, 0x91, 0x88};
    const std::uint8_t type = kTypes[any(3)];
    const Bytes tag{type, static_cast<std::uint8_t>(type == 0x88 ? 0xA8 : 0x00),
                    static_cast<std::uint8_t>(random()), static_cast<std::uint8_t>(random())};
    frame.insert(frame.begin() + 12, tag.begin(), tag.end());
  }
  if (any(4) == 0) {
    frame[11] = static_cast<std::uint8_t>(random());
  }
  frame.resize(std::min<std::size_t>(frame.size(), 1514));
  return frame;
}

TEST(NoiseLab, TwentyThousandFramesThatAreNoProbesTakeNothingDown) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 2);
    Sniffer sniffer(lab, "foreign", "f2", Sniffer::Keep::kProbes);
    Vigil vigil(lab, "noise", shortHold());
    const auto own = sniffer.waitFrame(
        [](const Frame& frame) { return asProbe(frame.bytes).has_value(); }, seconds(3));
    ASSERT_TRUE(own.has_value());
    const Injector injector(lab, "foreign", "f1");
    std::mt19937 random(3);
    for (int i = 0; i < 20'000; ++i) {
      injector.send(noise(random, *asProbe(own->bytes)));
    }
    // Probes of the agent's that leave behind all of it: it has read its way through.
    Sniffer after(lab, "sw1", "", Sniffer::Keep::kProbes);
    waitProbesOut(after, "eth1", 2);
    EXPECT_TRUE(vigil.watch().changes().empty()) << vigil.agent().process().output();
    // The road was open all the time.
    vigil.arm();
    const auto mirror = std::make_unique<Reflector>(lab, "foreign", "f1");
    vigil.expectCuts({{"eth1"}});
    vigil.end();
  });
}

TEST(NoiseLab, ReloadsInTheMiddleOfAStorm) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 3);
    lab.newBridge("foreign", "fbr", {"f1", "f2"});
    lab.waitForwarding("foreign", {"f1", "f2"});
    Injector(lab, "innocent", "i0").send(broadcastFrame(macOf("02:00:00:00:00:77")));
    AgentConfig config = shortHold();
    config.action = "monitor";
    Vigil vigil(lab, "reloads-in-a-storm", config);
    std::size_t reloads = 0;
    for (int round = 0; round < 10; ++round) {
      config.vlans = round % 2 == 0 ? "1,100-200" : "1";
      config.exclude =
          round % 3 == 0 ? std::vector<std::string>{"eth3"} : std::vector<std::string>{};
      config.rateLimit = 1000 + round;
      vigil.agent().reload(config);
      ASSERT_TRUE(vigil.agent().waitText("reloaded", seconds(3), ++reloads))
          << vigil.agent().process().output();
      vigil.agent().reload("vlans = \"0\"\n");
      ASSERT_TRUE(vigil.agent().waitText("reload: refused", seconds(3),
                                         static_cast<std::size_t>(round) + 1));
    }
    EXPECT_TRUE(vigil.watch().changes().empty());
    // What is held by looking on is held so until its time is over, and then it is cut.
    config.action = "auto";
    vigil.agent().reload(config);
    EXPECT_TRUE(vigil.watch().waitChange(Ports{"eth1", "eth2"}, true, seconds(6)))
        << vigil.agent().process().output();
    lab.waitQuiet("innocent", "i0", 200.0, Milliseconds(100), seconds(2));
    EXPECT_EQ(vigil.watch().downNow().size(), 1U) << vigil.agent().process().output();
    vigil.expectNoOtherDown({"eth1", "eth2"});
    lab.ip("foreign", "link set f2 nomaster");
    vigil.expectBack(seconds(2));
    vigil.end();
  });
}

}  // namespace
}  // namespace RingwardLab
