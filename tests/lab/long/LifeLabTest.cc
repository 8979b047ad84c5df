// SPDX-License-Identifier: Apache-2.0
//
// Loops and ports that come, go and change under the agent, and an operator who does his worst.
#include <random>

#include "tests/lab/Vigil.h"

namespace RingwardLab {
namespace {

const std::vector<LoopPorts> kFirstPair{{"eth1", "eth2"}};

AgentConfig shortHold() {
  AgentConfig config;
  config.disabledTime = 2;
  return config;
}

void newRing(Lab& lab) {
  newPlant(lab, 4);
  lab.newBridge("foreign", "fbr", {"f1"});
  lab.waitForwarding("foreign", {"f1"});
}

void makeLoop(Lab& lab) { lab.ip("foreign", "link set f2 master fbr"); }
void openLoop(Lab& lab) { lab.ip("foreign", "link set f2 nomaster"); }

TEST(LifeLab, LoopThatStaysOverTwoRecoveriesAndGoes) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    Vigil vigil(lab, "two-recoveries", shortHold());
    vigil.arm();
    makeLoop(lab);
    vigil.expectCuts(kFirstPair);
    for (int round = 0; round < 2; ++round) {
      vigil.arm();
      vigil.expectCuts(kFirstPair, seconds(6));
    }
    openLoop(lab);
    vigil.expectBack(seconds(2));
    EXPECT_EQ(vigil.agent().events(Kind::kLoop).size(), 3U) << vigil.agent().process().output();
    vigil.end();
  });
}

TEST(LifeLab, CableThatFlaps) {
  agentScenario([](Lab& lab) {
    newRing(lab);
    makeLoop(lab);
    lab.ip("foreign", "link set f2 down");
    Vigil vigil(lab, "flapping-cable", shortHold());
    for (int flap = 0; flap < 30; ++flap) {
      lab.ip("foreign", "link set f2 up");
      // From the shortest to longer than a probe takes to come back.
      lab.frameRate("sw1", "eth3", Milliseconds(flap * 10));
      lab.ip("foreign", "link set f2 down");
    }
    vigil.expectNoOtherDown({"eth1", "eth2"});
    // What was cut on the way comes back, and then nothing is wrong but the missing carrier.
    vigil.expectHeld(0, seconds(4));
    vigil.arm();
    lab.ip("foreign", "link set f2 up");
    vigil.expectCuts(kFirstPair);
    openLoop(lab);
    vigil.expectBack(seconds(2));
    vigil.expectNoOtherDown({"eth1", "eth2"});
    vigil.end();
  });
}

TEST(LifeLab, HeldPortIsRenamedDeletedAndMadeAgain) {
  agentScenario(
      [](Lab& lab) {
        newRing(lab);
        AgentConfig config;
        config.disabledTime = 600;
        Vigil vigil(lab, "renamed-and-made-again", config);
        for (int round = 0; round < 5; ++round) {
          vigil.arm();
          makeLoop(lab);
          vigil.expectCuts(kFirstPair);
          const std::string port = *vigil.watch().downNow().begin();
          const std::string number = port.substr(3);
          openLoop(lab);
          lab.ip("sw1", "link set " + port + " name moved" + std::to_string(round));
          EXPECT_TRUE(vigil.watch().waitChange(Ports{}, false, seconds(2), vigil.cutAt()))
              << "under its new name it is another port\n"
              << vigil.agent().process().output();
          vigil.expectHeld(0, seconds(4));
          lab.ip("sw1", "link del moved" + std::to_string(round));
          lab.newLink("sw1", port, "foreign", "f" + number);
          lab.ip("sw1", "link set " + port + " master br0");
          lab.waitForwarding("sw1", {port});
          if (number == "1") {
            lab.ip("foreign", "link set f1 master fbr");
            lab.waitForwarding("foreign", {"f1"});
          }
        }
        vigil.end();
      },
      seconds(110));
}

// The same loop all the time, and an operator whose hands are quicker than his head.
TEST(LifeLab, OperatorWhoShutsAndRaisesPortsAtTheWorstMoments) {
  for (const char* const action : {"bridge-port", "admin-down"}) {
    agentScenario(
        [&](Lab& lab) {
          newRing(lab);
          makeLoop(lab);
          AgentConfig config = shortHold();
          config.action = action;
          Vigil vigil(lab, std::string("operator-") + action, config);
          std::mt19937 random(7);  // the same evil every time
          for (int step = 0; step < 60; ++step) {
            const std::string port = random() % 2 == 0 ? "eth1" : "eth2";
            switch (random() % 5) {
              case 0:  // just behind a cut
                vigil.agent().waitEvent(Kind::kLoop, Milliseconds(1500),
                                        vigil.agent().events(Kind::kLoop).size() + 1);
                break;
              case 1:  // about when a hold ends
                vigil.agent().waitEvent(Kind::kRecovered, Milliseconds(2500),
                                        vigil.agent().events(Kind::kRecovered).size() + 1);
                break;
              default:
                break;
            }
            lab.ip("sw1", "link set " + port + (random() % 2 == 0 ? " down" : " up"));
            if (random() % 3 == 0) {
              lab.ip("sw1", "link set " + port + " up");
            }
          }
          vigil.expectNoOtherDown({"eth1", "eth2"});
          lab.ip("sw1", "link set eth1 up");
          lab.ip("sw1", "link set eth2 up");
          vigil.expectHeld(1, seconds(6));
          lab.waitQuiet("innocent", "i0", 100.0, Milliseconds(100), seconds(3));
          openLoop(lab);
          // With admin-down a shut during a hold cannot be seen; by now he wants both.
          lab.ip("sw1", "link set eth1 up");
          lab.ip("sw1", "link set eth2 up");
          vigil.expectHeld(0, seconds(6));
          vigil.end();
        },
        seconds(110));
  }
}

}  // namespace
}  // namespace RingwardLab
