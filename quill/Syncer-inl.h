// SPDX-License-Identifier: Apache-2.0
//
// Bodies of Syncer.h.
#pragma once

#include <new>
#include <string>

#include "quill/Exceptions.h"
#include "quill/Syncer.h"
#include "quill/Text.h"
#include "runtime/sable/Exceptions.h"

namespace Quill {

template <class SHADOW>
Syncer<SHADOW>::Syncer(Sable::Platform::DebugHandler& handler, SHADOW* shadow,
                       Reader::Counters& counters)
    : Debuggable(handler),
      shadow_(shadow),
      counters_(&counters),
      timer_(Sable::Platform::getTimerControl(*this)),
      clock_(Vex::activityManager().clock()) {}

template <class SHADOW>
bool Syncer<SHADOW>::sync(unsigned numSlots, bool resync) {
  trace(8, [&](std::ostream& os) {
    os << "Syncer::sync() resync:" << resync << " numSlots:" << numSlots;
  });
  resync_ = resync;
  currentSlot_ = numSlots;
  abandoned_ = false;
  return doSync(Caller::owner);
}

template <class SHADOW>
void Syncer<SHADOW>::timeout() {
  // The loop has nobody to pass an exception to: what stopped the walk, such as a want of memory,
  // may be over in a while.
  static_cast<void>(doSync(Caller::loop));  // may end this object
}

template <class SHADOW>
void Syncer<SHADOW>::notifying(bool on) {
  trace(8, [&](std::ostream& os) { os << "Syncer::notifying() notifying: " << on; });
  stopped_ = !on;
  if (!on) {
    timer_->cancel();
  } else if (currentSlot_ != 0) {
    timer_->arm(0.0);
  }
}

template <class SHADOW>
void Syncer<SHADOW>::abandon() noexcept {
  abandoned_ = true;
  currentSlot_ = 0;
  timer_->cancel();
}

template <class SHADOW>
bool Syncer<SHADOW>::doSync(Caller caller) {
  if (stopped_) {
    trace(8,
          [&](std::ostream& os) { os << "Syncer::doSync() notifications temporarily disabled"; });
    return true;
  }
  const double start = clock_->now();
  yielded_ = false;
  trace(8, [&](std::ostream& os) {
    os << "Syncer::doSync() Syncing, resync:" << resync_ << " sample:" << shadow_->sample()
       << " yieldTime:" << shadow_->yieldTime() << " currentSlot:" << currentSlot_
       << " start:" << start;
  });
  unsigned done = 0;
  if (!visit(start, done, caller)) return false;
  trace(8, [&](std::ostream& os) {
    os << "Syncer::doSync() Synced " << done << " slots in " << clock_->now() - start
       << " seconds, currentSlot:" << currentSlot_ << " yield:" << yielded_ << " stop:" << stopped_;
  });
  if (currentSlot_ == 0) {
    timer_->cancel();
    shadow_->syncComplete();
    return true;
  }
  if (!yielded_ && !stopped_) {
    raise<Sable::RuntimeException>("Syncer unexpectedly stopped syncing");
  }
  if (stopped_ && !shadow_->initialized()) {
    trace(7, [&](std::ostream& os) {
      os << "Syncer::doSync() Interrupted shadow initialization, synced " << done << " slots ("
         << currentSlot_ << " slots remaining)";
    });
  }
  timer_->arm(0.0);
  return true;
}

template <class SHADOW>
bool Syncer<SHADOW>::visit(double start, unsigned& done, Caller caller) {
  unsigned sinceCheck = 0;
  while (!stopped_ && currentSlot_ != 0) {
    // `done`: a time limit below the cost of reading the clock must not stop the walk for ever.
    if (shadow_->initialized() && shadow_->yieldTime() != 0 && shadow_->sample() <= sinceCheck &&
        done != 0) {
      if (clock_->now() - start > shadow_->yieldTime()) {
        yielded_ = true;
        ++counters_->syncerYields;
        break;
      }
      sinceCheck = 0;
    }
    --currentSlot_;
    try {
      shadow_->store()->doSlot(currentSlot_, resync_);
    } catch (const CorruptionDetectedException& damage) {
      const std::string message = damage.what();
      trace(7,
            [&](std::ostream& os) { os << "Syncer::doSync() corruption detected: " << message; });
      // Detaches the handle: this object may be out of use on return.
      shadow_->map()->corruptionDetected(message);
      return false;
    } catch (const Sable::Exception& failure) {
      if (caller == Caller::owner) throw;
      trace(7, [&](std::ostream& os) {
        os << "Syncer::doSync() tries again in " << kRetryTime << " s: " << failure.msg();
      });
      ++currentSlot_;
      if (!abandoned_) timer_->arm(kRetryTime);
      return false;
    } catch (const std::bad_alloc&) {
      if (caller == Caller::owner) throw;
      ++currentSlot_;
      if (!abandoned_) timer_->arm(kRetryTime);
      return false;
    }
    // A listener may have detached the handle.
    if (abandoned_) return false;
    ++done;
    ++sinceCheck;
  }
  return true;
}

}  // namespace Quill
