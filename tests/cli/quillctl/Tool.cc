// SPDX-License-Identifier: Apache-2.0
#include "tests/cli/quillctl/Tool.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <fstream>

#include "quill/RootPath.h"

namespace QuillctlTest {

namespace {

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// What there is to read; false at the end.
bool readSome(int fd, std::string& into) {
  std::array<char, 65'536> buffer{};
  const ssize_t got = read(fd, buffer.data(), buffer.size());
  if (got <= 0) return false;
  into.append(buffer.data(), static_cast<std::size_t>(got));
  return true;
}

}  // namespace

Root::Root() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quillctl-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "no directory " << pattern;
  path_ = pattern;
  std::filesystem::permissions(path_, std::filesystem::perms(0755));
}

Root::~Root() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string Root::table(std::string_view name) const { return Quill::tablePath(path_, name); }

std::string Root::file(std::string_view name, std::string_view file) const {
  return table(name) + "/" + std::string(file);
}

void Root::spoil(std::string_view name, std::string_view file, std::uint64_t offset,
                 std::uint32_t value) const {
  std::fstream stream(this->file(name, file), std::ios::in | std::ios::out | std::ios::binary);
  stream.seekp(static_cast<std::streamoff>(offset));
  std::array<char, 4> bytes{};
  std::memcpy(bytes.data(), &value, bytes.size());
  stream.write(bytes.data(), bytes.size());
  stream.close();
  EXPECT_TRUE(stream.good()) << name << "/" << file;
}

Outcome Root::run(const std::vector<std::string>& arguments, std::string_view input) const {
  Running running(*this, arguments);
  running.say(input);
  return running.end();
}

std::string Root::done(const std::vector<std::string>& arguments, std::string_view input) const {
  const Outcome outcome = run(arguments, input);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  return outcome.out;
}

Running::Running(const Root& root, std::vector<std::string> arguments) {
  const char* const program = std::getenv("QUILLCTL");
  if (program == nullptr) {
    ADD_FAILURE() << "QUILLCTL names no program";
    return;
  }
  ::signal(SIGPIPE, SIG_IGN);  // a program that ends early leaves some of its input
  std::vector<std::string> all{program, "--root", root.path()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& argument : all) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::array<std::array<int, 2>, 3> pipes{};
  for (auto& ends : pipes) EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(pipes[0][0], STDIN_FILENO);
    dup2(pipes[1][1], STDOUT_FILENO);
    dup2(pipes[2][1], STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipes[0][0]);
  close(pipes[1][1]);
  close(pipes[2][1]);
  in_ = pipes[0][1];
  out_ = pipes[1][0];
  err_ = pipes[2][0];
}

Running::~Running() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  closeFd(in_);
  closeFd(out_);
  closeFd(err_);
}

std::string Running::line() {
  std::size_t end = 0;
  while ((end = unread_.find('\n')) == std::string::npos) {
    if (!readSome(out_, unread_)) return "(end)";
  }
  const std::string text = unread_.substr(0, end);
  unread_.erase(0, end + 1);
  return text;
}

void Running::say(std::string_view text) const {
  while (!text.empty()) {
    const ssize_t done = write(in_, text.data(), text.size());
    if (done <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(done));
  }
}

void Running::signal(int number) const { EXPECT_EQ(kill(pid_, number), 0); }

Outcome Running::end() {
  closeFd(in_);
  Outcome outcome;
  outcome.out = std::move(unread_);
  bool out = true;
  bool err = true;
  while (out || err) {
    std::array<pollfd, 2> wanted{{{out ? out_ : -1, POLLIN, 0}, {err ? err_ : -1, POLLIN, 0}}};
    poll(wanted.data(), wanted.size(), -1);
    if (wanted[0].revents != 0) out = readSome(out_, outcome.out);
    if (wanted[1].revents != 0) err = readSome(err_, outcome.err);
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  return outcome;
}

}  // namespace QuillctlTest
