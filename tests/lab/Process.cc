// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace RingwardLab {

namespace {

// Everything the new process needs, laid out before fork: other threads of this process may hold
// the allocator's lock at that moment.
struct Plan {
  std::vector<char*> argv;
  std::string run;
  std::string lib;
  std::string shm;
  int output = -1;
};

[[noreturn]] void giveUp(const char* what) {
  const char* why = strerrordesc_np(errno);
  for (const char* text : {what, ": ", why != nullptr ? why : "unknown error", "\n"}) {
    [[maybe_unused]] const auto written = write(STDERR_FILENO, text, std::strlen(text));
  }
  _exit(127);
}

// Between fork and exec: system calls only.
[[noreturn]] void become(const Plan& plan) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(plan.output, STDOUT_FILENO);
  dup2(plan.output, STDERR_FILENO);
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  if (unshare(CLONE_NEWNS) < 0) {
    giveUp("mount namespace");
  }
  // Programs that look into /sys should see their host; those that do not run without it as well.
  mount("sysfs", "/sys", "sysfs", 0, nullptr);
  const struct {
    const std::string& from;
    const char* to;
  } views[] = {{plan.lib, "/var/lib"}, {plan.shm, "/dev/shm"}, {plan.run, "/run"}};
  for (const auto& view : views) {
    if (mount(view.from.c_str(), view.to, nullptr, MS_BIND, nullptr) < 0 && errno != ENOENT) {
      giveUp(view.to);
    }
  }
  execv(plan.argv[0], plan.argv.data());
  giveUp(plan.argv[0]);
}

}  // namespace

Process::Process(const Lab& lab, const std::string& host,
                 const std::vector<std::string>& arguments) {
  Plan plan;
  for (const std::string& argument : arguments) {
    plan.argv.push_back(const_cast<char*>(argument.c_str()));
  }
  plan.argv.push_back(nullptr);
  plan.run = lab.directory(host) + "/run";
  plan.lib = lab.directory(host) + "/lib";
  plan.shm = lab.directory(host) + "/shm";
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) {
    throw std::system_error(errno, std::generic_category(), "making a pipe");
  }
  plan.output = ends[1];
  startedAt_ = Clock::now();
  lab.inHost(host, [&] {
    pid_ = fork();
    if (pid_ == 0) {
      become(plan);
    }
  });
  close(ends[1]);
  output_ = ends[0];
  if (pid_ < 0) {
    close(output_);
    throw std::system_error(EAGAIN, std::generic_category(), "starting " + arguments[0]);
  }
  thread_ = std::thread([this] { run(); });
}

Process::~Process() {
  if (!status_) {
    kill(pid_, SIGKILL);
    reap(Milliseconds(10'000));
  }
  thread_.join();
  close(output_);
}

void Process::run() {
  std::string rest;
  char buffer[4096];
  for (;;) {
    const ssize_t size = read(output_, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR) {
      continue;
    }
    const auto now = Clock::now();
    const std::lock_guard lock(mutex_);
    if (size <= 0) {
      if (!rest.empty()) {
        lines_.push_back({now, rest});
      }
      ended_ = true;
      changed_.notify_all();
      return;
    }
    rest.append(buffer, static_cast<std::size_t>(size));
    for (std::size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
      lines_.push_back({now, rest.substr(0, end)});
      rest.erase(0, end + 1);
    }
    changed_.notify_all();
  }
}

std::vector<Line> Process::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::string Process::output() const {
  std::string result;
  for (const Line& line : lines()) {
    result += line.text + "\n";
  }
  return result;
}

std::optional<Line> Process::waitLine(const Wanted& wanted, Milliseconds limit,
                                      std::size_t count) const {
  std::unique_lock lock(mutex_);
  std::size_t looked = 0;
  std::optional<Line> found;
  changed_.wait_until(lock, Clock::now() + limit, [&] {
    for (; looked < lines_.size() && !found; ++looked) {
      if (wanted(lines_[looked].text) && --count == 0) {
        found = lines_[looked];
      }
    }
    return found || ended_;
  });
  return found;
}

bool Process::reap(Milliseconds limit) {
  if (status_) {
    return true;
  }
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  pollfd poller{handle, POLLIN, 0};
  const auto deadline = Clock::now() + limit;
  for (auto left = limit; left.count() >= 0;
       left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now())) {
    if (poll(&poller, 1, static_cast<int>(left.count())) >= 0 || errno != EINTR) {
      break;
    }
  }
  close(handle);
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = status;
  }
  return status_.has_value();
}

bool Process::running() { return !reap(Milliseconds(0)); }

void Process::signal(int signal) const { kill(pid_, signal); }

std::string Process::end(int signal, Milliseconds limit) {
  if (running()) {
    kill(pid_, signal);
  }
  if (!reap(limit)) {
    return "still running";
  }
  if (WIFSIGNALED(*status_)) {
    return std::string("signal ") + strsignal(WTERMSIG(*status_));
  }
  return "exit " + std::to_string(WEXITSTATUS(*status_));
}

std::chrono::nanoseconds Process::cpuTime() const {
  clockid_t clock{};
  timespec used{};
  if (const int error = clock_getcpuclockid(pid_, &clock);
      error != 0 || clock_gettime(clock, &used) != 0) {
    throw std::system_error(error != 0 ? error : errno, std::generic_category(),
                            "reading the processor time of a program");
  }
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

std::size_t Process::descriptors() const {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid_) + "/fd");
  return static_cast<std::size_t>(
      std::distance(std::filesystem::begin(all), std::filesystem::end(all)));
}

bool Process::realtime() const {
  const int policy = sched_getscheduler(pid_) & ~SCHED_RESET_ON_FORK;
  return policy == SCHED_RR || policy == SCHED_FIFO;
}

std::size_t Process::ownKiB() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string word; status >> word;) {
    std::size_t size = 0;
    if (word == "RssAnon:" && status >> size) {
      return size;
    }
  }
  throw std::runtime_error("the system does not tell the memory of a program");
}

}  // namespace RingwardLab
