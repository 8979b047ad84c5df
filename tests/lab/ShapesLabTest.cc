// SPDX-License-Identifier: Apache-2.0
//
// The shapes that a loop can have.
#include "tests/lab/Vigil.h"

namespace RingwardLab {
namespace {

const std::vector<LoopPorts> kFirstPair{{"eth1", "eth2"}};

void storm(Lab& lab) {
  Injector(lab, "innocent", "i0").send(broadcastFrame(macOf("02:00:00:00:00:77")));
}

TEST(ShapesLab, TwoPortsJoinedByASwitchWhileTheAgentRuns) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 3);
    lab.newBridge("foreign", "fbr", {"f1"});
    lab.waitForwarding("foreign", {"f1"});
    Vigil vigil(lab, "one-switch", {});
    vigil.arm();
    lab.ip("foreign", "link set f2 master fbr");
    vigil.expectCuts(kFirstPair);
    lab.ip("foreign", "link set f2 nomaster");
    vigil.expectBack(seconds(3));
    vigil.end();
  });
}

TEST(ShapesLab, StormBetweenTwoPorts) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 3);
    lab.newBridge("foreign", "fbr", {"f1", "f2"});
    lab.waitForwarding("foreign", {"f1", "f2"});
    storm(lab);
    Vigil vigil(lab, "storm", {});
    vigil.expectCuts(kFirstPair);
    lab.ip("foreign", "link set f2 nomaster");
    vigil.expectBack(seconds(3));
    vigil.end();
  });
}

}  // namespace
}  // namespace RingwardLab
