// SPDX-License-Identifier: Apache-2.0
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "cli/ringward/AgentLink.h"
#include "cli/ringward/Failure.h"
#include "cli/ringward/Followers.h"
#include "tests/cli/ringward/World.h"

namespace RingwardCliTest {
namespace {

using Json = nlohmann::json;
using Bridging::VlanId;
using Portus::IntfId;

TEST_F(World, GetPrintsTheTextOfAValue) {
  EXPECT_EQ(done({"get", "config/globalEnabled"}), "false\n");
  EXPECT_EQ(done({"get", "/config/transmitConfig/rateLimit"}), "1000\n");
  EXPECT_EQ(done({"-j", "get", "config/globalIntfConfig/disabledTime"}),
            "{\"path\":\"config/globalIntfConfig/disabledTime\",\"value\":\"604800\"}\n");
}

TEST_F(World, ACommandWaitsForAPlaceWhereTooManyWait) {
  startDeafAgent();
  FullQueue queue(loop, socket);
  queue.openTo(*server);
  EXPECT_EQ(done({"get", "config/globalEnabled"}), "false\n");
}

TEST(Unreachable, AQueueThatStaysFullIsSaidInWords) {
  try {
    RingwardCli::throwUnreachable("/s",
                                  std::make_error_code(std::errc::resource_unavailable_try_again));
    ADD_FAILURE() << "nothing raised";
  } catch (const RingwardCli::Failure& failure) {
    EXPECT_EQ(failure.status(), RingwardCli::ExitStatus::failed);
    EXPECT_STREQ(failure.what(),
                 "too many wait for the agent on \"/s\"; it may be stopped, see its log");
  }
}

TEST_F(World, SetChangesTheEntityAtOnce) {
  EXPECT_EQ(done({"set", "config/transmitConfig/rateLimit", "77"}), "");
  EXPECT_EQ(config->transmitConfig()->rateLimit(), 77u);
  EXPECT_EQ(done({"set", "config/vlanEnabled[10]", "true"}), "");
  EXPECT_TRUE(config->vlanEnabled(VlanId(10)));
  EXPECT_EQ(done({"del", "config/vlanEnabled[10]"}), "");
  EXPECT_FALSE(config->vlanEnabled(VlanId(10)));
}

TEST_F(World, WhatIsSetAndDeletedIsToldAsJson) {
  EXPECT_EQ(done({"-j", "set", "config/vlanEnabled[10]", "true"}),
            "{\"path\":\"config/vlanEnabled[10]\",\"value\":\"true\"}\n");
  EXPECT_EQ(done({"-j", "del", "config/vlanEnabled[10]"}),
            "{\"path\":\"config/vlanEnabled[10]\",\"deleted\":true}\n");
}

TEST_F(World, WhatCannotBeSetIsSaidAndNothingChanges) {
  EXPECT_EQ(
      failed(1, {"set", "config/globalIntfConfig/transmitInterval", "256"}),
      "ringward: attribute 'transmitInterval': value 256 is out of range: 0 to 255 allowed\n");
  EXPECT_EQ(failed(1, {"set", "status/running", "true"}),
            "ringward: attempting to modify a const instance\n");
  EXPECT_EQ(failed(1, {"set", "config/vlanEnabled[4095]", "true"}).substr(0, 10), "ringward: ");
  EXPECT_EQ(config->globalIntfConfig()->transmitInterval(), 5u);
  EXPECT_FALSE(status->running());
}

TEST_F(World, AnUnknownNameSuggestsTheNearest) {
  EXPECT_EQ(failed(1, {"get", "config/globalEnabeld"}),
            "ringward: no attribute 'globalEnabeld' in config; did you mean 'globalEnabled'?\n");
  EXPECT_EQ(failed(1, {"ls", "confg"}), "ringward: no root 'confg'; did you mean 'config'?\n");
  EXPECT_EQ(failed(2, {"sohw"}),
            "ringward: no command \"sohw\"; the nearest is \"show\"\n"
            "Try 'ringward --help' for the commands.\n");
  EXPECT_EQ(failed(2, {"show", "intefaces"}),
            "ringward: nothing to show under \"intefaces\"; the nearest is \"interfaces\", there "
            "are interfaces, vlans, counters, config, queues\n"
            "Try 'ringward --help' for the commands.\n");
  status->intfStatusIs(IntfId::fromName("eth1"));
  EXPECT_EQ(failed(1, {"get", "status/intfStatus[eht1]/disabled"}),
            "ringward: status/intfStatus[eht1] is not there; did you mean 'eth1'?\n");
}

TEST_F(World, AnUnknownSecondWordSuggestsTheNearest) {
  EXPECT_EQ(failed(2, {"vlan", "ad", "1"}),
            "ringward: no command \"vlan ad\"; the nearest is \"vlan add\", there are add, del\n"
            "Try 'ringward --help' for the commands.\n");
  EXPECT_EQ(failed(2, {"-j", "exclude", "dle", "eth1"}),
            "ringward: no command \"exclude dle\"; the nearest is \"exclude del\", there are add, "
            "del\n"
            "Try 'ringward --help' for the commands.\n");
  EXPECT_EQ(failed(2, {"clear", "counter"}),
            "ringward: no command \"clear counter\"; the nearest is \"clear counters\"\n"
            "Try 'ringward --help' for the commands.\n");
}

TEST_F(World, LsListsRootsAttributesAndElements) {
  const auto names = [this](const std::string& path) {
    std::vector<std::string> words{"-j", "ls"};
    if (!path.empty()) words.push_back(path);
    std::vector<std::string> result;
    const Json json = Json::parse(done(words));
    for (const auto& node : json.at("nodes")) result.push_back(node["name"]);
    return result;
  };
  EXPECT_EQ(names(""),
            (std::vector<std::string>{"config", "status", "transmitStatus", "packetCounter"}));
  EXPECT_EQ(names("config"),
            (std::vector<std::string>{"globalEnabled", "vlanEnabled", "intfExclude",
                                      "transmitConfig", "globalIntfConfig", "clearCounters"}));
  config->vlanEnabledIs(VlanId(10), true);
  EXPECT_EQ(names("config/vlanEnabled"), std::vector<std::string>{"10"});
  EXPECT_NE(done({"ls", "config"}).find("globalEnabled"), std::string::npos);
}

TEST_F(World, LsGoesOnOverManyAnswersAndMissesNothing) {
  for (std::uint32_t vlan = 1; vlan <= 4094; ++vlan) config->vlanEnabledIs(VlanId(vlan), true);
  const auto nodes = Json::parse(done({"-j", "ls", "config/vlanEnabled"})).at("nodes");
  std::set<std::string> names;
  for (const auto& node : nodes) names.insert(node["name"]);
  EXPECT_EQ(names.size(), 4094u);
  EXPECT_EQ(nodes.size(), 4094u);
}

TEST_F(World, EnableAndDisableTurnTheSwitch) {
  EXPECT_EQ(done({"enable"}), "detection is on\n");
  EXPECT_TRUE(config->globalEnabled());
  EXPECT_EQ(done({"-j", "disable"}), "{\"enabled\":false}\n");
  EXPECT_FALSE(config->globalEnabled());
}

TEST_F(World, VlanAddAndDelTakeARange) {
  EXPECT_EQ(done({"vlan", "add", "1,10-12"}), "VLANs 1,10-12 enabled\n");
  EXPECT_TRUE(config->vlanEnabled(VlanId(11)));
  EXPECT_EQ(done({"vlan", "del", "11"}), "VLANs 11 disabled\n");
  EXPECT_FALSE(config->vlanEnabled(VlanId(11)));
  EXPECT_EQ(done({"show", "vlans"}), "1,10,12 (3)\n");
  EXPECT_EQ(failed(2, {"vlan", "add", ""}),
            "ringward: RANGE \"\" names no VLAN; allowed: such as 1,10-20\n");
  const std::string error = failed(2, {"vlan", "add", "10-4095"});
  EXPECT_NE(error.find("4095"), std::string::npos) << error;
}

// Ends the agent in the loop, as soon as it may be.
class Ending final : private Vex::DeferredTask {
 public:
  Ending(Vex::ActivityManager& manager, std::unique_ptr<Agent::ControlServer>& server)
      : DeferredTask(manager), server_(server) {}
  ~Ending() override = default;
  using DeferredTask::schedule;

 private:
  void run() override { server_.reset(); }
  std::unique_ptr<Agent::ControlServer>& server_;
};

TEST_F(World, WhatIsDoneWhenTheAgentGoesInTheMiddleOfVlansIsTold) {
  Ending ending(loop, server);
  unsigned enabled = 0;
  const auto follower = RingwardCli::newFollower(config, "config", [&](const auto&, const auto&) {
    if (++enabled == 600) ending.schedule();
  });
  const Outcome outcome = run({"-j", "vlan", "add", "1-4094"});
  EXPECT_EQ(outcome.status, 1);
  ASSERT_NE(outcome.out, "");
  const auto told =
      Bridging::VlanBitmap::parse(Json::parse(outcome.out).at("enabled").get<std::string>());
  EXPECT_GE(told.count(), 256u);
  EXPECT_LE(told.count(), enabled);
  told.forEach([&](std::uint16_t vlan) { EXPECT_TRUE(config->vlanEnabled(VlanId(vlan))); });
  EXPECT_EQ(outcome.err.find("ringward: " + std::to_string(told.count()) +
                             " of 4094 VLANs are enabled, the others may be: see `ringward show "
                             "vlans`; the agent has closed the connection"),
            0u)
      << outcome.err;
}

TEST_F(World, AllVlansGoThroughInOneCommand) {
  const auto enabled = [this] {
    unsigned count = 0;
    for (auto at = config->vlanEnabledIteratorConst(); at; ++at) ++count;
    return count;
  };
  EXPECT_EQ(done({"vlan", "add", "1-4094"}), "VLANs 1-4094 enabled\n");
  EXPECT_EQ(enabled(), 4094u);
  EXPECT_EQ(done({"vlan", "del", "1-4094"}), "VLANs 1-4094 disabled\n");
  EXPECT_EQ(enabled(), 0u);
}

TEST_F(World, ExcludeAddWarnsOfANameThatNoInterfaceHas) {
  const Outcome outcome = run({"exclude", "add", "nosuch0"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "nosuch0 takes no part\n");
  EXPECT_EQ(outcome.err,
            "ringward: warning: there is no interface \"nosuch0\" here now; it takes no part when "
            "it comes\n");
  EXPECT_TRUE(config->intfExclude(IntfId::fromName("nosuch0")));
  EXPECT_EQ(done({"exclude", "add", "lo"}), "lo takes no part\n");
  EXPECT_EQ(failed(1, {"exclude", "del", "nosuch1"}),
            "ringward: \"nosuch1\" is not excluded; the nearest that is: \"nosuch0\"\n");
  EXPECT_EQ(done({"exclude", "del", "nosuch0"}), "nosuch0 takes part\n");
  EXPECT_FALSE(config->intfExclude(IntfId::fromName("nosuch0")));
}

TEST_F(World, AnEmptyNameExcludesNothingAndIsRefused) {
  for (const std::string what : {"add", "del"}) {
    EXPECT_EQ(failed(2, {"exclude", what, ""}),
              "ringward: NAME \"\" names no interface; allowed: such as eth1\n");
  }
  EXPECT_FALSE(config->intfExcludeIteratorConst());
}

TEST_F(World, NamesWithCharactersOfThePathSurvive) {
  const std::string name = "a]b/c\\d";
  EXPECT_EQ(run({"exclude", "add", name}).status, 0);
  EXPECT_TRUE(config->intfExclude(IntfId::fromName(name)));
  EXPECT_EQ(run({"exclude", "del", name}).out, "a]b/c\\\\d takes part\n");
  EXPECT_FALSE(config->intfExcludeIteratorConst());
}

TEST_F(World, NamesAreShownAsPeopleWriteThem) {
  const IntfId port = IntfId::fromName("Ethernet1/1");
  config->intfExcludeIs(port, true);
  const auto held = status->intfStatusIs(port);
  held->disabledIs(true);
  const std::string text = done({"show"});
  EXPECT_NE(text.find("loop        Ethernet1/1 held "), std::string::npos) << text;
  EXPECT_EQ(Json::parse(done({"-j", "show"}))["interfaces"][0]["name"], "Ethernet1/1");
  const std::string table = done({"show", "interfaces"});
  EXPECT_NE(table.find("\nEthernet1/1  held "), std::string::npos) << table;
  const std::string shown = done({"show", "config"});
  EXPECT_NE(shown.find("Ethernet1/1"), std::string::npos) << shown;
  EXPECT_EQ(Json::parse(done({"-j", "show", "config"}))["intfExclude"],
            Json::array({"Ethernet1/1"}));
  EXPECT_EQ(failed(1, {"exclude", "del", "Ethernet1/2"}),
            "ringward: \"Ethernet1/2\" is not excluded; the nearest that is: \"Ethernet1/1\"\n");
  EXPECT_EQ(done({"exclude", "del", "Ethernet1/1"}), "Ethernet1/1 takes part\n");
  EXPECT_FALSE(config->intfExclude(port));
}

TEST_F(World, ClearCountersChangesTheRequestEachTime) {
  EXPECT_EQ(done({"clear", "counters"}), "counters cleared\n");
  EXPECT_EQ(config->clearCounters(), 1u);
  config->clearCountersIs(0xffffffffU);
  EXPECT_EQ(done({"clear", "counters"}), "counters cleared\n");
  EXPECT_EQ(config->clearCounters(), 0u);
}

TEST_F(World, WhoeverMayNotWriteIsToldWhy) {
  rights.write = false;
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"enable"}, {"set", "config/globalEnabled", "true"}, {"del", "config/vlanEnabled[1]"}}) {
    EXPECT_EQ(failed(1, words),
              "ringward: refused: user 1000 is neither root nor in the group ringward\n");
  }
  EXPECT_EQ(failed(1, {"vlan", "add", "1-3"}),
            "ringward: 3 of 3 VLANs are as before; VLAN 1: refused: user 1000 is neither root nor "
            "in the group ringward\n");
  EXPECT_FALSE(config->globalEnabled());
  EXPECT_EQ(done({"get", "config/globalEnabled"}), "false\n");
}

TEST_F(World, ShowTellsOfALoopAndUntilWhenItsPortIsHeld) {
  config->globalEnabledIs(true);
  config->vlanEnabledIs(VlanId(10), true);
  status->runningIs(true);
  status->intfStatusIs(IntfId::fromName("eth2"));
  EXPECT_NE(done({"show"}).find("loops       none\n"), std::string::npos);
  const auto held = status->intfStatusIs(IntfId::fromName("eth1"));
  held->disabledAtIs(Vex::now() - 3);
  held->disabledUntilIs(Vex::now() + 1000);
  held->disabledIs(true);
  const std::string text = done({"show"});
  EXPECT_NE(text.find("agent       ringwardd test\n"), std::string::npos) << text;
  EXPECT_NE(text.find("detection   on\n"), std::string::npos) << text;
  EXPECT_NE(text.find("VLANs       10 (1)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("interfaces  2 watched, 1 held\n"), std::string::npos) << text;
  EXPECT_NE(text.find("loop        eth1 held since "), std::string::npos) << text;
  const auto json = Json::parse(done({"-j", "show"}));
  EXPECT_EQ(json["held"], 1);
  EXPECT_EQ(json["vlans"], "10");
  EXPECT_EQ(json["interfaces"][0]["name"], "eth1");
  EXPECT_EQ(json["interfaces"][0]["held"], true);
  EXPECT_NEAR(json["interfaces"][0]["remainingSeconds"].get<double>(), 1000, 60);
  EXPECT_EQ(json["interfaces"][1]["held"], false);
  held->disabledUntilIs(0);
  EXPECT_NE(done({"show", "interfaces"}).find(", for good\n"), std::string::npos);
  EXPECT_EQ(Json::parse(done({"-j", "show"}))["interfaces"][0]["until"], nullptr);
}

TEST_F(World, ShowConfigAndQueues) {
  transmitStatus->regularPriorityEnq({IntfId::fromName("eth1"), VlanId(10)});
  EXPECT_EQ(done({"show", "queues"}),
            "highPriority: 0 waiting\n"
            "regularPriority: 1 waiting\n"
            "  0  Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})\n");
  EXPECT_EQ(done({"-j", "show", "config"}),
            "{\"globalEnabled\":false,\"vlanEnabled\":\"\",\"intfExclude\":[],"
            "\"transmitInterval\":5,\"disabledTime\":604800,\"rateLimit\":1000}\n");
}

TEST_F(World, CallReachesNoFunctionOfAnEntityAndSaysSo) {
  const std::string error = failed(1, {"call", "config", "enable"});
  EXPECT_NE(error.find("no function 'enable' in config"), std::string::npos) << error;
  EXPECT_EQ(failed(2, {"call", "config", "enable", "value"}),
            "ringward: argument \"value\": must be of the form NAME=VALUE\n");
}

TEST_F(World, WithoutAnAgentTheStatusIsThreeAndTheTablesAreShown) {
  server.reset();
  EXPECT_EQ(failed(3, {"get", "config"}),
            "ringward: no agent listens on \"" + socket +
                "\" (No such file or directory); start ringwardd, or name its socket with "
                "--socket\n");
  const Outcome outcome = run({"show"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "agent not running; counters as last written\nnothing has been counted\n");
  EXPECT_EQ(Json::parse(run({"-j", "show", "counters"}).out)["live"], false);
}

TEST_F(World, TheTablesAreShownAlsoWhenTheAgentDoesNotAnswer) {
  server.reset();
  Agent::ListeningSocket listening;  // nobody accepts
  ASSERT_EQ(listening.open(socket), "");
  patience = 0;
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"show"}, {"show", "counters"}}) {
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out,
              "agent does not answer; counters as last written\nnothing has been counted\n");
    EXPECT_TRUE(outcome.err.ends_with(
        "\nringward: the agent does not answer; it may be stopped, see its log\n"))
        << outcome.err;
  }
  EXPECT_EQ(Json::parse(run({"-j", "show", "counters"}).out)["live"], false);
  EXPECT_EQ(run({"show", "vlans"}).out, "");
  socket = directory + "/" + std::string(200, 's');
  const Outcome unreachable = run({"show", "counters"});
  EXPECT_EQ(unreachable.status, 1);
  EXPECT_EQ(unreachable.out,
            "agent does not answer; counters as last written\nnothing has been counted\n");
}

TEST_F(World, AnAgentThatGoesInTheMiddleIsAnError) {
  server.reset();
  // Somebody who listens, and hangs up on whoever comes.
  struct HangUp final : Vex::ReadableHandler {
    int fd = -1;
    void onReadable() override { close(accept(fd, nullptr, nullptr)); }
  } other;
  Agent::ListeningSocket listening;
  ASSERT_EQ(listening.open(socket), "");
  other.fd = listening.fd();
  loop.readableIs(other.fd, other);
  EXPECT_EQ(failed(1, {"get", "config"}), "ringward: the agent has closed the connection\n");
  loop.readableDel(other.fd);
}

TEST_F(World, ASocketOfSomethingElseIsAnError) {
  std::ofstream(directory + "/file") << "x";
  socket = directory + "/file";
  EXPECT_EQ(failed(3, {"get", "config"}),
            "ringward: no agent listens on \"" + socket +
                "\" (Connection refused); start ringwardd, or name its socket with --socket\n");
}

TEST_F(World, ControlCharactersNeverReachTheTerminal) {
  const std::string error = failed(1, {"get", "con\x1b[2Jfig"});
  EXPECT_EQ(error.find('\x1b'), std::string::npos) << error;
  const std::string out = run({"exclude", "add", "\x1b[2J"}).err;
  EXPECT_EQ(out.find('\x1b'), std::string::npos) << out;
  const std::string surplus = failed(2, {"get", "a", "\x1b[2J"});
  EXPECT_EQ(surplus.find('\x1b'), std::string::npos) << surplus;
  EXPECT_NE(surplus.find("\\x1b[2J"), std::string::npos) << surplus;
}

TEST_F(World, AWrongCommandLineIsStatusTwo) {
  EXPECT_EQ(run({}).status, 2);
  EXPECT_EQ(run({"get"}).status, 2);
  EXPECT_EQ(run({"vlan", "ad", "1"}).status, 2);
  EXPECT_EQ(run({"show", "--json=no"}).status, 2);
  EXPECT_EQ(run({"--help"}).status, 0);
  EXPECT_EQ(run({"vlan", "add", "--help"}).status, 0);
}

}  // namespace
}  // namespace RingwardCliTest
