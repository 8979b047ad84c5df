// SPDX-License-Identifier: Apache-2.0
//
// Vex::NotifieeConst: the base of all reactors, a watcher that holds a counted reference to one
// notifier and is told of its changes. Activity thread only.
//
// A reactor is made by its machine, which owns it, and keeps a plain pointer back. It is registered
// in two steps: notifierIs(notifier), then isRegisteredNotifieeIs(true). A reactor may be told of a
// change after it has unregistered, by a walk that had begun before; so each onX() first tests the
// zombie flag. All defaults do nothing.
//
// Invariants:
//  1. A registered notifiee has a notifier.
//  2. A notifiee is unregistered before it is deleted, and while its count can still be taken.
#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

#include "runtime/vex/Ptr.h"
#include "runtime/vex/PtrInterface.h"

namespace Vex {

class VexType;
class Activity;

// The type object of a class (GenericType.h).
template <class Class>
VexType* fwkTypeOf();

// Number of an attribute in its class; entities count their own from 258.
using AttributeId = std::uint32_t;

class NotifieeConst : public VFPtrInterface {
 public:
  // Off: remembers whether the reactor was registered and unregisters it. On: restores that.
  void hasNotificationActiveIs(bool flag) override;

  virtual void vexAuditErrors() const {}
  virtual void auditErrors() const {}
  virtual void isNondestructingIs(bool /*flag*/) {}
  virtual void zeroReferencesIs() {}
  virtual const VexType* fwkType() const { return nullptr; }

  virtual NotifieeConst* vexReactor() { return this; }
  virtual NotifieeConst* vexRawReactor() { return this; }
  // True for adapters that carry changes to other processes: they stand ahead of all machines in
  // the notifier's list.
  virtual bool isStreamAdapter() const { return false; }

  // A notifiee that follows every attribute by its number is told of the attributes of its entity's
  // class by vexOnChange() in place of their own operations. `key` is the address of the changed
  // key of a collection, of its Key type; null for what has none.
  bool vexTakesNumbers() const noexcept { return takesNumbers_; }
  virtual void vexOnChange(AttributeId /*id*/, const void* /*key*/) {}

  // Joins or leaves the notifier's list. Acts only on a change of the flag and only if a notifier
  // is present.
  virtual void isRegisteredNotifieeIs(bool flag);
  bool isRegisteredNotifiee() const noexcept { return registered_; }

  virtual void vex_bitSetIs(std::uint32_t /*bit*/, bool /*flag*/) {}
  virtual std::string_view name() const { return {}; }

  // Binds the reactor to another notifier (null: none). Unregisters it from the old one; the caller
  // registers it with the new one.
  virtual void notifierIs(const Ptr<PtrInterface const>& notifier);
  const PtrInterface* notifier() const noexcept { return notifier_.get(); }

  virtual void handleNotification(AttributeId /*id*/) {}
  virtual void handleDefault() {}
  virtual void onAttribute(AttributeId /*id*/) {}
  virtual void onNotification() {}
  virtual void onCollectionNotification() {}

  // A handler of this reactor has raised. Called inside the walk's catch clause, so that
  // std::current_exception() is the exception; the walk goes on with the next notifiee.
  virtual void onNotificationException() {}
  virtual void onNotificationException(AttributeId /*id*/) {}
  virtual void handleNotificationException(AttributeId /*id*/) {}
  virtual void handleNotificationException() {}
  virtual void onZeroReferences() {}

  virtual Activity* activityPtr() { return nullptr; }
  virtual Activity* vexFwkActivity() { return nullptr; }
  virtual const Activity* vexFwkActivity() const { return nullptr; }
  virtual Activity* actsm() { return nullptr; }

  // Turns notification off and marks the reactor, or the reverse.
  virtual void vexDoZombieReactors(bool flag);

  // For ListRaw: where the notifier's list holds this notifiee.
  void vexListPositionIs(std::uint32_t position) noexcept { listPosition_ = position; }
  std::uint32_t vexListPosition() const noexcept { return listPosition_; }

 protected:
  NotifieeConst() noexcept = default;
  ~NotifieeConst() override;
  void handleZeroRef() override;
  // For constructors.
  void vexTakesNumbersIs(bool flag) noexcept { takesNumbers_ = flag; }

 private:
  // Fills the padding behind the base's count word.
  bool takesNumbers_ = false;
  bool registered_ = false;
  bool registeredBefore_ = false;  // what hasNotificationActiveIs(true) restores
  std::uint32_t listPosition_ = 0;
  Ptr<PtrInterface const> notifier_;
};

// Marks that a notification is being delivered on this thread; nests. The guard's id names the kind
// of guarded call, 0 for a notification.
class Expect {
 public:
  explicit Expect(std::uint32_t id) noexcept : id_(id) { ++depth_; }
  Expect(const Expect&) = delete;
  Expect& operator=(const Expect&) = delete;
  ~Expect() { --depth_; }

  std::uint32_t id() const noexcept { return id_; }
  // How many guards stand on this thread's stack.
  static std::uint32_t depth() noexcept { return depth_; }

 private:
  inline static constinit thread_local std::uint32_t depth_ = 0;
  std::uint32_t id_;
};

// Calls `call` for one notifiee under the guard; whatever it raises goes to the notifiee's
// onNotificationException(id) and no further.
template <class Call>
void guardedNotification(NotifieeConst& notifiee, AttributeId id, Call&& call) {
  try {
    const Expect guard(0);
    call();
  } catch (...) {
    try {
      notifiee.onNotificationException(id);
    } catch (...) {  // NOLINT(bugprone-empty-catch): a failing failure handler has nobody to tell
    }
  }
}

}  // namespace Vex
