// SPDX-License-Identifier: Apache-2.0
#include "bench/store/Shared.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

namespace StoreBench {

std::unique_ptr<SharedPage, void (*)(SharedPage*)> newSharedPage() {
  void* const memory =
      mmap(nullptr, sizeof(SharedPage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return {new (memory) SharedPage, [](SharedPage* page) { munmap(page, sizeof *page); }};
}

std::uint64_t nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
         static_cast<std::uint64_t>(now.tv_nsec);
}

void processorIs(unsigned which) {
  static const cpu_set_t allowed = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  unsigned number = which % static_cast<unsigned>(CPU_COUNT(&allowed));
  for (unsigned processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (!CPU_ISSET(processor, &allowed) || number-- != 0) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    sched_setaffinity(0, sizeof one, &one);
    return;
  }
}

Helper::Helper(const std::function<void()>& work) : pid_(fork()) {
  if (pid_ < 0) throw std::bad_alloc();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    processorIs(1);
    try {
      work();
    } catch (const std::exception& exception) {
      std::fprintf(stderr, "SharedBench: helper: %s\n", exception.what());
    }
    _exit(0);
  }
  const std::string path = "/proc/" + std::to_string(pid_) + "/stat";
  status_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

Helper::~Helper() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  close(status_);
}

bool Helper::asleep() const {
  std::array<char, 256> text{};
  const ssize_t size = pread(status_, text.data(), text.size() - 1, 0);
  if (size <= 0) return false;
  // The state follows the name, which stands in brackets.
  const char* const name = std::strrchr(text.data(), ')');
  return name != nullptr && name[1] == ' ' && name[2] == 'S';
}

void follow(SharedPage& page, unsigned number, const std::string& table, bool stamping) {
  struct Listener {
    void notify(const IntfId&) {
      if (!stamping) return;
      page.stamp = nanoseconds();
      ++page.seen[number];
    }
    SharedPage& page;
    unsigned number;
    bool stamping;
  };
  Vex::EpollActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  Listener listener{page, number, stamping};
  Quill::QuillMap<IntfId, Record, Listener> shadow(table, "bench");
  shadow.notifierIs(&listener);
  shadow.init(Quill::QuillType::shadow, false, 0);
  for (;;) {
    loop.runTurn(1.0);
    if (!stamping) page.seen[number] = shadow.sequence();
  }
}

void writeForever(SharedPage& page, const std::string& table, const Keys& keys) {
  Vex::EpollActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  Sable::Platform::DebugHandler handler{"bench"};
  QuillWriter writer(handler, table.c_str(), static_cast<unsigned>(keys.count()), false, "bench");
  writer.initialize();
  for (const IntfId& key : keys.present) writer.write({key, 0, 0, 0}, true);
  page.ready = true;
  for (std::uint32_t value = 1;; ++value) {
    for (std::size_t i = 0; i < keys.count(); ++i) {
      while (!page.go) loop.runTurn(0.001);
      writer.write({keys.present[i], value, value, value}, true);
      if (i % 1'024 == 0) loop.runTurn(0);
      ++page.work;
    }
  }
}

FollowedTable::FollowedTable(std::size_t records, unsigned shadows, bool stamping)
    : helpers_([&] {
        std::vector<std::unique_ptr<Helper>> made;
        for (unsigned i = 0; i < shadows; ++i) {
          made.push_back(std::make_unique<Helper>([this, i, stamping] {
            if (await([this] { return page_->ready.load(); }, sched_yield)) {
              follow(*page_, i, name_, stamping);
            }
          }));
        }
        return made;
      }()),
      current_(loop_) {
  processorIs(0);
  writer_ = std::make_unique<QuillWriter>(handler_, name_.c_str(), static_cast<unsigned>(records),
                                          false, "bench");
  writer_->initialize();
  page_->ready = true;
  if (!await([&] { return writer_->connectedReaders() == shadows; }, [this] { turn(); })) {
    error_ = "the shadows do not connect";
  }
}

FollowedTable::~FollowedTable() {
  helpers_.clear();
  writer_->detach();
  writer_->cleanup();
}

bool FollowedTable::settle() {
  return await(
      [this] {
        for (std::size_t i = 0; i < helpers_.size(); ++i) {
          if (page_->seen[i] != writer_->sequence()) return false;
        }
        return true;
      },
      [this] { turn(); });
}

}  // namespace StoreBench
