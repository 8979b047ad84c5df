// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/kills/CheckerProcess.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace QuillTest {

CheckerProcess::CheckerProcess() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::runtime_error("no socket for the checker");
  }
  pid_ = fork();
  if (pid_ == 0) {
    dup2(ends[1], 0);
    dup2(ends[1], 1);
    execlp("python3", "python3", "-B", QUILL_CHECK_MANY, QUILL_CHECKER_DIR, "intf",
           static_cast<char*>(nullptr));
    _exit(127);
  }
  close(ends[1]);
  socket_ = ends[0];
  if (pid_ < 0) throw std::runtime_error("no process for the checker");
}

CheckerProcess::~CheckerProcess() {
  close(socket_);
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::string CheckerProcess::judge(const std::string& directory) {
  const std::string line = directory + "\n";
  if (send(socket_, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
    throw std::runtime_error("the checker does not listen");
  }
  std::string answer;
  while (answer.empty() || answer.back() != '\n') {
    std::array<char, 4096> buffer{};
    const ssize_t got = read(socket_, buffer.data(), buffer.size());
    if (got <= 0) throw std::runtime_error("the checker does not answer");
    answer.append(buffer.data(), static_cast<std::size_t>(got));
  }
  answer.pop_back();
  return answer;
}

}  // namespace QuillTest
