// SPDX-License-Identifier: Apache-2.0
//
// The activity loop over the kernel's own descriptors. Nothing here waits for longer than a few
// milliseconds, and nothing depends on how long that takes.
#include "runtime/vex/EpollActivityManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Vex::kNever;

class Source final : public Vex::TimerSource {
 public:
  explicit Source(std::function<void()> work = {}) : work_(std::move(work)) {}
  double nextDue() override { return due; }
  void runDue(double now) override {
    EXPECT_GE(now, due);
    ++runs;
    due = kNever;
    if (work_) work_();
  }
  double due = kNever;
  int runs = 0;

 private:
  std::function<void()> work_;
};

class Pipe final : public Vex::ReadableHandler {
 public:
  explicit Pipe(std::function<void(Pipe&)> work = {}) : work_(std::move(work)) {
    EXPECT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    close(ends[0]);
    close(ends[1]);
  }
  void put() const { ASSERT_EQ(write(ends[1], "x", 1), 1); }
  void onReadable() override {
    ++reads;
    if (work_) work_(*this);
  }
  int ends[2] = {-1, -1};
  int reads = 0;

 private:
  std::function<void(Pipe&)> work_;
};

class Task final : public Vex::DeferredTask {
 public:
  Task(Vex::ActivityManager& manager, std::function<void()> work)
      : DeferredTask(manager), work_(std::move(work)) {}
  void run() override { work_(); }

 private:
  std::function<void()> work_;
};

TEST(EpollActivityManager, TimerTimeIsNeverEarlierThanTheDueTimeAndAtMostAMomentLater) {
  constexpr unsigned kSeed = 20240517;
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  std::mt19937_64 random(kSeed);
  std::uniform_real_distribution<double> magnitude(-9.0, 9.3);
  for (int i = 0; i < 200000; ++i) {
    const double due = std::pow(10.0, magnitude(random));
    const timespec time = Vex::notBefore(due);
    ASSERT_GE(Vex::secondsOf(time), due);
    ASSERT_LT(Vex::secondsOf(time) - due, 4e-9 + due * 1e-15);
    ASSERT_GE(time.tv_nsec, 0);
    ASSERT_LT(time.tv_nsec, 1000000000);
  }
}

TEST(EpollActivityManager, TimerTimeOfATimeOfTheClockIsThatTime) {
  for (const long nanoseconds : {0L, 1L, 10000000L, 333333333L, 999999999L}) {
    const timespec time{12345, nanoseconds};
    const timespec result = Vex::notBefore(Vex::secondsOf(time));
    EXPECT_EQ(result.tv_sec, time.tv_sec);
    EXPECT_EQ(result.tv_nsec, time.tv_nsec);
  }
}

TEST(EpollActivityManager, TimerTimeIsNeverZeroWhichWouldDisarm) {
  for (const double due : {0.0, -1.0, -kNever, 1e-300}) {
    const timespec time = Vex::notBefore(due);
    EXPECT_EQ(time.tv_sec, 0);
    EXPECT_EQ(time.tv_nsec, 1);
  }
}

TEST(EpollActivityManager, ClockIsTheMonotonicOne) {
  const auto clock = Vex::makePtr<Vex::MonotonicClock>();
  timespec before{};
  clock_gettime(CLOCK_MONOTONIC, &before);
  const double now = clock->now();
  timespec after{};
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_LE(Vex::secondsOf(before), now);
  EXPECT_LE(now, Vex::secondsOf(after));
}

TEST(EpollActivityManager, ConstructorFailureGivesTheSystemsReason) {
#ifdef __clang__
#if __has_feature(undefined_behavior_sanitizer)
  GTEST_SKIP() << "the sanitizer's check of virtual tables needs descriptors itself";
#endif
#endif
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  std::string text;
  try {
    const Vex::EpollActivityManager sut;
  } catch (const Vex::InternalException& e) {
    setrlimit(RLIMIT_NOFILE, &before);  // first: a sanitizer's checks need descriptors
    text = e.what();
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(text, "epoll_create1: Too many open files");
}

TEST(EpollActivityManager, DueTimerRunsWithoutWaiting) {
  Vex::EpollActivityManager sut;
  Source source;
  source.due = sut.clock()->now();
  sut.timerSourceIs(source);
  sut.runTurn(kNever);
  EXPECT_EQ(source.runs, 1);
  EXPECT_EQ(sut.wakeUps(), 0u);
  EXPECT_EQ(sut.timerSettings(), 0u);
}

TEST(EpollActivityManager, SleepsUntilTheTimerIsDueAndWakesOnceForIt) {
  Vex::EpollActivityManager sut;
  Source source;
  sut.timerSourceIs(source);
  std::uint64_t most = 0;
  for (int i = 1; i <= 20; ++i) {
    source.due = sut.clock()->now() + 0.0005;
    const std::uint64_t before = sut.wakeUps();
    sut.runTurn(kNever);
    // A busy machine may let the time pass before the wait begins; then there is no wait.
    EXPECT_EQ(source.runs, i);
    most = std::max(most, sut.wakeUps() - before);
  }
  EXPECT_EQ(most, 1u);
}

TEST(EpollActivityManager, TimerIsSetOnlyWhenTheDueTimeChanges) {
  Vex::EpollActivityManager sut;
  Source source;
  sut.timerSourceIs(source);
  Pipe pipe;
  pipe.put();
  sut.readableIs(pipe.ends[0], pipe);
  source.due = sut.clock()->now() + 1e6;
  for (int i = 0; i < 5; ++i) sut.runTurn(kNever);
  EXPECT_EQ(sut.timerSettings(), 1u);
  source.due += 1;
  sut.runTurn(kNever);
  EXPECT_EQ(sut.timerSettings(), 2u);
  source.due = kNever;
  for (int i = 0; i < 5; ++i) sut.runTurn(kNever);
  EXPECT_EQ(sut.timerSettings(), 3u);  // disarmed, once
  EXPECT_EQ(pipe.reads, 11);
}

TEST(EpollActivityManager, CancelledTimerDoesNotWake) {
  Vex::EpollActivityManager sut;
  Source source;
  sut.timerSourceIs(source);
  Pipe pipe;
  pipe.put();
  sut.readableIs(pipe.ends[0], pipe);
  source.due = sut.clock()->now() + 0.001;
  sut.runTurn(kNever);  // sets the timer; the pipe ends the wait
  source.due = kNever;
  sut.runTurn(kNever);  // disarms it
  sut.readableDel(pipe.ends[0]);
  const double before = sut.clock()->now();
  sut.runTurn(0.003);  // over the old time, which must not cut it short
  EXPECT_GE(sut.clock()->now() - before, 0.003);
}

TEST(EpollActivityManager, TimesBeyondTheKernelsRangeAreNever) {
  Vex::EpollActivityManager sut;
  Source source;
  sut.timerSourceIs(source);
  Pipe pipe;
  pipe.put();
  sut.readableIs(pipe.ends[0], pipe);
  for (const double due : {1e10, 1e300}) {
    source.due = due;
    EXPECT_NO_THROW(sut.runTurn(kNever));
  }
  EXPECT_EQ(sut.timerSettings(), 0u);
  EXPECT_EQ(source.runs, 0);
}

TEST(EpollActivityManager, NoWaitIsNoWakeUp) {
  Vex::EpollActivityManager sut;
  for (const double wait : {0.0, -1.0}) sut.runTurn(wait);
  EXPECT_EQ(sut.wakeUps(), 0u);
}

TEST(EpollActivityManager, ScheduledTaskRunsWithoutWaiting) {
  Vex::EpollActivityManager sut;
  int runs = 0;
  Task task(sut, [&] { ++runs; });
  task.schedule();
  sut.runTurn(kNever);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(sut.wakeUps(), 0u);
}

TEST(EpollActivityManager, TurnRunsTasksThenTimersThenDescriptors) {
  Vex::EpollActivityManager sut;
  std::string order;
  Task task(sut, [&] { order += "task "; });
  Source source([&] { order += "timer "; });
  Pipe pipe([&](Pipe&) { order += "descriptor "; });
  sut.readableIs(pipe.ends[0], pipe);
  sut.timerSourceIs(source);
  pipe.put();
  task.schedule();
  source.due = 0;
  sut.runTurn(kNever);
  EXPECT_EQ(order, "task timer descriptor ");
}

TEST(EpollActivityManager, RunEndsWithTheTurnThatStopsIt) {
  Vex::EpollActivityManager sut;
  int runs = 0;
  Task task(sut, [&] {
    if (++runs == 3) {
      sut.stop();
    } else {
      task.schedule();
    }
    EXPECT_EQ(&Vex::activityManager(), &sut);
  });
  Pipe pipe;
  pipe.put();
  sut.readableIs(pipe.ends[0], pipe);
  task.schedule();
  sut.run();
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(pipe.reads, 3);
}

TEST(EpollActivityManager, StopBeforeRunIsNotLost) {
  Vex::EpollActivityManager sut;
  sut.stop();
  sut.run();
  int runs = 0;
  Task task(sut, [&] {
    ++runs;
    sut.stop();
  });
  task.schedule();
  sut.run();
  EXPECT_EQ(runs, 1);
}

TEST(EpollActivityManager, DescriptorInErrorIsReported) {
  Vex::EpollActivityManager sut;
  Pipe pipe;
  sut.readableIs(pipe.ends[0], pipe);
  close(pipe.ends[1]);
  pipe.ends[1] = -1;
  sut.runTurn(kNever);
  EXPECT_EQ(pipe.reads, 1);
}

TEST(EpollActivityManager, HandlerMayWithdrawItselfAndAnyOther) {
  Vex::EpollActivityManager sut;
  std::vector<Pipe*> all;
  const auto withdrawAll = [&](Pipe&) {
    for (Pipe* pipe : all) sut.readableDel(pipe->ends[0]);
  };
  Pipe a(withdrawAll);
  Pipe b(withdrawAll);
  Pipe c(withdrawAll);
  all = {&a, &b, &c};
  for (Pipe* pipe : all) {
    sut.readableIs(pipe->ends[0], *pipe);
    pipe->put();
  }
  sut.runTurn(kNever);
  sut.runTurn(0);
  EXPECT_EQ(a.reads + b.reads + c.reads, 1);
}

TEST(EpollActivityManager, DescriptorWithAReusedNumberIsNotServedForItsPredecessor) {
  Vex::EpollActivityManager sut;
  std::vector<Pipe*> all;
  Pipe empty;
  bool replaced = false;
  const auto replaceTheOther = [&](Pipe& self) {
    if (replaced) return;
    replaced = true;
    Pipe& other = *all[&self == all[0] ? 1 : 0];
    sut.readableDel(other.ends[0]);
    ASSERT_EQ(dup2(empty.ends[0], other.ends[0]), other.ends[0]);
    sut.readableIs(other.ends[0], empty);
  };
  Pipe a(replaceTheOther);
  Pipe b(replaceTheOther);
  all = {&a, &b};
  for (Pipe* pipe : all) {
    sut.readableIs(pipe->ends[0], *pipe);
    pipe->put();
  }
  sut.runTurn(kNever);
  EXPECT_EQ(a.reads + b.reads, 1);
  EXPECT_EQ(empty.reads, 0);
  empty.put();
  sut.runTurn(kNever);
  EXPECT_EQ(empty.reads, 1);
}

TEST(EpollActivityManager, TaskMayWithdrawADescriptorThatWasReported) {
  Vex::EpollActivityManager sut;
  Pipe pipe;
  sut.readableIs(pipe.ends[0], pipe);
  pipe.put();
  Task task(sut, [&] { sut.readableDel(pipe.ends[0]); });
  task.schedule();
  sut.runTurn(kNever);
  EXPECT_EQ(pipe.reads, 0);
}

TEST(EpollActivityManager, MoreDescriptorsThanOneTurnTakesAreAllServed) {
  Vex::EpollActivityManager sut;
  std::vector<std::unique_ptr<Pipe>> pipes;
  for (int i = 0; i < 150; ++i) {
    pipes.push_back(std::make_unique<Pipe>());
    sut.readableIs(pipes.back()->ends[0], *pipes.back());
    pipes.back()->put();
  }
  for (int i = 0; i < 3; ++i) sut.runTurn(kNever);
  for (const auto& pipe : pipes) EXPECT_GE(pipe->reads, 1);
}

TEST(EpollActivityManager, UnwatchableDescriptorIsAnInternalExceptionWithTheSystemsReason) {
  Vex::EpollActivityManager sut;
  Pipe pipe;
  std::string text;
  try {
    sut.readableIs(-1, pipe);
  } catch (const Vex::InternalException& e) {
    text = e.what();
  }
  EXPECT_EQ(text, "descriptor -1 cannot be watched: Bad file descriptor");
  EXPECT_THROW(sut.readableIs(-1, pipe), Vex::InternalException);
  sut.readableIs(pipe.ends[0], pipe);
  EXPECT_THROW(sut.readableIs(pipe.ends[0], pipe), Vex::InternalException);
}

TEST(EpollActivityManager, SignalInterruptsAWaitWithoutHarm) {
  Vex::EpollActivityManager sut;
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
  timer_t timer{};
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGALRM;
  ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
  itimerspec often{};
  often.it_interval.tv_nsec = often.it_value.tv_nsec = 1000000;
  ASSERT_EQ(timer_settime(timer, 0, &often, nullptr), 0);
  EXPECT_NO_THROW(sut.runTurn(kNever));  // nothing else would end this wait
  EXPECT_EQ(sut.wakeUps(), 1u);
  timer_delete(timer);
  sigaction(SIGALRM, &before, nullptr);
}

}  // namespace
