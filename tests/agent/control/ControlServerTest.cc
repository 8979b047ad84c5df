// SPDX-License-Identifier: Apache-2.0
#include "agent/control/ControlServer.h"

#include <sys/stat.h>

#include "tests/agent/control/ControlWorld.h"

namespace ControlTest {
namespace {

using PC::FrameType;
using PC::Operation;
using PC::Status;
using Texts = std::vector<std::string>;

TEST_F(ControlWorld, HelloIsAnsweredWithVersionRoleAndWhatTheClientMayDo) {
  RawClient client(path);
  client.hello();
  settle();
  const auto got = client.next();
  ASSERT_TRUE(got.has_value());
  ASSERT_EQ(got->type, FrameType::hello);
  const PC::Hello hello = PC::readHello(got->body);
  EXPECT_EQ(hello.version, 1);
  EXPECT_EQ(hello.role, PC::Role::agent);
  EXPECT_EQ(hello.capabilities, 7u);
  EXPECT_EQ(hello.text, "ringwardd test");
}

TEST_F(ControlWorld, AClientOfALaterVersionIsAnsweredInThisOne) {
  RawClient client(path);
  client.frame(FrameType::hello, PC::helloBody({9, PC::Role::client, 0xffff0000, "later"}));
  settle();
  const auto got = client.next();
  ASSERT_TRUE(got.has_value());
  EXPECT_EQ(PC::readHello(got->body).version, 1);
}

TEST_F(ControlWorld, RequestsAreAnsweredInTheirOrderUnderTheirNumbers) {
  const auto client = newClient();
  for (std::uint32_t id = 100; id < 200; ++id) {
    client->request(id, Operation::get, {"path " + std::to_string(id)});
  }
  settle();
  for (std::uint32_t id = 100; id < 200; ++id) {
    const PC::Answer answer = client->answer();
    EXPECT_EQ(answer.id, id);
    EXPECT_EQ(answer.texts, Texts{"path " + std::to_string(id)});
  }
}

TEST_F(ControlWorld, WhoeverMayNotWriteIsToldSoAndWhy) {
  rights.write = false;
  RawClient client(path);
  client.hello();
  client.request(1, Operation::set, {"config/globalEnabled", "true"});
  client.request(2, Operation::get, {"config/globalEnabled"});
  settle();
  EXPECT_EQ(PC::readHello(client.next()->body).capabilities, 3u);
  const PC::Answer refused = client.answer();
  EXPECT_EQ(refused.status, Status::refused);
  EXPECT_EQ(refused.texts, Texts{"user 1000 may not"});
  EXPECT_EQ(client.answer().status, Status::done);
}

TEST_F(ControlWorld, RubbishCostsItsOwnConnectionAndOneLine) {
  const auto good = newClient();
  RawClient client(path);
  const std::string rubbish = "GET / HTTP/1.1\r\n\r\n";
  client.say({reinterpret_cast<const std::uint8_t*>(rubbish.data()), rubbish.size()});
  settle();
  EXPECT_EQ(client.farewell(), "frame length 1195725856 not allowed, must be 1 to 65536");
  EXPECT_TRUE(client.closed());
  EXPECT_EQ(lines(), dropped("frame length 1195725856 not allowed, must be 1 to 65536"));
  EXPECT_EQ(server->clients(), 1u);
  good->request(1, Operation::get, {"p"});
  settle();
  EXPECT_EQ(good->answer().texts, Texts{"p"});
}

TEST_F(ControlWorld, AFrameThatDoesNotBelongCostsTheConnection) {
  struct Case {
    PC::FrameType type;
    PC::Buffer body;
    std::string reason;
  };
  const std::vector<Case> cases{
      {FrameType::answer,
       {},
       "frame type 18 from a client, must be request (17) or of the "
       "attribute log"},
      {static_cast<FrameType>(3), {}, "frame type 3 of the attribute log before a subscription"},
      {FrameType::request,
       {0, 0, 0, 1, 9, 0},
       "request at byte 5: operation 9 not allowed, must be 1 to 6"},
      {FrameType::request,
       {0, 0, 0, 1, 1, 2, 0, 1},
       "request at byte 8: text needs 1 bytes, 0 are left"},
      {FrameType::request,
       {0, 0, 0, 1, 1, 0, 7},
       "request at byte 6: 1 bytes behind the last text, must be none"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    const auto client = newClient();
    client->frame(c.type, c.body);
    settle();
    EXPECT_EQ(client->farewell(), c.reason);
    EXPECT_EQ(lines(), dropped(c.reason));
  }
  EXPECT_EQ(server->clients(), 0u);
}

TEST_F(ControlWorld, ARequestBeforeHelloCostsTheConnection) {
  RawClient client(path);
  client.request(1, Operation::get, {"p"});
  settle();
  EXPECT_EQ(client.farewell(), "frame type 17 before hello (16)");
  EXPECT_TRUE(service.requests.empty());
}

TEST_F(ControlWorld, AHelloOfAnotherKindCostsTheConnection) {
  const std::vector<std::pair<PC::Buffer, std::string>> cases{
      {PC::helloBody({1, PC::Role::agent, 0, ""}), "a hello of another role than client"},
      {PC::Buffer(20, 'x'), "hello at byte 8: the magic is not \"RINGWARD\""},
      {PC::helloBody({0, PC::Role::client, 0, ""}),
       "hello at byte 10: version 0 not allowed, must be 1 or above"},
  };
  for (const auto& [body, reason] : cases) {
    RawClient client(path);
    client.frame(FrameType::hello, body);
    settle();
    EXPECT_EQ(client.farewell(), reason);
  }
}

TEST_F(ControlWorld, WhoeverSaysNothingIsDroppedAfterTenSeconds) {
  const auto silentButGreeted = newClient();
  RawClient client(path);
  settle();
  loop.runFor(9.9);
  EXPECT_FALSE(client.closed());
  loop.runFor(0.2);
  EXPECT_TRUE(client.closed());
  EXPECT_EQ(lines(), dropped("no hello within 10 seconds"));
  loop.runFor(1e6);
  EXPECT_FALSE(silentButGreeted->closed()) << "nobody has to speak after that";
}

TEST_F(ControlWorld, HalfAMessageHoldsNobodyUpAndEndsWithItsConnection) {
  const auto good = newClient();
  auto client = newClient();
  PC::Buffer bytes;
  PC::frameTo(bytes, 17, PC::requestBody({1, Operation::get, {"path"}}));
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    client->say(PC::Bytes(bytes).first(size));
    good->request(1, Operation::get, {"p"});
    settle();
    EXPECT_EQ(good->answer().texts, Texts{"p"}) << size;
    client = newClient();  // the one before goes, in the middle of a frame
    settle();
    EXPECT_EQ(lines(), size == 0 ? Texts() : dropped("it went in the middle of a message")) << size;
    loop.runFor(1.5);  // of such lines there are not many in a second
  }
  settle();
  EXPECT_EQ(service.requests.size(), bytes.size()) << "none of the halves was carried out";
  EXPECT_EQ(server->clients(), 2u);
}

TEST_F(ControlWorld, HalfAHelloEndsWithALineToo) {
  auto client = std::make_unique<RawClient>(path);
  client->say(PC::Buffer{0, 0, 0});
  settle();
  client.reset();
  settle();
  EXPECT_EQ(lines(), dropped("it went in the middle of a message"));
}

TEST_F(ControlWorld, WhoeverFallsSilentInAMessageIsDroppedAfterThirtySeconds) {
  const auto silent = newClient();
  const auto client = newClient();
  PC::Buffer bytes;
  PC::frameTo(bytes, 17, PC::requestBody({1, Operation::get, {"path"}}));
  for (const std::size_t at : {0U, 1U, 2U, 3U, 4U, 5U}) {
    client->say(PC::Bytes(bytes).subspan(at, 1));
    loop.runFor(29.0);
    EXPECT_FALSE(client->closed()) << at;
  }
  loop.runFor(0.9);
  EXPECT_FALSE(client->closed());
  loop.runFor(0.2);
  const std::string reason =
      "it has said nothing for 30 seconds in the middle of a message; 6 bytes of it have come";
  EXPECT_EQ(client->farewell(), reason);
  EXPECT_TRUE(client->closed());
  EXPECT_EQ(lines(), dropped(reason));
  EXPECT_FALSE(silent->closed());
}

TEST_F(ControlWorld, AMessageThatIsSentToItsEndLeavesNoTimer) {
  const auto client = newClient();
  PC::Buffer bytes;
  PC::frameTo(bytes, 17, PC::requestBody({1, Operation::get, {"path"}}));
  client->say(PC::Bytes(bytes).first(7));
  loop.runFor(20.0);
  client->say(PC::Bytes(bytes).subspan(7));
  settle();
  EXPECT_EQ(client->answer().texts, Texts{"path"});
  const auto before = loop.wakeUps();
  loop.runFor(1e6);
  EXPECT_EQ(loop.wakeUps(), before);
  EXPECT_FALSE(client->closed());
}

TEST_F(ControlWorld, WholeMessagesThatNobodyHasReadAreNoHalfOnes) {
  PC::Buffer bytes;
  PC::frameTo(bytes, 17, PC::requestBody({1, Operation::get, {"path"}}));
  for (const std::size_t more : {0U, 3U}) {
    auto client = newClient();
    for (int i = 0; i < 100; ++i) client->say(bytes);  // more than a turn's share
    client->say(PC::Bytes(bytes).first(more));
    client.reset();
    settle();
    EXPECT_EQ(lines(), more == 0 ? Texts() : dropped("it went in the middle of a message"));
  }
  EXPECT_EQ(server->clients(), 0u);
}

// It is not read while it does not take: nobody can say of its message that it does not go on.
TEST_F(ControlWorld, HalfAMessageOfAClientThatDoesNotReadIsItsSecondFault) {
  const auto client = newClient();
  service.bulk = 60'000;
  PC::Buffer request;
  PC::frameTo(request, 17, PC::requestBody({1, Operation::get, {"path"}}));
  for (int i = 0; i < 20; ++i) client->say(request);
  client->say(PC::Bytes(request).first(5));
  settle();
  loop.runFor(29.0);
  EXPECT_EQ(server->clients(), 1u);
  for (int i = 0; i < 20; ++i) {
    while (client->next()) {
    }
    settle();
  }
  loop.runFor(29.0);
  EXPECT_EQ(server->clients(), 1u) << "it has read since, and may go on with its message";
  loop.runFor(2.0);
  EXPECT_EQ(lines(), dropped("it has said nothing for 30 seconds in the middle of a message; "
                             "5 bytes of it have come"));
}

TEST_F(ControlWorld, ARequestThatComesByteByByteIsCarriedOutOnce) {
  const auto client = newClient();
  PC::Buffer bytes;
  PC::frameTo(bytes, 17, PC::requestBody({1, Operation::get, {"path"}}));
  for (const std::uint8_t byte : bytes) {
    EXPECT_TRUE(service.requests.empty());
    client->say({&byte, 1});
    settle();
  }
  EXPECT_EQ(service.requests.size(), 1u);
  EXPECT_EQ(client->answer().texts, Texts{"path"});
}

TEST_F(ControlWorld, AClientThatDoesNotReadIsNotReadEitherAndIsDroppedInTheEnd) {
  const auto client = newClient();
  service.bulk = 60'000;
  // As many requests as go into its socket, a million at most.
  PC::Buffer request;
  PC::frameTo(request, 17, PC::requestBody({1, Operation::get, {std::string(200, 'p')}}));
  unsigned said = 0;
  while (said < 1'000'000 && client->say(request)) {
    ++said;
    while (loop.runTurn()) {
    }
  }
  ASSERT_LT(said, 1'000'000u) << "it was read without end";
  EXPECT_LE(server->mostWaiting(), Agent::ControlServer::kMostOut + 2 * PC::kMaxFrame);
  EXPECT_LT(service.requests.size(), said);
  const auto good = newClient();
  service.bulk = 0;
  good->request(1, Operation::get, {"p"});
  settle();
  EXPECT_EQ(good->answer().texts, Texts{"p"});
  loop.runFor(29.0);
  EXPECT_EQ(server->clients(), 2u);
  loop.runFor(2.0);
  EXPECT_EQ(server->clients(), 1u);
  const auto texts = lines();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_NE(texts[0].find("it has not read for 30 seconds; "), std::string::npos) << texts[0];
}

TEST_F(ControlWorld, AClientThatReadsSlowlyGetsEverythingInOrder) {
  const auto client = newClient();
  service.bulk = 50'000;
  constexpr std::uint32_t kRequests = 40;
  for (std::uint32_t id = 0; id < kRequests; ++id) client->request(id, Operation::get, {"p"});
  settle();
  EXPECT_LT(service.requests.size(), kRequests);
  std::uint32_t id = 0;
  while (id < kRequests) {
    if (const auto got = client->next()) {
      EXPECT_EQ(PC::readAnswer(got->body).id, id++);
    } else {
      ASSERT_TRUE(loop.runTurn()) << "nothing goes on after " << id;
    }
  }
  EXPECT_EQ(service.requests.size(), kRequests);
}

TEST_F(ControlWorld, AnAnswerThatIsTooLongIsAnError) {
  const auto client = newClient();
  service.bulk = 65'536;
  client->request(1, Operation::get, {"p"});
  settle();
  const PC::Answer answer = client->answer();
  EXPECT_EQ(answer.status, Status::failed);
  EXPECT_EQ(answer.texts, Texts{"the answer is longer than a frame of 64 KiB; ask for less at "
                                "once"});
}

TEST_F(ControlWorld, ASubscriptionStreamsWhatTheServiceHasAndTakesWhatTheClientSays) {
  const auto client = newClient();
  client->request(1, Operation::subscribe, {"config"});
  client->request(2, Operation::subscribe, {"config"});
  settle();
  EXPECT_EQ(client->answer().status, Status::done);
  EXPECT_EQ(client->answer().texts, Texts{"this connection has a subscription already"});
  PC::frameTo(service.stream, 3, PC::Buffer{1, 2, 3});
  service.ready();
  settle();
  const auto got = client->next();
  ASSERT_TRUE(got.has_value());
  EXPECT_EQ(static_cast<int>(got->type), 3);
  EXPECT_EQ(got->body, (PC::Buffer{1, 2, 3}));
  client->frame(static_cast<FrameType>(2), PC::Buffer{'h', 'i'});
  settle();
  EXPECT_EQ(service.logged, Texts{"hi"});
  client->frame(static_cast<FrameType>(15), {});
  settle();
  EXPECT_EQ(client->farewell(), "no such frame of the log");
}

TEST_F(ControlWorld, ASubscriptionToWhatIsNotThereIsAnAnswer) {
  const auto client = newClient();
  client->request(1, Operation::subscribe, {"confg"});
  settle();
  const PC::Answer answer = client->answer();
  EXPECT_EQ(answer.status, Status::failed);
  EXPECT_EQ(answer.texts, Texts{"no such root"});
}

TEST_F(ControlWorld, AStreamIsNotTakenWhileItsClientDoesNotRead) {
  const auto client = newClient();
  client->request(1, Operation::subscribe, {"config"});
  settle();
  const PC::Buffer body(60'000, 'x');
  std::size_t put = 0;
  for (int i = 0; i < 1000; ++i) {
    if (service.stream.size() < 200'000) {
      PC::frameTo(service.stream, 3, body);
      put += body.size() + 5;
    }
    service.ready();
    settle();
  }
  EXPECT_LE(server->mostWaiting(), Agent::ControlServer::kMostOut + 260'000);
  EXPECT_GE(service.stream.size(), 200'000u) << "the stream has to notice that nobody takes";
  EXPECT_LT(put, 2'000'000u);
}

TEST_F(ControlWorld, LinesAboutClientsAreLimited) {
  for (int i = 0; i < 60; ++i) {
    RawClient client(path);
    const std::vector<std::uint8_t> bytes{0xff, 0xff, 0xff, static_cast<std::uint8_t>(i)};
    client.say(bytes);
    settle();
  }
  EXPECT_EQ(lines().size(), Agent::ControlServer::kMaxLinesPerSecond);
}

TEST_F(ControlWorld, OneClientTooManyIsToldSo) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(newClient());
  RawClient late(path);
  late.hello();
  settle();
  EXPECT_EQ(late.farewell(), "there are 8 clients already; raise max-clients in [control]");
  EXPECT_TRUE(late.closed());
  clients.pop_back();
  settle();
  EXPECT_NE(newClient(), nullptr);
}

TEST(Admission, ReadersCannotShutOutThoseWhoMayWrite) {
  EXPECT_EQ(Agent::admissionRefusal({24, 24, 0, true, false}, 32), "");
  EXPECT_EQ(Agent::admissionRefusal({24, 24, 0, false, false}, 32),
            "there are 24 clients that only read already");
  EXPECT_EQ(Agent::admissionRefusal({8, 8, 8, false, false}, 32), "its user has 8 clients already");
  EXPECT_EQ(Agent::admissionRefusal({8, 8, 7, false, false}, 32), "");
}

TEST(Admission, RootHasFourMorePlaces) {
  EXPECT_EQ(Agent::admissionRefusal({32, 0, 0, true, false}, 32),
            "there are 32 clients already; raise max-clients in [control]");
  EXPECT_EQ(Agent::admissionRefusal({35, 0, 0, true, true}, 32), "");
  EXPECT_EQ(Agent::admissionRefusal({36, 0, 0, true, true}, 32),
            "there are 36 clients already; raise max-clients in [control]");
}

TEST_F(ControlWorld, AnIdleServerSetsNoTimer) {
  const auto client = newClient();
  const auto before = loop.wakeUps();
  loop.runFor(1e6);
  EXPECT_EQ(loop.wakeUps(), before);
}

}  // namespace
}  // namespace ControlTest
