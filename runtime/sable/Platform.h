// SPDX-License-Identifier: Apache-2.0
//
// What the table store asks of the program around it: debug handlers, which name the traces of one
// table, and timers on the activity loop.
//
// All of it belongs to the activity thread, except that a handler's trace() may be used by any
// thread under the rules of runtime/vex/Trace.h.
#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/Trace.h"

namespace Sable {
namespace Platform {

// The switches for the traces of all tables of the process. Levels as in runtime/vex/Trace.h.
Vex::TraceHandle& traceHandle() noexcept;

// Traces under a name of its own: "<name>: <text>".
class DebugHandler {
 public:
  explicit DebugHandler(std::string name) : name_(std::move(name)) {}
  DebugHandler(const DebugHandler&) = delete;
  DebugHandler& operator=(const DebugHandler&) = delete;

  const std::string& name() const noexcept { return name_; }

  // `format` takes a std::ostream& and writes the text. One branch while nobody looks.
  template <class Format>
  void trace(unsigned level, Format&& format,
             const Vex::TracePlace& where = Vex::TracePlace::current()) const {
    Vex::trace(
        traceHandle(), level,
        [&](std::ostream& os) {
          os << name_ << ": ";
          format(os);
        },
        where);
  }

 private:
  std::string name_;
};

std::unique_ptr<DebugHandler> getDebugHandler(std::string name);

// What a timer calls.
class TimeoutHandler {
 public:
  virtual void timeout() = 0;

 protected:
  ~TimeoutHandler() = default;
};

// One timer. Its handler is called once for each arming. Destroying it cancels it; that is allowed
// inside its own handler.
class TimerControl {
 public:
  TimerControl() = default;
  TimerControl(const TimerControl&) = delete;
  TimerControl& operator=(const TimerControl&) = delete;
  virtual ~TimerControl() = default;

  // Calls the handler in `seconds`, 0.0 meaning in a coming turn of the loop; replaces what was
  // armed before. Raises a range exception for a number that is negative or no number.
  virtual void arm(double seconds) = 0;
  // Does nothing if nothing is armed.
  virtual void cancel() noexcept = 0;
  virtual bool armed() const noexcept = 0;
};

// A timer on the loop that is current on this thread, which must outlive it, as must `handler`.
// Raises an internal exception if no loop is current.
std::unique_ptr<TimerControl> getTimerControl(TimeoutHandler& handler);

}  // namespace Platform

// The base of whatever traces for a table. The handler is not owned.
class Debuggable {
 public:
  explicit Debuggable(Platform::DebugHandler& handler) noexcept : debugHandler_(&handler) {}

  Platform::DebugHandler& debugHandler() const noexcept { return *debugHandler_; }

 protected:
  ~Debuggable() = default;

  template <class Format>
  void trace(unsigned level, Format&& format,
             const Vex::TracePlace& where = Vex::TracePlace::current()) const {
    debugHandler_->trace(level, std::forward<Format>(format), where);
  }

 private:
  Platform::DebugHandler* debugHandler_;
};

}  // namespace Sable
