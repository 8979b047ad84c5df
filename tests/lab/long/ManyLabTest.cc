// SPDX-License-Identifier: Apache-2.0
//
// Many ports, many loops, many interfaces at once.
#include <fstream>

#include "tests/lab/Vigil.h"

namespace RingwardLab {
namespace {

TEST(ManyLab, SixteenLoopsAmongSixtyFourPorts) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 64);
    std::vector<LoopPorts> loops;
    for (int pair = 0; pair < 16; ++pair) {
      const std::string first = std::to_string(2 * pair + 1);
      const std::string second = std::to_string(2 * pair + 2);
      lab.newBridge("foreign", "fbr" + std::to_string(pair), {"f" + first});
      loops.push_back({"eth" + first, "eth" + second});
    }
    AgentConfig config;
    config.disabledTime = 4;
    Vigil vigil(lab, "sixteen-loops", config);
    vigil.arm();
    for (int pair = 0; pair < 16; ++pair) {
      lab.ip("foreign",
             "link set f" + std::to_string(2 * pair + 2) + " master fbr" + std::to_string(pair));
    }
    vigil.expectCuts(loops, seconds(10));
    EXPECT_EQ(vigil.watch().downNow().size(), 16U);
    for (int pair = 0; pair < 16; ++pair) {
      lab.ip("foreign", "link set f" + std::to_string(2 * pair + 2) + " nomaster");
    }
    vigil.expectBack(seconds(3));  // They were cut one after the other.
    vigil.end();
  });
}

// All at once, with what `ip` reads from a file.
void batch(Lab& lab, const std::string& commands) {
  const std::string path = lab.directory("sw1") + "/batch";
  std::ofstream(path) << commands;
  lab.ip("sw1", "-batch " + path);
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
          batch(lab, make);
          // Only what the loop makes of it matters: it is found as soon as ever.
          vigil.arm();
          lab.ip("foreign", "link set f2 master fbr");
          vigil.expectCuts({{"eth1", "eth2"}});
          batch(lab, unmake);
          lab.ip("foreign", "link set f2 nomaster");
          vigil.expectBack(seconds(2));
          std::printf(
              "  %.0f ms of processor time for the round\n",
              std::chrono::duration<double, std::milli>(vigil.agent().process().cpuTime() - before)
                  .count());
          vigil.expectNoOtherDown({"eth1", "eth2"});
        }
        vigil.end();
      },
      seconds(110));
}

}  // namespace
}  // namespace RingwardLab
