// SPDX-License-Identifier: Apache-2.0
//
// The agent at work while things change under it: its configuration, its ports, the operator's
// mind, and its own life.
#include <signal.h>

#include "tests/lab/LoopScenario.h"

namespace RingwardLab {
namespace {

// sw1 with eth1 to eth3; f1 and f2 of `foreign` make a ring of eth1 and eth2 when `looped`.
void newRing(Lab& lab, bool looped = true) {
  lab.newHost("sw1");
  lab.newHost("foreign");
  for (const char* n : {"1", "2", "3"}) {
    lab.newLink("sw1", std::string("eth") + n, "foreign", std::string("f") + n);
  }
  newSwitch(lab, "sw1", {"eth1", "eth2", "eth3"});
  lab.newBridge("foreign", "fbr",
                looped ? std::vector<std::string>{"f1", "f2"} : std::vector<std::string>{"f1"});
  lab.waitForwarding("foreign", {"f1"});
}

void makeLoop(Lab& lab) {
  lab.ip("foreign", "link set f2 master fbr");
  lab.waitForwarding("foreign", {"f2"});
}

TEST(AgentLab, KilledAgentsHoldsAreTakenOverAndEndInTheirTime) {
  for (const char* const action : {"bridge-port", "admin-down"}) {
    SCOPED_TRACE(action);
    agentScenario([&](Lab& lab) {
      newRing(lab);
      LinkWatch watch(lab, "sw1");
      AgentConfig config;
      config.action = action;
      config.disabledTime = 4;
      std::string port;
      Clock::time_point cut;
      {
        Agent agent(lab, "sw1", config);
        const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
        ASSERT_TRUE(loop.has_value()) << agent.process().output();
        port = loop->port;
        cut = loop->at;
        // Status is answered behind the turn that writes the list.
        agent.process().signal(SIGUSR1);
        ASSERT_TRUE(agent.waitText("status: self-check", seconds(1)));
        EXPECT_EQ(agent.process().end(SIGKILL, seconds(1)), "signal Killed");
      }
      lab.ip("foreign", "link set f2 nomaster");
      EXPECT_EQ(watch.downNow(), Ports{port}) << "nobody was there to put it back";
      Agent agent(lab, "sw1", config);
      EXPECT_TRUE(agent.waitText("held on: " + port + " by " + action + ", until", seconds(1)))
          << agent.process().output();
      EXPECT_EQ(watch.downNow(), Ports{port}) << "still held";
      const auto back = watch.waitChange(port, false, seconds(5));
      ASSERT_TRUE(back.has_value()) << agent.process().output();
      EXPECT_GE(back->at - cut, seconds(4) - Milliseconds(50));
      EXPECT_TRUE(agent.waitText("recovered: " + port + " after 4 s", seconds(1)))
          << agent.process().output();
      EXPECT_EQ(watch.everDown(), Ports{port});
      expectCleanEnd(agent);
    });
  }
}

TEST(AgentLab, KilledAgentsHoldThatNobodyTakesUpIsPutBack) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    LinkWatch watch(lab, "sw1");
    AgentConfig config;
    config.disabledTime = 600;
    std::string port;
    {
      Agent agent(lab, "sw1", config);
      const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
      ASSERT_TRUE(loop.has_value()) << agent.process().output();
      port = loop->port;
      agent.process().signal(SIGUSR1);
      ASSERT_TRUE(agent.waitText("status: self-check", seconds(1)));
      EXPECT_EQ(agent.process().end(SIGKILL, seconds(1)), "signal Killed");
    }
    lab.ip("foreign", "link set f2 nomaster");
    config.exclude = {port};
    Agent agent(lab, "sw1", config);
    EXPECT_TRUE(watch.waitChange(port, false, seconds(1)).has_value()) << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, ReloadChangesWhatTheFileChangedAndLeavesHeldPortsAlone) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    LinkWatch watch(lab, "sw1");
    Sniffer sniffer(lab, "foreign", "f3", Sniffer::Keep::kProbes);
    AgentConfig config;
    config.disabledTime = 600;
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();

    agent.reload("vlans = \"1,5000\"\n");
    EXPECT_TRUE(agent.waitText("reload: /run/ringward-lab.toml:1: vlans: ", seconds(1)));
    EXPECT_TRUE(agent.waitText("reload: refused, the configuration in use stays", seconds(1)))
        << agent.process().output();

    const auto taggedWith = [](std::uint16_t vlan) {
      return [vlan](const Frame& frame) {
        const auto probe = asProbe(frame.bytes);
        return probe && probe->vlan == vlan;
      };
    };
    config.vlans = "1,10";
    const auto before = Clock::now();
    agent.reload(config);
    EXPECT_TRUE(agent.waitText("reloaded", seconds(1))) << agent.process().output();
    EXPECT_TRUE(sniffer.waitFrame(taggedWith(10), seconds(3), before)) << "the new VLAN is probed";
    EXPECT_EQ(watch.changes().size(), 1U) << "the held port was not touched";

    agent.reload(config);
    EXPECT_TRUE(agent.waitText("reloaded: nothing has changed", seconds(1)));

    config.exclude = {"eth3"};
    agent.reload(config);
    ASSERT_TRUE(agent.waitText("reloaded", seconds(1), 3));
    const auto excluded = Clock::now();
    const std::string other = loop->port == "eth1" ? "eth2" : "eth1";
    Sniffer others(lab, "sw1", other, Sniffer::Keep::kProbes);
    EXPECT_TRUE(
        others.waitFrame([](const Frame& f) { return f.outgoing; }, seconds(5), excluded, 4));
    EXPECT_FALSE(sniffer.waitFrame([](const Frame&) { return true; }, Milliseconds(0),
                                   excluded + Milliseconds(100)))
        << "an excluded port is silent";
    EXPECT_EQ(watch.changes().size(), 1U);

    // Excluding the held port does not put a loop back in service: it stays held for its time.
    config.exclude = {loop->port};
    agent.reload(config);
    ASSERT_TRUE(agent.waitText("reloaded", seconds(1), 4));
    EXPECT_FALSE(watch.waitChange(loop->port, false, seconds(1))) << agent.process().output();
    lab.ip("foreign", "link set f2 nomaster");
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, ReloadTurnsDetectionOffAndOnAndChangesThePorts) {
  agentScenario([](Lab& lab) {
    newRing(lab, false);
    Sniffer sniffer(lab, "foreign", "", Sniffer::Keep::kProbes);
    AgentConfig config;
    Agent agent(lab, "sw1", config);
    const auto probesOn = [&](const std::string& port, Clock::time_point after) {
      return sniffer
          .waitFrame([&](const Frame& f) { return !f.outgoing && f.port == port; }, seconds(3),
                     after)
          .has_value();
    };
    EXPECT_TRUE(probesOn("f3", {}));
    config.match = {"eth1", "eth2"};
    agent.reload(config);
    ASSERT_TRUE(agent.waitText("ready: 2 ports", seconds(1))) << agent.process().output();
    auto since = Clock::now();
    EXPECT_TRUE(probesOn("f1", since));
    EXPECT_FALSE(sniffer.waitFrame([&](const Frame& f) { return f.port == "f3"; }, seconds(1),
                                   since + Milliseconds(100)));
    std::string off = config.toToml();
    off.replace(off.find("enabled = true"), 14, "enabled = false");
    agent.reload(off);
    ASSERT_TRUE(agent.waitText("detection is not enabled", seconds(1))) << agent.process().output();
    since = Clock::now();
    EXPECT_FALSE(sniffer.waitFrame([](const Frame&) { return true; }, Milliseconds(1500),
                                   since + Milliseconds(100)));
    agent.reload(config);
    EXPECT_TRUE(probesOn("f1", since + Milliseconds(200))) << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, LoopThatIsMadeByPluggingACableInIsFoundAtOnceAndNotAnIntervalLater) {
  agentScenario([](Lab& lab) {
    newRing(lab, false);
    makeLoop(lab);
    lab.ip("foreign", "link set f2 down");
    LinkWatch watch(lab, "sw1");
    Sniffer sniffer(lab, "sw1", "", Sniffer::Keep::kProbes);
    AgentConfig config;
    config.transmitInterval = 4;
    Agent agent(lab, "sw1", config);
    // By then the first probe of every port is over: one interval and a turn.
    ASSERT_TRUE(sniffer.waitFrame([](const Frame& f) { return f.outgoing; }, seconds(9), {}, 4));
    EXPECT_FALSE(
        sniffer.waitFrame([](const Frame& f) { return f.port == "eth2"; }, Milliseconds(0)))
        << "nothing is sent into a port without carrier";
    agent.process().signal(SIGUSR1);
    EXPECT_TRUE(agent.waitText("1 pairs wait for a carrier", seconds(1)))
        << agent.process().output();
    // Right behind a probe of the only other end that could find the loop.
    ASSERT_TRUE(sniffer.waitFrame([](const Frame& f) { return f.outgoing && f.port == "eth1"; },
                                  seconds(11), Clock::now()));
    const auto plugged = Clock::now();
    lab.ip("foreign", "link set f2 up");
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_EQ(loop->sender, "eth2");
    EXPECT_LT(loop->at - plugged, Milliseconds(1500))
        << "the kernel may tell of a carrier 1 s late";
    std::printf("  found %.1f ms after the cable\n", millisecondsBetween(plugged, loop->at));
    lab.ip("foreign", "link set f2 nomaster");
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, PortThatIsShutWhileItIsHeldStaysShutWhenTheTimeIsOver) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    AgentConfig config;
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    lab.ip("sw1", "link set " + loop->port + " down");
    ASSERT_TRUE(agent.waitEvent(Kind::kRecovered, seconds(2))) << agent.process().output();
    EXPECT_FALSE(agent.waitEvent(Kind::kLoop, seconds(4), 2).has_value());
    EXPECT_FALSE(lab.link("sw1", loop->port).adminUp) << "the operator's word";
    lab.ip("sw1", "link set " + loop->port + " up");
    EXPECT_TRUE(agent.waitEvent(Kind::kLoop, seconds(4), 2).has_value())
        << "raised again, it is under detection again\n"
        << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, PortThatIsRaisedWhileItIsShutForALoopIsObeyedUntilTheNextProbe) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    AgentConfig config;
    config.action = "admin-down";
    config.disabledTime = 600;
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    lab.ip("sw1", "link set " + loop->port + " up");
    EXPECT_TRUE(agent.waitText(loop->port + " was raised by the operator", seconds(1)))
        << agent.process().output();
    EXPECT_TRUE(agent.waitEvent(Kind::kLoop, seconds(3), 2).has_value())
        << "the loop is still there\n"
        << agent.process().output();
    lab.ip("foreign", "link set f2 nomaster");
    const auto again = agent.events(Kind::kLoop).back();
    // What of the storm still waits to be read would count as the next probe.
    lab.waitQuiet("sw1", "eth1", 20.0, Milliseconds(100), Milliseconds(500));
    lab.ip("sw1", "link set " + again.port + " up");
    EXPECT_FALSE(agent.waitEvent(Kind::kLoop, seconds(3), 3).has_value())
        << agent.process().output();
    EXPECT_TRUE(lab.link("sw1", again.port).adminUp) << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, HeldBridgePortThatSomebodySetsToForwardIsDisabledAgainAtOnce) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    LinkWatch watch(lab, "sw1");
    AgentConfig config;
    config.disabledTime = 600;
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    for (int round = 0; round < 5; ++round) {
      const auto at = Clock::now();
      lab.bridge("sw1", "link set dev " + loop->port + " state 3");
      const auto down = watch.waitChange(loop->port, true, seconds(1), at);
      ASSERT_TRUE(down.has_value()) << agent.process().output();
      std::printf("  disabled again after %.2f ms\n", millisecondsBetween(at, down->at));
    }
    lab.ip("foreign", "link set f2 nomaster");
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, RealtimeProcessGivesWayWhileAFloodLasts) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    AgentConfig config;
    config.action = "monitor";  // so that the storm stays
    config.scheduling = "realtime";
    Agent agent(lab, "sw1", config);
    if (agent.waitText("no real-time scheduling", Milliseconds(0))) {
      skipLab("this user may not have real-time processes");
      return;
    }
    EXPECT_TRUE(agent.process().realtime());
    ASSERT_TRUE(agent.waitEvent(Kind::kLoop, seconds(3))) << agent.process().output();
    const auto becomes = [&](bool realtime) {
      const auto deadline = Clock::now() + seconds(3);
      while (agent.process().realtime() != realtime && Clock::now() < deadline) {
        lab.frameRate("sw1", "eth1", Milliseconds(10));
      }
      return agent.process().realtime() == realtime;
    };
    // On a fast machine the agent keeps up with the storm: then there is no flood, and as a
    // real-time process it still leaves the processor between the frames.
    const auto leavesTheProcessor = [&] {
      const auto from = Clock::now();
      const auto before = agent.process().cpuTime();
      lab.frameRate("sw1", "eth1", Milliseconds(200));
      const auto used = agent.process().cpuTime() - before;
      return !agent.process().realtime() || used < 0.9 * (Clock::now() - from);
    };
    EXPECT_TRUE(leavesTheProcessor()) << "others need the processor too";
    for (const char* const scheduling : {"normal", "realtime"}) {
      config.scheduling = scheduling;
      agent.reload(config);
    }
    ASSERT_TRUE(agent.waitText("reloaded", seconds(3))) << agent.process().output();
    EXPECT_TRUE(leavesTheProcessor()) << "the flood has begun before the reload";
    lab.ip("foreign", "link set f2 nomaster");
    EXPECT_TRUE(becomes(true)) << "the next loop is to be cut at once";
    config.scheduling = "normal";
    agent.reload(config);
    EXPECT_TRUE(becomes(false)) << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(AgentLab, InterfaceWhoseDriverKnowsItLosesItsCarrierInsteadOfItsAdminState) {
  agentScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "up1", "foreign", "f1");
    try {
      lab.ip("sw1", "link add link up1 name eth1 type macvlan mode passthru");
    } catch (const std::exception& e) {
      skipLab(std::string("this kernel has no macvlan: ") + e.what());
      return;
    }
    lab.ip("sw1", "link set eth1 up");
    lab.newBridge("foreign", "fbr", {"f1"});
    lab.bridge("foreign", "link set dev f1 hairpin on");
    lab.waitForwarding("foreign", {"f1"});
    AgentConfig config;
    config.match = {"eth1"};
    config.disabledTime = 2;
    Agent agent(lab, "sw1", config);
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(3));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_EQ(loop->action, "protodown");
    const std::string held = lab.ip("sw1", "-d link show eth1");
    EXPECT_NE(held.find("protodown on"), std::string::npos) << held;
    EXPECT_NE(held.find("NO-CARRIER"), std::string::npos) << held;
    EXPECT_TRUE(lab.link("sw1", "eth1").adminUp) << "that flag is the operator's";
    lab.bridge("foreign", "link set dev f1 hairpin off");
    ASSERT_TRUE(agent.waitEvent(Kind::kRecovered, seconds(4))) << agent.process().output();
    const std::string back = lab.ip("sw1", "-d link show eth1");
    EXPECT_EQ(back.find("protodown on"), std::string::npos) << back;
    expectCleanEnd(agent);
  });
}

}  // namespace
}  // namespace RingwardLab
