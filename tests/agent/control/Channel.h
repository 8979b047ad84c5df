// SPDX-License-Identifier: Apache-2.0
//
// A child process of a test and the socket over which it is told what to do and says what it sees.
// The child is a fork without exec: it runs one function with its end of the channel, has no other
// descriptor of the test's, and ends when the test's end is closed.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

#include "platform/linux/Fd.h"

namespace ControlTest {

using Platform::Linux::Fd;

// Anything that blocks gives up behind this: long enough for a sanitizer on a busy machine.
inline constexpr int kPatienceMs = 60'000;

struct Order {
  enum class What : std::uint32_t { change, correct, connect, disconnect, state, text };
  What what = What::state;
  std::uint32_t seed = 0;
  std::uint32_t count = 0;
};

// What either process says of itself. The mirror's words follow the numbers.
struct State {
  std::uint32_t connected = 0;     // the agent: its clients
  std::uint32_t synchronised = 0;  // the first full transfer has come in
  std::uint32_t atRest = 0;        // nothing waits inside the process
  std::uint32_t refused = 0;       // changes that the agent did not let happen
  std::uint32_t trouble = 0;       // log lines, changes that could not be followed
};

class Channel {
 public:
  explicit Channel(Fd socket) : socket_(std::move(socket)) {}
  int fd() const { return socket_.get(); }
  void close() { socket_.close(); }

  // False: the other end is gone.
  bool put(const void* bytes, std::size_t size) {
    for (const auto* at = static_cast<const char*>(bytes); size != 0;) {
      const ssize_t sent = ::send(fd(), at, size, MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent <= 0) return false;
      at += sent;
      size -= static_cast<std::size_t>(sent);
    }
    return true;
  }
  bool get(void* bytes, std::size_t size, int patienceMs) {
    for (auto* at = static_cast<char*>(bytes); size != 0;) {
      pollfd wanted{fd(), POLLIN, 0};
      if (poll(&wanted, 1, patienceMs) <= 0) return false;
      const ssize_t got = recv(fd(), at, size, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      at += got;
      size -= static_cast<std::size_t>(got);
    }
    return true;
  }
  bool say(const std::string& text) {
    const auto size = static_cast<std::uint32_t>(text.size());
    return put(&size, sizeof size) && put(text.data(), size);
  }

 private:
  Fd socket_;
};

class Child {
 public:
  explicit Child(const std::function<void(Channel&)>& body) : Child(newPair(), body) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { end(); }

  void tell(Order::What what, std::uint32_t seed = 0, std::uint32_t count = 0) {
    const Order order{what, seed, count};
    if (!channel_.put(&order, sizeof order)) throw std::runtime_error("a process has gone");
  }
  std::string answer() {
    std::uint32_t size = 0;
    std::string text;
    if (channel_.get(&size, sizeof size, kPatienceMs)) {
      text.resize(size);
      if (channel_.get(text.data(), size, kPatienceMs)) return text;
    }
    throw std::runtime_error("a process does not answer");
  }
  State state() {
    tell(Order::What::state);
    const std::string text = answer();
    State state;
    text.copy(reinterpret_cast<char*>(&state), sizeof state);
    words_ = text.substr(sizeof state);
    return state;
  }
  // What the process added to its latest state: empty unless something is wrong.
  const std::string& words() const { return words_; }
  std::string text() {
    tell(Order::What::text);
    return answer();
  }
  void killNow() {
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
  }

 private:
  Child(std::array<int, 2> ends, const std::function<void(Channel&)>& body)
      : channel_(Fd(ends[0])), pid_(fork()) {
    if (pid_ != 0) {
      ::close(ends[1]);
      if (pid_ < 0) throw std::runtime_error("fork");
      return;
    }
    // None of the test's other descriptors: their ends must be seen to close.
    close_range(3, static_cast<unsigned>(ends[1]) - 1, 0);
    close_range(static_cast<unsigned>(ends[1]) + 1, ~0U, 0);
    int status = 0;
    try {
      Channel channel{Fd(ends[1])};
      body(channel);
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "process of the test: %s\n", exception.what());
      status = 1;
    }
    // Of what the test has at its end nothing is this process's.
    std::_Exit(status);
  }
  static std::array<int, 2> newPair() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::runtime_error("socketpair");
    }
    return ends;
  }
  // The process sees its channel close and goes by itself; its loops are bounded.
  void end() {
    if (pid_ < 0) return;
    channel_.close();
    int status = 0;
    waitpid(pid_, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  }

  Channel channel_;
  pid_t pid_;
  std::string words_;
};

}  // namespace ControlTest
