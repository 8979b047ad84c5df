// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Isolation.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "tests/lab/Command.h"

namespace RingwardLab {

namespace {

// Why the child may not do what the lab needs; told to the parent as such, not as a failure.
class Refused : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

void require(bool done, const std::string& what) {
  if (!done) {
    throw Refused(what + ": " + std::strerror(errno));
  }
}

void writeFile(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  require(fd >= 0, std::string("opening ") + path);
  const ssize_t written = write(fd, text.data(), text.size());
  const int error = errno;
  close(fd);
  errno = error;
  require(written == static_cast<ssize_t>(text.size()), std::string("writing ") + path);
}

void enterNamespaces() {
  constexpr int kSpaces = CLONE_NEWNET | CLONE_NEWNS;
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  // Root may still lack the right, in a container for one; a user namespace may then be allowed.
  if (uid != 0 || unshare(kSpaces) < 0) {
    require(unshare(kSpaces | CLONE_NEWUSER) == 0,
            "no network namespaces, neither as root nor in a user namespace: unshare");
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "making mounts private");
  require(mount("lab", "/run", "tmpfs", 0, "mode=755") == 0, "mounting a private /run");
  // The tools stand where a plain user's PATH does not look.
  const char* path = std::getenv("PATH");
  setenv("PATH",
         ((path != nullptr ? path : "/usr/bin:/bin") + std::string(":/usr/sbin:/sbin")).c_str(), 1);
  try {
    runCommand({"ip", "link", "add", "labprobe0", "type", "veth", "peer", "name", "labprobe1"});
    runCommand({"ip", "link", "add", "labprobe2", "type", "bridge", "stp_state", "0"});
    runCommand({"ip", "link", "del", "labprobe0"});
    runCommand({"ip", "link", "del", "labprobe2"});
    runCommand({"bridge", "-V"});
  } catch (const std::exception& error) {
    throw Refused(std::string("veth pairs and bridges are needed: ") + error.what());
  }
}

// What goes over the pipe: a header, then the file's name, then the text.
struct Record {
  std::uint32_t kind;
  std::int32_t line;
  std::uint32_t fileSize;
  std::uint32_t textSize;
};
constexpr std::uint32_t kRefusal = 100;
constexpr std::uint32_t kReturned = 101;

void sendRecord(int fd, std::uint32_t kind, const Finding& finding) {
  const Record record{kind, finding.line, static_cast<std::uint32_t>(finding.file.size()),
                      static_cast<std::uint32_t>(finding.text.size())};
  std::string bytes(reinterpret_cast<const char*>(&record), sizeof record);
  bytes += finding.file;
  bytes += finding.text;
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return;  // The parent has gone; so will this process.
    }
    done += static_cast<std::size_t>(written);
  }
}

[[noreturn]] void runChild(int fd, const std::function<int(const Report&)>& body) {
  const auto failure = [&](const std::string& text) {
    sendRecord(fd, static_cast<std::uint32_t>(Finding::Kind::kFailure),
               {Finding::Kind::kFailure, __FILE__, __LINE__, text});
  };
  setpgid(0, 0);
  signal(SIGPIPE, SIG_IGN);
  try {
    enterNamespaces();
    // After unshare: a change of credentials clears it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int status = body([fd](const Finding& finding) {
      sendRecord(fd, static_cast<std::uint32_t>(finding.kind), finding);
    });
    sendRecord(fd, kReturned, {Finding::Kind::kFailure, "", status, ""});
  } catch (const Refused& refused) {
    sendRecord(fd, kRefusal, {Finding::Kind::kSkip, "", 0, refused.what()});
  } catch (const std::exception& error) {
    failure(std::string("an exception ended the run: ") + error.what());
  }
  std::fflush(nullptr);
  _exit(0);
}

// Appends what arrives until the other end is closed; false at the deadline.
bool readUntilClosed(int fd, std::chrono::steady_clock::time_point deadline, std::string& bytes) {
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return false;
    }
    pollfd poller{fd, POLLIN, 0};
    if (poll(&poller, 1, static_cast<int>(left.count())) <= 0) {
      continue;
    }
    char buffer[4096];
    const ssize_t size = read(fd, buffer, sizeof buffer);
    if (size == 0) {
      return true;
    }
    if (size > 0) {
      bytes.append(buffer, static_cast<std::size_t>(size));
    }
  }
}

bool takeRecords(std::string bytes, Outcome& outcome) {
  bool returned = false;
  Record record{};
  while (bytes.size() >= sizeof record) {
    std::memcpy(&record, bytes.data(), sizeof record);
    if (bytes.size() < sizeof record + record.fileSize + record.textSize) {
      break;
    }
    Finding finding;
    finding.line = record.line;
    finding.file = bytes.substr(sizeof record, record.fileSize);
    finding.text = bytes.substr(sizeof record + record.fileSize, record.textSize);
    if (record.kind == kRefusal) {
      outcome.permitted = false;
      outcome.refusal = finding.text;
    } else if (record.kind == kReturned) {
      returned = true;
      outcome.exitStatus = record.line;
    } else {
      finding.kind = static_cast<Finding::Kind>(record.kind);
      outcome.findings.push_back(finding);
    }
    bytes.erase(0, sizeof record + record.fileSize + record.textSize);
  }
  return returned;
}

}  // namespace

Outcome runIsolated(const std::function<int(const Report& report)>& body,
                    std::chrono::milliseconds limit) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) {
    throw std::system_error(errno, std::generic_category(), "making a pipe");
  }
  std::fflush(nullptr);  // Or the child would write what is still buffered here once more.
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const pid_t child = fork();
  if (child < 0) {
    throw std::system_error(errno, std::generic_category(), "starting a process");
  }
  if (child == 0) {
    close(ends[0]);
    runChild(ends[1], body);
  }
  setpgid(child, child);  // Here too: whichever comes first.
  close(ends[1]);
  std::string bytes;
  const bool closed = readUntilClosed(ends[0], deadline, bytes);
  if (!closed) {
    kill(-child, SIGKILL);
  }
  close(ends[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  Outcome outcome;
  const bool returned = takeRecords(std::move(bytes), outcome);
  if (!closed) {
    outcome.ending = "killed at the time limit of " + std::to_string(limit.count()) + " ms";
  } else if (WIFSIGNALED(status)) {
    outcome.ending = std::string("ended by signal ") + strsignal(WTERMSIG(status));
  } else if (outcome.permitted && outcome.findings.empty() && !returned) {
    outcome.ending = "exited before its body had returned";
  }
  return outcome;
}

}  // namespace RingwardLab
