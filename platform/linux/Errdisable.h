// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::Errdisable: acts on the errdisable cause. Takes a listed interface out of
// service by an action and puts it back when it is listed no more. Activity thread only.
//
// Actions (docs/configuration.md): the port's state in its kernel bridge, which leaves the link up
// and lets the engine go on seeing frames; the interface's administrative state; or nothing but a
// report.
//
// Invariants:
//  1. Only what this object has taken down does it put back up.
//  2. What it has done to an interface is not the operator's will: adminEnabled() tells the two
//  apart
//     and LinkDirectory publishes its answer.
//  3. The action of a held interface stands: when the kernel resets it (a bridge port's state after
//  a
//     link flap), it is made again. What the operator undoes by raising the interface is his word
//     and stays undone until the next looped probe.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "platform/linux/LinkTable.h"
#include "runtime/errdisable/CauseStatus.h"
#include "runtime/vex/Machine.h"

namespace Platform::Linux {

enum class ErrdisableAction : std::uint8_t {
  automatic,   // bridgePort for a port of a kernel bridge, else adminDown
  bridgePort,  // the port's state in its bridge: disabled
  adminDown,   // the interface is shut
  monitor      // nothing
};

// The word of an action as operators write it: "auto", "bridge-port", "admin-down", "monitor".
std::string_view errdisableActionName(ErrdisableAction action);

// What the actions do to the kernel; LinkControl in service, something else in a test.
class LinkActions {
 public:
  virtual std::error_code adminUpIs(int ifindex, bool up) = 0;
  virtual std::error_code bridgePortStateIs(int ifindex, std::uint8_t state) = 0;
  virtual std::optional<LinkInfo> read(int ifindex) = 0;

 protected:
  ~LinkActions() = default;
};

class Errdisable final : public Vex::Machine<Errdisable> {
 public:
  static constexpr std::string_view kTypeName = "Platform::Linux::Errdisable";

  // Whoever wants to know. Called after the action, inside the notification of the cause.
  class Listener {
   public:
    // The interface is held by `action` (never automatic); `error` says why not, if it is not.
    virtual void held(const Portus::IntfId& intfId, int ifindex, ErrdisableAction action,
                      std::error_code error) = 0;
    virtual void released(const Portus::IntfId& intfId, std::error_code error) = 0;

   protected:
    ~Listener() = default;
  };

  // Which link an interface is, empty for one that does not exist now.
  class LinkResolver {
   public:
    virtual const LinkInfo* link(const Portus::IntfId& intfId) const = 0;

   protected:
    ~LinkResolver() = default;
  };

  // All but the cause must outlive this object. Interfaces that are listed already are taken down.
  Errdisable(const Vex::Ptr<::Errdisable::CauseStatus const>& cause, LinkActions& actions,
             const LinkResolver& links, Listener& listener, ErrdisableAction action);
  ~Errdisable() override;

  // Whether the operator wants this link up, as far as its flags and what is done here tell.
  bool adminEnabled(const Portus::IntfId& intfId, const LinkInfo& link);

  // A link has changed or come; the action is made again where it no longer stands.
  void handleLink(const Portus::IntfId& intfId, const LinkInfo& link);
  // A link has gone and took what was done to it along.
  void handleLinkGone(const Portus::IntfId& intfId);

  void handleCause(const Portus::IntfId& intfId);

  bool holds(const Portus::IntfId& intfId) const { return held_.contains(intfId); }

 private:
  friend class Vex::Machine<Errdisable>;

  class VexCause final : public Vex::Reactor<Errdisable, ::Errdisable::CauseStatus> {
   public:
    void onIntfStatus(const Portus::IntfId& intfId) override {
      react([&](Errdisable& sm) { sm.handleCause(intfId); });
    }
  };

  struct Held {
    int ifindex;
    ErrdisableAction action;  // never automatic
    bool ours;                // false: the interface was out of service before
  };

  auto vexReactors() { return std::tie(cause_); }
  static auto vexOwned() { return std::tie(); }

  // Takes the link down; `held` tells what was made, or tried last.
  std::error_code take(const LinkInfo& link, Held& held);
  std::error_code apply(Held& held);
  void release(const Portus::IntfId& intfId);

  Vex::Ptr<VexCause> cause_;
  LinkActions& actions_;
  const LinkResolver& links_;
  Listener& listener_;
  const ErrdisableAction action_;
  std::unordered_map<Portus::IntfId, Held> held_;
  // Raised here after having been shut here; what the kernel still tells of the shutdown is old.
  std::unordered_map<Portus::IntfId, int> rising_;
};

}  // namespace Platform::Linux
