// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Watch.h"

#include <net/if.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <set>

#include "cli/quillctl/StopSignals.h"
#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"
#include "cli/ringward/Followers.h"
#include "cli/ringward/Times.h"
#include "model/attrlog/Session.h"
#include "runtime/vex/Exception.h"

namespace RingwardCli {

using Control::Operation;
using Quillctl::inQuotes;
using Quillctl::nearest;
using Quillctl::printable;
using Ringward::AttrLog::Session;

namespace {

constexpr double kReconnectPause = 1.0;
// The tables of counters are not in the log: they are followed as tables.
const std::vector<std::string> kRoots{"config", "status", "transmitStatus"};

// Without the slashes at its ends, which name nothing.
std::string plainPath(std::string_view path) {
  while (path.starts_with('/')) path.remove_prefix(1);
  while (path.ends_with('/')) path.remove_suffix(1);
  return std::string(path);
}

bool isBelow(const std::string& path, const std::string& top) {
  if (!path.starts_with(top)) return false;
  return path.size() == top.size() || path[top.size()] == '/' || path[top.size()] == '[';
}

// Names that do not fit into an identifier can be told only if they have been seen; those of this
// host's interfaces have, after this.
void learnNames() {
  struct if_nameindex* const names = if_nameindex();
  if (names == nullptr) return;
  for (const auto* at = names; at->if_index != 0; ++at) {
    try {
      static_cast<void>(Portus::IntfId::fromName(at->if_name));
    } catch (const Vex::RangeException&) {
      continue;  // shown as its number then
    }
  }
  if_freenameindex(names);
}

// One connection's worth of following.
class Following {
 public:
  Following(Context& context, const std::vector<std::string>& paths)
      : context_(context),
        paths_(paths),
        client_(context.loop(), AgentLink::kName,
                {.greeted =
                     [this](const Control::Hello&) {
                       heardIs();
                       subscribe();
                     },
                 .answered =
                     [this](const Control::Answer& answer) {
                       heardIs();
                       handleAnswer(answer);
                     },
                 .logged =
                     [this](const Control::Frame& frame) {
                       heardIs();
                       handleFrame(frame);
                     },
                 .gone = [this](const std::string& reason) { gone_ = reason; },
                 .written = {}}) {}

  std::error_code open(const std::string& socket, const std::function<bool()>& givenUp) {
    const std::error_code error = openPatiently(context_.loop(), client_, socket, givenUp);
    heardIs();  // the wait for a place is not the agent's silence
    return error;
  }
  // One turn of the loop. An agent that says nothing for too long is gone, as long as it has not
  // told the present state: after that it has nothing to say while nothing changes.
  void runTurn() {
    if (synchronised()) return context_.loop().runTurn(Vex::kNever);
    const double left = limit_ - context_.loop().clock()->now();
    if (left > 0) return context_.loop().runTurn(left);
    silent_ = true;
    gone_ = "the agent does not answer; it may be stopped";
    client_.close();
  }
  // Why it is over, empty while it is not; and whether the agent refused what was asked.
  const std::string& gone() const noexcept { return gone_; }
  bool refused() const noexcept { return refused_; }
  bool silent() const noexcept { return silent_; }
  bool synchronised() const noexcept { return session_ && session_->isSynchronised(); }

 private:
  void heardIs() { limit_ = context_.loop().clock()->now() + context_.patience(); }
  void subscribe() {
    std::set<std::string> roots;
    for (const std::string& path : paths_) roots.insert(path.substr(0, path.find_first_of("/[")));
    Session::Callbacks callbacks;
    callbacks.outputReady = [this] { handleOutput(); };
    callbacks.synchronised = [this] { handleSynchronised(); };
    session_ = std::make_unique<Session>(Session::Options{}, std::move(callbacks));
    if (roots.contains("config")) session_->mirrorIs(*config_, Session::MirrorMode::readOnly);
    if (roots.contains("status")) session_->mirrorIs(*status_, Session::MirrorMode::readOnly);
    if (roots.contains("transmitStatus")) {
      session_->mirrorIs(*transmitStatus_, Session::MirrorMode::readOnly);
    }
    client_.newRequest(Operation::subscribe, {roots.begin(), roots.end()});
  }
  void handleAnswer(const Control::Answer& answer) {
    if (answer.status == Control::Status::done) return;
    refused_ = true;
    gone_ = answer.texts.empty() ? "the agent refuses" : answer.texts.front();
    client_.close();
  }
  void handleFrame(const Control::Frame& frame) {
    try {
      if (session_) session_->frameIn(frame.type, frame.body);
    } catch (const Vex::Exception& exception) {
      gone_ = "the agent's log cannot be followed: " + exception.text();
      client_.close();
    }
  }
  void handleOutput() {
    const auto output = session_->output();
    if (!client_.connected() || output.empty()) return;
    client_.framesOut(output);
    session_->outputDel(output.size());
  }
  void handleSynchronised() {
    const Changed tell = [this](const auto& path, const auto& text) { changed(path, text); };
    followers_ = {newFollower(config_, "config", tell), newFollower(status_, "status", tell),
                  newFollower(transmitStatus_, "transmitStatus", tell)};
    if (context_.json()) {
      context_.line({{"event", "following"}});
    } else {
      context_.out() << "# following\n";
    }
    context_.out() << std::flush;
  }
  void changed(const std::string& path, const std::optional<std::string>& text) {
    // What happens to an object above a path happens to the path: it goes and comes with it.
    const bool wanted = std::any_of(paths_.begin(), paths_.end(), [&](const std::string& top) {
      return isBelow(path, top) || isBelow(top, path);
    });
    if (!wanted) return;
    const std::string time = dateText(wallClock(), true);
    if (context_.json()) {
      Json json{{"event", text ? "changed" : "gone"}, {"time", time}, {"path", path}};
      if (text) json["value"] = *text;
      context_.line(json);
    } else {
      context_.out() << time << ' ' << printable(path)
                     << (!text           ? " gone"
                         : text->empty() ? " there"
                                         : " = " + printable(*text))
                     << '\n';
    }
    context_.out() << std::flush;
  }

  Context& context_;
  const std::vector<std::string>& paths_;
  std::string gone_;
  bool refused_ = false;
  bool silent_ = false;
  double limit_ = 0;  // the moment at which the agent has been silent for too long
  // The mirrors; those that nobody asked for stay empty.
  const Vex::Ptr<Ringward::Config::Config> config_ = Ringward::Config::configFactory("config");
  const Vex::Ptr<Ringward::Status::Status> status_ = Ringward::Status::statusFactory("status");
  const Vex::Ptr<Ringward::Status::TransmitStatus> transmitStatus_ =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  std::unique_ptr<Session> session_;
  std::array<Vex::Ptr<Vex::NotifieeConst>, 3> followers_;
  Control::ControlClient client_;
};

std::vector<std::string> checkedPaths(const std::vector<std::string>& given) {
  std::vector<std::string> paths;
  for (const std::string& path : given) {
    paths.push_back(plainPath(path));
    const std::string root = paths.back().substr(0, paths.back().find_first_of("/["));
    if (std::find(kRoots.begin(), kRoots.end(), root) != kRoots.end()) {
      paths.back() = followedPath(paths.back());
      continue;
    }
    const std::string counters =
        root == "packetCounter" ? "; counters are tables: see quillctl watch" : "";
    throw Failure(ExitStatus::usage, "cannot follow " + inQuotes(path) + "; the nearest root is " +
                                         inQuotes(nearest(root, kRoots)) + counters);
  }
  return paths;
}

}  // namespace

void watch(Context& context) {
  // First: a key that is a number may be that of a name which is known then.
  learnNames();
  const std::vector<std::string> paths = checkedPaths(context.arguments().words);
  const std::string& socket = context.arguments().socket;
  // Says at once, in its words, what is wrong with a path.
  if (!context.arguments().reconnect) {
    AgentLink agent(context.loop(), socket, context.patience());
    for (const std::string& path : paths) static_cast<void>(agent.ls(path, 1));
  }
  Quillctl::StopSignals stop(context.loop());
  bool told = false;
  bool silent = false;
  for (;;) {
    {
      Following following(context, paths);
      const std::error_code error = following.open(socket, [&stop] { return stop.came() != 0; });
      if (stop.came() != 0) return;
      if (error && !context.arguments().reconnect) throwUnreachable(socket, error);
      while (!error && following.gone().empty()) {
        following.runTurn();
        // Nobody reads any more: run() says so.
        if (stop.came() != 0 || !context.out()) return;
      }
      const std::string reason = error ? error.message() : following.gone();
      if (!context.arguments().reconnect || following.refused()) {
        const bool there = following.refused() || following.silent();
        throw Failure(there ? ExitStatus::failed : ExitStatus::noAgent, printable(reason));
      }
      // Each attempt that ends as the one before says nothing new.
      const bool known = error ? told : silent && following.silent();
      if (!known) context.note(printable(reason) + "; waiting for the agent");
      told = true;
      silent = following.silent();
      // After a connection that was good the next one is tried at once.
      if (following.synchronised()) continue;
    }
    const double limit = context.loop().clock()->now() + kReconnectPause;
    for (double left = kReconnectPause; left > 0; left = limit - context.loop().clock()->now()) {
      context.loop().runTurn(left);
      if (stop.came() != 0) return;
    }
  }
}

}  // namespace RingwardCli
