// SPDX-License-Identifier: Apache-2.0
//
// Loops through an Open vSwitch, which knows VLANs, and on the ports of one.
#include "tests/lab/OpenSwitch.h"
#include "tests/lab/Vigil.h"

namespace RingwardLab {
namespace {

const std::vector<LoopPorts> kFirstPair{{"eth1", "eth2"}};

AgentConfig shortHold(const std::string& vlans = "1") {
  AgentConfig config;
  config.disabledTime = 2;
  config.vlans = vlans;
  return config;
}

void openSwitchScenario(const std::function<void(Lab&)>& body, Milliseconds limit = seconds(60)) {
  if (const std::string why = OpenSwitch::missing(); !why.empty()) {
    skipLab(why);
    return;
  }
  agentScenario(body, limit);
}

// The VLAN of the one loop that the agent has told of.
int loopVlan(Vigil& vigil) {
  const auto loops = vigil.agent().events(Kind::kLoop);
  EXPECT_EQ(loops.size(), 1U) << vigil.agent().process().output();
  return loops.empty() ? -1 : loops.front().vlan;
}

TEST(OpenSwitchLab, TwoPortsJoinedByAnOpenSwitch) {
  openSwitchScenario([](Lab& lab) {
    newPlant(lab, 3);
    const OpenSwitch foreign(lab, "foreign", "fbr", {"f1"});
    Vigil vigil(lab, "open-switch", shortHold());
    vigil.arm();
    foreign.configure("add-port fbr f2");
    vigil.expectCuts(kFirstPair);
    foreign.configure("del-port fbr f2");
    vigil.expectBack(seconds(2));
    vigil.end();
  });
}

TEST(OpenSwitchLab, LoopOnOneVlanOfATrunk) {
  openSwitchScenario([](Lab& lab) {
    newPlant(lab, 3);
    const OpenSwitch foreign(lab, "foreign", "fbr", {"f1"});
    // f2 carries 17 and nothing else.
    Vigil vigil(lab, "one-vlan-of-a-trunk", shortHold("1,10-20"));
    vigil.arm();
    foreign.configure("add-port fbr f2 vlan_mode=trunk trunks=17");
    vigil.expectCuts(kFirstPair);
    EXPECT_EQ(loopVlan(vigil), 17);
    foreign.configure("del-port fbr f2");
    vigil.expectBack(seconds(2));
    vigil.end();
  });
}

TEST(OpenSwitchLab, LoopOnAVlanThatIsNotProbedIsNotFoundAndNothingIsCut) {
  openSwitchScenario([](Lab& lab) {
    newPlant(lab, 3);
    const OpenSwitch foreign(lab, "foreign", "fbr", {"f1"});
    Vigil vigil(lab, "unprobed-vlan", shortHold("1,10-16"));
    Sniffer sniffer(lab, "sw1", "", Sniffer::Keep::kProbes);
    foreign.configure("add-port fbr f2 vlan_mode=trunk trunks=17");
    waitProbesOut(sniffer, "eth1", 3 * 8);
    EXPECT_TRUE(vigil.watch().changes().empty());
    vigil.end();
  });
}

TEST(OpenSwitchLab, LoopThatComesBackWithAnotherVlansTag) {
  openSwitchScenario([](Lab& lab) {
    newPlant(lab, 3);
    const OpenSwitch foreign(lab, "foreign", "fbr", {"f1", "f2"});
    foreign.flow("priority=0,actions=drop");
    Vigil vigil(lab, "translated-vlan", shortHold("10,20"));
    vigil.arm();
    foreign.flow("priority=9,in_port=f1,dl_vlan=10,actions=mod_vlan_vid:20,output:f2");
    vigil.expectCuts({{"eth2"}});
    const auto loops = vigil.agent().events(Kind::kLoop);
    ASSERT_EQ(loops.size(), 1U);
    EXPECT_EQ(loops.front().port, "eth2");
    EXPECT_EQ(loops.front().sender, "eth1");
    foreign.flow("priority=9,in_port=f1,dl_vlan=10,actions=drop");
    vigil.expectBack(seconds(2));
    vigil.end();
  });
}

TEST(OpenSwitchLab, ServiceTagAroundTheProbesTagIsNoProbe) {
  openSwitchScenario([](Lab& lab) {
    newPlant(lab, 3);
    const OpenSwitch foreign(lab, "foreign", "fbr", {"f1", "f2"});
    foreign.flow("priority=0,actions=drop");
    Vigil vigil(lab, "service-tag", shortHold("10"));
    Sniffer sniffer(lab, "sw1", "", Sniffer::Keep::kProbes);
    foreign.flow(
        "priority=9,in_port=f1,actions=push_vlan:0x88a8,set_field:4396->vlan_vid,output:f2");
    waitProbesOut(sniffer, "eth1", 4);
    EXPECT_TRUE(vigil.watch().changes().empty()) << vigil.agent().process().output();
    vigil.end();
  });
}

// sw1 is an Open vSwitch itself: its ports are in no bridge of the kernel's.
TEST(OpenSwitchLab, LoopBetweenPortsOfAnOpenSwitch) {
  openSwitchScenario([](Lab& lab) {
    for (const char* host : {"sw1", "foreign", "innocent"}) {
      lab.newHost(host);
    }
    lab.newLink("sw1", "eth0", "innocent", "i0");
    for (const char* n : {"1", "2", "3"}) {
      lab.newLink("sw1", std::string("eth") + n, "foreign", std::string("f") + n);
    }
    const OpenSwitch own(lab, "sw1", "obr", {"eth0", "eth1", "eth2", "eth3"});
    lab.newBridge("foreign", "fbr", {"f1"});
    lab.waitForwarding("foreign", {"f1"});
    AgentConfig config = shortHold();
    config.match = {"eth*"};
    Vigil vigil(lab, "ports-of-an-open-switch", config);
    vigil.arm();
    lab.ip("foreign", "link set f2 master fbr");
    vigil.expectCuts(kFirstPair);
    const auto loops = vigil.agent().events(Kind::kLoop);
    ASSERT_EQ(loops.size(), 1U);
    EXPECT_EQ(loops.front().action, "admin-down") << "veth refuses protodown";
    lab.ip("foreign", "link set f2 nomaster");
    vigil.expectBack(seconds(2));
    vigil.end();
  });
}

}  // namespace
}  // namespace RingwardLab
