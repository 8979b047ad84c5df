// SPDX-License-Identifier: Apache-2.0
//
// The agent's entities behind a control server, and the command ringward in the same process and on
// the same loop: what a command does is over when it returns. Nothing here waits for a time.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "agent/control/ControlServer.h"
#include "agent/control/TreeService.h"
#include "cli/ringward/Run.h"
#include "runtime/vex/EpollActivityManager.h"

namespace RingwardCliTest {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

class FakeRights final : public Agent::Rights {
 public:
  std::optional<Agent::Credentials> peer(int) const override {
    return Agent::Credentials{1, 1000, 1000, {}};
  }
  bool mayWrite(const Agent::Credentials&) const override { return write; }
  std::string reason(const Agent::Credentials&) const override {
    return "user 1000 is neither root nor in the group ringward";
  }
  bool write = true;
};

class World : public testing::Test {
 protected:
  World() {
    std::string name = std::filesystem::temp_directory_path() / "ringward-cli-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
    socket = directory + "/s";
    config->globalIntfConfigIs("globalIntfConfig");
    config->transmitConfigIs("transmitConfig");
    startAgent();
  }
  ~World() override {
    server.reset();
    std::filesystem::remove_all(directory);
  }

  void startAgent() {
    server = std::make_unique<Agent::ControlServer>(
        loop, service, rights, Agent::ControlServer::Options{socket, 8, "ringwardd test"});
    ASSERT_EQ(server->open(), "");
  }

  Outcome run(std::vector<std::string> words) {
    std::vector<std::string> all{"ringward", "--socket", socket, "--root", directory + "/tables"};
    all.insert(all.end(), words.begin(), words.end());
    std::vector<const char*> argv;
    for (const std::string& word : all) argv.push_back(word.c_str());
    std::ostringstream out;
    std::ostringstream err;
    Outcome outcome;
    outcome.status =
        RingwardCli::run(static_cast<int>(argv.size()), argv.data(), loop, out, err, patience);
    outcome.out = out.str();
    outcome.err = err.str();
    return outcome;
  }
  // The output of a command that has to succeed and says nothing on the side.
  std::string done(std::vector<std::string> words) {
    const Outcome outcome = run(std::move(words));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
  // The error of a command that has to end with the status `expected`.
  std::string failed(int expected, std::vector<std::string> words) {
    const Outcome outcome = run(std::move(words));
    EXPECT_EQ(outcome.status, expected);
    return outcome.err;
  }

  std::string directory;
  std::string socket;
  double patience = RingwardCli::AgentLink::kPatience;  // of the command
  Vex::EpollActivityManager loop;
  const Vex::CurrentActivityManager current{loop};
  const Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  const Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  const Vex::Ptr<Ringward::Status::TransmitStatus> transmitStatus =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  const Vex::Ptr<Ringward::Status::PacketCounter> packetCounter =
      Ringward::Status::packetCounterFactory("packetCounter");
  FakeRights rights;
  Agent::TreeService service{
      {config, status, transmitStatus, packetCounter, [] { return nullptr; }}};
  std::unique_ptr<Agent::ControlServer> server;
};

}  // namespace RingwardCliTest
