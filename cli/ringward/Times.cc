// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Times.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace RingwardCli {

double wallClock() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

std::string dateText(double wallTime, bool milliseconds) {
  // Beyond the year 9999 the text would have another length, and before 1970 it is an error.
  if (!(wallTime >= 0 && wallTime < 253'402'300'800.0)) return "?";
  const double rounded = milliseconds ? std::floor(wallTime * 1e3) : std::round(wallTime) * 1e3;
  const auto seconds = static_cast<time_t>(std::floor(rounded / 1e3));
  const int rest = static_cast<int>(rounded - static_cast<double>(seconds) * 1e3);
  tm parts{};
  if (gmtime_r(&seconds, &parts) == nullptr) return "?";
  std::array<char, 64> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  std::string date = text.data();
  if (milliseconds) {
    std::snprintf(text.data(), text.size(), ".%03d", rest);
    date += text.data();
  }
  return date + " UTC";
}

double wallTimeOf(double monotonic, double monotonicNow) {
  return wallClock() + (monotonic - monotonicNow);
}

std::string secondsText(double seconds) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.0f s", seconds > 0 ? seconds : 0.0);
  return text.data();
}

}  // namespace RingwardCli
