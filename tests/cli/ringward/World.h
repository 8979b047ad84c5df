// SPDX-License-Identifier: Apache-2.0
//
// The agent's entities behind a control server, and the command ringward in the same process and on
// the same loop: what a command does is over when it returns. Nothing here waits for a time.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
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

// A socket at which too many wait already. Once opened, in a turn of the loop, it lets them all go
// and hands on to a server whoever comes then.
class FullQueue final : private Vex::DeferredTask, private Vex::ReadableHandler {
 public:
  FullQueue(Vex::ActivityManager& manager, const std::string& path)
      : DeferredTask(manager), manager_(manager), listener_(newSocket()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(bind(listener_.get(), generic, sizeof address), 0);
    EXPECT_EQ(listen(listener_.get(), 0), 0);
    int result = 0;
    for (int i = 0; i < 8 && result == 0; ++i) {
      crowd_.push_back(newSocket());
      result = connect(crowd_.back().get(), generic, sizeof address);
    }
    EXPECT_TRUE(result != 0 && errno == EAGAIN);
  }
  ~FullQueue() override {
    if (server_ != nullptr) manager_.readableDel(listener_.get());
  }
  // In the next turn.
  void openTo(Agent::ControlServer& server) {
    next_ = &server;
    schedule();
  }

 private:
  using Fd = Platform::Linux::Fd;
  static Fd newSocket() {
    return Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  }
  void run() override {
    onReadable();
    server_ = next_;
    manager_.readableIs(listener_.get(), *this);
  }
  void onReadable() override {
    while (Fd taken{accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)}) {
      if (server_ != nullptr) server_->admitted(std::move(taken));
    }
  }

  Vex::ActivityManager& manager_;
  const Fd listener_;
  std::vector<Fd> crowd_;
  Agent::ControlServer* next_ = nullptr;
  Agent::ControlServer* server_ = nullptr;
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

  // An agent that does not listen by itself; FullQueue does, at `socket`.
  void startDeafAgent() {
    server.reset();
    server = std::make_unique<Agent::ControlServer>(
        loop, service, rights, Agent::ControlServer::Options{socket, 8, "ringwardd test"});
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
