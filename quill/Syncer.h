// SPDX-License-Identifier: Apache-2.0
//
// Quill::Syncer: fills a shadow by walking the slots of the table from the highest to the first, or
// goes over them again after changes were missed. The first walk runs to its end in one call, since
// the handle is of no use before; a later one gives the loop back when its time is up, and goes on
// in a coming turn.
//
// Belongs to the activity thread. A member of the shadow that it works for, which must outlive it.
//
// Of its SHADOW it uses: store(), a pointer with doSlot(); map(), a pointer with
// corruptionDetected(); initialized(), yieldTime() and sample(); and syncComplete().
//
// Invariants:
//  1. currentSlot() is the number of slots still to visit. It rises with sync() only, and by the
//  one slot that is to be visited again.
//  2. A walk visits at least one slot each time it runs.
//  3. After abandon() nothing is visited and syncComplete() is not called, until the next sync().
#pragma once

#include <cstdint>
#include <memory>

#include "quill/Counters.h"
#include "runtime/sable/Platform.h"
#include "runtime/vex/ActivityManager.h"

namespace Quill {

template <class SHADOW>
class Syncer final : public Sable::Platform::TimeoutHandler, private Sable::Debuggable {
 public:
  // Seconds from a walk that was stopped by something else than damage to its continuation.
  static constexpr double kRetryTime = 1.0;

  // Works on the loop that is current now, and by its clock. Raises an internal exception if none
  // is.
  Syncer(Sable::Platform::DebugHandler& handler, SHADOW* shadow, Reader::Counters& counters);
  Syncer(const Syncer&) = delete;
  Syncer& operator=(const Syncer&) = delete;
  virtual ~Syncer() = default;

  // Visits the slots below `numSlots`; forgets a walk that is under way. `resync`: compare first,
  // so that only what differs is copied and notified. False if the walk ended with the shadow
  // detached, because of damage or by a listener: nothing of the shadow is to be touched then.
  // Raises what ShadowStoreBase::doSlot() raises, except damage, which goes to the map.
  bool sync(unsigned numSlots, bool resync);
  // Goes on with a walk that was interrupted. What a slot raises except damage ends here: that slot
  // is visited again after kRetryTime.
  void timeout() override;
  // Off: a running walk ends after the present slot, and nothing is visited. On: goes on in a
  // coming turn.
  void notifying(bool on);
  // For a shadow that is being detached, also from inside one of its notifications.
  void abandon() noexcept;

  bool stopped() const noexcept { return stopped_; }
  unsigned currentSlot() const noexcept { return currentSlot_; }

 private:
  // Who is to hear of what is raised: the owner, or nobody, since the loop would end by it.
  enum class Caller : std::uint8_t { owner, loop };

  // One run; false as in sync(), or if the run is to be repeated later.
  bool doSync(Caller caller);
  // Visits slots until the end, a stop or the end of the time; false as in doSync().
  bool visit(double start, unsigned& done, Caller caller);

  SHADOW* shadow_;
  Reader::Counters* counters_;
  std::unique_ptr<Sable::Platform::TimerControl> timer_;
  bool yielded_ = false;
  bool stopped_ = false;
  bool resync_ = false;
  unsigned currentSlot_ = 0;
  bool abandoned_ = false;
  const Vex::Ptr<Vex::Clock const> clock_;
};

}  // namespace Quill

#include "quill/Syncer-inl.h"
