// SPDX-License-Identifier: Apache-2.0
//
// RingwardCli::AgentLink: the conversation with the agent as a command has it: asks, and comes back
// with the answer. While it waits the loop turns, so everything else on the loop goes on.
//
// Belongs to the loop's thread. Not to be called from a turn of the loop.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "platform/linux/control/ControlClient.h"
#include "runtime/vex/EpollActivityManager.h"

namespace RingwardCli {

namespace Control = Platform::Linux::Control;

// One node of the tree, as the agent tells it.
struct Node {
  std::string name;
  std::string kind;
  std::string type;
  std::string text;
  bool writable = false;
  std::string members;
};

class AgentLink {
 public:
  // Seconds without a word from the agent, for whoever names no others, and for a place among those
  // who wait to be taken.
  static constexpr double kPatience = 10.0;
  // Seconds from one try to get such a place to the next.
  static constexpr double kConnectPause = 0.05;
  static constexpr const char* kName = "ringward";

  // Connects. Raises Failure: noAgent if nobody listens at `path`, failed for everything else.
  AgentLink(Vex::EpollActivityManager& loop, const std::string& path, double patience = kPatience);

  // What the agent says of itself.
  const std::string& agent() const noexcept { return hello_.text; }

  // Each raises Failure(failed) with the agent's reason, or if it goes meanwhile.
  std::string get(const std::string& path);
  void set(const std::string& path, const std::string& text);
  void del(const std::string& path);
  std::string call(std::vector<std::string> texts);
  // All of them, over as many answers as it takes; at most `most`.
  std::vector<Node> ls(const std::string& path, std::size_t most = static_cast<std::size_t>(-1));

  struct Request {
    Control::Operation operation;
    std::vector<std::string> texts;
  };
  // Sends all of them at once, and answers in their order. A refusal or a failure is an answer
  // here.
  std::vector<Control::Answer> askAll(const std::vector<Request>& requests);
  // The same into `answers`, which keeps what has come when this raises Failure.
  void askAll(const std::vector<Request>& requests, std::vector<Control::Answer>& answers);

 private:
  Control::Answer ask(Control::Operation operation, std::vector<std::string> texts);
  // Turns the loop until `done`; raises Failure if the agent goes, or says nothing for too long.
  template <class Done>
  void await(const Done& done);

  Vex::EpollActivityManager& loop_;
  const double patience_;
  Control::Hello hello_;
  bool greeted_ = false;
  bool gone_ = false;
  std::string reason_;
  std::deque<Control::Answer> answers_;
  Control::ControlClient client_;
};

// Opens `client`. While too many others wait at `path` the loop turns, and it is tried again until
// the patience of AgentLink is over or `givenUp` says so.
std::error_code openPatiently(Vex::EpollActivityManager& loop, Control::ControlClient& client,
                              const std::string& path, const std::function<bool()>& givenUp);

// The failure of a connection that could not be made.
[[noreturn]] void throwUnreachable(const std::string& path, const std::error_code& error);

}  // namespace RingwardCli
