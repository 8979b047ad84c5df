// SPDX-License-Identifier: Apache-2.0
//
// The shapes that a loop can have, made while the agent runs or before, in silence or with a storm
// on the wire.
#include "tests/lab/Reflector.h"
#include "tests/lab/Vigil.h"

namespace RingwardLab {
namespace {

const std::vector<LoopPorts> kFirstPair{{"eth1", "eth2"}};
const std::vector<LoopPorts> kFirstPort{{"eth1"}};

AgentConfig shortHold() {
  AgentConfig config;
  config.disabledTime = 2;
  return config;
}

// One frame is enough: a loop multiplies it.
void startStorm(Lab& lab) {
  Injector(lab, "innocent", "i0").send(broadcastFrame(macOf("02:00:00:00:00:77")));
}

// A loop that `make` closes while the agent runs, and `open` opens again.
void expectLoopFound(Lab& lab, const std::string& name, const std::vector<LoopPorts>& loops,
                     const std::function<void()>& make, const std::function<void()>& open) {
  Vigil vigil(lab, name, shortHold());
  vigil.arm();
  make();
  vigil.expectCuts(loops);
  open();
  vigil.expectBack(seconds(2));
  vigil.end();
}

TEST(ShapesLab, TwoPortsJoinedByASwitch) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 3);
    lab.newBridge("foreign", "fbr", {"f1"});
    lab.waitForwarding("foreign", {"f1"});
    expectLoopFound(
        lab, "one-switch", kFirstPair, [&] { lab.ip("foreign", "link set f2 master fbr"); },
        [&] { lab.ip("foreign", "link set f2 nomaster"); });
  });
}

TEST(ShapesLab, TwoPortsJoinedByTwoSwitches) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 3);
    lab.newLink("foreign", "u1", "foreign", "u2");
    lab.newBridge("foreign", "fbr1", {"f1", "u1"});
    lab.newBridge("foreign", "fbr2", {"u2"});
    lab.waitForwarding("foreign", {"f1", "u1", "u2"});
    expectLoopFound(
        lab, "two-switches", kFirstPair, [&] { lab.ip("foreign", "link set f2 master fbr2"); },
        [&] { lab.ip("foreign", "link set f2 nomaster"); });
  });
}

TEST(ShapesLab, StormBetweenTwoPortsIsThereBeforeTheAgent) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 3);
    lab.newBridge("foreign", "fbr", {"f1", "f2"});
    lab.waitForwarding("foreign", {"f1", "f2"});
    startStorm(lab);
    Vigil vigil(lab, "before-the-agent", shortHold());
    vigil.expectCuts(kFirstPair);
    lab.ip("foreign", "link set f2 nomaster");
    vigil.expectBack(seconds(2));
    vigil.end();
  });
}

TEST(ShapesLab, PatchCableWithAStorm) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 1);
    lab.newLink("sw1", "eth2", "sw1", "eth3");
    lab.ip("sw1", "link set eth2 master br0");
    lab.waitForwarding("sw1", {"eth2"});
    Vigil vigil(lab, "patch-cable", shortHold());
    vigil.arm();
    lab.ip("sw1", "link set eth3 master br0");
    startStorm(lab);
    vigil.expectCuts({{"eth2", "eth3"}});
    // Whichever end is held: the loop must not be there when it comes back.
    lab.ip("sw1", "link set eth3 nomaster");
    lab.ip("sw1", "link set eth2 nomaster");
    vigil.expectRecoveries(1);
    vigil.end();
  });
}

TEST(ShapesLab, LoopInsideANeighbourReturnsOverOnePort) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 2);
    lab.newLink("foreign", "u1", "foreign", "u2");
    lab.newBridge("foreign", "fbr", {"f1", "u1"});
    lab.waitForwarding("foreign", {"f1", "u1"});
    expectLoopFound(
        lab, "self-loop", kFirstPort,
        [&] {
          lab.ip("foreign", "link set u2 master fbr");
          startStorm(lab);
        },
        [&] { lab.ip("foreign", "link set u2 nomaster"); });
  });
}

TEST(ShapesLab, HairpinReturnsFramesToTheirPort) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 2);
    lab.newBridge("foreign", "fbr", {"f1"});
    lab.waitForwarding("foreign", {"f1"});
    expectLoopFound(
        lab, "hairpin", kFirstPort, [&] { lab.bridge("foreign", "link set dev f1 hairpin on"); },
        [&] { lab.bridge("foreign", "link set dev f1 hairpin off"); });
  });
}

TEST(ShapesLab, ReflectionOfEveryFrame) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 2);
    std::unique_ptr<Reflector> mirror;
    expectLoopFound(
        lab, "reflection", kFirstPort,
        [&] { mirror = std::make_unique<Reflector>(lab, "foreign", "f1"); },
        [&] { mirror.reset(); });
  });
}

TEST(ShapesLab, EveryVlanOfATaggedPortIsProbedAndOneReflectionIsEnough) {
  agentScenario([](Lab& lab) {
    newPlant(lab, 2);
    std::unique_ptr<Reflector> mirror;
    AgentConfig config = shortHold();
    config.vlans = "10-20";  // all tagged
    Vigil vigil(lab, "reflection-tagged", config);
    vigil.arm();
    mirror = std::make_unique<Reflector>(lab, "foreign", "f1");
    vigil.expectCuts(kFirstPort);
    mirror.reset();
    vigil.expectBack(seconds(2));
    vigil.end();
  });
}

}  // namespace
}  // namespace RingwardLab
