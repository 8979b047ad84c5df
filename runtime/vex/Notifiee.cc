// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Notifiee.h"

namespace Vex {

void NotifieeConst::hasNotificationActiveIs(bool flag) {
  const bool before = hasNotificationActive();
  PtrInterface::hasNotificationActiveIs(flag);
  if (!flag) {
    // A reactor may be registered without ever having been turned on, and turning off one that is
    // off must not lose what was remembered the first time.
    if (before || registered_) registeredBefore_ = registered_;
    isRegisteredNotifieeIs(false);
  } else if (registeredBefore_) {
    registeredBefore_ = false;
    isRegisteredNotifieeIs(true);
  }
}

void NotifieeConst::isRegisteredNotifieeIs(bool flag) {
  if (flag == registered_ || !notifier_) return;
  notifier_->notifieeRegisteredIs(*this, flag);  // may refuse by an exception
  registered_ = flag;
}

void NotifieeConst::notifierIs(const Ptr<PtrInterface const>& notifier) {
  if (notifier == notifier_) return;
  isRegisteredNotifieeIs(false);
  registeredBefore_ = false;
  notifier_ = notifier;
}

void NotifieeConst::vexDoZombieReactors(bool flag) {
  if (notifier_) hasNotificationActiveIs(!flag);
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

}  // namespace Vex
