// SPDX-License-Identifier: Apache-2.0
//
// A loop whose clock moves on by a fixed step each time that somebody reads it: work that gives way
// when its time is up can be made to do so at an exact point.
#pragma once

#include "runtime/vex/ActivityManager.h"

namespace QuillTest {

class SteppingClock final : public Vex::Clock {
 public:
  double now() const noexcept override {
    ++reads_;
    return time_ += step;
  }

  double step = 0.0;

  unsigned reads() const { return reads_; }

 private:
  mutable double time_ = 1000.0;
  mutable unsigned reads_ = 0;
};

class SteppingLoop final : public Vex::ActivityManager {
 public:
  SteppingLoop() : SteppingLoop(Vex::makePtr<SteppingClock>()) {}

  SteppingClock& steppingClock() { return *steppingClock_; }
  // One turn without descriptors. False if there was nothing to do.
  bool runTurn() {
    const TurnScope scope(*this);
    const bool deferred = runDeferred();
    return runTimers(steppingClock_->now()) || deferred;
  }

  void readableIs(int, Vex::ReadableHandler&) override {}
  void readableDel(int) noexcept override {}

 private:
  explicit SteppingLoop(const Vex::Ptr<SteppingClock>& clock)
      : ActivityManager(clock), steppingClock_(clock) {}

  Vex::Ptr<SteppingClock> steppingClock_;
};

}  // namespace QuillTest
