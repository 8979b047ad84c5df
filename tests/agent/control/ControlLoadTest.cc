// SPDX-License-Identifier: Apache-2.0
//
// What clients may cost the control server: frames of a turn and of a second, connections.
#include <algorithm>
#include <utility>

#include "agent/control/ControlServer.h"
#include "tests/agent/control/ControlWorld.h"

namespace ControlTest {
namespace {

using PC::FrameType;
using PC::Operation;
using Texts = std::vector<std::string>;

TEST_F(ControlWorld, OneTurnCarriesOutNoMoreFramesThanItsShare) {
  const auto a = newClient();
  const auto b = newClient();
  for (std::uint32_t id = 0; id < 50; ++id) {
    a->request(id, Operation::get, {"a"});
    b->request(id, Operation::get, {"b"});
  }
  std::size_t before = 0;
  std::size_t most = 0;
  bool bothServed = false;
  while (loop.runTurn()) {
    most = std::max(most, service.requests.size() - before);
    before = service.requests.size();
    if (before < 60 && !bothServed) {
      std::size_t ofB = 0;
      for (const auto& r : service.requests) ofB += r.texts == Texts{"b"} ? 1U : 0U;
      bothServed = ofB > 0 && ofB < before;
    }
  }
  EXPECT_EQ(service.requests.size(), 100u);
  EXPECT_EQ(most, Agent::ControlServer::kFramesPerTurn);
  EXPECT_TRUE(bothServed) << "one client waited for all of the other";
}

TEST_F(ControlWorld, ThoseWhoOnlyReadShareABoundedNumberOfRequestsASecond) {
  rights.write = false;
  const auto reader = newClient();
  const auto other = newClient();
  rights.write = true;
  const auto writer = newClient();
  constexpr std::uint32_t kEach = 1500;
  std::size_t answered = 0;
  for (std::uint32_t id = 0; id < kEach; ++id) {
    reader->request(id, Operation::get, {"p"});
    other->request(id, Operation::get, {"p"});
    settle();
    while (reader->next()) ++answered;
    while (other->next()) ++answered;
  }
  EXPECT_EQ(answered + 2, Agent::ControlServer::kReaderFramesPerSecond);  // with the hellos
  writer->request(1, Operation::get, {"p"});
  settle();
  EXPECT_EQ(writer->answer().texts, Texts{"p"}) << "the limit is not the writers'";
  loop.runFor(1.0);
  while (reader->next()) ++answered;
  while (other->next()) ++answered;
  EXPECT_EQ(answered, 2 * kEach);
  const auto before = loop.wakeUps();
  loop.runFor(1e6);
  EXPECT_EQ(loop.wakeUps(), before);
}

// A frame of the attribute log as long as so many of its shortest messages.
PC::Buffer packed(std::size_t messages) {
  return PC::Buffer(messages * Agent::ControlServer::kLogMessage, 'm');
}

TEST_F(ControlWorld, AFrameOfManyMessagesIsAloneInItsTurn) {
  const auto client = newClient();
  const auto other = newClient();
  client->request(1, Operation::subscribe, {"config"});
  settle();
  const auto turns = [&] {
    std::vector<std::pair<std::size_t, std::size_t>> made;  // requests and log frames of each turn
    std::size_t requests = service.requests.size();
    std::size_t logged = service.logged.size();
    while (loop.runTurn()) {
      const std::pair now(service.requests.size() - requests, service.logged.size() - logged);
      requests += now.first;
      logged += now.second;
      if (now != std::pair<std::size_t, std::size_t>()) made.push_back(now);
    }
    return made;
  };
  // With frames of the other in every turn, and its own ahead and behind.
  for (std::uint32_t id = 0; id < 60; ++id) other->request(id, Operation::get, {"b"});
  client->request(2, Operation::get, {"a"});
  client->frame(static_cast<FrameType>(1), packed(100));
  client->frame(static_cast<FrameType>(1), packed(100));
  client->request(3, Operation::get, {"a"});
  std::size_t requests = 0;
  std::size_t large = 0;
  for (const auto& [ofRequests, ofLog] : turns()) {
    requests += ofRequests;
    large += ofLog;
    EXPECT_LE(ofLog, 1u);
    EXPECT_TRUE(ofLog == 0 || ofRequests == 0);
    EXPECT_LE(ofRequests, Agent::ControlServer::kFramesPerTurn);
    EXPECT_TRUE(large != 0 || requests <= 32) << "it waits for all others";
  }
  EXPECT_EQ(requests, 62u);
  EXPECT_EQ(large, 2u);
  // Four of three messages count as sixteen.
  for (int i = 0; i < 6; ++i) client->frame(static_cast<FrameType>(1), packed(3));
  using Turns = std::vector<std::pair<std::size_t, std::size_t>>;
  EXPECT_EQ(turns(), (Turns{{0, 4}, {0, 2}}));
}

TEST_F(ControlWorld, AFrameOfTheLogCostsAReaderWhatItMayHold) {
  rights.write = false;
  const auto reader = newClient();
  const auto other = newClient();
  reader->request(1, Operation::subscribe, {"config"});
  settle();
  // Beside the hellos and the subscription 1,997 are left; each frame counts as 401.
  for (int i = 0; i < 12; ++i) {
    reader->frame(static_cast<FrameType>(1), packed(400));
    settle();
  }
  EXPECT_EQ(service.logged.size(), 5u) << "the fifth begins with 393 left, and takes 8 too much";
  other->request(1, Operation::get, {"p"});
  settle();
  EXPECT_TRUE(service.requests.empty()) << "it is the share of all readers";
  loop.runFor(1.0);
  EXPECT_EQ(service.requests.size(), 1u);
  EXPECT_EQ(service.logged.size(), 10u) << "8 and 1 less, which is enough for the fifth to begin";
  loop.runFor(1.0);
  EXPECT_EQ(service.logged.size(), 12u);
}

TEST_F(ControlWorld, ConnectingAndClosingIsTakenSixtyFourTimesASecond) {
  const auto client = newClient();
  loop.runFor(1.0);
  const auto connectAndClose = [&](int times) {
    for (int i = 0; i < times; ++i) {
      RawClient once(path);
      settle();
    }
  };
  connectAndClose(40);
  RawClient intime(path);
  intime.hello();
  settle();
  EXPECT_TRUE(intime.next().has_value());
  connectAndClose(26);  // those beyond wait in the system's queue
  RawClient late(path);
  late.hello();
  settle();
  EXPECT_FALSE(late.next().has_value()) << "the second is not over";
  client->request(1, Operation::get, {"p"});
  settle();
  EXPECT_EQ(client->answer().texts, Texts{"p"}) << "those that are there are served";
  loop.runFor(1.0);
  EXPECT_TRUE(late.next().has_value());
  EXPECT_TRUE(lines().empty()) << "that is no fault of the agent's or of a client";
  const auto quiet = loop.wakeUps();
  loop.runFor(1e6);
  EXPECT_EQ(loop.wakeUps(), quiet) << "the second is over: no timer is left";
}

}  // namespace
}  // namespace ControlTest
