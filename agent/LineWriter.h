// SPDX-License-Identifier: Apache-2.0
//
// Agent::LineWriter: takes what the agent has to say and has a thread of its own write it. A full
// pipe, a terminal that somebody has stopped or a system log that is busy with a storm of its own
// makes a write wait for as long as it likes; the protection does not wait with it.
//
// lineIs() is for one thread at a time. Lines are written in the order in which they came.
//
// Invariants:
//  1. At most kMostLines wait. What comes then is dropped and counted until they are written; the
//     count is written in its place.
//  2. The thread takes no signals.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace Agent {

class LineWriter {
 public:
  static constexpr std::size_t kMostLines = 1024;

  struct Line {
    int severity = 0;  // as syslog(3) counts
    std::string text;  // without an end of line
  };
  // Called by the thread, one line at a time; may block, must not throw. It may be called until the
  // process ends, if it blocks at the end.
  using Write = std::function<void(const Line& line)>;

  // Throws std::system_error if there can be no thread.
  explicit LineWriter(Write write);
  // Waits until all is written, but not longer than `patience`.
  ~LineWriter();
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  // Never blocks for a write.
  void lineIs(Line line);
  void patienceIs(std::chrono::milliseconds patience) { patience_ = patience; }

 private:
  struct Shared;
  static void run(const std::shared_ptr<Shared>& shared);

  std::chrono::milliseconds patience_{2000};
  // The thread's as well: it may be blocked when this object goes.
  const std::shared_ptr<Shared> shared_;
};

}  // namespace Agent
