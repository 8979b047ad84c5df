// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::LinkService: a LinkMonitor on an activity loop. Reads what the kernel tells in
// bounded slices, and asks again for a dump that failed, after kFirstPause and then twice as long
// each time up to kLongestPause. While the table is in step with the kernel no timer runs. Activity
// thread only.
#pragma once

#include "platform/linux/LinkMonitor.h"
#include "runtime/helm/TimerWheel.h"
#include "runtime/vex/ActivityManager.h"

namespace Platform::Linux {

class LinkService final : private Vex::ReadableHandler, private Vex::DeferredTask {
 public:
  static constexpr std::size_t kMessagesPerTurn = 256;
  static constexpr double kFirstPause = 0.1;     // seconds
  static constexpr double kLongestPause = 10.0;  // seconds

  // `listener` hears of each change and outlives this object.
  LinkService(Vex::ActivityManager& manager, const Vex::Ptr<Helm::TimerWheel>& timerWheel,
              LinkMonitor::Listener& listener);
  ~LinkService() override;

  // Reads all links before it returns; errors are those of LinkMonitor::start().
  std::error_code start();
  // Compares everything with the kernel, in the turns that follow.
  void resync();

  bool inSync() const { return monitor_.inSync(); }
  int fd() const { return monitor_.fd(); }
  const LinkMonitor::Statistics& statistics() const { return monitor_.statistics(); }

 private:
  class RetryTimer;

  void onReadable() override { run(); }
  void run() override;

  Vex::ActivityManager& manager_;
  LinkMonitor monitor_;
  Vex::Ptr<RetryTimer> retryTimer_;
  double pause_ = kFirstPause;
  bool watched_ = false;
};

}  // namespace Platform::Linux
