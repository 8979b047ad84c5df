// SPDX-License-Identifier: Apache-2.0
//
// The timer wheel beside what one would take instead: a std::priority_queue (which cannot cancel,
// so a cancelled entry is left to be skipped), libevent's and libuv's timers. For each: arm n
// timers at random times within 100 s, cancel them, and let them expire. Times are per timer.
//
// The wheel and the queue expire in virtual time. The other two know the real clock only, so their
// timers are armed for 0 s and expire in one run of the loop, which is what they do fastest.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <uv.h>

#include <memory>
#include <queue>
#include <random>
#include <vector>

#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

constexpr double kSpan = 100.0;  // seconds

std::vector<double> randomTimes(std::size_t count) {
  std::mt19937 random(12345);
  std::uniform_real_distribution<double> spread(0.01, kSpan);
  std::vector<double> times(count);
  for (double& time : times) time = spread(random);
  return times;
}

void perTimer(benchmark::State& state) {
  state.counters["ns/timer"] = benchmark::Counter(
      static_cast<double>(state.range(0)) / 1e9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

class Timer final : public Helm::TimerWheel::NotifieeConst {
 public:
  explicit Timer(std::size_t& fired) : fired_(fired) {}
  void onTime() override { ++fired_; }

 private:
  std::size_t& fired_;
};

struct Wheel {
  explicit Wheel(std::size_t count) : times(randomTimes(count)) {
    for (std::size_t i = 0; i < count; ++i) {
      timers.push_back(Vex::makePtr<Timer>(fired));
      timers.back()->notifierIs(Vex::Ptr<Vex::PtrInterface const>(wheel));
      timers.back()->isRegisteredNotifieeIs(true);
    }
  }
  void arm() {
    const double now = manager.now();
    for (std::size_t i = 0; i < timers.size(); ++i) timers[i]->timeMinIs(now + times[i]);
  }
  void cancel() {
    for (const auto& timer : timers) timer->timeMinIs(Vex::kNever);
  }
  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Vex::Ptr<Helm::TimerWheel> wheel = Vex::makePtr<Helm::TimerWheel>(
      Vex::Ptr<Vex::ActivityConfig>(), Vex::Ptr<Vex::Clock const>(), 10U, 16384U, true, 1024U);
  std::size_t fired = 0;
  std::vector<double> times;
  std::vector<Vex::Ptr<Timer>> timers;
};

void wheelArm(benchmark::State& state) {
  Wheel wheel(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    wheel.arm();
    state.PauseTiming();
    wheel.cancel();
    state.ResumeTiming();
  }
  perTimer(state);
}

void wheelCancel(benchmark::State& state) {
  Wheel wheel(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    wheel.arm();
    state.ResumeTiming();
    wheel.cancel();
  }
  perTimer(state);
}

void wheelExpire(benchmark::State& state) {
  Wheel wheel(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    wheel.arm();
    wheel.fired = 0;
    state.ResumeTiming();
    wheel.manager.runFor(kSpan + 1);
    if (wheel.fired != wheel.timers.size()) state.SkipWithError("not all have fired");
  }
  perTimer(state);
}

// What most programs write: a heap of times with an index, and a flag for "cancelled".
struct Heap {
  explicit Heap(std::size_t count) : times(randomTimes(count)), cancelled(count) {}
  void arm() {
    for (std::size_t i = 0; i < times.size(); ++i) {
      cancelled[i] = 0;
      queue.emplace(times[i], i);
    }
  }
  void cancel() {
    for (char& flag : cancelled) flag = 1;
  }
  std::size_t expire() {
    std::size_t fired = 0;
    while (!queue.empty()) {
      fired += cancelled[queue.top().second] == 0 ? 1U : 0U;
      queue.pop();
    }
    return fired;
  }
  std::vector<double> times;
  std::vector<char> cancelled;
  using Entry = std::pair<double, std::size_t>;
  std::priority_queue<Entry, std::vector<Entry>, std::greater<>> queue;
};

void heapArm(benchmark::State& state) {
  Heap heap(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    heap.arm();
    state.PauseTiming();
    heap.expire();
    state.ResumeTiming();
  }
  perTimer(state);
}

// Setting the flag costs nothing; taking the entry out later is part of the price.
void heapCancel(benchmark::State& state) {
  Heap heap(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    heap.arm();
    state.ResumeTiming();
    heap.cancel();
    if (heap.expire() != 0) state.SkipWithError("a cancelled timer has fired");
  }
  perTimer(state);
}

void heapExpire(benchmark::State& state) {
  Heap heap(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    heap.arm();
    state.ResumeTiming();
    if (heap.expire() != heap.times.size()) state.SkipWithError("not all have fired");
  }
  perTimer(state);
}

struct Libevent {
  explicit Libevent(std::size_t count) : base(event_base_new()), times(randomTimes(count)) {
    for (std::size_t i = 0; i < count; ++i) {
      events.push_back(event_new(
          base, -1, 0,
          [](evutil_socket_t, short, void* context) { ++*static_cast<std::size_t*>(context); },
          &fired));
    }
  }
  ~Libevent() {
    for (event* e : events) event_free(e);
    event_base_free(base);
  }
  Libevent(const Libevent&) = delete;
  Libevent& operator=(const Libevent&) = delete;
  void arm(bool now) {
    for (std::size_t i = 0; i < events.size(); ++i) {
      timeval delay{};
      if (!now) {
        delay.tv_sec = static_cast<time_t>(times[i]) + 1000;
        delay.tv_usec = static_cast<suseconds_t>(times[i] * 1e6) % 1000000;
      }
      event_add(events[i], &delay);
    }
  }
  void cancel() {
    for (event* e : events) event_del(e);
  }
  event_base* base;
  std::size_t fired = 0;
  std::vector<double> times;
  std::vector<event*> events;
};

struct Libuv {
  explicit Libuv(std::size_t count) : times(randomTimes(count)), timers(count) {
    uv_loop_init(&loop);
    for (uv_timer_t& timer : timers) {
      uv_timer_init(&loop, &timer);
      timer.data = &fired;
    }
  }
  ~Libuv() {
    for (uv_timer_t& timer : timers) uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }
  Libuv(const Libuv&) = delete;
  Libuv& operator=(const Libuv&) = delete;
  void arm(bool now) {
    for (std::size_t i = 0; i < timers.size(); ++i) {
      uv_timer_start(
          &timers[i], [](uv_timer_t* timer) { ++*static_cast<std::size_t*>(timer->data); },
          now ? 0 : static_cast<std::uint64_t>(times[i] * 1e3) + 1000000, 0);
    }
  }
  void cancel() {
    for (uv_timer_t& timer : timers) uv_timer_stop(&timer);
  }
  uv_loop_t loop{};
  std::size_t fired = 0;
  std::vector<double> times;
  std::vector<uv_timer_t> timers;
};

void runOnce(Libevent& loop) { event_base_loop(loop.base, EVLOOP_NONBLOCK); }
void runOnce(Libuv& loop) { uv_run(&loop.loop, UV_RUN_NOWAIT); }

template <class Loop>
void peerArm(benchmark::State& state) {
  Loop loop(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    loop.arm(false);
    state.PauseTiming();
    loop.cancel();
    state.ResumeTiming();
  }
  perTimer(state);
}

template <class Loop>
void peerCancel(benchmark::State& state) {
  Loop loop(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    loop.arm(false);
    state.ResumeTiming();
    loop.cancel();
  }
  perTimer(state);
}

template <class Loop>
void peerExpire(benchmark::State& state) {
  Loop loop(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    loop.arm(true);
    loop.fired = 0;
    state.ResumeTiming();
    // Both loops may leave some for the next run.
    for (int run = 0; run < 1000 && loop.fired < loop.times.size(); ++run) runOnce(loop);
    if (loop.fired != loop.times.size()) state.SkipWithError("not all have fired");
  }
  perTimer(state);
}

void sizes(benchmark::internal::Benchmark* bench) {
  bench->ArgName("timers")->Arg(1'000)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(wheelArm)->Apply(sizes);
BENCHMARK(heapArm)->Apply(sizes);
BENCHMARK(peerArm<Libevent>)->Name("libeventArm")->Apply(sizes);
BENCHMARK(peerArm<Libuv>)->Name("libuvArm")->Apply(sizes);
BENCHMARK(wheelCancel)->Apply(sizes);
BENCHMARK(heapCancel)->Apply(sizes);
BENCHMARK(peerCancel<Libevent>)->Name("libeventCancel")->Apply(sizes);
BENCHMARK(peerCancel<Libuv>)->Name("libuvCancel")->Apply(sizes);
BENCHMARK(wheelExpire)->Apply(sizes);
BENCHMARK(heapExpire)->Apply(sizes);
BENCHMARK(peerExpire<Libevent>)->Name("libeventExpire")->Apply(sizes);
BENCHMARK(peerExpire<Libuv>)->Name("libuvExpire")->Apply(sizes);

}  // namespace
