// SPDX-License-Identifier: Apache-2.0
//
// Times as the agent tells them, in seconds of the machine's monotonic clock, for people. Any
// thread.
#pragma once

#include <string>

namespace RingwardCli {

// The wall clock's time, in seconds since 1970.
double wallClock();
// "2026-11-21 10:00:00 UTC"; with milliseconds "2026-11-21 10:00:00.123 UTC". "?" for what is no
// time of these centuries.
std::string dateText(double wallTime, bool milliseconds = false);
// The wall clock's time of a moment of the monotonic clock, by the difference of the two now.
double wallTimeOf(double monotonic, double monotonicNow);
// "27 s".
std::string secondsText(double seconds);

}  // namespace RingwardCli
