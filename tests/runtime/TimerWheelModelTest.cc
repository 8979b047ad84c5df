// SPDX-License-Identifier: Apache-2.0
//
// Helm::TimerWheel against std::multimap: random arming, re-arming, cancelling, destroying,
// unregistering and passing of time. The wheel and the model must fire the same timers at the same
// times in the same order, and wake equally often. The seed is printed with each failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Helm::TimerWheel;
using Vex::makePtr;
using Vex::Ptr;

struct Fired {
  std::size_t timer;
  double time;
  bool operator==(const Fired&) const = default;
};

struct Configuration {
  unsigned seed;
  std::uint32_t tickMsecs;
  std::uint32_t bucketSize;
};

class TimerWheelModelTest : public testing::TestWithParam<Configuration> {
 protected:
  class Timer final : public TimerWheel::NotifieeConst {
   public:
    Timer(TimerWheelModelTest& test, std::size_t index) : test_(test), index_(index) {}
    void onTime() override {
      test_.fired.push_back({index_, Vex::activityManager().clock()->now()});
      // Every seventh arms itself again from its handler; the model does the same.
      if (const double next = nextOf(index_, timeMin()); next > 0) timeMinIs(next);
    }

   private:
    TimerWheelModelTest& test_;
    std::size_t index_;
  };

  // When a handler arms its timer again; 0: it does not. Ends: the steps double.
  static double nextOf(std::size_t index, double timeMin) {
    if (index % 7 != 0 || timeMin < 1000.0) return 0;
    return index % 2 == 0 ? 1000.0 + (timeMin - 1000.0) * 2 + 0.003 : timeMin / 2;
  }

  double tickTime(std::uint64_t tick) const {
    return 1000.0 + static_cast<double>(tick) * GetParam().tickMsecs / 1000.0;
  }
  // By definition, with no idea of how the wheel finds it.
  template <class Reached>
  std::uint64_t firstTick(Reached reached) const {
    std::uint64_t low = 0;
    std::uint64_t high = std::uint64_t{1} << 50;
    while (low < high) {
      const std::uint64_t middle = low + (high - low) / 2;
      if (reached(tickTime(middle))) {
        high = middle;
      } else {
        low = middle + 1;
      }
    }
    return low;
  }
  void modelArm(std::size_t index, double time, double now) {
    modelCancel(index);
    const auto notBefore = firstTick([&](double t) { return t >= time; });
    const auto afterNow = firstTick([&](double t) { return t > now; });
    place[index] = model.emplace(std::max(notBefore, afterNow), index);
    timeOf[index] = time;
  }
  void modelCancel(std::size_t index) {
    if (place[index] != model.end()) model.erase(place[index]);
    place[index] = model.end();
  }
  void modelRunUntil(double time) {
    while (!model.empty() && tickTime(model.begin()->first) <= time) {
      const std::uint64_t tick = model.begin()->first;
      const double now = tickTime(tick);
      ++wakeUps;
      while (!model.empty() && model.begin()->first == tick) {
        const std::size_t index = model.begin()->second;
        modelCancel(index);
        expected.push_back({index, now});
        if (const double next = nextOf(index, timeOf[index]); next > 0) modelArm(index, next, now);
      }
    }
  }

  std::vector<Fired> fired;
  std::vector<Fired> expected;
  std::multimap<std::uint64_t, std::size_t> model;  // equal ticks in the order of insertion
  std::vector<std::multimap<std::uint64_t, std::size_t>::iterator> place;
  std::vector<double> timeOf;
  std::uint64_t wakeUps = 0;
};

TEST_P(TimerWheelModelTest, BehavesAsTheModel) {
  const Configuration& configuration = GetParam();
  SCOPED_TRACE("seed " + std::to_string(configuration.seed));
  std::mt19937_64 random(configuration.seed);
  const auto below = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
  constexpr std::size_t kTimers = 200;
  Vex::VirtualActivityManager manager;
  const Vex::CurrentActivityManager current(manager);
  const Ptr<TimerWheel const> wheel = makePtr<TimerWheel>(
      nullptr, nullptr, configuration.tickMsecs, 60480000U, true, configuration.bucketSize);
  std::vector<Ptr<Timer>> timers;
  const auto newTimer = [&](std::size_t i) {
    auto timer = makePtr<Timer>(*this, i);
    timer->notifierIs(wheel);
    timer->isRegisteredNotifieeIs(true);
    return timer;
  };
  for (std::size_t i = 0; i < kTimers; ++i) timers.push_back(newTimer(i));
  place.assign(kTimers, model.end());
  timeOf.assign(kTimers, 0);
  // From parts of a tick to years; often one of a few times, so that timers meet in a tick.
  const auto span = [&] {
    const double exponent = static_cast<double>(below(1000)) / 1000.0 * 12.0 - 4.0;
    return std::pow(10.0, exponent);
  };
  double meeting = 1001.0;
  for (int step = 0; step < 30000; ++step) {
    const std::size_t i = below(kTimers);
    switch (below(12)) {
      case 0:
        timers[i]->timeMinIs(Vex::kNever);
        modelCancel(i);
        break;
      case 1:
        timers[i].reset();
        modelCancel(i);
        timers[i] = newTimer(i);
        break;
      case 2:
        // Off and on again puts the timer behind those of its tick.
        timers[i]->isRegisteredNotifieeIs(false);
        timers[i]->isRegisteredNotifieeIs(true);
        if (place[i] != model.end()) modelArm(i, timeOf[i], manager.now());
        break;
      case 3: {
        // Steps to the very tick, between ticks and over many timers.
        double time = manager.now();
        if (below(3) == 0 && !model.empty()) {
          time = std::max(time, tickTime(model.begin()->first));
        } else if (below(40) == 0) {
          time += span();
        } else {
          time += std::min(span(), 20.0);
        }
        manager.runUntil(time);
        modelRunUntil(time);
        if (below(2) == 0) manager.runTurn();  // the wheel sees the time it now is
        ASSERT_EQ(fired.size(), expected.size()) << "step " << step;
        for (std::size_t n = 0; n < fired.size(); ++n) {
          ASSERT_EQ(fired[n].timer, expected[n].timer) << "step " << step;
          ASSERT_EQ(fired[n].time, expected[n].time) << "step " << step;
        }
        ASSERT_EQ(manager.wakeUps(), wakeUps) << "step " << step;
        fired.clear();
        expected.clear();
        break;
      }
      case 4:
        meeting = manager.now() + span();
        break;
      default: {
        double time = manager.now() + span();
        if (below(3) == 0) time = meeting;
        if (below(50) == 0) time = manager.now() - span();
        timers[i]->timeMinIs(time);
        modelArm(i, time, manager.now());
        break;
      }
    }
    ASSERT_EQ(timers[i]->armed(), place[i] != model.end()) << "step " << step;
  }
  EXPECT_GT(wakeUps, 1000u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TimerWheelModelTest,
                         testing::Values(Configuration{1, 10, 1024}, Configuration{2, 10, 1024},
                                         Configuration{3, 10, 64}, Configuration{4, 1, 1},
                                         Configuration{5, 7, 4096}, Configuration{6, 1000, 100},
                                         Configuration{7, 3, 1000000}));

}  // namespace
