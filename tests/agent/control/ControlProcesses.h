// SPDX-License-Identifier: Apache-2.0
//
// The two processes of a history: an agent with its control server, entities and loop, and a mirror
// that follows it through the client of the control socket. Each does what its channel says,
// between turns of its loop, in the order in which it was said.
#pragma once

#include <sys/eventfd.h>
#include <sys/un.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/control/ConfigFollower.h"
#include "agent/control/ControlServer.h"
#include "agent/control/Rights.h"
#include "agent/control/TreeService.h"
#include "model/attrlog/Session.h"
#include "platform/linux/control/ControlClient.h"
#include "runtime/vex/EpollActivityManager.h"
#include "tests/agent/control/Channel.h"
#include "tests/model/attrlog/Trees.h"

namespace ControlTest {

using AttrLogTest::Random;
using AttrLogTest::Trees;
using Ringward::AttrLog::Session;

// The least that the kernel gives, so that every write is a partial one.
inline void narrow(int fd) {
  const int least = 1;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
}

inline std::string textOf(const Trees& trees, bool configOnly) {
  return configOnly ? AttrLogTest::textOf(*trees.config) : trees.text();
}

// A change of anything that a subscription carries.
inline void changeAny(Trees& trees, Random& random) {
  switch (AttrLogTest::below(random, 8)) {
    case 0:
    case 1:
    case 2:
      return AttrLogTest::changeConfig(*trees.config, random);
    case 3:
    case 4:
      return AttrLogTest::changeStatus(*trees.status, random);
    case 5:
    case 6:
      return AttrLogTest::changeTransmit(*trees.transmit, random);
    default:
      return trees.counter->isNondestructingIs(AttrLogTest::below(random, 2) != 0);
  }
}

// A change that takes no entity away and puts none in another's place.
inline void correct(Trees& trees, Random& random) {
  using AttrLogTest::below;
  const Bridging::VlanId vlan(1 + below(random, 40));
  switch (below(random, 5)) {
    case 0:
      return trees.config->clearCountersIs(random());
    case 1:
      return trees.config->globalEnabledIs(below(random, 2) != 0);
    case 2:
      return trees.config->vlanEnabledDel(vlan);
    case 3:
      return trees.config->intfExcludeIs(AttrLogTest::intf(below(random, 40)), true);
    default:
      return trees.config->vlanEnabledIs(vlan, below(random, 2) != 0);
  }
}

// Collections of more than one frame, and of more than a stream's buffer from some 1,500 on.
inline void fill(Trees& trees, Random& random, unsigned count) {
  using AttrLogTest::below;
  for (unsigned i = 0; i < count; ++i) {
    const Portus::IntfId id = AttrLogTest::intf(below(random, count));
    const Bridging::VlanId vlan(1 + below(random, std::min(2 * count, 4094U)));
    trees.config->vlanEnabledIs(vlan, below(random, 2) != 0);
    if (i % 2 == 0) trees.config->intfExcludeIs(id, below(random, 2) != 0);
    if (i % 3 == 0) trees.transmit->regularPriorityEnq({id, vlan});
    if (i % 16 == 0) trees.status->intfStatusIs(id)->disabledAtIs(below(random, 1000));
  }
}

// What both processes have: a loop, entities, and a channel whose orders wait for their turn.
class Process : private Vex::ReadableHandler {
 public:
  explicit Process(Channel& channel) : channel_(channel) {
    loop.readableIs(channel_.fd(), *this);
    loop.logService().sinkIs(sink);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  virtual ~Process() {
    loop.logService().sinkDel(sink);
    loop.readableDel(channel_.fd());
  }
  // Until the channel closes.
  void run() {
    while (!ended_) {
      if (orders_.empty()) {
        loop.runTurn(Vex::kNever);
        afterTurn();
        continue;
      }
      const Order order = orders_.front();
      orders_.pop_front();
      carryOut(order);
    }
  }

 protected:
  virtual void change(Random& random) = 0;
  virtual void afterTurn() {}
  virtual void handleOrder(const Order& /*order*/) {}
  virtual std::string state() = 0;
  virtual std::string text() = 0;

  Vex::EpollActivityManager loop;
  Vex::MemorySink sink;
  Trees trees;

 private:
  void carryOut(const Order& order) {
    Random random(order.seed);
    switch (order.what) {
      case Order::What::change:
      case Order::What::correct:
        // Some changes share a turn of the loop, others have one each.
        for (std::uint32_t i = 0; i < order.count; ++i) {
          order.what == Order::What::change ? change(random) : correct(trees, random);
          if (AttrLogTest::below(random, 3) == 0) turn();
        }
        return turn();
      case Order::What::state:
        turn();
        ended_ = !channel_.say(state()) || ended_;
        return;
      case Order::What::text:
        ended_ = !channel_.say(text()) || ended_;
        return;
      case Order::What::connect:
      case Order::What::disconnect:
        return handleOrder(order);
    }
  }
  void turn() {
    loop.runTurn(0.0);
    afterTurn();
  }
  void onReadable() override {
    Order order;
    if (channel_.get(&order, sizeof order, kPatienceMs)) {
      orders_.push_back(order);
    } else {
      ended_ = true;
      loop.readableDel(channel_.fd());
    }
  }

  Channel& channel_;
  std::deque<Order> orders_;
  bool ended_ = false;
};

class AgentProcess final : public Process {
 public:
  struct Options {
    std::string path;
    std::uint32_t seed = 0;
    unsigned fill = 0;        // see fill()
    bool configOnly = false;  // what is compared
    bool narrow = false;
    bool follower = false;  // the configuration's children are put back at once
  };

  AgentProcess(Channel& channel, const Options& options)
      : Process(channel),
        options_(options),
        rights_(options.narrow),
        service_({trees.config, trees.status, trees.transmit, trees.counter,
                  [] { return Vex::Ptr<Ringward::GlobalSm>(); }}),
        server_(loop, service_, rights_, {options.path, 8, "agent of a test"}) {
    Random random(options.seed);
    fill(trees, random, options.fill);
    for (int i = 0; i < 60; ++i) change(random);
    if (options.follower) {
      follower_ = Vex::makePtr<Agent::ConfigFollower>(loop, trees.config, [] {});
    }
    const std::string error = server_.open();
    if (!error.empty()) throw std::runtime_error(error);
    channel.say("listening");
  }

 private:
  // Everybody may write, into a narrow socket.
  class Rights final : public Agent::Rights {
   public:
    explicit Rights(bool narrow) : narrow_(narrow) {}
    std::optional<Agent::Credentials> peer(int fd) const override {
      if (narrow_) narrow(fd);
      return system_.peer(fd);
    }
    bool mayWrite(const Agent::Credentials& who) const override { return system_.mayWrite(who); }
    std::string reason(const Agent::Credentials& who) const override { return system_.reason(who); }

   private:
    const bool narrow_;
    const Agent::SystemRights system_{""};
  };
  // Readable for as long as it exists.
  class Prod final : private Vex::ReadableHandler {
   public:
    explicit Prod(Vex::ActivityManager& loop) : loop_(loop) { loop_.readableIs(fd_.get(), *this); }
    Prod(const Prod&) = delete;
    Prod& operator=(const Prod&) = delete;
    ~Prod() { loop_.readableDel(fd_.get()); }

   private:
    void onReadable() override {}
    Vex::ActivityManager& loop_;
    const Fd fd_{eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)};
  };

  void change(Random& random) override { changeAny(trees, random); }
  // With nothing to do the loop would sleep, and counts that it could have; two such turns in a
  // row: what was readable or writable in the first has left no work for the second.
  bool rests() {
    const Prod prod(loop);
    for (unsigned turns = 0, free = 0; turns < 100'000; ++turns) {
      const std::uint64_t before = loop.wakeUps();
      loop.runTurn(Vex::kNever);
      free = loop.wakeUps() != before ? free + 1 : 0;
      if (free == 2) return true;
    }
    return false;
  }
  std::string state() override {
    State state;
    state.atRest = rests() ? 1 : 0;
    state.connected = static_cast<std::uint32_t>(server_.clients());
    std::string words;
    for (const std::string& line : sink.texts()) {
      // Connections are cut behind any byte.
      if (line.ends_with(" was dropped: it went in the middle of a message")) continue;
      ++state.trouble;
      words += line + '\n';
    }
    return std::string(reinterpret_cast<const char*>(&state), sizeof state) + words;
  }
  std::string text() override { return textOf(trees, options_.configOnly); }

  const Options options_;
  const Rights rights_;
  Agent::TreeService service_;
  Agent::ControlServer server_;
  Vex::Ptr<Agent::ConfigFollower> follower_;
};

class MirrorProcess final : public Process {
 public:
  struct Options {
    std::string path;
    bool configOnly = false;  // subscribes to that alone, and may write
    bool readOnly = false;    // the mode of the mirrors
    bool narrow = false;
    std::size_t buffer = 64 * 1024;
  };

  MirrorProcess(Channel& channel, const Options& options)
      : Process(channel),
        options_(options),
        client_(loop, "mirror of a test",
                {.greeted = [this](const auto&) { subscribe(); },
                 .answered = [this](const auto& answer) { handleAnswer(answer); },
                 .logged = [this](const auto& frame) { handleFrame(frame); },
                 .gone = [](const std::string&) {},
                 .written = [this] { handleOutput(); }}) {}

 private:
  // What waits for the socket beyond it stays in the session, which bounds it.
  static constexpr std::size_t kMostOut = 4096;

  void change(Random& random) override {
    options_.configOnly ? AttrLogTest::changeConfig(*trees.config, random)
                        : changeAny(trees, random);
  }
  void handleOrder(const Order& order) override {
    client_.close();
    session_.reset();
    if (order.what == Order::What::disconnect) return;
    if (const std::error_code error = client_.open(options_.path)) words_ += error.message() + '\n';
    if (options_.narrow) narrowAll();
  }
  // The client keeps its descriptor to itself.
  void narrowAll() {
    for (int fd = 3; fd < 64; ++fd) {
      sockaddr_un peer{};
      socklen_t size = sizeof peer;
      if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
      if (peer.sun_family == AF_UNIX && options_.path == peer.sun_path) narrow(fd);
    }
  }
  void subscribe() {
    Session::Callbacks callbacks;
    callbacks.outputReady = [this] { handleOutput(); };
    callbacks.refused = [this](std::string_view, std::string_view) { ++refused_; };
    callbacks.trouble = [this](std::string_view text) { words_ += std::string(text) + '\n'; };
    session_ = std::make_unique<Session>(
        Session::Options{.buffer = options_.buffer, .access = Session::Access::readOnly},
        std::move(callbacks));
    const auto mode = options_.readOnly ? Session::MirrorMode::readOnly  //
                                        : Session::MirrorMode::readWrite;
    session_->mirrorIs(*trees.config, mode);
    std::vector<std::string> roots{"config"};
    if (!options_.configOnly) {
      session_->mirrorIs(*trees.status, mode);
      session_->mirrorIs(*trees.transmit, mode);
      session_->mirrorIs(*trees.counter, mode);
      roots = {"config", "status", "transmitStatus", "packetCounter"};
    }
    client_.newRequest(Platform::Linux::Control::Operation::subscribe, roots);
  }
  void handleAnswer(const Platform::Linux::Control::Answer& answer) {
    if (answer.status == Platform::Linux::Control::Status::done) return;
    words_ += "no subscription: " + answer.texts.front() + '\n';
  }
  void handleFrame(const Platform::Linux::Control::Frame& frame) {
    if (!session_) return;
    try {
      session_->frameIn(frame.type, frame.body);
    } catch (const Vex::Exception& exception) {
      words_ += "rubbish from the agent: " + exception.text() + '\n';
      client_.close();
    }
  }
  void handleOutput() {
    while (session_ && client_.connected() && client_.waiting() < kMostOut) {
      const auto output = session_->output();
      if (output.empty()) return;
      client_.framesOut(output);
      session_->outputDel(output.size());
    }
  }
  // Nothing was sent from within a change: the session asks for it in the turn behind.
  void afterTurn() override {
    if (session_ && !client_.connected()) session_.reset();
    handleOutput();
  }
  std::string state() override {
    State state;
    state.connected = client_.connected() ? 1 : 0;
    state.synchronised = session_ && session_->isSynchronised() ? 1 : 0;
    state.atRest =
        session_ && session_->isSettled() && session_->output().empty() && client_.waiting() == 0
            ? 1
            : 0;
    state.refused = refused_;
    std::string words = words_;
    for (const std::string& line : sink.texts()) words += line + '\n';
    state.trouble = words.empty() ? 0 : 1;
    return std::string(reinterpret_cast<const char*>(&state), sizeof state) + words;
  }
  std::string text() override { return textOf(trees, options_.configOnly); }

  const Options options_;
  std::uint32_t refused_ = 0;
  std::string words_;
  std::unique_ptr<Session> session_;
  Platform::Linux::Control::ControlClient client_;
};

}  // namespace ControlTest
