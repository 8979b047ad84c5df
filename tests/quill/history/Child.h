// SPDX-License-Identifier: Apache-2.0
//
// A process that a test starts by fork, and a pipe by which it tells the test something. Belongs to
// the test's thread, the only one of its process.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

#include "tests/quill/history/TableModel.h"

namespace QuillTest {

class Child {
 public:
  static constexpr int kLimit = 60'000;  // milliseconds that a wait lasts at most

  // What `work` raises is printed and makes the exit status 1; else it is 0.
  explicit Child(const std::function<void(int socket)>& work) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) wrong("no socket");
    pid_ = fork();
    if (pid_ < 0) wrong("no process");
    socket_ = ends[0];
    if (pid_ != 0) {
      close(ends[1]);
      return;
    }
    close(ends[0]);
    int status = 0;
    try {
      work(ends[1]);
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "child: %s\n", exception.what());
      status = 1;
    }
    _exit(status);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (!ended_) kill();
    close(socket_);
  }

  int socket() const { return socket_; }
  // False: the time is up, or the other end is closed.
  static bool readable(int socket, int limit = kLimit) {
    pollfd entry{socket, POLLIN, 0};
    return awaited(entry, limit) && (entry.revents & POLLIN) != 0;
  }
  // Waits for the child to say anything.
  void await() const {
    char byte = 0;
    if (!readable(socket_) || read(socket_, &byte, 1) != 1) wrong("a child does not answer");
  }
  static void tell(int socket) {
    if (write(socket, "!", 1) != 1) wrong("nobody to tell");
  }
  void kill() {
    signal(SIGKILL);
    end();
  }
  void signal(int number) const { ::kill(pid_, number); }
  // Whether it has ended by itself, or does within so many milliseconds.
  bool ended(int limit) const {
    pollfd entry{socket_, 0, 0};  // POLLHUP
    return awaited(entry, limit);
  }
  // Waits for the end, which the closing of the child's socket announces, and answers the exit
  // status, or -1 for an end by a signal.
  int end() {
    if (ended_) return status_;
    pollfd entry{socket_, 0, 0};  // POLLHUP
    if (!awaited(entry, kLimit)) {
      ::kill(pid_, SIGKILL);
      std::fprintf(stderr, "a child did not end\n");
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return status_;
  }

 private:
  // A signal, such as the one that ends a run, begins the wait anew.
  static bool awaited(pollfd& entry, int limit) {
    int answer = 0;
    do {
      answer = poll(&entry, 1, limit);
    } while (answer < 0 && errno == EINTR);
    return answer == 1;
  }

  pid_t pid_ = -1;
  int socket_ = -1;
  bool ended_ = false;
  int status_ = -1;
};

}  // namespace QuillTest
