// SPDX-License-Identifier: Apache-2.0
//
// The turn of the activity loop and the virtual time of VirtualActivityManager.
#include "runtime/vex/ActivityManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "runtime/vex/VirtualActivityManager.h"
#include "tests/runtime/AllocationCount.h"

namespace {

using Vex::kNever;

class Task final : public Vex::DeferredTask {
 public:
  Task(Vex::ActivityManager& manager, std::function<void()> work)
      : DeferredTask(manager), work_(std::move(work)) {}
  void run() override {
    ++runs;
    work_();
  }
  int runs = 0;

 private:
  std::function<void()> work_;
};

class Source final : public Vex::TimerSource {
 public:
  Source(double dueTime, std::function<void(Source&)> work)
      : due(dueTime), work_(std::move(work)) {}
  double nextDue() override { return due; }
  void runDue(double now) override {
    ranAt.push_back(now);
    due = kNever;
    work_(*this);
  }
  double due;
  std::vector<double> ranAt;

 private:
  std::function<void(Source&)> work_;
};

class SocketPair final : public Vex::ReadableHandler {
 public:
  explicit SocketPair(std::function<void()> work = {}) : work_(std::move(work)) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair");
    }
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair() {
    close(ends[0]);
    close(ends[1]);
  }
  void put() const { ASSERT_EQ(write(ends[1], "x", 1), 1); }
  void onReadable() override {
    ++reads;
    char byte = 0;
    if (takes) {
      EXPECT_EQ(read(ends[0], &byte, 1), 1);
    }
    if (work_) work_();
  }
  int ends[2] = {-1, -1};
  int reads = 0;
  bool takes = true;

 private:
  std::function<void()> work_;
};

class ActivityManagerTest : public testing::Test {
 protected:
  std::function<void()> note(const std::string& what) {
    return [this, what] { order.push_back(what); };
  }
  std::function<void(Source&)> noteSource(const std::string& what) {
    return [this, what](Source&) { order.push_back(what); };
  }

  Vex::VirtualActivityManager manager;
  std::vector<std::string> order;
};

TEST_F(ActivityManagerTest, NoCurrentManagerIsAnInternalException) {
  EXPECT_EQ(Vex::currentActivityManager(), nullptr);
  EXPECT_THROW(Vex::activityManager(), Vex::InternalException);
  EXPECT_THROW(Vex::now(), Vex::InternalException);
}

TEST_F(ActivityManagerTest, CurrentManagersNest) {
  Vex::VirtualActivityManager inner(5.0);
  const Vex::CurrentActivityManager outerScope(manager);
  {
    const Vex::CurrentActivityManager innerScope(inner);
    EXPECT_EQ(&Vex::activityManager(), &inner);
    EXPECT_EQ(Vex::now(), 5.0);
  }
  EXPECT_EQ(&Vex::activityManager(), &manager);
  EXPECT_EQ(Vex::now(), 1000.0);
}

TEST_F(ActivityManagerTest, ManagerIsCurrentDuringItsTurnOnly) {
  Vex::ActivityManager* seen = nullptr;
  Task task(manager, [&] { seen = &Vex::activityManager(); });
  task.schedule();
  manager.runTurn();
  EXPECT_EQ(seen, &manager);
  EXPECT_EQ(Vex::currentActivityManager(), nullptr);
}

TEST_F(ActivityManagerTest, ConfigGivesTheManagersClock) {
  EXPECT_EQ(Vex::ActivityManagerConfig(manager).clock(), manager.clock());
  EXPECT_EQ(&Vex::ActivityConfig(manager).manager(), &manager);
}

TEST_F(ActivityManagerTest, TurnRunsTasksThenTimersThenDescriptors) {
  SocketPair pair(note("descriptor"));
  manager.readableIs(pair.ends[0], pair);
  pair.put();
  Source first(1000.0, noteSource("first source"));
  Source second(999.0, noteSource("second source"));
  manager.timerSourceIs(first);
  manager.timerSourceIs(second);
  Task task(manager, note("task"));
  task.schedule();
  EXPECT_TRUE(manager.runTurn());
  EXPECT_EQ(order,
            (std::vector<std::string>{"task", "first source", "second source", "descriptor"}));
  EXPECT_FALSE(manager.runTurn());
  manager.readableDel(pair.ends[0]);
}

TEST_F(ActivityManagerTest, TaskRunsOnceForManySchedules) {
  Task task(manager, [] {});
  task.schedule();
  task.schedule();
  EXPECT_TRUE(task.scheduled());
  manager.runTurn();
  EXPECT_FALSE(task.scheduled());
  manager.runTurn();
  EXPECT_EQ(task.runs, 1);
}

TEST_F(ActivityManagerTest, TaskScheduledInATurnRunsInTheNext) {
  Task second(manager, [] {});
  Task first(manager, [&] { second.schedule(); });
  first.schedule();
  manager.runTurn();
  EXPECT_EQ(second.runs, 0);
  manager.runTurn();
  EXPECT_EQ(second.runs, 1);
}

TEST_F(ActivityManagerTest, TaskMayCancelAndDestroyOthersOfItsTurn) {
  auto destroyed = std::make_unique<Task>(manager, [] { FAIL(); });
  Task cancelled(manager, [] {});
  Task first(manager, [&] {
    destroyed.reset();
    cancelled.cancel();
  });
  Task last(manager, [] {});
  first.schedule();
  destroyed->schedule();
  cancelled.schedule();
  last.schedule();
  manager.runTurn();
  EXPECT_EQ(cancelled.runs, 0);
  EXPECT_EQ(last.runs, 1);
  EXPECT_FALSE(manager.runTurn());
}

TEST_F(ActivityManagerTest, TaskMayDestroyItself) {
  std::unique_ptr<Task> task;
  task = std::make_unique<Task>(manager, [&] { task.reset(); });
  task->schedule();
  EXPECT_TRUE(manager.runTurn());
  EXPECT_EQ(task, nullptr);
}

TEST_F(ActivityManagerTest, TaskMayOutliveItsManager) {
  auto shortLived = std::make_unique<Vex::VirtualActivityManager>();
  Task task(*shortLived, [] {});
  task.schedule();
  shortLived.reset();
  EXPECT_FALSE(task.scheduled());
}

TEST_F(ActivityManagerTest, SchedulingAllocatesNothing) {
  Task task(manager, [] {});
  const AllocationCount allocations;
  for (int i = 0; i < 10; ++i) {
    task.schedule();
    manager.runTurn();
  }
  EXPECT_EQ(allocations.sinceThen(), 0u);
}

TEST_F(ActivityManagerTest, ExceptionOfATaskLeavesTheOthersForTheNextTurn) {
  Task bad(manager, [] { throw std::runtime_error("task"); });
  Task next(manager, note("next"));
  Task later(manager, note("later"));
  bad.schedule();
  next.schedule();
  EXPECT_THROW(manager.runTurn(), std::runtime_error);
  later.schedule();
  manager.runTurn();
  EXPECT_EQ(bad.runs, 1);
  EXPECT_EQ(order, (std::vector<std::string>{"next", "later"}));
}

TEST_F(ActivityManagerTest, ExceptionOfASourceDoesNotSpoilTheWalks) {
  Source other(kNever, noteSource("other"));
  Source bad(1000.0, [&](Source& self) {
    manager.timerSourceDel(self);
    throw std::runtime_error("source");
  });
  manager.timerSourceIs(bad);
  manager.timerSourceIs(other);
  EXPECT_THROW(manager.runTurn(), std::runtime_error);
  other.due = 1001.0;
  manager.runUntil(1001.0);
  EXPECT_EQ(order, (std::vector<std::string>{"other"}));
  EXPECT_NO_THROW(manager.timerSourceIs(bad));
}

TEST_F(ActivityManagerTest, TurnInsideATurnIsAnInternalException) {
  Task task(manager, [&] { manager.runTurn(); });
  task.schedule();
  EXPECT_THROW(manager.runTurn(), Vex::InternalException);
  EXPECT_FALSE(manager.runTurn());
}

TEST_F(ActivityManagerTest, TurnOfAnotherManagerInsideATurnIsAllowed) {
  Vex::VirtualActivityManager inner;
  Task innerTask(inner, [] {});
  innerTask.schedule();
  Task task(manager, [&] {
    inner.runTurn();
    EXPECT_EQ(&Vex::activityManager(), &manager);
  });
  task.schedule();
  manager.runTurn();
  EXPECT_EQ(innerTask.runs, 1);
}

TEST_F(ActivityManagerTest, RegisteringASourceTwiceIsAnInternalException) {
  Source source(kNever, noteSource(""));
  manager.timerSourceIs(source);
  EXPECT_THROW(manager.timerSourceIs(source), Vex::InternalException);
  manager.timerSourceDel(source);
  manager.timerSourceDel(source);
  EXPECT_NO_THROW(manager.timerSourceIs(source));
}

TEST_F(ActivityManagerTest, SourceMayWithdrawItselfAndOthersDuringTheWalk) {
  std::unique_ptr<Source> destroyed;
  Source first(1000.0, [&](Source& self) {
    order.push_back("first");
    manager.timerSourceDel(*destroyed);
    destroyed.reset();
    manager.timerSourceDel(self);
  });
  destroyed = std::make_unique<Source>(1000.0, noteSource("destroyed"));
  Source last(1000.0, noteSource("last"));
  manager.timerSourceIs(first);
  manager.timerSourceIs(*destroyed);
  manager.timerSourceIs(last);
  manager.runTurn();
  EXPECT_EQ(order, (std::vector<std::string>{"first", "last"}));
  first.due = 1000.0;
  EXPECT_FALSE(manager.runTurn());
}

TEST_F(ActivityManagerTest, SourceRegisteredDuringTheWalkRunsInTheNextTurn) {
  Source second(1000.0, noteSource("second"));
  Source first(1000.0, [&](Source&) { manager.timerSourceIs(second); });
  manager.timerSourceIs(first);
  manager.runTurn();
  EXPECT_TRUE(order.empty());
  manager.runTurn();
  EXPECT_EQ(order, (std::vector<std::string>{"second"}));
}

TEST_F(ActivityManagerTest, VirtualClockStartsWhereItIsTold) {
  EXPECT_EQ(manager.now(), 1000.0);
  EXPECT_EQ(Vex::VirtualActivityManager(7.5).now(), 7.5);
  EXPECT_THROW(Vex::VirtualActivityManager{kNever}, Vex::RangeException);
}

TEST_F(ActivityManagerTest, TurnTakesNoTime) {
  Source source(1000.001, noteSource("source"));
  manager.timerSourceIs(source);
  EXPECT_FALSE(manager.runTurn());
  EXPECT_EQ(manager.now(), 1000.0);
  EXPECT_TRUE(order.empty());
}

TEST_F(ActivityManagerTest, RunUntilGoesFromEventToEventAndEndsAtItsTime) {
  Source source(1003.25, [&](Source& self) {
    if (self.ranAt.size() < 3) self.due = manager.now() + 1.5;
  });
  manager.timerSourceIs(source);
  manager.runUntil(1007.0);
  EXPECT_EQ(source.ranAt, (std::vector<double>{1003.25, 1004.75, 1006.25}));
  EXPECT_EQ(manager.now(), 1007.0);
  EXPECT_EQ(manager.wakeUps(), 3u);
}

TEST_F(ActivityManagerTest, RunUntilIncludesItsTimeAndNothingLater) {
  Source at(1002.0, noteSource("at"));
  Source after(1002.5, noteSource("after"));
  manager.timerSourceIs(at);
  manager.timerSourceIs(after);
  manager.runUntil(1002.0);
  EXPECT_EQ(order, (std::vector<std::string>{"at"}));
  manager.runFor(0.5);
  EXPECT_EQ(order, (std::vector<std::string>{"at", "after"}));
  EXPECT_EQ(manager.now(), 1002.5);
}

TEST_F(ActivityManagerTest, NothingDueWakesNobody) {
  manager.runFor(1e9);
  EXPECT_EQ(manager.wakeUps(), 0u);
}

TEST_F(ActivityManagerTest, DeferredTasksRunBeforeTimeMoves) {
  std::vector<double> ranAt;
  Task second(manager, [&] { ranAt.push_back(manager.now()); });
  Task first(manager, [&] {
    ranAt.push_back(manager.now());
    second.schedule();
  });
  Source source(1001.0, [&](Source&) { first.schedule(); });
  manager.timerSourceIs(source);
  first.schedule();
  manager.runUntil(1005.0);
  EXPECT_EQ(ranAt, (std::vector<double>{1000.0, 1000.0, 1001.0, 1001.0}));
}

TEST_F(ActivityManagerTest, TimeNeverGoesBack) {
  EXPECT_THROW(manager.runUntil(999.0), Vex::RangeException);
  EXPECT_THROW(manager.runUntil(kNever), Vex::RangeException);
  EXPECT_THROW(manager.runUntil(std::numeric_limits<double>::quiet_NaN()), Vex::RangeException);
  EXPECT_NO_THROW(manager.runUntil(1000.0));
  Source late(990.0, noteSource("late"));
  manager.timerSourceIs(late);
  manager.runUntil(1001.0);
  EXPECT_EQ(late.ranAt, (std::vector<double>{1000.0}));
  EXPECT_EQ(manager.wakeUps(), 0u);
}

TEST_F(ActivityManagerTest, EndlessWorkAtOneInstantIsAnInternalException) {
  Task task(manager, [&] { task.schedule(); });
  task.schedule();
  EXPECT_THROW(manager.runUntil(1001.0), Vex::InternalException);
  EXPECT_EQ(manager.now(), 1000.0);
  task.cancel();
  EXPECT_NO_THROW(manager.runUntil(1001.0));
}

TEST_F(ActivityManagerTest, ReadableDescriptorsAreServedBeforeTimeMoves) {
  SocketPair pair(note("readable"));
  manager.readableIs(pair.ends[0], pair);
  Source source(1001.0, [&](Source&) {
    order.push_back("source");
    pair.put();
    pair.put();
  });
  Source after(1002.0, noteSource("after"));
  manager.timerSourceIs(source);
  manager.timerSourceIs(after);
  manager.runUntil(1005.0);
  EXPECT_EQ(order, (std::vector<std::string>{"source", "readable", "readable", "after"}));
  manager.readableDel(pair.ends[0]);
}

TEST_F(ActivityManagerTest, WithdrawnDescriptorIsNotServedAlsoIfItsNumberIsReused) {
  SocketPair a;
  SocketPair b;
  SocketPair replacement;
  replacement.takes = false;
  SocketPair killer([&] {
    manager.readableDel(a.ends[0]);
    manager.readableDel(b.ends[0]);
    ASSERT_EQ(dup2(replacement.ends[0], b.ends[0]), b.ends[0]);
    manager.readableIs(b.ends[0], replacement);
  });
  // Lower numbers first: the killer must come before its victims.
  if (killer.ends[0] > a.ends[0]) {
    std::swap(killer.ends[0], a.ends[0]);
    std::swap(killer.ends[1], a.ends[1]);
  }
  for (SocketPair* pair : {&killer, &a, &b}) {
    manager.readableIs(pair->ends[0], *pair);
    pair->put();
  }
  replacement.put();
  manager.runTurn();
  EXPECT_EQ(killer.reads, 1);
  EXPECT_EQ(a.reads, 0);
  EXPECT_EQ(b.reads, 0);
  EXPECT_EQ(replacement.reads, 0);
  manager.runTurn();
  EXPECT_EQ(replacement.reads, 1);
}

TEST_F(ActivityManagerTest, WatchingABadOrWatchedDescriptorIsAnInternalException) {
  SocketPair pair;
  EXPECT_THROW(manager.readableIs(-1, pair), Vex::InternalException);
  manager.readableIs(pair.ends[0], pair);
  EXPECT_THROW(manager.readableIs(pair.ends[0], pair), Vex::InternalException);
  manager.readableDel(pair.ends[0]);
  manager.readableDel(pair.ends[0]);
  EXPECT_NO_THROW(manager.readableIs(pair.ends[0], pair));
}

}  // namespace
