// SPDX-License-Identifier: Apache-2.0
//
// RingwardCli::Failure: what ends a command of ringward, with the exit status that it has. Any
// thread.
#pragma once

#include <stdexcept>
#include <string>

namespace RingwardCli {

// The exit status of the process; docs/ringward.md tells of it.
enum class ExitStatus : int {
  done = 0,
  failed = 1,   // refused, or it cannot be done
  usage = 2,    // the command line cannot be
  noAgent = 3,  // no agent listens; what the tables tell has been shown all the same
};

class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}
  ExitStatus status() const noexcept { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace RingwardCli
