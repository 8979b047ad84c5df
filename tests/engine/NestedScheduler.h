// SPDX-License-Identifier: Apache-2.0
//
// The scheduler as the rule says it, by plain recursion: a dequeue notifies, the notification runs
// the handler again, and only then is the request sent. What Ringward::TransmitSm must look like
// from outside, for queues short enough for the stack. Activity thread only.
//
// Invariant: nothing here knows how TransmitSm is made. It shares the entities and the log handle.
#pragma once

#include <cstdint>
#include <functional>

#include "engine/EngineLogs.h"
#include "model/config/TransmitConfig.h"
#include "model/status/TransmitStatus.h"

class NestedScheduler final {
 public:
  using IntfAndVlan = Ringward::Status::IntfAndVlan;
  using TransmitStatus = Ringward::Status::TransmitStatus;
  using TransmitConfig = Ringward::Config::TransmitConfig;

  // `send` may raise. `raised` is told of a notification in which a handler has raised.
  NestedScheduler(Vex::Ptr<TransmitStatus> queues, Vex::Ptr<TransmitConfig> config,
                  std::function<void(const IntfAndVlan&)> send,
                  std::function<void(Vex::AttributeId)> raised)
      : queues_(std::move(queues)),
        config_(std::move(config)),
        send_(std::move(send)),
        configNotifiee_(Vex::makePtr<ConfigNotifiee>(*this, raised)),
        queuesNotifiee_(Vex::makePtr<QueuesNotifiee>(*this, raised)) {
    configNotifiee_->notifierIs(config_);
    configNotifiee_->isRegisteredNotifieeIs(true);
    queuesNotifiee_->notifierIs(queues_);
    queuesNotifiee_->isRegisteredNotifieeIs(true);
    handleThrottleTimer();
  }
  ~NestedScheduler() {
    configNotifiee_->isRegisteredNotifieeIs(false);
    queuesNotifiee_->isRegisteredNotifieeIs(false);
  }
  NestedScheduler(const NestedScheduler&) = delete;
  NestedScheduler& operator=(const NestedScheduler&) = delete;

  std::uint32_t transmitCount() const { return transmitCount_; }

  void handleThrottleTimer() {
    transmitCount_ = 0;
    handleHighPriority();
    handleRegularPriority();
  }

  bool handleHighPriority() {
    while (!queues_->highPriority().empty() && admits()) {
      ++transmitCount_;
      const IntfAndVlan request = queues_->highPriorityDeq();
      send_(request);
    }
    return ending(queues_->highPriority().empty());
  }

  bool handleRegularPriority() {
    if (!handleHighPriority()) return false;
    while (!queues_->regularPriority().empty() && admits()) {
      ++transmitCount_;
      const IntfAndVlan request = queues_->regularPriorityDeq();
      send_(request);
    }
    return ending(queues_->regularPriority().empty());
  }

 private:
  class ConfigNotifiee final : public TransmitConfig::NotifieeConst {
   public:
    ConfigNotifiee(NestedScheduler& s, std::function<void(Vex::AttributeId)> raised)
        : scheduler_(s), raised_(std::move(raised)) {}
    void onRateLimit() override { scheduler_.handleThrottleTimer(); }
    using NotifieeConst::onNotificationException;
    void onNotificationException(Vex::AttributeId id) override { raised_(id); }

   private:
    NestedScheduler& scheduler_;
    const std::function<void(Vex::AttributeId)> raised_;
  };
  class QueuesNotifiee final : public TransmitStatus::NotifieeConst {
   public:
    QueuesNotifiee(NestedScheduler& s, std::function<void(Vex::AttributeId)> raised)
        : scheduler_(s), raised_(std::move(raised)) {}
    using NotifieeConst::onHighPriority;
    using NotifieeConst::onRegularPriority;
    void onHighPriority(std::uint32_t /*index*/) override { scheduler_.handleHighPriority(); }
    void onRegularPriority(std::uint32_t /*index*/) override { scheduler_.handleRegularPriority(); }
    using NotifieeConst::onNotificationException;
    void onNotificationException(Vex::AttributeId id) override { raised_(id); }

   private:
    NestedScheduler& scheduler_;
    const std::function<void(Vex::AttributeId)> raised_;
  };

  bool admits() const { return config_->rateLimit() == 0 || transmitCount_ < config_->rateLimit(); }
  bool ending(bool empty) {
    if (empty) return true;
    if (Ringward::RINGWARD_THROTTLE.okToLog(0)) Vex::log(Ringward::RINGWARD_THROTTLE);
    return false;
  }

  const Vex::Ptr<TransmitStatus> queues_;
  const Vex::Ptr<TransmitConfig> config_;
  const std::function<void(const IntfAndVlan&)> send_;
  std::uint32_t transmitCount_ = 0;
  const Vex::Ptr<ConfigNotifiee> configNotifiee_;
  const Vex::Ptr<QueuesNotifiee> queuesNotifiee_;
};
