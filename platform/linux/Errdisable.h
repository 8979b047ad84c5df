// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::Errdisable: acts on the errdisable cause. Takes a listed interface out of
// service by an action (PortAction.h) and puts it back when it is listed no more. Activity thread
// only.
//
// Invariants:
//  1. Only what this object, or the run whose holds it has adopted, has taken down does it put back
//     up, and by the action that took it down, whatever the configuration says by then.
//  2. What it has done to an interface is not the operator's will: adminEnabled() tells the two
//     apart and LinkDirectory publishes its answer.
//  3. The action of a held interface stands: where the kernel resets it (a bridge port's state
//     after a link flap), it is made again. The exception is an interface that is held by
//     admin-down and raised: that is the operator's word, and it stays up until the next looped
//     probe.
//  4. What fails is tried again, after kFirstPause and then twice as long each time up to
//     kLongestPause, for as long as it is wanted; the listener hears of the first failure and of
//     the success, not of the attempts between.
#pragma once

#include <cstdint>
#include <map>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "platform/linux/PortAction.h"
#include "runtime/errdisable/CauseStatus.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/Machine.h"

namespace Platform::Linux {

class Errdisable final : public Vex::Machine<Errdisable> {
 public:
  static constexpr std::string_view kTypeName = "Platform::Linux::Errdisable";
  static constexpr double kFirstPause = 0.1;     // seconds
  static constexpr double kLongestPause = 30.0;  // seconds

  struct Hold {
    enum class State : std::uint8_t {
      standing,   // out of service
      failing,    // to be taken out of service; the last attempt failed
      raised,     // the operator has put it back in service
      releasing,  // to be put back; the last attempt failed
    };
    int ifindex = 0;
    ErrdisableAction action = ErrdisableAction::monitor;  // made, or tried last; never automatic
    bool ours = false;  // false: it was out of service before, and is not to be put back
    State state = State::failing;
    unsigned attempts = 0;    // that failed in a row
    double nextAttempt = 0;   // seconds on the activity clock; with `attempts` only
    std::error_code error{};  // of the last attempt

    bool operator==(const Hold&) const = default;
  };
  using Holds = std::map<Portus::IntfId, Hold>;

  // Whoever wants to know. Called after the action, inside the notification of the cause or of a
  // timer; must not call back.
  class Listener {
   public:
    // The interface is held, or not if hold.error says why. Once for each hold.
    virtual void held(const Portus::IntfId& intfId, const Hold& hold) = 0;
    // What had failed has come right at last.
    virtual void heldAtLast(const Portus::IntfId& intfId, const Hold& hold) = 0;
    // The interface is put back, or not if hold.error says why. Once for each hold.
    virtual void released(const Portus::IntfId& intfId, const Hold& hold) = 0;
    virtual void releasedAtLast(const Portus::IntfId& intfId, const Hold& hold) = 0;

   protected:
    ~Listener() = default;
  };

  // Which link an interface is, null for one that does not exist now.
  class LinkResolver {
   public:
    virtual const LinkInfo* link(const Portus::IntfId& intfId) const = 0;

   protected:
    ~LinkResolver() = default;
  };

  // All but the cause and the wheel must outlive this object. Interfaces that are listed already
  // are taken down.
  Errdisable(const Vex::Ptr<::Errdisable::CauseStatus const>& cause,
             const Vex::Ptr<Helm::TimerWheel const>& timerWheel, LinkActions& actions,
             const LinkResolver& links, Listener& listener, ErrdisableAction action);
  ~Errdisable() override;

  // For what is taken down from now on.
  void actionIs(ErrdisableAction action) noexcept { action_ = action; }

  // What an earlier run has taken down and not put back. It counts as held from here on; the cause
  // lists it when the engine has taken it up, and who adopts it lets go of what is not taken up.
  // REQUIRES: the interface is not held.
  void holdIs(const Portus::IntfId& intfId, int ifindex, ErrdisableAction action);
  // Puts back what the cause does not list. An absent or listed interface does nothing.
  void strayDel(const Portus::IntfId& intfId);

  // Whether the operator wants this link up, as far as its flags and what is done here tell.
  bool adminEnabled(const Portus::IntfId& intfId, const LinkInfo& link);

  // A link has changed or come; the action is made again where it no longer stands. True: the
  // operator has raised it, which the engine must hear of as of a shut and a raise.
  [[nodiscard]] bool handleLink(const Portus::IntfId& intfId, const LinkInfo& link);
  // The interface has gone. If its link has not (it was renamed), it is put back in service: under
  // its new name it is another interface, which nothing is known of.
  void handleLinkGone(const Portus::IntfId& intfId);

  void handleCause(const Portus::IntfId& intfId);
  void handleRetry();

  // Asks the kernel whether each action that stands really does, and makes again what does not.
  // Returns the interfaces to which that happened.
  std::vector<Portus::IntfId> verify();

  const Holds& holds() const noexcept { return holds_; }
  bool holds(const Portus::IntfId& intfId) const {
    const auto at = holds_.find(intfId);
    return at != holds_.end() && at->second.state == Hold::State::standing;
  }

 private:
  friend class Vex::Machine<Errdisable>;

  class VexCause final : public Vex::Reactor<Errdisable, ::Errdisable::CauseStatus> {
   public:
    void onIntfStatus(const Portus::IntfId& intfId) override {
      react([&](Errdisable& sm) { sm.handleCause(intfId); });
    }
  };
  class VexRetryTimer final : public Vex::Reactor<Errdisable, Helm::TimerWheel> {
   public:
    void onTime() override {
      react([](Errdisable& sm) { sm.handleRetry(); });
    }
  };

  auto vexReactors() { return std::tie(cause_, retryTimer_); }
  static auto vexOwned() { return std::tie(); }

  bool listed(const Portus::IntfId& intfId) const { return watched(cause_)->intfStatusHas(intfId); }
  void take(const Portus::IntfId& intfId, const LinkInfo& link);
  // One attempt to have the link out of service: the action it has, else the first that works.
  void attempt(Hold& hold, const LinkInfo& link);
  void attemptAgain(const Portus::IntfId& intfId, Hold& hold, const LinkInfo& link);
  // One attempt to put it back. True: it is done, with hold.error if there is nothing to hope for.
  bool giveBack(const Portus::IntfId& intfId, Hold& hold);
  void release(const Portus::IntfId& intfId);
  void failed(Hold& hold);
  void armRetry();

  Vex::Ptr<VexCause> cause_;
  Vex::Ptr<VexRetryTimer> retryTimer_;
  LinkActions& actions_;
  const LinkResolver& links_;
  Listener& listener_;
  ErrdisableAction action_;
  Holds holds_;
  // Raised here after having been shut here; what the kernel still tells of the shutdown is old.
  std::unordered_map<Portus::IntfId, int> rising_;
};

}  // namespace Platform::Linux
