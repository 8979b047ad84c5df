// SPDX-License-Identifier: Apache-2.0
//
// Vex::PtrInterface: the base of every counted object. One 32-bit word holds the reference count
// and two flags, so a counted object costs a vtable pointer and four bytes.
//
// Owned by its references (Ptr.h); deleted on the thread that drops the last one. The count is
// plain unless the process-wide switch enableThreadSafePointers is on; then it is atomic. Flags are
// for the activity thread only.
//
// Invariants:
//  1. The count is at least 1 while any Ptr refers to the object.
//  2. handleZeroRef() runs once for each time that the count, flags left out, falls to zero.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "runtime/vex/Ptr.h"

namespace Vex {

// Whether counts are changed atomically. Belongs to the process: set it before the first object is
// shared with a second thread; the library only reads it.
extern bool enableThreadSafePointers;

class NotifieeConst;

class PtrInterface {
 public:
  // The base of all reactors (Notifiee.h), under the name that other code knows it by.
  using NotifieeConst = Vex::NotifieeConst;

  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  void vexRef() const noexcept {
    if (enableThreadSafePointers) {
      std::atomic_ref(word_).fetch_add(kUnit, std::memory_order_relaxed);
    } else {
      word_ += kUnit;
    }
  }

  void vexUnref() const noexcept {
    std::uint32_t left = 0;
    if (enableThreadSafePointers) {
      left = std::atomic_ref(word_).fetch_sub(kUnit, std::memory_order_acq_rel) - kUnit;
    } else {
      left = word_ -= kUnit;
    }
    if (left < kUnit) const_cast<PtrInterface*>(this)->handleZeroRef();
  }

  // The number of counted references, flags left out.
  std::uint32_t references() const noexcept { return word() / kUnit; }

  // The zombie flag: the object still exists but its reactors must not run.
  bool isZombie() const noexcept { return (word() & kZombie) != 0; }
  void vexMarkedForDeletionIs(bool flag) noexcept { flagIs(kZombie, flag); }

  // Whether changes are told to and through this object. The base only stores the flag; machines
  // pass it on to their reactors and to what they own, reactors leave and re-join their notifier.
  bool hasNotificationActive() const noexcept { return (word() & kNotificationActive) != 0; }
  virtual void hasNotificationActiveIs(bool flag) { flagIs(kNotificationActive, flag); }

  // A reactor joins or leaves the notifiees of this object. Called by
  // NotifieeConst::isRegisteredNotifieeIs alone; the base keeps no list.
  virtual void notifieeRegisteredIs(NotifieeConst& /*notifiee*/, bool /*registered*/) const {}

 protected:
  PtrInterface() noexcept = default;
  virtual ~PtrInterface() = default;

  // The count has reached zero. Deletes the object; an override may keep it alive by taking a
  // count again.
  virtual void handleZeroRef() { delete this; }

 private:
  static constexpr std::uint32_t kZombie = 1;
  static constexpr std::uint32_t kNotificationActive = 2;
  static constexpr std::uint32_t kUnit = 4;

  // Always atomic: other threads may be changing the count, and a relaxed load costs what a plain
  // one does.
  std::uint32_t word() const noexcept {
    return std::atomic_ref(word_).load(std::memory_order_relaxed);
  }

  void flagIs(std::uint32_t bit, bool flag) noexcept {
    // Atomic with the switch on, so that a count changed on another thread is not lost.
    if (enableThreadSafePointers) {
      const std::atomic_ref shared(word_);
      flag ? shared.fetch_or(bit, std::memory_order_relaxed)
           : shared.fetch_and(~bit, std::memory_order_relaxed);
    } else {
      word_ = flag ? word_ | bit : word_ & ~bit;
    }
  }

  alignas(std::atomic_ref<std::uint32_t>::required_alignment) mutable std::uint32_t word_ = kUnit;
};

// The allocating form: objects of the model and the engine derive from it. Its operators take the
// object's size, so that the one place below can count or pool allocations by size.
class VFPtrInterface : public PtrInterface {
 public:
  static void* operator new(std::size_t size);
  static void* operator new(std::size_t size, void* place) noexcept;
  static void operator delete(void* object, std::size_t size) noexcept;

 protected:
  VFPtrInterface() noexcept = default;
};

}  // namespace Vex
