// SPDX-License-Identifier: Apache-2.0
#include "agent/LineWriter.h"

#include <signal.h>
#include <syslog.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace Agent {

struct LineWriter::Shared {
  Write write;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Line> lines;
  std::uint64_t dropped = 0;  // since the last line that stands in `lines`
  bool writing = false;       // the thread is at a line that it has taken out
  bool ending = false;
};

LineWriter::LineWriter(Write write) : shared_(std::make_shared<Shared>()) {
  shared_->write = std::move(write);
  // The signals belong to the activity thread's signalfd, whether or not it has blocked them yet.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([shared = shared_] { run(shared); }).detach();
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

LineWriter::~LineWriter() {
  std::unique_lock lock(shared_->mutex);
  shared_->ending = true;
  shared_->changed.notify_all();
  shared_->changed.wait_for(lock, patience_, [this] {
    return shared_->lines.empty() && !shared_->writing && shared_->dropped == 0;
  });
}

void LineWriter::lineIs(Line line) {
  const std::lock_guard lock(shared_->mutex);
  if (shared_->lines.size() >= kMostLines || shared_->dropped != 0) {
    ++shared_->dropped;
    return;
  }
  shared_->lines.push_back(std::move(line));
  shared_->changed.notify_all();
}

void LineWriter::run(const std::shared_ptr<Shared>& shared) {
  std::unique_lock lock(shared->mutex);
  for (;;) {
    shared->changed.wait(lock, [&] { return !shared->lines.empty() || shared->ending; });
    if (shared->lines.empty()) return;
    const Line line = std::move(shared->lines.front());
    shared->lines.pop_front();
    shared->writing = true;
    lock.unlock();
    shared->write(line);
    lock.lock();
    shared->writing = false;
    // Only now: what comes behind the gap has to stand behind its line.
    if (shared->lines.empty() && shared->dropped != 0) {
      shared->lines.push_back(
          {LOG_WARNING,
           "warning: " + std::to_string(std::exchange(shared->dropped, 0)) +
               " lines are missing here: they came faster than they could be written"});
    }
    shared->changed.notify_all();
  }
}

}  // namespace Agent
