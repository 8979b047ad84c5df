// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Notifiee.h"

namespace Vex {

namespace {
thread_local std::uint32_t expectDepth = 0;
}  // namespace

void NotifieeConst::hasNotificationActiveIs(bool flag) {
  if (flag == hasNotificationActive()) return;
  PtrInterface::hasNotificationActiveIs(flag);
  if (!flag) {
    const bool registered = registered_;
    isRegisteredNotifieeIs(false);
    registeredBefore_ = registered;
  } else if (registeredBefore_) {
    registeredBefore_ = false;
    isRegisteredNotifieeIs(true);
  }
}

void NotifieeConst::isRegisteredNotifieeIs(bool flag) {
  if (flag == registered_ || !notifier_) return;
  registered_ = flag;
  notifier_->notifieeRegisteredIs(*this, flag);
}

void NotifieeConst::notifierIs(const Ptr<PtrInterface const>& notifier) {
  if (notifier == notifier_) return;
  isRegisteredNotifieeIs(false);
  registeredBefore_ = false;
  notifier_ = notifier;
}

void NotifieeConst::vexDoZombieReactors(bool flag) {
  if (flag == isZombie()) return;
  if (notifier_) hasNotificationActiveIs(!flag);
  // A reactor may be registered without ever having been told that notification is active.
  if (flag) isRegisteredNotifieeIs(false);
  vexMarkedForDeletionIs(flag);
}

NotifieeConst::~NotifieeConst() = default;

void NotifieeConst::handleZeroRef() {
  // Leaving the list may make a walk take a reference (ListRaw, invariant 1), so this object must
  // count as alive while it does: the walk then keeps it until it is done.
  vexRef();
  vexMarkedForDeletionIs(true);
  isRegisteredNotifieeIs(false);
  if (references() > 1) {
    vexUnref();
  } else {
    delete this;
  }
}

Expect::Expect(std::uint32_t id) noexcept : id_(id) { ++expectDepth; }

Expect::~Expect() { --expectDepth; }

std::uint32_t Expect::depth() noexcept { return expectDepth; }

}  // namespace Vex
