// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace RingwardLab {

std::string runCommand(const std::vector<std::string>& arguments) {
  std::string line;
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    line += (line.empty() ? "" : " ") + argument;
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) {
    throw std::runtime_error(line + ": no pipe: " + std::strerror(errno));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::string output;
  char buffer[4096];
  for (;;) {
    const ssize_t size = read(ends[0], buffer, sizeof buffer);
    if (size > 0) {
      output.append(buffer, static_cast<std::size_t>(size));
    } else if (size == 0 || errno != EINTR) {
      break;
    }
  }
  close(ends[0]);
  if (error != 0) {
    throw std::runtime_error(line + ": cannot be started: " + std::strerror(error));
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(line + ": failed with wait status " + std::to_string(status) + ": " +
                             output);
  }
  return output;
}

}  // namespace RingwardLab
