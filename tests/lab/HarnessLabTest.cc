// SPDX-License-Identifier: Apache-2.0
//
// The lab itself: that its hosts are shut off from the machine and from each other, that storms in
// it are real, and that its instruments tell the truth. No agent is needed here.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "tests/lab/Agent.h"
#include "tests/lab/Command.h"
#include "tests/lab/LinkWatch.h"
#include "tests/lab/Process.h"
#include "tests/lab/Scenario.h"
#include "tests/lab/Sniffer.h"

namespace RingwardLab {
namespace {

using std::chrono::seconds;

Outcome isolated(const std::function<int(const Report&)>& body, Milliseconds limit = seconds(20)) {
  Outcome outcome = runIsolated(body, limit);
  if (!outcome.permitted) {
    skipLab(outcome.refusal);
  }
  return outcome;
}

// Two ports of sw1's bridge joined by a bridge of another host: the loop of most scenarios.
void newLoop(Lab& lab) {
  lab.newHost("sw1");
  lab.newHost("foreign");
  lab.newLink("sw1", "eth1", "foreign", "f1");
  lab.newLink("sw1", "eth2", "foreign", "f2");
  lab.newBridge("sw1", "br0", {"eth1", "eth2"});
  lab.newBridge("foreign", "fbr", {"f1", "f2"});
  lab.waitForwarding("sw1", {"eth1", "eth2"});
  lab.waitForwarding("foreign", {"f1", "f2"});
}

TEST(Isolation, FailedCheckComesHomeWithItsText) {
  static Outcome outcome;  // The macros below accept nothing local.
  outcome = runLab([](Lab&) { EXPECT_EQ(1, 2) << "marked"; }, seconds(20));
  if (!outcome.permitted) {
    skipLab(outcome.refusal);
    return;
  }
  ASSERT_EQ(outcome.findings.size(), 1U);
  EXPECT_EQ(std::filesystem::path(outcome.findings[0].file).filename(), "HarnessLabTest.cc");
  EXPECT_NONFATAL_FAILURE(takeOutcome(outcome), "marked");
  outcome = runLab([](Lab&) { throw std::runtime_error("thrown up"); }, seconds(20));
  EXPECT_NONFATAL_FAILURE(takeOutcome(outcome), "thrown up");
  outcome = runLab(
      [](Lab&) {
        signal(SIGSEGV, SIG_DFL);  // A sanitizer would turn it into an exit.
        raise(SIGSEGV);
      },
      seconds(20));
  EXPECT_NONFATAL_FAILURE(takeOutcome(outcome), "ended by signal Segmentation fault");
}

TEST(Isolation, BodysResultComesHome) {
  const Outcome outcome = isolated([](const Report&) { return 17; });
  if (outcome.permitted) {
    EXPECT_EQ(outcome.exitStatus, 17);
    EXPECT_EQ(outcome.ending, "");
    EXPECT_TRUE(outcome.findings.empty());
  }
}

TEST(Isolation, RunIsKilledAtItsTimeLimit) {
  const auto from = Clock::now();
  const Outcome outcome = isolated(
      [](const Report&) {
        for (;;) {
          pause();
        }
        return 0;
      },
      Milliseconds(500));
  if (outcome.permitted) {
    EXPECT_EQ(outcome.ending, "killed at the time limit of 500 ms");
    EXPECT_LT(Clock::now() - from, seconds(5));
  }
}

TEST(Isolation, EarlyExitIsNotTakenForSuccess) {
  const Outcome outcome = isolated([](const Report&) -> int { _exit(0); });
  if (outcome.permitted) {
    EXPECT_EQ(outcome.ending, "exited before its body had returned");
  }
}

TEST(Isolation, HostsAreSeenNeitherOutsideNorByEachOther) {
  const auto before = runCommand({"ip", "-o", "link"});
  labScenario([&](Lab& lab) {
    lab.newHost("lab-first");
    lab.newHost("lab-second");
    lab.newHost("lab-third");
    lab.newLink("lab-first", "eth1", "lab-second", "eth9");
    EXPECT_EQ(lab.link("lab-first", "eth1").adminUp, true);
    EXPECT_THROW(lab.link("lab-third", "eth1"), std::runtime_error);
    EXPECT_THROW(lab.link("lab-second", "eth1"), std::runtime_error);
    EXPECT_THROW(lab.link("nobody", "eth1"), std::runtime_error);
    EXPECT_THROW(lab.ip("lab-first", "link set eth7 up"), std::runtime_error);
    EXPECT_TRUE(std::filesystem::exists("/run/netns/lab-first"));
  });
  EXPECT_FALSE(std::filesystem::exists("/run/netns/lab-first"));
  EXPECT_EQ(runCommand({"ip", "-o", "link"}), before);
}

TEST(Lab, NothingIsOnTheWireUnasked) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newHost("sw0");
    Lab& sut = lab;
    sut.newLink("sw1", "eth1", "foreign", "f1");
    sut.newLink("sw1", "eth2", "sw0", "eth2");
    sut.newBridge("sw1", "br0", {"eth1", "eth2"});
    sut.waitForwarding("sw1", {"eth1", "eth2"});
    Sniffer sniffer(lab, "foreign", "", Sniffer::Keep::kAll);
    EXPECT_EQ(sniffer.waitFrame([](const Frame&) { return true; }, Milliseconds(1500)).has_value(),
              false);
    // And yet the wire does carry what is sent.
    Injector(lab, "sw0", "eth2").send(broadcastFrame(macOf("02:00:00:00:00:77")));
    EXPECT_TRUE(sniffer.waitFrame([](const Frame&) { return true; }, seconds(2)).has_value());
  });
}

TEST(Lab, LoopMakesAStormAndDisablingOnePortEndsIt) {
  labScenario([](Lab& lab) {
    newLoop(lab);
    LinkWatch watch(lab, "sw1");
    EXPECT_LT(lab.frameRate("sw1", "eth1", Milliseconds(200)), 1.0);
    Injector(lab, "foreign", "f1").send(broadcastFrame(macOf("02:00:00:00:00:77")));
    const double storm = lab.frameRate("sw1", "eth1", Milliseconds(300));
    std::printf("  storm of %.0f frames/s\n", storm);
    EXPECT_GT(storm, 5000.0);
    EXPECT_TRUE(watch.changes().empty());

    const auto cut = Clock::now();
    lab.bridge("sw1", "link set dev eth2 state 0");
    const auto down = watch.waitChange("eth2", true, seconds(2));
    ASSERT_TRUE(down.has_value());
    EXPECT_GE(down->at, cut);
    const auto quiet = lab.waitQuiet("sw1", "eth1", 1.0, Milliseconds(20), seconds(2));
    std::printf("  quiet %.0f ms after the cut\n", millisecondsBetween(cut, quiet));
    EXPECT_EQ(lab.link("sw1", "eth2").portState, kPortDisabled);
    EXPECT_EQ(watch.everDown(), std::set<std::string>{"eth2"});
    EXPECT_EQ(watch.mostDownAtOnce(), 1U);
    EXPECT_FALSE(watch.lost());
    EXPECT_THROW(lab.waitQuiet("sw1", "eth1", -1.0, Milliseconds(10), Milliseconds(50)),
                 std::runtime_error);
  });
}

TEST(Lab, HairpinPortReturnsFramesToTheirSender) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "eth1", "foreign", "f1");
    lab.newBridge("foreign", "fbr", {"f1"});
    lab.bridge("foreign", "link set dev f1 hairpin on");
    lab.waitForwarding("foreign", {"f1"});
    Sniffer sniffer(lab, "sw1", "eth1", Sniffer::Keep::kAll);
    const Bytes sent = broadcastFrame(macOf("02:00:00:00:00:77"));
    Injector(lab, "sw1", "eth1").send(sent);
    const auto back = sniffer.waitFrame([](const Frame& f) { return !f.outgoing; }, seconds(2));
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(hex(back->bytes), hex(sent));
  });
}

TEST(LinkWatch, NotesEveryDownAndUpOfPortsAndNothingOfBridges) {
  labScenario([](Lab& lab) {
    newLoop(lab);
    LinkWatch watch(lab, "sw1");
    lab.ip("sw1", "link set eth1 down");
    const auto first = watch.waitChange("eth1", true, seconds(2));
    ASSERT_TRUE(first.has_value());
    EXPECT_FALSE(first->state.adminUp);
    EXPECT_EQ(watch.downNow(), std::set<std::string>{"eth1"});
    lab.bridge("sw1", "link set dev eth2 state 0");
    ASSERT_TRUE(watch.waitChange("eth2", true, seconds(2)).has_value());
    EXPECT_EQ(watch.mostDownAtOnce(), 2U);
    lab.bridge("sw1", "link set dev eth2 state 3");
    ASSERT_TRUE(watch.waitChange("eth2", false, seconds(2)).has_value());
    lab.ip("sw1", "link set eth1 up");
    const auto back = watch.waitChange("eth1", false, seconds(3), first->at);
    ASSERT_TRUE(back.has_value());
    EXPECT_TRUE(back->state.forwarding());
    lab.ip("sw1", "link set br0 down");  // Its ports are disabled with it; the bridge is not noted.
    ASSERT_TRUE(watch.waitChange("eth1", true, seconds(2), back->at).has_value());
    ASSERT_TRUE(watch.waitChange("eth2", true, seconds(2), back->at).has_value());
    EXPECT_EQ(watch.everDown(), (std::set<std::string>{"eth1", "eth2"}));
    EXPECT_FALSE(watch.lost());
  });
}

TEST(LinkWatch, KnowsPortsThatWereDownBefore) {
  labScenario([](Lab& lab) {
    newLoop(lab);
    lab.bridge("sw1", "link set dev eth2 state 0");
    LinkWatch watch(lab, "sw1");
    EXPECT_EQ(watch.downNow(), std::set<std::string>{"eth2"});
    EXPECT_TRUE(watch.everDown().empty());
    lab.bridge("sw1", "link set dev eth2 state 3");
    EXPECT_TRUE(watch.waitChange("eth2", false, seconds(2)).has_value());
  });
}

TEST(Sniffer, GivesTheWiresBytesOfEveryTagging) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "eth1", "foreign", "f1");
    Sniffer near(lab, "sw1", "eth1", Sniffer::Keep::kAll);
    Sniffer far(lab, "foreign", "f1", Sniffer::Keep::kAll);
    Injector injector(lab, "sw1", "eth1");
    const Bytes head(12, 0xFF);
    for (const Bytes& type : std::vector<Bytes>{{0x88, 0xB7},
                                                {0x81, 0x00, 0xE0, 0x01, 0x88, 0xB7},
                                                {0x81, 0x00, 0x00, 0x00, 0x88, 0xB7},
                                                {0x88, 0xA8, 0x60, 0x07, 0x88, 0xB7},
                                                {0x91, 0x00, 0xE0, 0x01, 0x88, 0xB7},
                                                {0x81, 0x00, 0x20, 0x05, 0x81, 0x00, 0, 6, 8, 0}}) {
      Bytes sent = head;
      sent.insert(sent.end(), type.begin(), type.end());
      sent.resize(sent.size() + 14, 0x5A);
      const auto before = Clock::now();
      injector.send(sent);
      for (Sniffer* sniffer : {&near, &far}) {
        const auto got = sniffer->waitFrame([](const Frame&) { return true; }, seconds(2), before);
        ASSERT_TRUE(got.has_value()) << hex(sent);
        EXPECT_EQ(hex(got->bytes), hex(sent));
        EXPECT_EQ(got->outgoing, sniffer == &near);
        EXPECT_EQ(got->port, sniffer == &near ? "eth1" : "f1");
        EXPECT_LT(got->at - before, seconds(1));
      }
    }
    EXPECT_EQ(near.dropped(), 0U);
    EXPECT_EQ(far.dropped(), 0U);
    EXPECT_EQ(far.total(), 6U);
  });
}

TEST(Sniffer, KeepsOnlyProbesWhenAskedTo) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("foreign");
    lab.newLink("sw1", "eth1", "foreign", "f1");
    Sniffer near(lab, "sw1", "", Sniffer::Keep::kProbes);
    Sniffer far(lab, "foreign", "", Sniffer::Keep::kProbes);
    Injector injector(lab, "sw1", "eth1");
    const MacAddress source = macOf("02:00:00:00:00:77");
    injector.send(broadcastFrame(source));
    injector.send(probeBytes({source, std::nullopt, {1, 2, 3, 4, 5, 6, 7, 8}}));
    injector.send(probeBytes({source, 12, {1, 2, 3, 4, 5, 6, 7, 8}}));
    for (Sniffer* sniffer : {&near, &far}) {
      ASSERT_TRUE(
          sniffer->waitFrame([](const Frame& f) { return f.bytes.size() == 32; }, seconds(2))
              .has_value());
      const auto frames = sniffer->frames();
      ASSERT_EQ(frames.size(), 2U);
      EXPECT_EQ(asProbe(frames[0].bytes)->vlan, std::nullopt);
      EXPECT_EQ(asProbe(frames[1].bytes)->vlan, 12);
      EXPECT_EQ(probeStreams(frames).size(), 2U);
    }
  });
}

TEST(Probe, ImageIsTheDocumentedOne) {
  const MacAddress source = macOf("02:00:00:00:00:0a");
  const ProbeId id{0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8};
  EXPECT_EQ(hex(probeBytes({source, 258, id})),
            "ff ff ff ff ff ff 02 00 00 00 00 0a 81 00 e1 02 88 b7 0a 1b 2c 00 03 01 "
            "f1 f2 f3 f4 f5 f6 f7 f8");
  EXPECT_EQ(hex(probeBytes({source, std::nullopt, id})),
            "ff ff ff ff ff ff 02 00 00 00 00 0a 88 b7 0a 1b 2c 00 03 01 "
            "f1 f2 f3 f4 f5 f6 f7 f8");
}

TEST(Probe, OneBitOffIsNoProbe) {
  for (const auto vlan : {std::optional<std::uint16_t>{}, std::optional<std::uint16_t>{7}}) {
    const Bytes good = probeBytes({macOf("02:00:00:00:00:0a"), vlan, {}});
    ASSERT_TRUE(asProbe(good).has_value());
    // Free to differ: the source, the VLAN id of a tag, the identifier at the end.
    const std::size_t idAt = good.size() - 8;
    for (std::size_t i = 0; i < idAt * 8; ++i) {
      Bytes bad = good;
      bad[i / 8] = static_cast<std::uint8_t>(bad[i / 8] ^ (0x80U >> (i % 8)));
      const bool inSource = i / 8 >= 6 && i / 8 < 12;
      const bool inVlan = vlan && i >= 14 * 8 + 4 && i < 16 * 8;
      EXPECT_EQ(asProbe(bad).has_value(), inSource || inVlan) << "bit " << i << ": " << hex(bad);
    }
    Bytes longer = good;
    longer.push_back(0);
    EXPECT_FALSE(asProbe(longer).has_value());
  }
}

std::vector<std::string> shell(const std::string& script) { return {"/bin/sh", "-c", script}; }

TEST(Process, LinesComeWithTheTimeOfTheirWriting) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    Process process(lab, "sw1", shell("echo one; echo two >&2; sleep 0.3; printf three; exit 3"));
    const auto two = process.waitLine([](const std::string& t) { return t == "two"; }, seconds(5));
    ASSERT_TRUE(two.has_value());
    const auto three =
        process.waitLine([](const std::string& t) { return t == "three"; }, seconds(5));
    ASSERT_TRUE(three.has_value()) << process.output();
    EXPECT_GE(two->at, process.startedAt());
    EXPECT_GE(millisecondsBetween(two->at, three->at), 250.0);
    EXPECT_LT(millisecondsBetween(two->at, three->at), 2000.0);
    EXPECT_FALSE(process.waitLine([](const std::string& t) { return t == "four"; }, seconds(60)))
        << "waiting ends with the program";
    EXPECT_EQ(process.end(SIGTERM, seconds(5)), "exit 3");
    EXPECT_FALSE(process.running());
  });
}

TEST(Process, EndTellsTheWayItEnded) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    const auto ready = [](const std::string& text) { return text == "ready"; };
    Process polite(lab, "sw1",
                   shell("trap 'echo bye; exit 0' TERM; echo ready; while :; do sleep 0.05; done"));
    ASSERT_TRUE(polite.waitLine(ready, seconds(5)).has_value());
    EXPECT_TRUE(polite.running());
    EXPECT_EQ(polite.end(SIGTERM, seconds(5)), "exit 0");
    EXPECT_EQ(polite.output(), "ready\nbye\n");

    Process deaf(lab, "sw1", shell("trap '' TERM; echo ready; while :; do sleep 0.05; done"));
    ASSERT_TRUE(deaf.waitLine(ready, seconds(5)).has_value());
    EXPECT_EQ(deaf.end(SIGTERM, Milliseconds(200)), "still running");

    Process crash(lab, "sw1", shell("kill -ABRT $$"));
    EXPECT_FALSE(crash.waitLine(ready, seconds(5)).has_value());
    EXPECT_EQ(crash.end(0, seconds(5)), "signal Aborted");

    Process absent(lab, "sw1", {"/no/such/program"});
    EXPECT_TRUE(absent.waitLine(
        [](const std::string& t) { return t == "/no/such/program: No such file or directory"; },
        seconds(5)));
    EXPECT_EQ(absent.end(SIGTERM, seconds(5)), "exit 127");
  });
}

TEST(Process, CpuTimeGrowsWithWorkOnly) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    Process idle(lab, "sw1", {"/bin/sleep", "100"});
    Process busy(lab, "sw1",
                 shell("i=0; while [ $i -lt 100000 ]; do i=$((i+1)); done; echo done; "
                       "exec sleep 100"));
    ASSERT_TRUE(
        busy.waitLine([](const std::string& t) { return t == "done"; }, seconds(30)).has_value());
    EXPECT_GT(busy.cpuTime(), Milliseconds(10));
    EXPECT_LT(idle.cpuTime(), Milliseconds(10));
  });
}

TEST(Process, SeesItsHostsInterfacesAndLeavesNoFilesBehind) {
  labScenario([](Lab& lab) {
    lab.newHost("sw1");
    lab.newHost("sw2");
    lab.newLink("sw1", "eth1", "sw2", "eth2");
    const std::string write =
        "ls /sys/class/net; for d in /run /var/lib /dev/shm; do "
        "echo x > $d/ringward-lab-trace; done; echo end";
    const auto end = [](const std::string& text) { return text == "end"; };
    Process first(lab, "sw1", shell(write));
    ASSERT_TRUE(first.waitLine(end, seconds(5)).has_value());
    EXPECT_EQ(first.output(), "eth1\nlo\nend\n");
    const std::string look = "cd /; ls run var/lib dev/shm | grep -c trace; echo end";
    Process same(lab, "sw1", shell(look));
    ASSERT_TRUE(same.waitLine(end, seconds(5)).has_value());
    EXPECT_EQ(same.output(), "3\nend\n") << "a host keeps its files";
    Process other(lab, "sw2", shell(look));
    ASSERT_TRUE(other.waitLine(end, seconds(5)).has_value());
    EXPECT_EQ(other.output(), "0\nend\n") << "hosts do not share them";
    for (const char* directory : {"/run", "/var/lib", "/dev/shm"}) {
      EXPECT_FALSE(std::filesystem::exists(std::string(directory) + "/ringward-lab-trace"));
    }
  });
}

TEST(Process, NeverOutlivesTheLab) {
  const Outcome outcome = isolated([](const Report&) {
    Lab lab;
    lab.newHost("sw1");
    // Never destroyed, as if the run had crashed.
    auto* process = new Process(lab, "sw1", shell("echo $$; exec sleep 1000"));
    const auto line = process->waitLine([](const std::string&) { return true; }, seconds(5));
    return line ? std::stoi(line->text) : 0;
  });
  if (!outcome.permitted) {
    return;
  }
  const pid_t orphan = outcome.exitStatus;
  ASSERT_GT(orphan, 0) << outcome.ending;
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, orphan, 0));
  if (handle >= 0) {  // Else it is gone already.
    pollfd poller{handle, POLLIN, 0};
    EXPECT_EQ(poll(&poller, 1, 5000), 1);
    close(handle);
  }
}

TEST(AgentLines, LoopIsRead) {
  const auto event = parseAgentLine(
      {{},
       "loop: received on eth2, sent from eth1, vlan 12, action bridge-port, until 2026-11-21 "
       "10:00:00 UTC (30 s)"});
  ASSERT_TRUE(event.has_value());
  EXPECT_EQ(event->kind, AgentEvent::Kind::kLoop);
  EXPECT_EQ(event->port, "eth2");
  EXPECT_EQ(event->sender, "eth1");
  EXPECT_EQ(event->vlan, 12);
  EXPECT_EQ(event->action, "bridge-port");
  EXPECT_EQ(event->seconds, 30);
}

TEST(AgentLines, LoopForGoodHasNoTime) {
  const auto event = parseAgentLine(
      {{}, "loop: received on eth2, sent from eth2, vlan 1, action monitor, for good"});
  ASSERT_TRUE(event.has_value());
  EXPECT_EQ(event->action, "monitor");
  EXPECT_EQ(event->seconds, std::nullopt);
}

TEST(AgentLines, LoopWithoutASenderIsRead) {
  const auto event =
      parseAgentLine({{}, "loop: received on eth2, found held down, action admin-down, for good"});
  ASSERT_TRUE(event.has_value());
  EXPECT_EQ(event->port, "eth2");
  EXPECT_EQ(event->sender, "");
  EXPECT_EQ(event->action, "admin-down");
  EXPECT_EQ(event->seconds, std::nullopt);
}

TEST(AgentLines, ReadyAndRecoveredAreRead) {
  const auto ready = parseAgentLine({{}, "ready: 64 ports, 4 VLANs, 256 pairs to probe"});
  ASSERT_TRUE(ready.has_value());
  EXPECT_EQ(ready->kind, AgentEvent::Kind::kReady);
  EXPECT_EQ(ready->ports, 64);
  const auto recovered = parseAgentLine({{}, "recovered: eth2 after 30 s"});
  ASSERT_TRUE(recovered.has_value());
  EXPECT_EQ(recovered->kind, AgentEvent::Kind::kRecovered);
  EXPECT_EQ(recovered->port, "eth2");
  EXPECT_EQ(recovered->seconds, 30);
}

TEST(AgentLines, AnythingElseIsNoEvent) {
  for (const char* text : {"", "loop", "not ready yet", "received on eth2, sent from eth1"}) {
    EXPECT_FALSE(parseAgentLine({{}, text}).has_value()) << text;
  }
}

TEST(AgentConfig, TextHasEverySetting) {
  AgentConfig config;
  config.vlans = "1,10-12";
  config.exclude = {"eth7", "eth8"};
  config.acceptForeignSource = true;
  EXPECT_EQ(config.toToml(), R"(enabled = true
vlans = "1,10-12"
exclude = ["eth7", "eth8"]
transmit-interval = 1
disabled-time = 3
rate-limit = 1000
scheduling = "auto"
[ports]
bridge = "br0"
native-vlan = 1
[errdisable]
action = "auto"
[packet]
accept-foreign-source = true
)");
  config.match = {"swp*"};
  EXPECT_NE(config.toToml().find("match = [\"swp*\"]"), std::string::npos);
  EXPECT_EQ(config.toToml().find("bridge ="), std::string::npos);
}

}  // namespace
}  // namespace RingwardLab
