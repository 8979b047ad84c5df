// SPDX-License-Identifier: Apache-2.0
#include "agent/control/TreeService.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>

// Clang says by a feature that its address sanitizer is at work.
#if defined(__has_feature)
#define RINGWARD_HAS_FEATURE(feature) __has_feature(feature)
#else
#define RINGWARD_HAS_FEATURE(feature) 0
#endif
#if RINGWARD_HAS_FEATURE(address_sanitizer)
#include <sanitizer/allocator_interface.h>
#endif

#include "agent/control/ConfigFollower.h"
#include "model/attrlog/Session.h"
#include "runtime/portus/IntfIdCodec.h"
#include "tests/agent/control/ControlWorld.h"

namespace ControlTest {
namespace {

using PC::Operation;
using PC::Status;
using Portus::IntfId;
using Ringward::AttrLog::Session;
using Texts = std::vector<std::string>;

class TreeWorld : public testing::Test {
 protected:
  TreeWorld() {
    config->globalIntfConfigIs("globalIntfConfig");
    config->transmitConfigIs("transmitConfig");
    EXPECT_EQ(server.open(), "");
  }

  PC::Answer ask(Operation operation, Texts texts, const std::string& refusal = "") {
    return service.answer({1, operation, std::move(texts)}, refusal);
  }
  void settle() {
    while (loop.runTurn()) {
    }
  }
  std::unique_ptr<RawClient> subscribed(const Texts& roots) {
    auto client = std::make_unique<RawClient>(path);
    client->hello();
    client->request(1, Operation::subscribe, roots);
    settle();
    EXPECT_EQ(client->next()->type, PC::FrameType::hello);
    EXPECT_EQ(client->answer().texts, Texts{});
    return client;
  }
  // Everything between a client and its mirror, until both are quiet.
  void exchange(RawClient& client, Session& session) {
    for (bool more = true; more;) {
      const auto out = session.output();
      more = !out.empty();
      if (more) {
        EXPECT_TRUE(client.say(out));
        session.outputDel(out.size());
      }
      settle();
      while (const auto got = client.next()) {
        more = true;
        session.frameIn(static_cast<std::uint8_t>(got->type), got->body);
      }
    }
  }

  Directory directory;
  const std::string path = directory / "s";
  Vex::VirtualActivityManager loop;
  const Vex::CurrentActivityManager current{loop};
  const Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  const Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  const Vex::Ptr<Ringward::Status::TransmitStatus> transmitStatus =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  Agent::TreeService service{{config, status, transmitStatus,
                              Ringward::Status::packetCounterFactory("packetCounter"),
                              [] { return nullptr; }}};
  FakeRights rights;
  Agent::ControlServer server{loop, service, rights, {path, 8, "ringwardd test"}};
};

TEST_F(TreeWorld, WhoeverHasNoRightChangesNothingByAnyOperation) {
  for (const auto& [operation, texts] :
       std::vector<std::pair<Operation, Texts>>{{Operation::set, {"config/globalEnabled", "true"}},
                                                {Operation::set, {"config/vlanEnabled[1]", "true"}},
                                                {Operation::del, {"config/transmitConfig"}},
                                                {Operation::call, {"config", "anything"}}}) {
    const PC::Answer answer = ask(operation, texts, "not you");
    EXPECT_EQ(answer.status, Status::refused);
    EXPECT_EQ(answer.texts, Texts{"not you"});
  }
  EXPECT_FALSE(config->globalEnabled());
  EXPECT_TRUE(config->transmitConfig());
  EXPECT_EQ(ask(Operation::get, {"config/globalEnabled"}, "not you").texts, Texts{"false"});
}

TEST_F(TreeWorld, WhatTheEngineHoldsOfTheConfigurationStaysTheSameObject) {
  for (const std::string name : {"transmitConfig", "globalIntfConfig"}) {
    const Texts reason{"config/" + name +
                       " is held by the engine and can be neither deleted nor replaced; its "
                       "attributes can be set"};
    for (const std::string& child : {"config/" + name, "/config/" + name, "config/" + name + "/"}) {
      SCOPED_TRACE(child);
      for (const PC::Answer& answer :
           {ask(Operation::del, {child}), ask(Operation::set, {child, "other"})}) {
        EXPECT_EQ(answer.status, Status::failed);
        EXPECT_EQ(answer.texts, reason);
      }
    }
    const PC::Answer nodes = ask(Operation::ls, {"config"});
    const auto at = std::find(nodes.texts.begin(), nodes.texts.end(), name);
    ASSERT_NE(at, nodes.texts.end());
    EXPECT_EQ(at[4], "0") << "shown as writable";
  }
  EXPECT_EQ(ask(Operation::set, {"config/transmitConfig/rateLimit", "7"}).status, Status::done);
  EXPECT_EQ(ask(Operation::set, {"config/vlanEnabled[3]", "true"}).status, Status::done);
  EXPECT_EQ(ask(Operation::del, {"config/vlanEnabled[3]"}).status, Status::done);
}

TEST_F(TreeWorld, TheStatusIsConstToEverybody) {
  const PC::Answer answer = ask(Operation::set, {"status/running", "true"});
  EXPECT_EQ(answer.status, Status::failed);
  EXPECT_EQ(answer.texts, Texts{"attempting to modify a const instance"});
}

TEST_F(TreeWorld, ARequestWithTheWrongNumberOfTextsIsAnAnswer) {
  EXPECT_EQ(ask(Operation::get, {}).texts, Texts{"request with 0 texts, must be 1"});
  EXPECT_EQ(ask(Operation::set, {"config"}).texts, Texts{"request with 1 texts, must be 2"});
  EXPECT_EQ(ask(Operation::ls, {"a", "b", "c"}).texts,
            Texts{"request with 3 texts, must be 1 to 2"});
  EXPECT_EQ(ask(Operation::call, {"config", "f", "x"}).texts,
            Texts{"an argument without its value"});
}

TEST_F(TreeWorld, WhoeverOnlyLooksMakesNoNamesKnown) {
  const std::string name = "a-name-that-does-not-pack-0";
  const std::string intf = "status/intfStatus[" + name + "]";
  const Texts unknown{"no interface '" + name + "' is known to the agent"};
  EXPECT_EQ(ask(Operation::get, {intf}, "not you").texts, unknown);
  EXPECT_EQ(ask(Operation::ls, {"status/intfStatus", name}, "not you").texts, unknown);
  // Nothing has been remembered: the identifier still shows as its number.
  const auto value = Portus::encodeIntfName(name).value;
  EXPECT_EQ(IntfId::fromValue(value).name().substr(0, 5), "intf#");
  status->intfStatusIs(IntfId::fromName(name));
  EXPECT_EQ(ask(Operation::get, {intf + "/disabled"}, "not you").texts, Texts{"false"});
}

TEST_F(TreeWorld, AListIsBoundedAndSaysThatItGoesOn) {
  for (std::uint32_t vlan = 1; vlan <= 300; ++vlan)
    config->vlanEnabledIs(Bridging::VlanId(vlan), true);
  std::set<std::string> names;
  std::string after;
  for (int answers = 1;; ++answers) {
    const PC::Answer answer = ask(Operation::ls, {"config/vlanEnabled", after});
    ASSERT_EQ(answer.status, Status::done);
    ASSERT_LE(answer.texts.size(), Agent::TreeService::kMostNodes * PC::kLsFields);
    for (std::size_t i = 0; i < answer.texts.size(); i += PC::kLsFields) {
      after = answer.texts[i];
      EXPECT_TRUE(names.insert(after).second) << after << " twice";
    }
    if (answer.more) continue;
    EXPECT_EQ(answers, 3);
    break;
  }
  EXPECT_EQ(names.size(), 300u);
}

TEST_F(TreeWorld, AMirrorFollowsAndMayWriteTheConfigurationAlone) {
  const auto client = subscribed({"config"});
  const auto mirror = Ringward::Config::configFactory("config");
  Session session({}, {});
  session.mirrorIs(*mirror);
  config->vlanEnabledIs(Bridging::VlanId(10), true);
  exchange(*client, session);
  EXPECT_TRUE(session.isSynchronised());
  EXPECT_TRUE(mirror->vlanEnabled(Bridging::VlanId(10)));
  mirror->globalEnabledIs(true);
  exchange(*client, session);
  EXPECT_TRUE(config->globalEnabled());
}

TEST_F(TreeWorld, AMirrorWithoutTheRightIsPutBack) {
  rights.write = false;
  const auto client = subscribed({"config"});
  const auto mirror = Ringward::Config::configFactory("config");
  std::string reason;
  Session::Callbacks callbacks;
  callbacks.refused = [&](std::string_view, std::string_view why) { reason = why; };
  Session session({}, callbacks);
  session.mirrorIs(*mirror);
  exchange(*client, session);
  mirror->globalEnabledIs(true);
  exchange(*client, session);
  EXPECT_FALSE(config->globalEnabled());
  EXPECT_FALSE(mirror->globalEnabled());
  EXPECT_NE(reason, "");
}

TEST_F(TreeWorld, AMirrorOfTheStatusMayWriteNothing) {
  const auto client = subscribed({"config", "status"});
  const auto mirror = Ringward::Status::statusFactory("status");
  const auto configMirror = Ringward::Config::configFactory("config");
  Session session({}, {});
  session.mirrorIs(*mirror);
  session.mirrorIs(*configMirror);
  exchange(*client, session);
  mirror->runningIs(true);
  configMirror->globalEnabledIs(true);  // nor the configuration, in this company
  exchange(*client, session);
  EXPECT_FALSE(status->running());
  EXPECT_FALSE(mirror->running());
  EXPECT_FALSE(config->globalEnabled());
}

TEST_F(TreeWorld, WhatCannotBeFollowedIsAnAnswerThatNamesTheNearest) {
  RawClient client(path);
  client.hello();
  client.request(1, Operation::subscribe, {"statsu"});
  client.request(2, Operation::subscribe, {});
  settle();
  client.next();
  EXPECT_EQ(client.answer().texts,
            Texts{"no root to follow by the name 'statsu'; did you mean 'status'?"});
  EXPECT_EQ(client.answer().texts, Texts{"a subscription to nothing; name a root"});
}

// What this process holds. The address sanitizer keeps what was freed for a while, so there it is
// what is allocated.
std::size_t heldKiB() {
#if RINGWARD_HAS_FEATURE(address_sanitizer)
  return __sanitizer_get_current_allocated_bytes() / 1024;
#else
  std::ifstream in("/proc/self/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  in >> total >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
#endif
}

TEST_F(TreeWorld, AMillionChangesForAClientThatDoesNotReadCostNoMemory) {
  const auto client = subscribed({"transmitStatus"});
  const auto eth1 = IntfId::fromName("eth1");
  const auto change = [&](unsigned changes) {
    for (unsigned i = 0; i < changes; ++i) {
      transmitStatus->regularPriorityEnq({eth1, Bridging::VlanId(1 + i % 4094)});
      static_cast<void>(transmitStatus->regularPriorityDeq());
      if (i % 16 == 0) settle();
    }
  };
  change(10'000);
  const std::size_t before = heldKiB();
  change(490'000);  // each is two
  EXPECT_LE(heldKiB(), before + 2048);
  EXPECT_LE(server.mostWaiting(),
            Agent::ControlServer::kMostOut + Agent::TreeService::kStreamBuffer + PC::kMaxFrame);
  EXPECT_EQ(server.clients(), 1u);
  // It reads again, and is where the original is.
  const auto mirror = Ringward::Status::transmitStatusFactory("transmitStatus");
  Session session({}, {});
  session.mirrorIs(*mirror);
  transmitStatus->highPriorityEnq({eth1, Bridging::VlanId(7)});
  exchange(*client, session);
  EXPECT_EQ(mirror->highPriorityMetadata(), transmitStatus->highPriorityMetadata());
  EXPECT_EQ(mirror->regularPriorityMetadata(), transmitStatus->regularPriorityMetadata());
}

TEST_F(TreeWorld, ChildrenOfTheConfigurationComeBackAtOnce) {
  int told = 0;
  const auto follower = Vex::makePtr<Agent::ConfigFollower>(loop, config, [&told] { ++told; });
  config->transmitConfig()->rateLimitIs(7);
  config->transmitConfigDel();
  ASSERT_TRUE(config->transmitConfig());
  EXPECT_EQ(config->transmitConfig()->rateLimit(), 1000u);
  config->globalIntfConfigDel();
  EXPECT_TRUE(config->globalIntfConfig());
  EXPECT_EQ(ask(Operation::set, {"config/vlanEnabled[3]", "true"}).status, Status::done);
  EXPECT_EQ(ask(Operation::set, {"config/vlanEnabled[4]", "true"}).status, Status::done);
  EXPECT_EQ(told, 0);
  settle();
  EXPECT_EQ(told, 1);
}

}  // namespace
}  // namespace ControlTest
