// SPDX-License-Identifier: Apache-2.0
#include "agent/Scheduling.h"

#include <sched.h>

#include <array>
#include <cerrno>

namespace Agent {

namespace {

struct Word {
  Scheduling scheduling;
  std::string_view name;
};
constexpr std::array<Word, 3> kWords{{{Scheduling::automatic, "auto"},
                                      {Scheduling::realtime, "realtime"},
                                      {Scheduling::normal, "normal"}}};

// The lowest real-time priority: before all ordinary processes, behind everything that somebody has
// thought about.
constexpr int kPriority = 1;

std::error_code policyIs(bool realtime) {
  sched_param parameters{};
  parameters.sched_priority = realtime ? kPriority : 0;
  const int policy = (realtime ? SCHED_RR : SCHED_OTHER) | SCHED_RESET_ON_FORK;
  if (::sched_setscheduler(0, policy, &parameters) == 0) return {};
  return {errno, std::system_category()};
}

int processors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  // Fails on machines with more processors than the set has bits.
  return ::sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : CPU_SETSIZE;
}

}  // namespace

std::string_view schedulingName(Scheduling scheduling) {
  for (const Word& word : kWords) {
    if (word.scheduling == scheduling) return word.name;
  }
  return "";
}

std::optional<Scheduling> schedulingOf(std::string_view name) {
  for (const Word& word : kWords) {
    if (word.name == name) return word.scheduling;
  }
  return std::nullopt;
}

std::error_code ProcessScheduling::schedulingIs(Scheduling scheduling) {
  const bool wanted = scheduling == Scheduling::realtime ||
                      (scheduling == Scheduling::automatic && processors() > 1);
  if (wanted == realtime_) return {};
  if (const std::error_code error = policyIs(wanted)) return error;
  realtime_ = wanted;
  floodIs(flood_);  // which may have begun before
  return {};
}

void ProcessScheduling::floodIs(bool flood) {
  flood_ = flood;
  if (realtime_) static_cast<void>(policyIs(!flood));
}

}  // namespace Agent
