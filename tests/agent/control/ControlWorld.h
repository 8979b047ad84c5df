// SPDX-License-Identifier: Apache-2.0
//
// A control server over a socket in a directory of its own, with a service and rights that a test
// decides, and clients that say what a test wants, right or wrong. Virtual time, one thread.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/control/ControlServer.h"
#include "platform/linux/control/FrameConnection.h"
#include "platform/linux/control/Protocol.h"
#include "runtime/vex/LogService.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace ControlTest {

namespace PC = Platform::Linux::Control;

class Directory {
 public:
  Directory() {
    std::string name = std::filesystem::temp_directory_path() / "ringward-control-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    path_ = name;
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Answers each request with its own texts, and counts.
class EchoService final : public Agent::ControlService {
 public:
  // A stream of bytes that a test puts in.
  class Stream final : public Agent::ControlStream {
   public:
    explicit Stream(EchoService& owner) : owner_(owner) {}
    void frameIn(const PC::Frame& frame) override {
      if (frame.type == 15) Vex::throwRangeException("no such frame of the log");
      owner_.logged.emplace_back(frame.body.begin(), frame.body.end());
    }
    PC::Bytes output() const override { return owner_.stream; }
    void outputDel(std::size_t bytes) override {
      owner_.taken += bytes;
      owner_.stream.erase(owner_.stream.begin(),
                          owner_.stream.begin() + static_cast<std::ptrdiff_t>(bytes));
    }

   private:
    EchoService& owner_;
  };

  PC::Answer answer(const PC::Request& request, const std::string& refusal) override {
    requests.push_back(request);
    if (request.operation == PC::Operation::set && !refusal.empty()) {
      return {request.id, PC::Status::refused, false, {refusal}};
    }
    if (bulk != 0) return {request.id, PC::Status::done, false, {std::string(bulk, 'x')}};
    return {request.id, PC::Status::done, false, request.texts};
  }
  std::unique_ptr<Agent::ControlStream> newStream(const std::vector<std::string>& roots,
                                                  const std::string&,
                                                  std::function<void()> outputReady) override {
    if (roots != std::vector<std::string>{"config"}) Vex::throwRangeException("no such root");
    ready = std::move(outputReady);
    return std::make_unique<Stream>(*this);
  }

  std::vector<PC::Request> requests;
  std::size_t bulk = 0;  // bytes of each answer, if not 0
  PC::Buffer stream;
  std::size_t taken = 0;
  std::vector<std::string> logged;
  std::function<void()> ready;
};

class FakeRights final : public Agent::Rights {
 public:
  std::optional<Agent::Credentials> peer(int) const override { return who; }
  bool mayWrite(const Agent::Credentials&) const override { return write; }
  std::string reason(const Agent::Credentials& c) const override {
    return "user " + std::to_string(c.uid) + " may not";
  }

  std::optional<Agent::Credentials> who = Agent::Credentials{7, 1000, 1000, {}};
  bool write = true;
};

// A client without a loop.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : RawClient(connected(path)) {}

  bool say(PC::Bytes bytes) {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(bytes.size());
  }
  void hello() { frame(PC::FrameType::hello, PC::helloBody({1, PC::Role::client, 0, "test"})); }
  void request(std::uint32_t id, PC::Operation operation, std::vector<std::string> texts) {
    frame(PC::FrameType::request, PC::requestBody({id, operation, std::move(texts)}));
  }
  void frame(PC::FrameType type, PC::Bytes body) {
    PC::Buffer bytes;
    PC::frameTo(bytes, static_cast<std::uint8_t>(type), body);
    EXPECT_TRUE(say(bytes));
  }

  struct Got {
    PC::FrameType type{};
    PC::Buffer body;
  };
  // The next frame that has come; nothing if there is none now.
  std::optional<Got> next() {
    while (!connection_.in().ready()) {
      const auto input = connection_.read(PC::kMaxFrame);
      if (input == PC::FrameConnection::Input::closed) closed_ = true;
      if (input != PC::FrameConnection::Input::some) return std::nullopt;
    }
    const auto frame = connection_.in().next();
    return Got{static_cast<PC::FrameType>(frame->type), {frame->body.begin(), frame->body.end()}};
  }
  // The server has closed, and everything before that has been read.
  bool closed() {
    while (next()) {
    }
    return closed_;
  }
  // The text of the last frame, "" if the connection ended without one.
  std::string farewell() {
    std::string text;
    while (const auto got = next()) {
      if (got->type == PC::FrameType::farewell) text = PC::readFarewell(got->body);
    }
    return text;
  }
  PC::Answer answer() {
    const auto got = next();
    if (!got || got->type != PC::FrameType::answer) {
      ADD_FAILURE() << "no answer has come";
      return {};
    }
    return PC::readAnswer(got->body);
  }
  int fd() const { return fd_; }
  bool refusedByKernel() const { return refused_; }

 private:
  explicit RawClient(std::pair<int, bool> socket)
      : fd_(socket.first), refused_(socket.second), connection_(Platform::Linux::Fd(fd_)) {}
  static std::pair<int, bool> connected(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    return {fd, connect(fd, generic, sizeof address) != 0};
  }

  int fd_;
  bool refused_;
  PC::FrameConnection connection_;
  bool closed_ = false;
};

class ControlWorld : public testing::Test {
 protected:
  ControlWorld() {
    loop.logService().sinkIs(sink);
    EXPECT_EQ(server->open(), "");
  }
  ~ControlWorld() override { loop.logService().sinkDel(sink); }

  Agent::ControlServer::Options options(std::size_t maxClients = 8) const {
    return {path, maxClients, "ringwardd test"};
  }
  void settle() {
    while (loop.runTurn()) {
    }
  }
  // A client that has said hello and been answered.
  std::unique_ptr<RawClient> newClient() {
    auto client = std::make_unique<RawClient>(path);
    client->hello();
    settle();
    const auto got = client->next();
    EXPECT_TRUE(got && got->type == PC::FrameType::hello);
    return client;
  }
  // The log lines so far, of which none are kept.
  std::vector<std::string> lines() {
    auto texts = sink.texts();
    sink.clear();
    return texts;
  }
  static std::vector<std::string> dropped(const std::string& reason) {
    return {"Control socket: the client with process id 7 of user 1000 was dropped: " + reason};
  }

  Directory directory;
  const std::string path = directory / "s";
  Vex::VirtualActivityManager loop;
  const Vex::CurrentActivityManager current{loop};
  Vex::MemorySink sink;
  EchoService service;
  FakeRights rights;
  std::unique_ptr<Agent::ControlServer> server =
      std::make_unique<Agent::ControlServer>(loop, service, rights, options());
};

}  // namespace ControlTest
