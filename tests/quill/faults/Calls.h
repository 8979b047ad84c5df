// SPDX-License-Identifier: Apache-2.0
//
// Faults: which call of the store fails next, and how. A plan counts the calls of one kind from its
// beginning and lets one of them fail, or all from that one on; a plan that fails nothing counts.
//
// One thread. Calls outside of a plan are those of the C library.
#pragma once

#include <cerrno>
#include <string>

namespace Faults {

enum class Kind { call, allocation };

struct Fault {
  Kind kind = Kind::call;
  unsigned at = 0;       // the first call that fails, from 1; 0 for none
  int error = 0;         // what errno says; for an allocation nothing
  bool forEver = false;  // all later ones too

  std::string text() const;
};

// A read or write that does a part of its work. Only for `read` and `write` of regular files.
inline constexpr int kShort = -1;

// Fails calls as long as it lives; may be held up.
class Plan {
 public:
  explicit Plan(const Fault& fault) noexcept;
  Plan(const Plan&) = delete;
  Plan& operator=(const Plan&) = delete;
  ~Plan();

  // Calls that were made so far.
  unsigned count() const noexcept;
  // The name of the first call that failed, null if none has.
  const char* failed() const noexcept;
};

// Nothing fails and nothing counts as long as it lives.
class Pause {
 public:
  Pause() noexcept;
  Pause(const Pause&) = delete;
  Pause& operator=(const Pause&) = delete;
  ~Pause();
};

// Whether directories are watched by the kernel; it takes ten milliseconds to give a watch back. If
// not, the calls succeed and nothing is ever told.
void watchingIs(bool on) noexcept;
bool watching() noexcept;

// Whether the loop's own calls, and those of quillctl, count and fail too; else they are made.
void othersToo(bool on) noexcept;
bool othersFail() noexcept;

// What the time is for this program while it lives. Nobody waits: what a wait of the loop would
// take passes at once. One at a time.
class Time {
 public:
  // Every look at a clock finds `step` seconds more than the one before.
  Time(double seconds, double step) noexcept;
  Time(const Time&) = delete;
  Time& operator=(const Time&) = delete;
  ~Time();

  double now() const noexcept;
  // The latest that anybody has seen.
  double latest() const noexcept;
  void nowIs(double seconds) noexcept;
  void stepIs(double seconds) noexcept;
  // Every other look finds so much less; 0 for none.
  void swingIs(double seconds) noexcept;
  // Looks at clocks other than CLOCK_MONOTONIC.
  unsigned otherLooks() const noexcept;
};

// Asked by each call: its errno, kShort, or 0 to be made.
int failing(Kind kind, const char* name) noexcept;

// Blocks that operator new has given out and that were not given back.
long liveBlocks() noexcept;

}  // namespace Faults
