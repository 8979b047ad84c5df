// SPDX-License-Identifier: Apache-2.0
//
// The operator's command on a real switch with a real loop, as somebody uses it who has just
// installed it.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/lab/LoopScenario.h"

namespace RingwardLab {
namespace {

// Beside the agent in the build.
std::string findCommand() {
  if (const char* path = std::getenv("RINGWARD"); path != nullptr && *path != '\0') return path;
  const auto agent = std::filesystem::path(findAgent());
  const auto command = agent.parent_path() / "../cli/ringward";
  return access(command.c_str(), X_OK) == 0 ? std::filesystem::canonical(command).string() : "";
}

void commandScenario(const std::function<void(Lab&)>& body) {
  if (findCommand().empty()) {
    skipLab("there is no ringward; build it or set RINGWARD");
    return;
  }
  agentScenario(body);
}

std::vector<std::string> commandLine(std::vector<std::string> words) {
  words.insert(words.begin(), findCommand());
  return words;
}

struct Result {
  std::string end;
  std::string text;
};

// One run of the command on sw1, to its end.
Result ringward(const Lab& lab, const std::vector<std::string>& words) {
  Process process(lab, "sw1", commandLine(words));
  // Nothing is wanted: this comes back with the end of the output.
  process.waitLine([](const std::string&) { return false; }, seconds(10));
  Result result;
  result.end = process.end(0, seconds(1));
  result.text = process.output();
  return result;
}

std::string done(const Lab& lab, const std::vector<std::string>& words) {
  const Result result = ringward(lab, words);
  EXPECT_EQ(result.end, "exit 0") << result.text;
  return result.text;
}

bool holds(const std::string& text, const std::string& part);

// The same command again until its output holds `part`, or for too long.
std::string doneUntil(const Lab& lab, const std::vector<std::string>& words,
                      const std::string& part, Milliseconds limit) {
  const auto end = Clock::now() + limit;
  std::string text = done(lab, words);
  while (!holds(text, part) && Clock::now() < end) text = done(lab, words);
  return text;
}

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::optional<Line> waitText(const Process& process, const std::string& text, Milliseconds limit,
                             std::size_t count = 1) {
  return process.waitLine([&](const std::string& line) { return holds(line, text); }, limit, count);
}

// sw1 with eth1 and eth2, which become a loop when f2 joins the bridge of `foreign`.
void newPlantOfTwo(Lab& lab) {
  lab.newHost("sw1");
  lab.newHost("foreign");
  lab.newLink("sw1", "eth1", "foreign", "f1");
  lab.newLink("sw1", "eth2", "foreign", "f2");
  newSwitch(lab, "sw1", {"eth1", "eth2"});
  lab.newBridge("foreign", "fbr", {"f1"});
  lab.waitForwarding("foreign", {"f1"});
}

TEST(ControlLab, ANewUserFindsALoopAndEndsIt) {
  commandScenario([](Lab& lab) {
    newPlantOfTwo(lab);
    LinkWatch links(lab, "sw1");
    AgentConfig config;
    config.disabledTime = 600;
    Agent agent(lab, "sw1", config);
    const std::string all = agent.process().output();
    EXPECT_FALSE(holds(all, "no control socket")) << all;

    EXPECT_EQ(done(lab, {"disable"}), "detection is off\n");
    EXPECT_TRUE(holds(done(lab, {"show"}), "detection   off\n"));
    EXPECT_EQ(done(lab, {"enable"}), "detection is on\n");
    const std::string quiet = done(lab, {"show"});
    EXPECT_TRUE(holds(quiet, "detection   on\n")) << quiet;
    EXPECT_TRUE(holds(quiet, "VLANs       1 (1)\n")) << quiet;
    EXPECT_TRUE(holds(quiet, "interfaces  2 watched, 0 held\n")) << quiet;
    EXPECT_TRUE(holds(quiet, "loops       none\n")) << quiet;

    Process watch(lab, "sw1", commandLine({"watch", "status/intfStatus", "config"}));
    ASSERT_TRUE(waitText(watch, "# following", seconds(5))) << watch.output();
    lab.ip("foreign", "link set f2 master fbr");
    ASSERT_TRUE(waitText(watch, "/disabled = true", seconds(5))) << watch.output();
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(1));
    ASSERT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_TRUE(holds(watch.output(), "status/intfStatus[" + loop->port + "]/disabled = true"))
        << watch.output();

    const std::string found = done(lab, {"show"});
    EXPECT_TRUE(holds(found, "interfaces  2 watched, 1 held\n")) << found;
    EXPECT_TRUE(holds(found, "loop        " + loop->port + " held since ")) << found;
    // The totals are a second old at most.
    const std::string counters = doneUntil(lab, {"show", "counters"}, loop->port, seconds(3));
    EXPECT_TRUE(holds(counters, "interface ")) << counters;
    EXPECT_TRUE(holds(counters, loop->port)) << counters;

    EXPECT_EQ(done(lab, {"exclude", "add", loop->port}), loop->port + " takes no part\n");
    EXPECT_TRUE(waitText(watch, "config/intfExclude[" + loop->port + "] = true", seconds(2)));
    EXPECT_TRUE(holds(done(lab, {"show"}), "excluded    " + loop->port + "\n"));
    EXPECT_EQ(links.downNow(), Ports{loop->port}) << "a loop does not go away with the attention";
    EXPECT_EQ(done(lab, {"exclude", "del", loop->port}), loop->port + " takes part\n");
    EXPECT_EQ(done(lab, {"vlan", "add", "10-12"}), "VLANs 10-12 enabled\n");
    EXPECT_EQ(done(lab, {"show", "vlans"}), "1,10-12 (4)\n");
    EXPECT_EQ(done(lab, {"clear", "counters"}), "counters cleared\n");

    lab.ip("foreign", "link set f2 nomaster");
    EXPECT_EQ(done(lab, {"disable"}), "detection is off\n");
    EXPECT_TRUE(links.waitChange(loop->port, false, seconds(3))) << "the port comes back";
    EXPECT_EQ(watch.end(SIGINT, seconds(2)), "exit 0") << watch.output();
    expectCleanEnd(agent);

    const Result none = ringward(lab, {"show"});
    EXPECT_EQ(none.end, "exit 3") << none.text;
    EXPECT_TRUE(holds(none.text, "agent not running; counters as last written\n")) << none.text;
  });
}

TEST(ControlLab, AVlanThatAClientEnablesIsProbedAndSurvivesAReload) {
  commandScenario([](Lab& lab) {
    newPlantOfTwo(lab);
    Agent agent(lab, "sw1", AgentConfig());
    EXPECT_EQ(done(lab, {"vlan", "add", "20"}), "VLANs 20 enabled\n");
    EXPECT_EQ(done(lab, {"set", "config/transmitConfig/rateLimit", "77"}), "");
    AgentConfig other;
    other.disabledTime = 9;
    other.vlans = "1,30";
    agent.reload(other.toToml());
    ASSERT_TRUE(agent.waitText("reloaded", seconds(2))) << agent.process().output();
    EXPECT_EQ(done(lab, {"show", "vlans"}), "1,20,30 (3)\n");
    EXPECT_EQ(done(lab, {"get", "config/transmitConfig/rateLimit"}), "77\n");
    EXPECT_EQ(done(lab, {"get", "config/globalIntfConfig/disabledTime"}), "9\n");
    // Six pairs are probed: three VLANs on two ports.
    agent.process().signal(SIGUSR1);
    EXPECT_TRUE(agent.waitText("2 ports, 6 pairs probed", seconds(2))) << agent.process().output();
    expectCleanEnd(agent);
  });
}

TEST(ControlLab, AWatcherFollowsOverAKilledAgent) {
  commandScenario([](Lab& lab) {
    newPlantOfTwo(lab);
    Process watch(lab, "sw1", commandLine({"watch", "--reconnect", "config"}));
    {
      Agent agent(lab, "sw1", AgentConfig());
      ASSERT_TRUE(waitText(watch, "# following", seconds(5))) << watch.output();
      EXPECT_EQ(agent.process().end(SIGKILL, seconds(1)), "signal Killed");
    }
    Agent agent(lab, "sw1", AgentConfig());  // over the socket that the other has left
    ASSERT_TRUE(waitText(watch, "# following", seconds(5), 2)) << watch.output();
    EXPECT_EQ(done(lab, {"vlan", "add", "20"}), "VLANs 20 enabled\n");
    EXPECT_TRUE(waitText(watch, "config/vlanEnabled[20] = true", seconds(2))) << watch.output();
    EXPECT_EQ(watch.end(SIGINT, seconds(2)), "exit 0");
    expectCleanEnd(agent);
  });
}

TEST(ControlLab, ASecondAgentGoesOnWithoutASocket) {
  commandScenario([](Lab& lab) {
    newPlantOfTwo(lab);
    Agent agent(lab, "sw1", AgentConfig());
    {
      Agent second(lab, "sw1", AgentConfig());
      EXPECT_TRUE(
          second.waitText("warning: no control socket: another agent listens on "
                          "/run/ringward/ringwardd.sock; detection goes on without it",
                          seconds(2)))
          << second.process().output();
      expectCleanEnd(second);
    }
    EXPECT_TRUE(holds(done(lab, {"show"}), "detection   on\n"));
    expectCleanEnd(agent);
  });
}

TEST(ControlLab, AStoppedWatcherDoesNotHoldTheAgentUp) {
  commandScenario([](Lab& lab) {
    newPlantOfTwo(lab);
    AgentConfig config;
    config.transmitInterval = 0;  // a probe at each tick of each pair
    config.vlans = "1-50";
    Agent agent(lab, "sw1", config);
    Process watch(lab, "sw1", commandLine({"watch", "transmitStatus"}));
    ASSERT_TRUE(waitText(watch, "# following", seconds(10))) << watch.output();
    watch.signal(SIGSTOP);
    const std::size_t before = agent.process().ownKiB();
    lab.ip("foreign", "link set f2 master fbr");
    const auto loop = agent.waitEvent(Kind::kLoop, seconds(5));
    EXPECT_TRUE(loop.has_value()) << agent.process().output();
    EXPECT_LE(agent.process().ownKiB(), before + 4096);
    EXPECT_TRUE(holds(done(lab, {"show"}), "1 held\n"));
    watch.signal(SIGCONT);
    watch.end(SIGINT, seconds(5));
    expectCleanEnd(agent);
  });
}

}  // namespace
}  // namespace RingwardLab
