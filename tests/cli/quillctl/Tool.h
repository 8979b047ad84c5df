// SPDX-License-Identifier: Apache-2.0
//
// quillctl as a process: what a user or a script sees of it.
//
// The program is the one that the environment variable QUILLCTL names. Nothing here waits for a
// time: a process that says nothing is ended by the test runner's limit, and then dies with it.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace QuillctlTest {

struct Outcome {
  int status = -1;  // the exit status; 1000 + the signal for one that was killed
  std::string out;
  std::string err;
};

// A directory that goes with its object, and everything in it.
class Root {
 public:
  Root();
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;
  ~Root();

  const std::string& path() const { return path_; }
  // The directory of a table; of one of its files.
  std::string table(std::string_view name) const;
  std::string file(std::string_view name, std::string_view file) const;
  // Replaces the 32-bit number at `offset` of a file.
  void spoil(std::string_view name, std::string_view file, std::uint64_t offset,
             std::uint32_t value) const;

  // Runs the program on this root, to its end.
  Outcome run(const std::vector<std::string>& arguments, std::string_view input = {}) const;
  // The same; raises a test failure unless the status is 0.
  std::string done(const std::vector<std::string>& arguments, std::string_view input = {}) const;

 private:
  std::string path_;
};

// A program that is at work. Killed with its object.
class Running {
 public:
  Running(const Root& root, std::vector<std::string> arguments);
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running();

  // The next line of its output without the newline; waits for it. "(end)" if there is none.
  std::string line();
  void say(std::string_view text) const;
  void signal(int number) const;
  // Closes its input and waits for its end.
  Outcome end();

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string unread_;
};

}  // namespace QuillctlTest
