// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/FloodMeter.h"

#include <algorithm>

namespace Platform::Linux {

void FloodMeter::turn(std::size_t frames, bool full) {
  fullTurns_ = full ? std::min(fullTurns_ + 1, kFullTurns) : 0;
  // While a flood lasts the timer ends the windows.
  if (const double now = manager_.now(); !flood_ && now - windowBegin_ >= kWindow) {
    windowBegin_ = now;
    frames_ = 0;
  }
  frames_ += frames;
  if (!flood_ && (fullTurns_ == kFullTurns || frames_ >= kFrames)) floodIs(true);
}

void FloodMeter::timeout() {
  // Full turns alone do not say that any came lately.
  const bool goesOn = frames_ >= kFrames / 2 || (fullTurns_ == kFullTurns && frames_ > 0);
  floodIs(goesOn);
}

void FloodMeter::floodIs(bool flood) {
  windowBegin_ = manager_.now();
  frames_ = 0;
  if (flood) {
    if (!timer_) timer_ = Sable::Platform::getTimerControl(*this);
    timer_->arm(kWindow);
  } else {
    fullTurns_ = 0;
  }
  if (flood == flood_) return;
  flood_ = flood;
  if (listener_ != nullptr) listener_->floodIs(flood);
}

}  // namespace Platform::Linux
