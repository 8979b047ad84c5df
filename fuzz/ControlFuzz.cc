// SPDX-License-Identifier: Apache-2.0
//
// Any bytes from a client of the control socket, behind a hello or not: frames, requests and the
// attribute log, against the agent's own entities. The first byte says whether the client may write
// (1), says hello first (2) and is subscribed to the configuration (4), then come pieces of the
// stream, each behind its length of one byte.
//
// Rules: whatever comes, nothing crashes; what the server keeps is bounded; a client that may not
// write has changed nothing; each frame that comes back is one of the protocol.
#include <sys/socket.h>

#include <string>

#include "agent/control/ControlServer.h"
#include "agent/control/TreeService.h"
#include "fuzz/Input.h"
#include "platform/linux/control/FrameConnection.h"
#include "platform/linux/control/Protocol.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

namespace PC = Platform::Linux::Control;
using Fuzz::require;

class FuzzRights final : public Agent::Rights {
 public:
  explicit FuzzRights(bool write) : write_(write) {}
  std::optional<Agent::Credentials> peer(int) const override { return Agent::Credentials{}; }
  bool mayWrite(const Agent::Credentials&) const override { return write_; }
  std::string reason(const Agent::Credentials&) const override { return "not you"; }

 private:
  const bool write_;
};

class World {
 public:
  explicit World(bool write) : rights_(write) {
    config_->globalIntfConfigIs("globalIntfConfig");
    config_->transmitConfigIs("transmitConfig");
    status_->intfStatusIs(Portus::IntfId::fromName("eth1"));
    int ends[2] = {-1, -1};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    server_.admitted(Platform::Linux::Fd(ends[0]));
    client_ = std::make_unique<PC::FrameConnection>(Platform::Linux::Fd(ends[1]));
  }

  void say(PC::Bytes bytes) {
    static_cast<void>(send(client_->fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    settle();
  }
  void frame(PC::FrameType type, const PC::Buffer& body) {
    PC::Buffer bytes;
    PC::frameTo(bytes, static_cast<std::uint8_t>(type), body);
    say(bytes);
  }
  void settle() {
    for (unsigned turn = 0; turn < 64 && loop_.runTurn(); ++turn) {
    }
    while (client_->read(PC::kMaxFrame) == PC::FrameConnection::Input::some) {
      while (const auto got = client_->in().next()) check(*got);
    }
    require(server_.mostWaiting() <= Agent::ControlServer::kMostOut + 3 * PC::kMaxFrame);
  }
  bool untouched() const {
    return !config_->globalEnabled() && config_->clearCounters() == 0 &&
           !config_->vlanEnabledIteratorConst() && !config_->intfExcludeIteratorConst() &&
           config_->transmitConfig() && config_->transmitConfig()->rateLimit() == 1000;
  }

 private:
  static void check(const PC::Frame& frame) {
    if (frame.type < PC::kFirstOwnType) return;
    switch (static_cast<PC::FrameType>(frame.type)) {
      case PC::FrameType::hello:
        return static_cast<void>(PC::readHello(frame.body));
      case PC::FrameType::answer:
        return static_cast<void>(PC::readAnswer(frame.body));
      case PC::FrameType::farewell:
        return static_cast<void>(PC::readFarewell(frame.body));
      case PC::FrameType::request:
        break;
    }
    require(false);
  }

  Vex::VirtualActivityManager loop_;
  const Vex::CurrentActivityManager current_{loop_};
  const Vex::Ptr<Ringward::Config::Config> config_ = Ringward::Config::configFactory("config");
  const Vex::Ptr<Ringward::Status::Status> status_ = Ringward::Status::statusFactory("status");
  FuzzRights rights_;
  Agent::TreeService service_{
      {config_, status_, Ringward::Status::transmitStatusFactory("transmitStatus"),
       Ringward::Status::packetCounterFactory("packetCounter"), [] { return nullptr; }}};
  Agent::ControlServer server_{loop_, service_, rights_, {"", 4, "fuzz"}};
  std::unique_ptr<PC::FrameConnection> client_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input({data, size});
  const std::uint8_t how = input.byte();
  World world((how & 1) != 0);
  if ((how & 2) != 0) {
    world.frame(PC::FrameType::hello, PC::helloBody({1, PC::Role::client, 3, "fuzz"}));
  }
  if ((how & 4) != 0) {
    world.frame(PC::FrameType::request, PC::requestBody({1, PC::Operation::subscribe, {"config"}}));
  }
  while (!input.empty()) {
    const std::size_t piece = 1 + std::size_t{input.byte()};
    Fuzz::Exactly bytes(input.take(piece));
    world.say(bytes.bytes());
  }
  require((how & 1) != 0 || world.untouched());
  return 0;
}
