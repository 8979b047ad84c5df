// SPDX-License-Identifier: Apache-2.0
//
// Many ports, many loops, many interfaces at once.
#include <fstream>

#include "tests/lab/Vigil.h"

namespace RingwardLab {
namespace {

constexpr int kPairs = 16;

std::string secondOf(const char* stem, int pair) { return stem + std::to_string(2 * pair + 2); }

// Foreign switches, one to a pair of ports, which are open as yet.
std::vector<LoopPorts> newOpenLoops(Lab& lab) {
  std::vector<LoopPorts> loops;
  for (int pair = 0; pair < kPairs; ++pair) {
    const std::string first = std::to_string(2 * pair + 1);
    lab.newBridge("foreign", "fbr" + std::to_string(pair), {"f" + first});
    loops.push_back({"eth" + first, secondOf("eth", pair)});
  }
  return loops;
}

// All at once, with what `ip` reads from a file.
void batch(Lab& lab, const std::string& host, const std::string& commands) {
  const std::string path = lab.directory(host) + "/batch";
  std::ofstream(path) << commands;
  lab.ip(host, "-batch " + path);
}

void closeLoops(Lab& lab, bool closed) {
  std::string commands;
  for (int pair = 0; pair < kPairs; ++pair) {
    commands += "link set " + secondOf("f", pair) +
                (closed ? " master fbr" + std::to_string(pair) : std::string(" nomaster")) + "\n";
  }
  batch(lab, "foreign", commands);
}

// Each pair is a network of its own, as with a VLAN for each customer.
TEST(ManyLab, SixteenLoopsAmongSixtyFourPorts) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 64);
    const std::vector<LoopPorts> loops = newOpenLoops(lab);
    for (std::size_t pair = 0; pair < loops.size(); ++pair) {
      lab.newBridge("sw1", "vbr" + std::to_string(pair), {loops[pair].begin(), loops[pair].end()});
    }
    lab.waitForwarding("sw1", numbered("eth", 1, 2 * kPairs));
    AgentConfig config;
    config.disabledTime = 4;
    config.match = {"eth*"};
    Vigil vigil(lab, "sixteen-loops", config);
    vigil.arm();
    closeLoops(lab, true);
    vigil.expectCuts(loops, seconds(10));
    closeLoops(lab, false);
    vigil.expectBack(seconds(3));  // They were cut one after the other.
    vigil.end();
  });
}

// In one network the copies of one probe run through every loop, and each end hears one before the
// other end could be cut: both ends of a loop may go, but no other port does.
TEST(ManyLab, SixteenLoopsOfOneNetwork) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 64);
    const std::vector<LoopPorts> loops = newOpenLoops(lab);
    AgentConfig config;
    config.disabledTime = 4;
    Vigil vigil(lab, "sixteen-loops-of-one-network", config);
    vigil.arm();
    closeLoops(lab, true);
    vigil.expectCuts(loops, seconds(10), Vigil::Ends::kOneOrBoth);
    closeLoops(lab, false);
    vigil.expectBack(seconds(3));
    vigil.end();
  });
}

TEST(ManyLab, AThousandInterfacesComeAndGoAroundALoop) {
  agentScenario(
      [](Lab& lab) {
        newPlant(lab, 3);
        lab.newBridge("foreign", "fbr", {"f1"});
        lab.waitForwarding("foreign", {"f1"});
        AgentConfig config;
        config.disabledTime = 2;
        Vigil vigil(lab, "thousand-interfaces", config);
        std::string make;
        std::string unmake;
        for (int i = 0; i < 500; ++i) {
          const std::string n = std::to_string(i);
          make += "link add m" + n + " type veth peer name p" + n + "\nlink set m" + n +
                  " master br0 up\nlink set p" + n + " up\n";
          unmake += "link del m" + n + "\n";
        }
        for (int round = 0; round < 3; ++round) {
          const auto before = vigil.agent().process().cpuTime();
          batch(lab, "sw1", make);
          vigil.arm();
          lab.ip("foreign", "link set f2 master fbr");
          vigil.expectCuts({{"eth1", "eth2"}});
          batch(lab, "sw1", unmake);
          lab.ip("foreign", "link set f2 nomaster");
          vigil.expectBack(seconds(2));
          const auto work = vigil.agent().process().cpuTime() - before;
          std::printf("  %.0f ms of processor time for the round\n",
                      std::chrono::duration<double, std::milli>(work).count());
          vigil.expectNoOtherDown({"eth1", "eth2"});
        }
        vigil.end();
      },
      seconds(110));
}

}  // namespace
}  // namespace RingwardLab
