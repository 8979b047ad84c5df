// SPDX-License-Identifier: Apache-2.0
//
// Contestants of WatchBench.cc: each has a process of its own that follows what this process sets,
// and says in shared memory when it has heard. Here are those that follow an agent: a mirror, and
// the command `ringward watch`.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include "agent/control/ControlServer.h"
#include "agent/control/Rights.h"
#include "agent/control/TreeService.h"
#include "bench/store/Shared.h"
#include "cli/ringward/Run.h"
#include "model/attrlog/Session.h"
#include "platform/linux/control/ControlClient.h"

namespace WatchBench {

using StoreBench::Helper;
using StoreBench::SharedPage;

class Contestant {
 public:
  virtual ~Contestant() = default;
  // Lets this end do what it has to do besides.
  virtual void turn() {}
  // Sets a new value and lets this end send it.
  virtual void change() = 0;

  // The other end says when, then how often it has heard: once when it follows, then of each value.
  SharedPage& page() { return *page_; }
  bool asleep() const { return helper_->asleep(); }

 protected:
  void helperIs(const std::function<void()>& work) { helper_ = std::make_unique<Helper>(work); }
  void stamp() {
    page_->stamp = StoreBench::nanoseconds();
    ++page_->seen[0];
  }
  std::uint32_t value_ = 0;

 private:
  std::unique_ptr<SharedPage, void (*)(SharedPage*)> page_ = StoreBench::newSharedPage();
  std::unique_ptr<Helper> helper_;
};

class Directory {
 public:
  Directory() {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp");
  }
  ~Directory() { std::filesystem::remove_all(path_); }
  std::string socket() const { return path_ + "/control"; }

 private:
  // The six X are for mkdtemp(3) to fill in.
  std::string path_ = std::filesystem::temp_directory_path() / "ringward-bench-XXXXXX";
};

// The agent's end: its configuration behind a control server.
class Agent : public Contestant {
 public:
  void turn() override { at_->loop.runTurn(0.0); }
  void change() override {
    at_->config->clearCountersIs(++value_);
    turn();
  }

 protected:
  // Of this process alone: the other is forked before.
  struct World {
    explicit World(const std::string& path) : server(loop, service, rights, {path, 8, "bench"}) {
      if (const std::string error = server.open(); !error.empty()) throw std::runtime_error(error);
    }
    Vex::EpollActivityManager loop;
    Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
    ::Agent::SystemRights rights{""};
    ::Agent::TreeService service{{config, Ringward::Status::statusFactory("status"),
                                  Ringward::Status::transmitStatusFactory("transmitStatus"),
                                  Ringward::Status::packetCounterFactory("packetCounter"),
                                  [] { return Vex::Ptr<Ringward::GlobalSm>(); }}};
    ::Agent::ControlServer server;
  };
  void begin(const std::function<void()>& follow) {
    helperIs([this, follow] {
      if (StoreBench::await([this] { return page().go.load(); }, [] { sched_yield(); })) follow();
    });
    at_ = std::make_unique<World>(directory_.socket());
    page().go = true;
  }
  const Directory directory_;

 private:
  std::unique_ptr<World> at_;
};

class Mirror final : public Agent {
 public:
  Mirror() {
    begin([this] { follow(); });
  }

 private:
  class Heard final : public Ringward::Config::Config::NotifieeConst {
   public:
    Heard(Mirror& owner, const Vex::Ptr<Ringward::Config::Config>& config) : owner_(owner) {
      notifierIs(Vex::Ptr<Vex::PtrInterface const>(config));
      isRegisteredNotifieeIs(true);
    }
    void onClearCounters() override { owner_.stamp(); }

   private:
    Mirror& owner_;
  };
  void follow() {
    namespace PC = Platform::Linux::Control;
    using Ringward::AttrLog::Session;
    Vex::EpollActivityManager loop;
    const auto config = Ringward::Config::configFactory("config");
    Vex::Ptr<Heard> heard;
    Session::Callbacks callbacks;
    callbacks.synchronised = [&] {
      heard = Vex::makePtr<Heard>(*this, config);
      stamp();
    };
    Session session({}, std::move(callbacks));
    session.mirrorIs(*config, Session::MirrorMode::readOnly);
    PC::ControlClient client(
        loop, "bench",
        {.greeted = [&](const auto&) { client.newRequest(PC::Operation::subscribe, {"config"}); },
         .answered = {},
         .logged = [&](const PC::Frame& frame) { session.frameIn(frame.type, frame.body); },
         .gone = [&](const std::string&) { loop.stop(); },
         .written = {}});
    if (!client.open(directory_.socket())) loop.run();
  }
};

class Watch final : public Agent {
 public:
  Watch() {
    begin([this] { follow(); });
  }

 private:
  // Lines that are written out at each flush, as the standard output of the command writes them.
  class Lines final : public std::streambuf {
   public:
    explicit Lines(Watch& owner) : owner_(owner) {}

   private:
    int overflow(int byte) override {
      text_.push_back(static_cast<char>(byte));
      return byte;
    }
    std::streamsize xsputn(const char* bytes, std::streamsize size) override {
      text_.append(bytes, static_cast<std::size_t>(size));
      return size;
    }
    int sync() override {
      if (text_.empty()) return 0;
      const ssize_t written = write(null_, text_.data(), text_.size());
      text_.clear();
      owner_.stamp();
      return written < 0 ? -1 : 0;
    }
    Watch& owner_;
    std::string text_;
    const int null_ = open("/dev/null", O_WRONLY | O_CLOEXEC);
  };
  void follow() {
    Vex::EpollActivityManager loop;
    Lines lines(*this);
    std::ostream out(&lines);
    const std::string socket = directory_.socket();
    const std::array<const char*, 5> arguments{"ringward", "--socket", socket.c_str(), "watch",
                                               "config/clearCounters"};
    RingwardCli::run(static_cast<int>(arguments.size()), arguments.data(), loop, out, out);
  }
};

}  // namespace WatchBench
