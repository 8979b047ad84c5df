// SPDX-License-Identifier: Apache-2.0
//
// runInNamespace(): runs the body of a test in a child process that has a fresh network namespace,
// so that tests cannot disturb the machine, each other or the test process.
//
// The body uses the expectations of GoogleTest as any test does. What fails in the child is
// reported as a failure of the calling test, as is a child that dies or takes longer than
// kChildSeconds. Where namespaces may not be made, the calling test is skipped and says so, or
// fails if the environment has RINGWARD_LAB_REQUIRED=1; it never passes.
//
// REQUIRES: called as the last statement of a test, from a process with one thread.
#pragma once

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace Lab {

inline constexpr unsigned kChildSeconds = 60;

namespace Detail {

inline constexpr int kPassed = 0;
inline constexpr int kFailed = 1;
inline constexpr int kNotPermitted = 77;

// Root's own namespace, or else one of a user who is root in it: a program started from here keeps
// its rights only if its user has a name for root.
inline bool enterNamespace() {
  const unsigned user = ::getuid();
  const unsigned group = ::getgid();
  if (::unshare(CLONE_NEWNET) == 0) return true;
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream users("/proc/self/uid_map");
  users << "0 " << user << " 1" << std::flush;
  std::ofstream groups("/proc/self/gid_map");
  groups << "0 " << group << " 1" << std::flush;
  return users.good() && groups.good();
}

inline std::string runBody(const std::function<void()>& body) {
  testing::TestPartResultArray results;
  std::ostringstream text;
  {
    testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
    try {
      body();
    } catch (const std::exception& error) {
      text << "exception: " << error.what() << '\n';
    }
  }
  for (int i = 0; i < results.size(); ++i) {
    const testing::TestPartResult& result = results.GetTestPartResult(i);
    if (!result.passed()) {
      text << (result.file_name() != nullptr ? result.file_name() : "?") << ':'
           << result.line_number() << ": " << result.message() << '\n';
    }
  }
  return text.str();
}

[[noreturn]] inline void childMain(int pipe, const std::function<void()>& body) {
  ::alarm(kChildSeconds);
  const bool entered = enterNamespace();
  const std::string text = entered ? runBody(body) : std::strerror(errno);
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t part = ::write(pipe, text.data() + written, text.size() - written);
    if (part <= 0) break;
    written += static_cast<std::size_t>(part);
  }
  ::_exit(!entered ? kNotPermitted : text.empty() ? kPassed : kFailed);
}

inline std::string readAll(int pipe) {
  std::string text;
  std::array<char, 4096> block{};
  ssize_t size = 0;
  while ((size = ::read(pipe, block.data(), block.size())) > 0) {
    text.append(block.data(), static_cast<std::size_t>(size));
  }
  return text;
}

}  // namespace Detail

inline void runInNamespace(const std::function<void()>& body) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0) << std::strerror(errno);
  std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0) << std::strerror(errno);
  if (child == 0) {
    ::close(pipe[0]);
    Detail::childMain(pipe[1], body);
  }
  ::close(pipe[1]);
  const std::string text = Detail::readAll(pipe[0]);
  ::close(pipe[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child) << std::strerror(errno);
  if (WIFSIGNALED(status)) {
    FAIL() << "the child ended by signal " << WTERMSIG(status) << "\n" << text;
  }
  if (WEXITSTATUS(status) == Detail::kNotPermitted) {
    std::fprintf(stderr, "NOT RUN, NOTHING WAS CHECKED: no network namespace can be made: %s\n",
                 text.c_str());
    const char* const required = std::getenv("RINGWARD_LAB_REQUIRED");
    if (required != nullptr && *required == '1') {
      FAIL() << "no network namespace can be made: " << text;
    }
    GTEST_SKIP() << "no network namespace can be made: " << text;
  }
  if (WEXITSTATUS(status) != Detail::kPassed) {
    FAIL() << "in the namespace, exit status " << WEXITSTATUS(status) << ":\n" << text;
  }
}

// Runs a shell command; a failed one fails the test.
inline void shell(const std::string& command) {
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

}  // namespace Lab
