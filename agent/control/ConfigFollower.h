// SPDX-License-Identifier: Apache-2.0
//
// Agent::ConfigFollower: sees to it that what clients change in the configuration entity reaches
// the rest of the agent, and that nobody takes away what the engine relies on.
//
// Activity thread only. Registers itself with the entity, which it holds.
//
// Invariants:
//  1. The two children of the configuration are there whenever a change of it returns: the engine
//     reads their values without asking. One that was taken away comes back with its defaults.
#pragma once

#include <functional>
#include <utility>

#include "model/config/Config.h"
#include "runtime/vex/ActivityManager.h"

namespace Agent {

class ConfigFollower final : public Ringward::Config::Config::NotifieeConst {
 public:
  // `changed` is called in a later turn of the loop, once for any number of changes of the VLANs or
  // of the switch.
  ConfigFollower(Vex::ActivityManager& manager, Vex::Ptr<Ringward::Config::Config> config,
                 std::function<void()> changed)
      : config_(std::move(config)), later_(manager, std::move(changed)) {
    notifierIs(Vex::Ptr<Vex::PtrInterface const>(config_));
    isRegisteredNotifieeIs(true);
  }

  using NotifieeConst::onVlanEnabled;
  void onGlobalEnabled() override { later_.schedule(); }
  void onVlanEnabled(const Bridging::VlanId& /*vlanId*/) override { later_.schedule(); }
  void onTransmitConfig() override {
    if (!config_->transmitConfig()) config_->transmitConfigIs("transmitConfig");
  }
  void onGlobalIntfConfig() override {
    if (!config_->globalIntfConfig()) config_->globalIntfConfigIs("globalIntfConfig");
  }

 private:
  class Later final : public Vex::DeferredTask {
   public:
    Later(Vex::ActivityManager& manager, std::function<void()> call)
        : DeferredTask(manager), call_(std::move(call)) {}
    ~Later() override = default;
    void run() override { call_(); }

   private:
    const std::function<void()> call_;
  };

  const Vex::Ptr<Ringward::Config::Config> config_;
  Later later_;
};

}  // namespace Agent
