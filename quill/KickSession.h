// SPDX-License-Identifier: Apache-2.0
//
// Quill::KickSession: one reader of a table as the writer's end of the kick socket sees it: whether
// what it says keeps to the protocol, how far it has come, whether it sleeps. Without a socket.
//
// Belongs to the activity thread.
//
// Invariants:
//  1. The order is HELLO, SEQUENCE, then any number of SEQUENCE and SLEEP. The reader counts from
//     the first SEQUENCE on.
//  2. What a reader reports never goes back and never goes beyond what the writer has given out.
//  3. A reader that sleeps has come up to everything there was when it said so, or is kicked for
//     that and has not looked yet, or has looked and found less.
#pragma once

#include <cstdint>
#include <string>

#include "quill/KickMessage.h"

namespace Quill {

class KickSession {
 public:
  // Within one second of the loop's clock. An honest reader sends one for each batch; beside a busy
  // writer a batch may be a single change, and reader and writer take turns some 50,000 times a
  // second. What a flood costs is bounded by kMaxMessagesPerTurn; this only ends it.
  static constexpr unsigned kMaxMessagesPerSecond = 200'000;

  enum class Effect {
    none,
    introduced,  // the first report: to be counted, then acknowledged
    slept,       // to be woken at the next change
    kickNow,     // would sleep, but there is more already, for which it was not told so before
    refused      // breaks the protocol: to be dropped, for the reason given
  };

  // Decides what a message means. `last` is the last sequence that the writer has given out, `now`
  // the loop's time. `reason` is written for Effect::refused only; the session is of no use then.
  Effect handleMessage(const KickMessage& message, std::uint64_t last, double now,
                       std::string& reason);
  // It was woken. Nothing if it does not sleep.
  void handleKicked() noexcept { asleep_ = false; }

  bool introduced() const noexcept { return introduced_; }
  bool asleep() const noexcept { return asleep_; }
  // Up to where it has come; 0 before its introduction.
  std::uint64_t sequence() const noexcept { return sequence_; }

 private:
  Effect refuse(std::string& reason, std::string text) const;
  Effect handleReport(const KickMessage& message, std::uint64_t last, std::string& reason);

  bool greeted_ = false;
  bool introduced_ = false;
  bool asleep_ = false;
  std::uint64_t sequence_ = 0;
  std::uint64_t kickedFor_ = 0;  // the last sequence as of the last kickNow
  // The window of the rate: when it began and what came since.
  double windowBegan_ = 0.0;
  unsigned messages_ = 0;
};

}  // namespace Quill
