// SPDX-License-Identifier: Apache-2.0
//
// ringward_demo: the agent at work, in ten seconds. It builds a switch and a neighbour
// out of network namespaces, waits until the agent probes its ports, joins two of them by mistake,
// and tells with times (in milliseconds since the start) what then happens. Nothing is staged:
// every line reports something that was seen, and the program ends with status 0 only if the whole
// story came true.
//
// Needs root or unprivileged user namespaces. With neither it hands over to ringward_sim_demo,
// which tells the same story over a simulated wire.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "tests/lab/Agent.h"
#include "tests/lab/LinkWatch.h"
#include "tests/lab/Sniffer.h"

namespace RingwardLab {
namespace {

using std::chrono::seconds;
using Kind = AgentEvent::Kind;

// A part of the story that did not come true.
class Broken : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

template <typename T>
T need(std::optional<T> seen, const std::string& what) {
  if (!seen) {
    throw Broken("this did not happen: " + what);
  }
  return *seen;
}

void need(bool seen, const std::string& what) {
  if (!seen) {
    throw Broken("this did not happen: " + what);
  }
}

class Story {
 public:
  __attribute__((format(printf, 3, 4))) void tell(Clock::time_point at, const char* format, ...) {
    std::printf("%8.1f ms  ", millisecondsBetween(start_, at));
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::printf("\n");
    std::fflush(stdout);
  }

 private:
  const Clock::time_point start_ = Clock::now();
};

// Of the two ports that get looped. The bridge and eth3 see copies of what circulates as well.
bool isProbe(const Frame& frame, bool outgoing) {
  return frame.outgoing == outgoing && (frame.port == "eth1" || frame.port == "eth2") &&
         asProbe(frame.bytes);
}

// Waits for a moment at which the next probe is at least half an interval away: of two ports that
// probe once in a second each, one always leaves such a gap. So the storm can be measured before
// the agent ends it.
void waitLongGap(const Sniffer& sniffer, Clock::time_point since) {
  const auto last = [&](const char* port, Clock::time_point after) {
    return need(
               sniffer.waitFrame([&](const Frame& f) { return isProbe(f, true) && f.port == port; },
                                 seconds(3), after),
               "a probe from a healthy port")
        .at;
  };
  const auto eth1 = last("eth1", since);
  const auto eth2 = last("eth2", eth1);
  const bool gapAfterFirst = eth2 - eth1 >= Milliseconds(500);
  last(gapAfterFirst ? "eth1" : "eth2", eth2);
}

int tellStory(Lab& lab) {
  Story story;
  constexpr int kHold = 4;
  lab.newHost("switch");
  lab.newHost("neighbour");
  for (const char* n : {"1", "2", "3"}) {
    lab.newLink("switch", std::string("eth") + n, "neighbour", std::string("n") + n);
  }
  lab.newBridge("switch", "br0", {"eth1", "eth2", "eth3"}, "02:00:00:00:10:01");
  lab.newBridge("neighbour", "nbr", {"n1"});
  lab.waitForwarding("switch", {"eth1", "eth2", "eth3"});
  lab.waitForwarding("neighbour", {"n1"});
  story.tell(Clock::now(),
             "a switch bridges eth1, eth2 and eth3; eth1 leads to a neighbour's bridge");

  LinkWatch watch(lab, "switch");
  Sniffer sniffer(lab, "switch", "", Sniffer::Keep::kProbes);
  AgentConfig config;
  config.disabledTime = kHold;
  config.vlans = "1";
  Agent agent(lab, "switch", config);
  story.tell(agent.ready().at, "the agent runs: %d ports, one probe a second, holds for %d s",
             agent.ready().ports, kHold);
  waitLongGap(sniffer, agent.ready().at);
  need(watch.changes().empty(), "quiet before the loop");

  lab.ip("neighbour", "link set n2 master nbr");
  lab.waitForwarding("neighbour", {"n2"});
  const auto looped = Clock::now();
  story.tell(looped, "LOOP: somebody connects eth2 to the same neighbour");
  Injector(lab, "neighbour", "n1").send(broadcastFrame(macOf("02:00:00:00:00:77")));
  story.tell(Clock::now(), "one broadcast frame is sent into it");
  const double storm = lab.frameRate("switch", "eth1", Milliseconds(200));
  need(storm > 1000, "a storm");
  story.tell(Clock::now(), "STORM: %.0f frames/s on eth1", storm);

  const Frame out =
      need(sniffer.waitFrame([](const Frame& f) { return isProbe(f, true); }, seconds(3), looped),
           "a probe sent into the loop");
  story.tell(out.at, "probe out of %s: %s", out.port.c_str(), hex(out.bytes).c_str());
  const Frame back = need(
      sniffer.waitFrame([&](const Frame& f) { return isProbe(f, false) && f.bytes == out.bytes; },
                        seconds(3), looped),
      "the probe's return");
  story.tell(back.at, "the same probe comes back on %s", back.port.c_str());

  const auto down = need(watch.waitChange("", true, seconds(3)), "a port going down");
  const auto loop = need(agent.waitEvent(Kind::kLoop, seconds(3)), "the agent's report");
  need(loop.port == down.port && loop.port == back.port,
       "the cut of the port that heard the probe");
  story.tell(down.at, "CUT: %s is down, by %s, %.1f ms after the probe came back",
             down.port.c_str(), loop.action.c_str(), millisecondsBetween(back.at, down.at));
  const auto quiet = lab.waitQuiet("switch", "eth1", 20.0, Milliseconds(100), Milliseconds(1000));
  story.tell(quiet, "the storm is over: %.0f frames/s on eth1, %.0f on eth2",
             lab.frameRate("switch", "eth1", Milliseconds(100)),
             lab.frameRate("switch", "eth2", Milliseconds(100)));
  need(watch.downNow().size() == 1, "exactly one port down");

  lab.ip("neighbour", "link set n2 nomaster");
  story.tell(Clock::now(), "the loop is removed; %s waits for the end of its %d s",
             down.port.c_str(), loop.seconds.value_or(0));
  const auto up = need(watch.waitChange(down.port, false, seconds(kHold + 2)), "the port's return");
  need(agent.waitEvent(Kind::kRecovered, seconds(1)), "the agent's report of the return");
  story.tell(up.at, "BACK: %s is in service again, %.2f s after it went down", up.port.c_str(),
             millisecondsBetween(down.at, up.at) / 1000);
  const Frame healthy =
      need(sniffer.waitFrame([&](const Frame& f) { return isProbe(f, true) && f.port == up.port; },
                             seconds(3), up.at),
           "probes on the port that is back");
  story.tell(healthy.at, "it is probed again, and nothing comes back");
  need(watch.downNow().empty(), "all ports in service");
  need(agent.events(Kind::kLoop).size() == 1 && watch.mostDownAtOnce() == 1, "exactly one cut");
  need(agent.stop() == "exit 0", "the agent's clean end");
  story.tell(Clock::now(), "the agent has ended in good order");
  return 0;
}

int handOver(const std::string& refusal, const char* self) {
  const char* given = std::getenv("RINGWARD_SIM_DEMO");
  const auto program = given != nullptr
                           ? std::filesystem::path(given)
                           : std::filesystem::path(self).parent_path() / "ringward_sim_demo";
  std::printf(
      "This demonstration needs root or unprivileged user namespaces, and there are\n%s.\n"
      "The same story over a simulated wire, by %s:\n",
      refusal.c_str(), program.c_str());
  std::fflush(stdout);
  execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
  std::perror(program.c_str());
  return 1;
}

int runDemo() {
  const Outcome outcome = runIsolated(
      [](const Report&) {
        if (findAgent().empty()) {
          std::fprintf(stderr, "ringward_demo: there is no ringwardd; build it or set RINGWARDD\n");
          return 1;
        }
        try {
          Lab lab;
          return tellStory(lab);
        } catch (const Broken& broken) {
          std::fprintf(stderr, "ringward_demo: %s\n", broken.what());
          return 1;
        }
      },
      seconds(30));
  if (!outcome.permitted) {
    return handOver(outcome.refusal,
                    std::filesystem::read_symlink("/proc/self/exe").string().c_str());
  }
  for (const Finding& finding : outcome.findings) {
    std::fprintf(stderr, "ringward_demo: %s\n", finding.text.c_str());
  }
  if (!outcome.ending.empty()) {
    std::fprintf(stderr, "ringward_demo: the story was %s\n", outcome.ending.c_str());
  }
  return outcome.findings.empty() && outcome.ending.empty() ? outcome.exitStatus : 1;
}

}  // namespace
}  // namespace RingwardLab

int main() {
  try {
    return RingwardLab::runDemo();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ringward_demo: %s\n", error.what());
    return 1;
  }
}
