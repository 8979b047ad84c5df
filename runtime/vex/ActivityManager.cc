// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/ActivityManager.h"

#include <algorithm>
#include <utility>

#include "runtime/vex/Exception.h"

namespace Vex {

namespace {

thread_local ActivityManager* currentManager = nullptr;

void unlink(TaskLink& link) noexcept {
  link.taskPrev->taskNext = link.taskNext;
  link.taskNext->taskPrev = link.taskPrev;
  link.taskPrev = link.taskNext = &link;
}

// Moves the whole ring of `from` in front of what `to` holds.
void spliceToFront(TaskLink& to, TaskLink& from) noexcept {
  if (from.taskNext == &from) return;
  from.taskPrev->taskNext = to.taskNext;
  to.taskNext->taskPrev = from.taskPrev;
  to.taskNext = from.taskNext;
  from.taskNext->taskPrev = &to;
  from.taskPrev = from.taskNext = &from;
}

}  // namespace

CurrentActivityManager::CurrentActivityManager(ActivityManager& manager) noexcept
    : before_(std::exchange(currentManager, &manager)) {}

CurrentActivityManager::~CurrentActivityManager() { currentManager = before_; }

ActivityManager& activityManager() {
  if (currentManager == nullptr) {
    throwInternalException("no activity manager is current on this thread");
  }
  return *currentManager;
}

ActivityManager* currentActivityManager() noexcept { return currentManager; }

double now() { return activityManager().now(); }

void DeferredTask::schedule() noexcept {
  if (scheduled_) return;
  scheduled_ = true;
  TaskLink& ring = manager_.deferred_;
  taskPrev = ring.taskPrev;
  taskNext = &ring;
  taskPrev->taskNext = this;
  ring.taskPrev = this;
}

void DeferredTask::cancel() noexcept {
  if (!scheduled_) return;
  scheduled_ = false;
  unlink(*this);
}

ActivityManager::TurnScope::TurnScope(ActivityManager& manager)
    : manager_(manager), current_(manager) {
  if (manager.inTurn_) throwInternalException("a turn of the activity loop inside a turn");
  manager.inTurn_ = true;
}

ActivityManager::ActivityManager(Ptr<Clock const> clock)
    : clock_(validPtr(std::move(clock))), logService_(std::make_unique<LogService>()) {}

ActivityManager::~ActivityManager() {
  // A task may be destroyed after its manager: it must not find links into it.
  while (hasDeferred()) static_cast<DeferredTask*>(deferred_.taskNext)->cancel();
}

void ActivityManager::timerSourceIs(TimerSource& source) {
  if (std::find(sources_.begin(), sources_.end(), &source) != sources_.end()) {
    throwInternalException("the timer source is registered already");
  }
  sources_.push_back(&source);
}

void ActivityManager::timerSourceDel(TimerSource& source) noexcept {
  const auto found = std::find(sources_.begin(), sources_.end(), &source);
  if (found == sources_.end()) return;
  if (walkingSources_) {
    *found = nullptr;
  } else {
    sources_.erase(found);
  }
}

bool ActivityManager::runDeferred() {
  // What is scheduled from now on belongs to the next turn. The batch is a ring of its own, so a
  // task that is cancelled or destroyed meanwhile takes itself off it.
  struct Batch {
    TaskLink ring;
    TaskLink& home;
    ~Batch() { spliceToFront(home, ring); }  // what an exception kept from running
  } batch{{}, deferred_};
  spliceToFront(batch.ring, deferred_);
  const bool any = batch.ring.taskNext != &batch.ring;
  while (batch.ring.taskNext != &batch.ring) {
    auto* task = static_cast<DeferredTask*>(batch.ring.taskNext);
    task->cancel();
    task->run();  // may destroy the task
  }
  return any;
}

double ActivityManager::nextDue() {
  double due = kNever;
  for (TimerSource* source : sources_) {
    if (source != nullptr) due = std::min(due, source->nextDue());
  }
  return due;
}

bool ActivityManager::runTimers(double now) {
  struct Walk {
    ActivityManager& manager;
    explicit Walk(ActivityManager& m) : manager(m) { m.walkingSources_ = true; }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    ~Walk() {
      manager.walkingSources_ = false;
      std::erase(manager.sources_, nullptr);
    }
  } const walk(*this);
  bool any = false;
  const std::size_t count = sources_.size();
  for (std::size_t i = 0; i < count; ++i) {
    TimerSource* source = sources_[i];
    if (source == nullptr || source->nextDue() > now) continue;
    any = true;
    source->runDue(now);  // may withdraw and destroy any source
  }
  return any;
}

}  // namespace Vex
