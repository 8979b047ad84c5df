// SPDX-License-Identifier: Apache-2.0
#include "runtime/sable/Platform.h"

#include <sstream>

namespace Sable::Platform {

namespace {

class LoopTimer final : public TimerControl, private Vex::TimerSource {
 public:
  LoopTimer(Vex::ActivityManager& manager, TimeoutHandler& handler)
      : manager_(manager), handler_(handler) {}
  LoopTimer(const LoopTimer&) = delete;
  LoopTimer& operator=(const LoopTimer&) = delete;
  ~LoopTimer() override { cancel(); }

  void arm(double seconds) override {
    if (!(seconds >= 0.0)) {
      std::ostringstream text;
      text << "timer of " << seconds << " seconds: must be 0 or more";
      Vex::throwRangeException(text.str());
    }
    if (seconds == Vex::kNever) return cancel();
    // Registered while it is armed only: a loop with a thousand idle tables asks nobody.
    if (!armed()) manager_.timerSourceIs(*this);
    due_ = manager_.clock()->now() + seconds;
  }

  void cancel() noexcept override {
    if (armed()) manager_.timerSourceDel(*this);
    due_ = Vex::kNever;
  }

  bool armed() const noexcept override { return due_ != Vex::kNever; }

 private:
  double nextDue() override { return due_; }

  void runDue(double now) override {
    if (due_ > now) return;
    cancel();
    handler_.timeout();  // may destroy this object
  }

  Vex::ActivityManager& manager_;
  TimeoutHandler& handler_;
  double due_ = Vex::kNever;
};

}  // namespace

Vex::TraceHandle& traceHandle() noexcept {
  static Vex::TraceHandle handle("Quill", true);
  return handle;
}

std::unique_ptr<DebugHandler> getDebugHandler(std::string name) {
  return std::make_unique<DebugHandler>(std::move(name));
}

std::unique_ptr<TimerControl> getTimerControl(TimeoutHandler& handler) {
  return std::make_unique<LoopTimer>(Vex::activityManager(), handler);
}

}  // namespace Sable::Platform
