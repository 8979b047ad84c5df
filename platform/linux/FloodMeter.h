// SPDX-License-Identifier: Apache-2.0
//
// FloodMeter: whether frames flood in, so that reading them would take a processor for itself.
// There are two signs, since it depends on the machine which side is faster: turns of the loop that
// were full, one after the other, where frames come faster than they are read; and so many frames
// in a short time where they are read as fast as they come, by a process that hardly does anything
// else. A flood is over when a time of that length has brought fewer than half as many.
//
// Activity thread only. No timer runs outside of a flood.
#pragma once

#include <cstddef>
#include <memory>

#include "runtime/sable/Platform.h"
#include "runtime/vex/ActivityManager.h"

namespace Platform::Linux {

class FloodMeter final : private Sable::Platform::TimeoutHandler {
 public:
  // Full turns in a row that make a flood.
  static constexpr std::size_t kFullTurns = 64;
  // Frames in as many seconds that make one.
  static constexpr std::size_t kFrames = 16'384;
  static constexpr double kWindow = 0.1;

  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void floodIs(bool flood) = 0;
  };

  explicit FloodMeter(Vex::ActivityManager& manager) noexcept : manager_(manager) {}

  // Must outlive its use; null: nobody. Is told of changes alone.
  void listenerIs(Listener* listener) noexcept { listener_ = listener; }

  // A turn has read so many frames, all that it may read if it was full. Only while the manager is
  // current.
  void turn(std::size_t frames, bool full);
  bool flood() const noexcept { return flood_; }

 private:
  void timeout() override;
  void floodIs(bool flood);

  Vex::ActivityManager& manager_;
  Listener* listener_ = nullptr;
  bool flood_ = false;
  std::size_t fullTurns_ = 0;  // in a row, up to kFullTurns
  std::size_t frames_ = 0;     // since windowBegin_
  double windowBegin_ = 0;
  std::unique_ptr<Sable::Platform::TimerControl> timer_;  // from the first flood on
};

}  // namespace Platform::Linux
