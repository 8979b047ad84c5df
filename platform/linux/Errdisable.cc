// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Errdisable.h"

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "runtime/vex/ActivityManager.h"
#include "runtime/vex/LogService.h"

namespace Platform::Linux {

namespace {

using State = Errdisable::Hold::State;

const Vex::LogHandle RINGWARD_ERRDISABLE_OVERRIDDEN(
    "RINGWARD_ERRDISABLE_OVERRIDDEN", Vex::LogSeverity::warning,
    "Interface %s was raised by the operator while a loop holds it down",
    "The interface forwards again. The next probe that comes back takes it down again.",
    "Remove the loop, or exclude the interface from detection.", 0.0, 1.0, 0);

const Vex::LogHandle RINGWARD_ERRDISABLE_LEFT(
    "RINGWARD_ERRDISABLE_LEFT", Vex::LogSeverity::error,
    "A link that was held down as interface %s has another name now and could not be put back",
    "It stays out of service, and nobody will put it back.",
    "Raise it by hand, or set its bridge port state to forwarding.", 0.0, 1.0, 0);

}  // namespace

Errdisable::Errdisable(const Vex::Ptr<::Errdisable::CauseStatus const>& cause,
                       const Vex::Ptr<Helm::TimerWheel const>& timerWheel, LinkActions& actions,
                       const LinkResolver& links, Listener& listener, ErrdisableAction action)
    : cause_(Vex::newReactor<VexCause>(this, Vex::validPtr(cause))),
      retryTimer_(Vex::newReactor<VexRetryTimer>(this, Vex::validPtr(timerWheel))),
      actions_(actions),
      links_(links),
      listener_(listener),
      action_(action) {
  for (auto it = cause->intfStatusIteratorConst(); it; ++it) handleCause(it.key());
  hasNotificationActiveIs(true);
}

Errdisable::~Errdisable() { vexTeardown(); }

void Errdisable::holdIs(const Portus::IntfId& intfId, int ifindex, ErrdisableAction action) {
  Hold hold;
  hold.ifindex = ifindex;
  hold.action = action;
  hold.ours = true;
  hold.state = State::standing;
  holds_.emplace(intfId, hold);
}

void Errdisable::strayDel(const Portus::IntfId& intfId) {
  if (!listed(intfId)) release(intfId);
}

bool Errdisable::adminEnabled(const Portus::IntfId& intfId, const LinkInfo& link) {
  const auto rising = rising_.find(intfId);
  if (rising != rising_.end() && (link.adminUp() || rising->second != link.ifindex)) {
    rising_.erase(rising);
  }
  if (link.adminUp() || rising_.contains(intfId)) return true;
  const auto at = holds_.find(intfId);
  if (at == holds_.end()) return false;
  const Hold& hold = at->second;
  return hold.ifindex == link.ifindex && hold.ours && hold.action == ErrdisableAction::adminDown &&
         hold.state != State::raised;
}

void Errdisable::handleCause(const Portus::IntfId& intfId) {
  if (!listed(intfId)) {
    release(intfId);
    return;
  }
  // A listed interface that does not exist is taken down when it comes (handleLink).
  const LinkInfo* link = links_.link(intfId);
  if (link == nullptr) return;
  const auto at = holds_.find(intfId);
  const bool known = at != holds_.end() && at->second.ifindex == link->ifindex;
  // Every looped probe leads here, half a million times a second in a storm: what failed waits for
  // its timer.
  if (known && (at->second.state == State::standing || at->second.state == State::failing)) return;
  take(intfId, *link);
}

void Errdisable::take(const Portus::IntfId& intfId, const LinkInfo& link) {
  Hold& hold = holds_[intfId];
  // What could not be put back is still ours; a link of another index never was.
  if (hold.ifindex != link.ifindex || hold.state == State::raised) hold = Hold{};
  hold.ifindex = link.ifindex;
  hold.attempts = 0;
  attempt(hold, link);
  hold.state = hold.error ? State::failing : State::standing;
  if (hold.error) failed(hold);
  listener_.held(intfId, hold);
}

void Errdisable::attempt(Hold& hold, const LinkInfo& link) {
  // What holds it already is made again, so that the way back stays the same.
  if (hold.ours && possible(hold.action, link)) {
    hold.error = Linux::actionIs(actions_, link, hold.action, hold.ours);
    if (!hold.error) return;
  }
  const auto undo = [&] {
    if (hold.ours) static_cast<void>(actionDel(actions_, hold.ifindex, hold.action));
    hold.ours = false;
  };
  for (const ErrdisableAction action : actionsFor(action_, link)) {
    undo();  // half done is worse than not done: nobody would put it back
    hold.action = action;
    hold.error = Linux::actionIs(actions_, link, action, hold.ours);
    if (!hold.error) return;
  }
}

void Errdisable::attemptAgain(const Portus::IntfId& intfId, Hold& hold, const LinkInfo& link) {
  const bool wasFailing = hold.state == State::failing;
  attempt(hold, link);
  if (hold.error) {
    hold.state = State::failing;
    failed(hold);
    if (!wasFailing) listener_.held(intfId, hold);
    return;
  }
  hold.state = State::standing;
  if (wasFailing) listener_.heldAtLast(intfId, hold);
  hold.attempts = 0;
}

bool Errdisable::giveBack(const Portus::IntfId& intfId, Hold& hold) {
  hold.error.clear();
  if (!hold.ours || hold.state == State::raised) return true;
  const bool raises = hold.action == ErrdisableAction::adminDown;
  if (raises) rising_[intfId] = hold.ifindex;
  hold.error = actionDel(actions_, hold.ifindex, hold.action);
  if (raises && hold.error) rising_.erase(intfId);
  if (hold.error.value() == ENODEV) hold.error.clear();  // gone, and with it what was done to it
  return !hold.error;
}

void Errdisable::release(const Portus::IntfId& intfId) {
  const auto at = holds_.find(intfId);
  if (at == holds_.end() || at->second.state == State::releasing) return;
  at->second.attempts = 0;
  if (giveBack(intfId, at->second)) {
    const Hold last = at->second;
    holds_.erase(at);
    armRetry();
    listener_.released(intfId, last);
    return;
  }
  at->second.state = State::releasing;
  failed(at->second);
  listener_.released(intfId, at->second);
}

void Errdisable::failed(Hold& hold) {
  const double pause = kFirstPause * std::exp2(std::min(hold.attempts, 16U));
  ++hold.attempts;
  hold.nextAttempt = Vex::now() + std::min(pause, kLongestPause);
  armRetry();
}

void Errdisable::armRetry() {
  double next = Vex::kNever;
  for (const auto& [intfId, hold] : holds_) {
    if (hold.attempts != 0) next = std::min(next, hold.nextAttempt);
  }
  retryTimer_->timeMinIs(next);
}

void Errdisable::handleRetry() {
  const double now = Vex::now();
  for (auto at = holds_.begin(); at != holds_.end();) {
    const auto here = at++;
    const Portus::IntfId intfId = here->first;
    Hold& hold = here->second;
    if (hold.attempts == 0 || hold.nextAttempt > now) continue;
    if (hold.state == State::failing) {
      const LinkInfo* link = links_.link(intfId);
      if (link != nullptr && link->ifindex == hold.ifindex) {
        attemptAgain(intfId, hold, *link);
      } else {
        failed(hold);  // it is about to be told that the link has gone
      }
    } else if (giveBack(intfId, hold)) {
      const Hold last = hold;
      holds_.erase(here);
      listener_.releasedAtLast(intfId, last);
    } else {
      failed(hold);
    }
  }
  armRetry();
}

bool Errdisable::handleLink(const Portus::IntfId& intfId, const LinkInfo& link) {
  const auto at = holds_.find(intfId);
  if (at != holds_.end() && at->second.ifindex != link.ifindex) holds_.erase(at);
  if (!listed(intfId)) return false;
  const auto found = holds_.find(intfId);
  if (found == holds_.end()) {
    // Not taken down so far, or another device under the old name.
    if (link.adminUp()) take(intfId, link);
    return false;
  }
  Hold& hold = found->second;
  if (hold.state != State::standing || stands(hold.action, link)) return false;
  // The message may be older than the action: the kernel is asked for what is so now.
  const auto present = actions_.read(link.ifindex);
  if (!present || stands(hold.action, *present)) return false;
  if (hold.action == ErrdisableAction::adminDown) {
    hold.state = State::raised;
    Vex::log(RINGWARD_ERRDISABLE_OVERRIDDEN, intfId);
    return true;
  }
  attemptAgain(intfId, hold, *present);
  return false;
}

void Errdisable::handleLinkGone(const Portus::IntfId& intfId) {
  rising_.erase(intfId);
  const auto at = holds_.find(intfId);
  if (at == holds_.end()) return;
  const Hold hold = at->second;
  holds_.erase(at);
  armRetry();
  if (!hold.ours || hold.state == State::raised || !actions_.read(hold.ifindex)) return;
  const std::error_code error = actionDel(actions_, hold.ifindex, hold.action);
  if (error && error.value() != ENODEV) Vex::log(RINGWARD_ERRDISABLE_LEFT, intfId);
}

std::vector<Portus::IntfId> Errdisable::verify() {
  std::vector<Portus::IntfId> healed;
  for (auto& [intfId, hold] : holds_) {
    if (hold.state != State::standing) continue;
    const auto present = actions_.read(hold.ifindex);
    if (!present || stands(hold.action, *present)) continue;
    attemptAgain(intfId, hold, *present);
    healed.push_back(intfId);
  }
  return healed;
}

}  // namespace Platform::Linux
