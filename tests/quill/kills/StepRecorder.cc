// SPDX-License-Identifier: Apache-2.0
//
// The recorder that relies on nothing but the processor: the operation runs in a child process that
// is stopped after every single instruction, and after each the mapped files are compared with a
// copy, byte by byte, and after each system call the directory too. What is recorded is what the
// optimised code of the libraries really does, in the order in which it does it.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "tests/quill/kills/KillTrace.h"

#ifndef __x86_64__
#error "instructions are stepped through on x86-64 only"
#endif

namespace QuillTest {

namespace {

// More than any operation has; a child that does not come to its end is a failure.
constexpr std::uint64_t kMaxSteps = 50'000'000;

// The tracer's own view of the four files.
class Mappings {
 public:
  Mappings() = default;
  Mappings(const Mappings&) = delete;
  Mappings& operator=(const Mappings&) = delete;
  ~Mappings() { clear(); }

  void renew(const std::string& directory) {
    clear();
    for (unsigned file = 0; file < 4; ++file) {
      const std::string path = directory + "/" + Image::kNames[file];
      const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      struct stat status {};
      fstat(fd, &status);
      const auto size = static_cast<std::size_t>(status.st_size);
      void* const base = size == 0 ? MAP_FAILED : mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
      close(fd);
      if (base != MAP_FAILED) each_[file] = {static_cast<const char*>(base), size};
    }
  }
  // The store that made a file differ from `image`, which gets it too. False: none did.
  bool difference(Image& image, KillEvent& event) const {
    for (unsigned file = 0; file < 4; ++file) {
      const View& view = each_[file];
      if (view.base == nullptr) continue;
      const std::string& bytes = *image.mapped(file);
      if (std::memcmp(view.base, bytes.data(), view.size) == 0) continue;
      std::size_t first = 0;
      while (view.base[first] == bytes[first]) ++first;
      std::size_t last = view.size - 1;
      while (view.base[last] == bytes[last]) --last;
      if (first / 8 != last / 8) throw std::runtime_error("a store of more than one word");
      event = KillEvent();
      event.file = file;
      event.offset = static_cast<std::uint32_t>(first);
      event.size = static_cast<std::uint32_t>(last - first + 1);
      std::memcpy(event.bytes.data(), view.base + first, event.size);
      event.applyTo(image);
      return true;
    }
    return false;
  }

 private:
  struct View {
    const char* base = nullptr;
    std::size_t size = 0;
  };
  void clear() {
    for (View& view : each_) {
      if (view.base != nullptr) munmap(const_cast<char*>(view.base), view.size);
      view = View();
    }
  }
  std::array<View, 4> each_;
};

// The child, killed with this object.
class Stepped {
 public:
  Stepped(const std::function<void()>& prepare, const std::function<void()>& operate)
      : pid_(fork()) {
    if (pid_ < 0) throw std::runtime_error("no process");
    if (pid_ != 0) return;
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    try {
      prepare();
      raise(SIGSTOP);
      operate();
      raise(SIGSTOP);
    } catch (const std::exception& exception) {
      static_cast<void>(dprintf(2, "child: %s\n", exception.what()));
    }
    _exit(0);
  }
  Stepped(const Stepped&) = delete;
  Stepped& operator=(const Stepped&) = delete;
  ~Stepped() {
    if (ended_) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  // Whether the next instruction is a system call.
  bool atSystemCall() const {
    const long pc = ptrace(PTRACE_PEEKUSER, pid_, offsetof(user_regs_struct, rip), nullptr);
    const long code = ptrace(PTRACE_PEEKTEXT, pid_, pc, nullptr);
    return (code & 0xFFFF) == 0x050F;
  }
  // One instruction. False: it came to its next stop.
  bool step() {
    resume(PTRACE_SINGLESTEP);
    return WSTOPSIG(status_) != SIGSTOP;
  }
  void awaitStop() {
    wait();
    while (WSTOPSIG(status_) != SIGSTOP) resume(PTRACE_CONT);
  }

 private:
  void resume(__ptrace_request how) {
    const int signal = WSTOPSIG(status_);
    ptrace(how, pid_, nullptr, signal == SIGTRAP || signal == SIGSTOP ? 0 : signal);
    wait();
  }
  void wait() {
    waitpid(pid_, &status_, 0);
    ended_ = !WIFSTOPPED(status_);
    if (ended_) throw std::runtime_error("the stepped process came to its end");
  }
  pid_t pid_;
  int status_ = 0;
  bool ended_ = false;
};

}  // namespace

KillTrace recordKillTrace(const std::string& directory, const std::function<void()>& prepare,
                          const std::function<void()>& operate, const std::function<void()>&) {
  Stepped child(prepare, operate);
  child.awaitStop();
  KillTrace trace;
  trace.start = Image::of(directory);
  Image image = trace.start;
  Mappings mappings;
  mappings.renew(directory);
  bool systemCall = false;
  for (; systemCall = child.atSystemCall(), child.step(); ++trace.steps) {
    if (trace.steps == kMaxSteps) throw std::runtime_error("an operation does not end");
    KillEvent event;
    if (systemCall) {
      Image now = Image::of(directory);
      if (now == image) continue;
      event.files = std::make_shared<const Image>(now);
      image = std::move(now);
      mappings.renew(directory);
    } else if (!mappings.difference(image, event)) {
      continue;
    }
    trace.events.push_back(std::move(event));
  }
  if (!(Image::of(directory) == image)) throw std::runtime_error("the record is not complete");
  return trace;
}

const char* killRecorderCounts() { return "instructions"; }

}  // namespace QuillTest
