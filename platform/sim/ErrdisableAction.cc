// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/ErrdisableAction.h"

#include <algorithm>
#include <utility>

#include "runtime/vex/ActivityManager.h"

namespace Platform::Sim {

ErrdisableAction::ErrdisableAction(const Vex::Ptr<Errdisable::CauseStatus const>& cause, Hold hold)
    : cause_(Vex::newReactor<VexCause>(this, Vex::validPtr(cause))), hold_(std::move(hold)) {
  for (auto it = cause->intfStatusIteratorConst(); it; ++it) handleIntf(it.key());
  hasNotificationActiveIs(true);
}

ErrdisableAction::~ErrdisableAction() { vexTeardown(); }

bool ErrdisableAction::isHeld(const Portus::IntfId& intfId) const {
  return std::find(held_.begin(), held_.end(), intfId) != held_.end();
}

void ErrdisableAction::handleIntf(const Portus::IntfId& intfId) {
  const bool down = watched(cause_)->intfStatusHas(intfId);
  if (down == isHeld(intfId)) return;
  if (down) {
    held_.push_back(intfId);
  } else {
    std::erase(held_, intfId);
  }
  history_.push_back({Vex::activityManager().clock()->now(), intfId, down});
  hold_(intfId, down);
}

}  // namespace Platform::Sim
