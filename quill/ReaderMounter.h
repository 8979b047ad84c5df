// SPDX-License-Identifier: Apache-2.0
//
// Quill::ReaderMounter: mounts a handle that reads as the table's writer comes and goes. It looks
// at the table's directory whenever something there changes and, as long as the handle is not fully
// mounted, once a minute.
//
// Belongs to the activity thread, to the loop that was current when it was made, and to its handle,
// which outlives it. Without a loop it mounts at its first notify() or not at all.
//
// "Fully mounted" is a mountStatus() of 1 in mode `reader`, and of 2, connected, for a shadow.
//
// Invariants:
//  1. While the handle is not fully mounted and notifications are on, the timer is armed when
//     notify() returns or raises.
//  2. Nothing that mounting raises leaves timeout(): an armed timer never ends the loop.
//  3. Mounting is not re-entered: what a notify() from inside a mounting asks for is left to the
//     timer.
#pragma once

#include <memory>
#include <string>

#include "quill/Mountable.h"
#include "quill/MounterBase.h"
#include "quill/MounterSm.h"
#include "runtime/sable/Platform.h"

namespace Quill {

class ReaderMounter final : public MounterBase, private Sable::Platform::TimeoutHandler {
 public:
  // Seconds from one try to the next.
  static constexpr double kRemountTime = 60.0;

  // Begins to watch. If that is impossible it traces so and goes on: the timer remains.
  ReaderMounter(Sable::Platform::DebugHandler& handler, Mountable& map);

  // Looks at the table and mounts, keeps or drops it. Raises what Mountable::attach() raises.
  void notify(const std::string& eventName) override;
  unsigned remountTimeouts() const override { return remountTimeouts_; }

  // notify() for callers that cannot do with an exception: traces it instead.
  void onEvent(const std::string& eventName);
  // The handle's mounting has changed: stops the timer if it is fully mounted, else arms it.
  void handleMounted();
  // The timer runs from now on, whatever is mounted.
  void armRemount();

  // The next try is due.
  bool remountArmed() const noexcept { return remountTimer_ != nullptr && remountTimer_->armed(); }

 private:
  // Decides by the generation on disk and the mounted one whether to mount, to drop, or both.
  void handleGeneration(unsigned disk, unsigned mine);
  bool fullyAttached() const;
  void timeout() override;

  Mountable& map_;
  unsigned remountTimeouts_ = 0;
  bool mounting_ = false;
  std::unique_ptr<Sable::Platform::TimerControl> remountTimer_;
  MounterSm mounterSm_;  // the last member: it may call notify() as soon as it stands
};

}  // namespace Quill
