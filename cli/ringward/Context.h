// SPDX-License-Identifier: Apache-2.0
//
// RingwardCli::Context: what every command works with. Belongs to one thread; streams and the loop
// are the caller's and outlive it.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "cli/ringward/AgentLink.h"
#include "cli/ringward/Arguments.h"

namespace RingwardCli {

// Keys keep the order in which they are written, so that outputs can be compared.
using Json = nlohmann::ordered_json;

class Context {
 public:
  Context(Arguments arguments, std::ostream& out, std::ostream& err,
          Vex::EpollActivityManager& loop, double patience)
      : arguments_(std::move(arguments)), out_(out), err_(err), loop_(loop), patience_(patience) {}

  const Arguments& arguments() const noexcept { return arguments_; }
  // REQUIRES: the command line has it.
  const std::string& word(std::size_t i) const { return arguments_.words.at(i); }
  bool json() const noexcept { return arguments_.json; }
  std::ostream& out() noexcept { return out_; }
  Vex::EpollActivityManager& loop() noexcept { return loop_; }
  // Seconds that the agent may be silent for.
  double patience() const noexcept { return patience_; }

  // Connects at the first call. Raises Failure.
  AgentLink& agent() {
    if (!agent_) agent_ = std::make_unique<AgentLink>(loop_, arguments_.socket, patience_);
    return *agent_;
  }
  // Says something beside the output, on standard error.
  void note(const std::string& text) { err_ << "ringward: " << text << '\n' << std::flush; }
  // JSON on one line; a byte that is not UTF-8 becomes the replacement character.
  void line(const Json& json) {
    out_ << json.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
  }

 private:
  Arguments arguments_;
  std::ostream& out_;
  std::ostream& err_;
  Vex::EpollActivityManager& loop_;
  const double patience_;
  std::unique_ptr<AgentLink> agent_;
};

}  // namespace RingwardCli
