// SPDX-License-Identifier: Apache-2.0
//
// Platform::Sim::ErrdisableAction: carries out what a feature's cause object asks for, by holding
// simulated interfaces down and releasing them. Owned by the System; activity thread only.
//
// Made before the engine, so that it hears of each change of the cause first: an interface is
// in service again before the engine probes it.
#pragma once

#include <functional>
#include <string_view>
#include <tuple>
#include <vector>

#include "runtime/errdisable/CauseStatus.h"
#include "runtime/vex/Machine.h"

namespace Platform::Sim {

class ErrdisableAction final : public Vex::Machine<ErrdisableAction> {
 public:
  static constexpr std::string_view kTypeName = "Platform::Sim::ErrdisableAction";
  // Holds the interface down, or releases it. Called for changes alone.
  using Hold = std::function<void(const Portus::IntfId& intfId, bool down)>;
  struct Action {
    double time;  // seconds on the activity clock
    Portus::IntfId intfId;
    bool down;
  };

  ErrdisableAction(const Vex::Ptr<Errdisable::CauseStatus const>& cause, Hold hold);
  ~ErrdisableAction() override;

  // All that was done so far.
  const std::vector<Action>& history() const noexcept { return history_; }
  bool isHeld(const Portus::IntfId& intfId) const;

  // Compares what is asked for with what is done, for one interface.
  void handleIntf(const Portus::IntfId& intfId);

 private:
  friend class Vex::Machine<ErrdisableAction>;

  class VexCause final : public Vex::Reactor<ErrdisableAction, Errdisable::CauseStatus> {
   public:
    void onIntfStatus(const Portus::IntfId& intfId) override {
      react([&](ErrdisableAction& sm) { sm.handleIntf(intfId); });
    }
  };

  auto vexReactors() { return std::tie(cause_); }
  static auto vexOwned() { return std::tie(); }

  Vex::Ptr<VexCause> cause_;
  const Hold hold_;
  std::vector<Portus::IntfId> held_;
  std::vector<Action> history_;
};

}  // namespace Platform::Sim
