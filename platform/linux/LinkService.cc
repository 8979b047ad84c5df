// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinkService.h"

#include <algorithm>

namespace Platform::Linux {

class LinkService::RetryTimer final : public Helm::TimerWheel::NotifieeConst {
 public:
  explicit RetryTimer(LinkService& service) : service_(service) {}
  void onTime() override { service_.run(); }

 private:
  LinkService& service_;
};

LinkService::LinkService(Vex::ActivityManager& manager,
                         const Vex::Ptr<Helm::TimerWheel>& timerWheel,
                         LinkMonitor::Listener& listener)
    : DeferredTask(manager),
      manager_(manager),
      monitor_(listener),
      retryTimer_(Vex::makePtr<RetryTimer>(*this)) {
  retryTimer_->notifierIs(Vex::Ptr<Vex::PtrInterface const>(timerWheel));
  retryTimer_->isRegisteredNotifieeIs(true);
}

LinkService::~LinkService() {
  retryTimer_->isRegisteredNotifieeIs(false);
  if (watched_) manager_.readableDel(monitor_.fd());
}

std::error_code LinkService::start() {
  if (const std::error_code error = monitor_.start()) return error;
  manager_.readableIs(monitor_.fd(), *this);
  watched_ = true;
  return {};
}

void LinkService::resync() {
  monitor_.resync();
  schedule();
}

void LinkService::run() {
  if (monitor_.process(kMessagesPerTurn)) {
    schedule();
    return;
  }
  if (monitor_.inSync()) {
    pause_ = kFirstPause;
    retryTimer_->timeMinIs(Vex::kNever);
  } else if (!retryTimer_->armed()) {
    // A dump that is under way ends with a message; should it fail, this is what asks again.
    retryTimer_->timeMinIs(Vex::now() + pause_);
    pause_ = std::min(2 * pause_, kLongestPause);
  }
}

}  // namespace Platform::Linux
