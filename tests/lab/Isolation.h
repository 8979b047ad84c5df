// SPDX-License-Identifier: Apache-2.0
//
// runIsolated: runs a piece of code in a child process that has network and mount namespaces of its
// own, so that nothing it makes is seen outside and everything vanishes with it, whatever way it
// ends. Without root a user namespace is made too, in which the child is root.
//
// To be called from a process with one thread. The child is a process group; at the time limit the
// whole group is killed. Programs started by the child must ask for SIGKILL on their parent's death
// (Process does).
//
// Invariants:
//  1. /run in the child is an empty file system of its own: `ip netns add` leaves no trace outside.
//  2. Outcome.permitted is false only if the body was never entered.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace RingwardLab {

// One thing to be told to the parent: a failed check, or why it was skipped.
struct Finding {
  enum class Kind { kFailure, kSkip };
  Kind kind = Kind::kFailure;
  std::string file;
  int line = 0;
  std::string text;
};

struct Outcome {
  bool permitted = true;
  std::string refusal;  // What was missing, if not permitted.
  std::vector<Finding> findings;
  int exitStatus = 0;  // What the body returned; meaningless unless `ending` is empty.
  std::string ending;  // Empty for an orderly end, else the signal or the time limit.
};

using Report = std::function<void(const Finding&)>;

// Runs `body` in the child; it may call `report` from one thread at a time. An exception that
// leaves the body becomes a failure. Throws std::system_error if no child can be made.
Outcome runIsolated(const std::function<int(const Report& report)>& body,
                    std::chrono::milliseconds limit);

}  // namespace RingwardLab
