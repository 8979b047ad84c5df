// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Errdisable.h"

#include <cerrno>

#include "runtime/vex/LogService.h"

namespace Platform::Linux {

namespace {

// linux/if_bridge.h
constexpr std::uint8_t kStateDisabled = 0;
constexpr std::uint8_t kStateForwarding = 3;

const Vex::LogHandle RINGWARD_ERRDISABLE_OVERRIDDEN(
    "RINGWARD_ERRDISABLE_OVERRIDDEN", Vex::LogSeverity::warning,
    "Interface %s was raised by the operator while a loop holds it down",
    "The interface forwards again. The next probe that comes back takes it down again.",
    "Remove the loop, or exclude the interface from detection.", 0.0, 1.0, 0);

bool isBridgePort(const LinkInfo& link) { return link.slaveKind == "bridge"; }

}  // namespace

std::string_view errdisableActionName(ErrdisableAction action) {
  switch (action) {
    case ErrdisableAction::automatic:
      return "auto";
    case ErrdisableAction::bridgePort:
      return "bridge-port";
    case ErrdisableAction::adminDown:
      return "admin-down";
    case ErrdisableAction::monitor:
      return "monitor";
  }
  return "";
}

Errdisable::Errdisable(const Vex::Ptr<::Errdisable::CauseStatus const>& cause, LinkActions& actions,
                       const LinkResolver& links, Listener& listener, ErrdisableAction action)
    : cause_(Vex::newReactor<VexCause>(this, Vex::validPtr(cause))),
      actions_(actions),
      links_(links),
      listener_(listener),
      action_(action) {
  for (auto it = cause->intfStatusIteratorConst(); it; ++it) handleCause(it.key());
  hasNotificationActiveIs(true);
}

Errdisable::~Errdisable() { vexTeardown(); }

bool Errdisable::adminEnabled(const Portus::IntfId& intfId, const LinkInfo& link) {
  const auto rising = rising_.find(intfId);
  if (rising != rising_.end() && (link.adminUp() || rising->second != link.ifindex)) {
    rising_.erase(rising);
  }
  if (link.adminUp() || rising_.contains(intfId)) return true;
  const auto held = held_.find(intfId);
  return held != held_.end() && held->second.ifindex == link.ifindex &&
         held->second.action == ErrdisableAction::adminDown;
}

void Errdisable::handleCause(const Portus::IntfId& intfId) {
  if (!watched(cause_)->intfStatusHas(intfId)) {
    release(intfId);
    return;
  }
  const LinkInfo* link = links_.link(intfId);
  const auto held = held_.find(intfId);
  // A listed interface that does not exist is taken down when it comes (handleLink).
  if (link == nullptr || (held != held_.end() && held->second.ifindex == link->ifindex)) return;
  const int ifindex = link->ifindex;
  // Noted first: what the kernel tells of the shutdown must not be read as the operator's.
  Held made{ifindex, ErrdisableAction::adminDown, true};
  held_[intfId] = made;
  const std::error_code error = take(*link, made);
  if (error) {
    held_.erase(intfId);
  } else {
    held_[intfId] = made;
  }
  listener_.held(intfId, ifindex, made.action, error);
}

std::error_code Errdisable::take(const LinkInfo& link, Held& held) {
  if (action_ != ErrdisableAction::automatic) {
    held.action = action_;
    return apply(held);
  }
  if (isBridgePort(link)) {
    held.action = ErrdisableAction::bridgePort;
    if (!apply(held)) return {};
  }
  held.action = ErrdisableAction::adminDown;
  return apply(held);
}

std::error_code Errdisable::apply(Held& held) {
  // What stands already is somebody else's and is not undone at the end.
  const auto present = actions_.read(held.ifindex);
  switch (held.action) {
    case ErrdisableAction::bridgePort:
      held.ours = !present || present->bridgePortState != kStateDisabled;
      return held.ours ? actions_.bridgePortStateIs(held.ifindex, kStateDisabled)
                       : std::error_code();
    case ErrdisableAction::adminDown:
      held.ours = !present || present->adminUp();
      return held.ours ? actions_.adminUpIs(held.ifindex, false) : std::error_code();
    case ErrdisableAction::monitor:
    case ErrdisableAction::automatic:
      held.ours = false;
      return {};
  }
  return {};
}

void Errdisable::release(const Portus::IntfId& intfId) {
  const auto at = held_.find(intfId);
  if (at == held_.end()) return;
  const Held held = at->second;
  held_.erase(at);
  std::error_code error;
  switch (held.ours ? held.action : ErrdisableAction::monitor) {
    case ErrdisableAction::bridgePort:
      error = actions_.bridgePortStateIs(held.ifindex, kStateForwarding);
      // Without a carrier, or out of its bridge by now, the port has nothing to come back to: the
      // kernel makes it forward when its carrier comes or when it joins again.
      if (error.value() == ENETDOWN || error.value() == EOPNOTSUPP) error.clear();
      break;
    case ErrdisableAction::adminDown:
      rising_[intfId] = held.ifindex;
      error = actions_.adminUpIs(held.ifindex, true);
      if (error) rising_.erase(intfId);
      break;
    case ErrdisableAction::monitor:
    case ErrdisableAction::automatic:
      break;
  }
  listener_.released(intfId, error);
}

void Errdisable::handleLink(const Portus::IntfId& intfId, const LinkInfo& link) {
  if (!watched(cause_)->intfStatusHas(intfId)) return;
  const auto at = held_.find(intfId);
  if (at == held_.end() || at->second.ifindex != link.ifindex) {
    // Not taken down so far, or another device under the old name.
    if (at != held_.end()) held_.erase(at);
    if (link.adminUp()) handleCause(intfId);
    return;
  }
  Held& held = at->second;
  switch (held.action) {
    case ErrdisableAction::bridgePort:
      // The message may be older than the action: apply() asks the kernel for what is so now. It
      // makes the state ours where the kernel or the operator had let the port forward again.
      if (link.bridgePortState.value_or(kStateDisabled) != kStateDisabled) {
        const bool ours = held.ours;
        if (const std::error_code error = apply(held))
          listener_.held(intfId, held.ifindex, held.action, error);
        held.ours = held.ours || ours;
      }
      return;
    case ErrdisableAction::adminDown:
      if (link.adminUp()) {
        const auto present = actions_.read(link.ifindex);
        if (present && present->adminUp()) {
          held_.erase(at);
          Vex::log(RINGWARD_ERRDISABLE_OVERRIDDEN, intfId);
        }
      }
      return;
    case ErrdisableAction::monitor:
    case ErrdisableAction::automatic:
      return;
  }
}

void Errdisable::handleLinkGone(const Portus::IntfId& intfId) {
  held_.erase(intfId);
  rising_.erase(intfId);
}

}  // namespace Platform::Linux
