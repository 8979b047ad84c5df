// SPDX-License-Identifier: Apache-2.0
//
// The loop of one party of a history: it runs when the test says so, else the party stands still.
// Its clock moves by a small step with each look, so that work which gives way when its time is up
// does so, and by leaps when the test says so. Nothing waits, but for await(), by which a process
// leaves the processor to the others of its test.
#pragma once

#include <poll.h>
#include <time.h>

#include <cstdint>
#include <map>
#include <vector>

#include "runtime/vex/ActivityManager.h"

namespace QuillTest {

class StallLoop final : public Vex::ActivityManager {
 public:
  StallLoop() : StallLoop(Vex::makePtr<LeapingClock>()) {}

  // One turn. False if there was nothing to do.
  bool runTurn() {
    const TurnScope scope(*this);
    bool any = runDeferred();
    if (runTimers(leaping_->now())) any = true;
    if (runReadable()) any = true;
    return any;
  }
  void leap(double seconds) { leaping_->time += seconds; }
  // By how much the clock moves with each look.
  void stepIs(double seconds) { leaping_->step = seconds; }
  // Until a descriptor is readable, or for so many microseconds.
  void await(long microseconds) {
    std::vector<pollfd> polled;
    for (const auto& [fd, watch] : watches_) polled.push_back({fd, POLLIN, 0});
    const timespec limit{0, microseconds * 1000};
    static_cast<void>(ppoll(polled.data(), polled.size(), &limit, nullptr));
  }

  void readableIs(int fd, Vex::ReadableHandler& handler) override {
    watches_[fd] = {&handler, ++generation_};
  }
  void readableDel(int fd) noexcept override { watches_.erase(fd); }

 private:
  struct LeapingClock final : Vex::Clock {
    double now() const noexcept override { return time += step; }
    mutable double time = 1000.0;
    double step = 0.0005;
  };
  struct Watch {
    Vex::ReadableHandler* handler;
    std::uint64_t generation;  // tells a descriptor from a later one of the same number
  };

  explicit StallLoop(const Vex::Ptr<LeapingClock>& clock)
      : ActivityManager(clock), leaping_(clock) {}

  bool runReadable() {
    std::vector<pollfd> polled;
    std::vector<std::uint64_t> generations;
    for (const auto& [fd, watch] : watches_) {
      polled.push_back({fd, POLLIN, 0});
      generations.push_back(watch.generation);
    }
    if (poll(polled.data(), polled.size(), 0) <= 0) return false;
    for (std::size_t i = 0; i < polled.size(); ++i) {
      if (polled[i].revents == 0) continue;
      const auto found = watches_.find(polled[i].fd);
      if (found == watches_.end() || found->second.generation != generations[i]) continue;
      found->second.handler->onReadable();  // may withdraw any descriptor
    }
    return true;
  }

  Vex::Ptr<LeapingClock> leaping_;
  std::map<int, Watch> watches_;
  std::uint64_t generation_ = 0;
};

}  // namespace QuillTest
