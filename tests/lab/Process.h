// SPDX-License-Identifier: Apache-2.0
//
// Process: a program that runs on one of the lab's hosts, and each line it writes (standard output
// and error together) with the time. Lines are read by a thread of its own; any thread may call.
//
// The program sees /run, /var/lib and /dev/shm of its host only, all empty at first and kept from
// one run to the next on the same host, so that a program that is started as root leaves nothing on
// the machine. /sys shows its host's interfaces.
//
// Invariants:
//  1. The program never outlives its Process, nor the lab: it is killed with either.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/lab/Lab.h"

namespace RingwardLab {

struct Line {
  Clock::time_point at;
  std::string text;
};

class Process {
 public:
  // Starts arguments[0], a path. Throws std::system_error if there can be no process; a program
  // that cannot be executed ends with status 127 and a line that says why.
  Process(const Lab& lab, const std::string& host, const std::vector<std::string>& arguments);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  Clock::time_point startedAt() const { return startedAt_; }
  std::vector<Line> lines() const;
  // All lines in one text, for the message of a failed check.
  std::string output() const;
  // The count-th wanted line; nothing at the time limit or when the program has ended without it.
  using Wanted = std::function<bool(const std::string&)>;
  std::optional<Line> waitLine(const Wanted& wanted, Milliseconds limit,
                               std::size_t count = 1) const;

  bool running();
  // REQUIRES: the program runs.
  void signal(int signal) const;
  // Sends the signal and waits for the end. Returns what the end was: "exit 0", "signal Aborted",
  // or "still running" at the time limit.
  std::string end(int signal, Milliseconds limit);
  // Time on the processor so far. REQUIRES: the program runs.
  std::chrono::nanoseconds cpuTime() const;
  // Open descriptors; whether the program is a real-time process at this moment; and memory that is
  // the program's own and in use, KiB. REQUIRES: the program runs.
  std::size_t descriptors() const;
  bool realtime() const;
  std::size_t ownKiB() const;

 private:
  void run();
  bool reap(Milliseconds limit);

  pid_t pid_ = -1;
  int output_ = -1;
  Clock::time_point startedAt_;
  std::optional<int> status_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Line> lines_;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace RingwardLab
