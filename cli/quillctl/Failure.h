// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::Failure: what ends a command of quillctl, with the exit status that it has. Any thread.
#pragma once

#include <stdexcept>
#include <string>

namespace Quillctl {

// The exit status of the process; docs/quillctl.md tells of it.
enum class ExitStatus : int {
  done = 0,
  usage = 1,    // the command line, or a line of a batch, cannot be
  refused = 2,  // a writer lives, rights are missing, the system failed
  missing = 3,  // no such table or key
  damaged = 4,  // a table's files contradict themselves
};

class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}
  ExitStatus status() const noexcept { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace Quillctl
