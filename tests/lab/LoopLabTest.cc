// SPDX-License-Identifier: Apache-2.0
//
// The agent among real loops: each is cut at exactly one end, in time, storms end, and ports come
// back.
#include "tests/lab/LoopScenario.h"

namespace RingwardLab {
namespace {

// What may pass beyond the computed time on a machine that has other work to do.
constexpr Milliseconds kSlack{200};
// Frames per second on a port that carries probes of one VLAN and nothing else.
constexpr double kQuietRate = 20.0;

// eth1 and eth2 of sw1's bridge, joined by a bridge of the host `foreign`; eth3 leads nowhere.
void newRing(Lab& lab) {
  lab.newHost("sw1");
  lab.newHost("foreign");
  for (const char* n : {"1", "2", "3"}) {
    lab.newLink("sw1", std::string("eth") + n, "foreign", std::string("f") + n);
  }
  newSwitch(lab, "sw1", {"eth1", "eth2", "eth3"});
  lab.newBridge("foreign", "fbr", {"f1", "f2"});
  lab.waitForwarding("foreign", {"f1", "f2"});
}

// One frame is enough: the ring multiplies it. Returns the storm's rate, frames per second.
double newStorm(Lab& lab) {
  Injector(lab, "foreign", "f1").send(broadcastFrame(macOf("02:00:00:00:00:77")));
  return lab.frameRate("sw1", "eth1", Milliseconds(200));
}

void breakRing(Lab& lab) { lab.ip("foreign", "link set f2 nomaster"); }

TEST(LoopLab, PortLoopedToItselfGoesDownAndComesBack) {
  agentScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "eth1", "foreign", "f1");
    lab.newLink("sw1", "eth2", "foreign", "f2");
    newSwitch(lab, "sw1", {"eth1", "eth2"});
    lab.newBridge("foreign", "fbr", {"f1"});
    lab.bridge("foreign", "link set dev f1 hairpin on");
    lab.waitForwarding("foreign", {"f1"});
    LinkWatch watch(lab, "sw1");
    Sniffer sniffer(lab, "sw1", "", Sniffer::Keep::kProbes);

    Agent agent(lab, "sw1", {});
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_EQ(loop->port, "eth1");
    EXPECT_EQ(loop->sender, "eth1");
    EXPECT_EQ(loop->vlan, 1);
    EXPECT_EQ(loop->action, "bridge-port");
    EXPECT_EQ(loop->seconds, 3);
    EXPECT_LT(loop->at - agent.ready().at, seconds(1) + kSlack);
    expectCut(watch, *loop, agent.ready().at);
    lab.waitQuiet("sw1", "eth1", 0.0, Milliseconds(100), seconds(1));

    lab.bridge("foreign", "link set dev f1 hairpin off");
    const auto back = watch.waitChange("eth1", false, seconds(3) + kRecoverySlack);
    ASSERT_TRUE(back.has_value()) << agent.process().output();
    EXPECT_GE(back->at - loop->at, seconds(3) - Milliseconds(50));
    waitProbesOut(sniffer, "eth1", 3);
    EXPECT_EQ(watch.everDown(), Ports{"eth1"});
    EXPECT_EQ(watch.changes().size(), 2U) << "down once, up once";
    EXPECT_EQ(agent.events(Kind::kLoop).size(), 1U) << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(LoopLab, StormBetweenTwoPortsIsCutAtOneEndAgainAndAgainUntilTheLoopIsGone) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    LinkWatch watch(lab, "sw1");
    Sniffer sniffer(lab, "foreign", "", Sniffer::Keep::kProbes);
    const double storm = newStorm(lab);
    EXPECT_GT(storm, 5000.0);
    std::printf("  storm of %.0f frames/s\n", storm);

    Agent agent(lab, "sw1", {});
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_TRUE((loop->port == "eth1" && loop->sender == "eth2") ||
                (loop->port == "eth2" && loop->sender == "eth1"))
        << loop->port << " from " << loop->sender;
    EXPECT_LT(loop->at - agent.ready().at, seconds(1) + kSlack);
    expectCut(watch, *loop, agent.ready().at);
    const auto quiet =
        lab.waitQuiet("sw1", "eth1", kQuietRate, Milliseconds(100), Milliseconds(500));
    EXPECT_LE(lab.frameRate("sw1", "eth2", Milliseconds(100)), kQuietRate);
    std::printf("  quiet %.0f ms after it\n", millisecondsBetween(loop->at, quiet));
    EXPECT_EQ(agent.events(Kind::kLoop).size(), 1U) << "one end of the loop, not both";

    // The loop is still there when the port returns: it is found anew.
    const auto back = watch.waitChange(loop->port, false, seconds(3) + kRecoverySlack);
    ASSERT_TRUE(back.has_value()) << agent.process().output();
    EXPECT_GE(back->at - loop->at, seconds(3) - Milliseconds(50));
    const auto recovered = agent.waitEvent(Kind::kRecovered, seconds(1));
    ASSERT_TRUE(recovered.has_value()) << agent.process().output();
    EXPECT_EQ(recovered->port, loop->port);
    EXPECT_EQ(recovered->seconds, 3);
    const auto again = agent.waitEvent(Kind::kLoop, seconds(3), 2);
    ASSERT_TRUE(again.has_value()) << agent.process().output();
    EXPECT_LT(again->at - back->at, seconds(1) + kSlack);
    expectCut(watch, *again, back->at, back->at);

    breakRing(lab);
    const auto free = watch.waitChange(again->port, false, seconds(3) + kRecoverySlack, again->at);
    ASSERT_TRUE(free.has_value()) << agent.process().output();
    for (const char* port : {"f1", "f2"}) {  // Both are probing, so both are in service.
      EXPECT_TRUE(sniffer.waitFrame(
          [&](const Frame& frame) { return !frame.outgoing && frame.port == port; }, seconds(5),
          free->at, 3))
          << port;
    }
    EXPECT_TRUE(watch.downNow().empty());
    EXPECT_EQ(watch.mostDownAtOnce(), 1U);
    EXPECT_EQ(watch.changes().size(), 4U) << "two cuts, two returns";
    EXPECT_EQ(agent.events(Kind::kLoop).size(), 2U) << agent.process().output();
    EXPECT_FALSE(watch.everDown().contains("eth3"));
    EXPECT_FALSE(watch.lost());
    expectCleanEnd(agent);
  });
}

TEST(LoopLab, PatchCableBetweenTwoPortsIsCutAtOneEnd) {
  agentScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "eth1", "sw1", "eth2");
    lab.newLink("sw1", "eth3", "foreign", "f3");
    newSwitch(lab, "sw1", {"eth1", "eth2", "eth3"});
    LinkWatch watch(lab, "sw1");
    Injector(lab, "foreign", "f3").send(broadcastFrame(macOf("02:00:00:00:00:77")));
    EXPECT_GT(lab.frameRate("sw1", "eth1", Milliseconds(200)), 5000.0);
    AgentConfig config;
    config.disabledTime = 600;
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_LT(loop->at - agent.ready().at, seconds(1) + kSlack);
    expectCut(watch, *loop, agent.ready().at);
    lab.waitQuiet("sw1", "eth1", kQuietRate, Milliseconds(100), Milliseconds(500));
    // The other end goes on probing into the one that is down, and stays in service.
    const std::string other = loop->port == "eth1" ? "eth2" : "eth1";
    Sniffer sniffer(lab, "sw1", "", Sniffer::Keep::kProbes);
    waitProbesOut(sniffer, other, 3);
    EXPECT_EQ(watch.changes().size(), 1U);
    EXPECT_EQ(agent.events(Kind::kLoop).size(), 1U) << agent.process().output();
    lab.ip("sw1",
           "link set " + other + " nomaster");  // Or the loop would be there again after the end.
    expectCleanEnd(agent);
  });
}

TEST(LoopLab, AdminDownTakesTheInterfaceItselfDownAndUpAgain) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    LinkWatch watch(lab, "sw1");
    EXPECT_GT(newStorm(lab), 5000.0);
    AgentConfig config;
    config.action = "admin-down";
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_EQ(loop->action, "admin-down");
    EXPECT_LT(loop->at - agent.ready().at, seconds(1) + kSlack);
    expectCut(watch, *loop, agent.ready().at);
    EXPECT_FALSE(lab.link("sw1", loop->port).adminUp);
    lab.waitQuiet("sw1", "eth1", kQuietRate, Milliseconds(100), Milliseconds(500));
    lab.waitQuiet("sw1", "eth2", kQuietRate, Milliseconds(100), Milliseconds(500));
    breakRing(lab);
    const auto back = watch.waitChange(loop->port, false, seconds(3) + kRecoverySlack);
    ASSERT_TRUE(back.has_value()) << agent.process().output();
    EXPECT_GE(back->at - loop->at, seconds(3) - Milliseconds(50));
    lab.waitForwarding("sw1", {"eth1", "eth2", "eth3"});
    Sniffer sniffer(lab, "sw1", "", Sniffer::Keep::kProbes);
    waitProbesOut(sniffer, loop->port, 3);
    EXPECT_EQ(watch.everDown(), Ports{loop->port});
    EXPECT_TRUE(watch.downNow().empty());
    EXPECT_EQ(agent.events(Kind::kLoop).size(), 1U) << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(LoopLab, MonitorTellsOfTheLoopAndLeavesThePortsAlone) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    LinkWatch watch(lab, "sw1");
    EXPECT_GT(newStorm(lab), 5000.0);
    AgentConfig config;
    config.action = "monitor";
    config.disabledTime = 600;
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_EQ(loop->action, "monitor");
    EXPECT_LT(loop->at - agent.ready().at, seconds(1) + kSlack);
    EXPECT_GT(lab.frameRate("sw1", "eth1", Milliseconds(1500)), 5000.0) << "nothing was cut";
    EXPECT_TRUE(watch.changes().empty());
    breakRing(lab);
    expectCleanEnd(agent);
    EXPECT_TRUE(watch.changes().empty());
  });
}

void expectGivenBack(Lab& lab, const std::string& action) {
  newRing(lab);
  LinkWatch watch(lab, "sw1");
  EXPECT_GT(newStorm(lab), 5000.0);
  AgentConfig config;
  config.action = action;
  config.disabledTime = 600;
  Agent agent(lab, "sw1", config);
  const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
  ASSERT_TRUE(loop.has_value()) << agent.process().output();
  expectCut(watch, *loop, agent.ready().at);
  lab.waitQuiet("sw1", "eth1", kQuietRate, Milliseconds(100), Milliseconds(500));
  breakRing(lab);
  EXPECT_EQ(watch.changes().size(), 1U) << "held until now";
  expectCleanEnd(agent);
  EXPECT_TRUE(watch.waitChange(loop->port, false, kRecoverySlack).has_value())
      << agent.process().output();
  lab.waitForwarding("sw1", {"eth1", "eth2", "eth3"});
  EXPECT_EQ(watch.everDown(), Ports{loop->port});
}

TEST(LoopLab, DisabledBridgePortIsGivenBackOnACleanEnd) {
  agentScenario([](Lab& lab) { expectGivenBack(lab, "bridge-port"); });
}

TEST(LoopLab, InterfaceTakenDownIsGivenBackOnACleanEnd) {
  agentScenario([](Lab& lab) { expectGivenBack(lab, "admin-down"); });
}

}  // namespace
}  // namespace RingwardLab
