// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::StopSignals: SIGINT, SIGTERM and SIGHUP as a question, and not as the end of the
// process in the middle of a write, which would cost the table. From its making on the signals are
// blocked in this thread, for the rest of the process.
//
// Belongs to the loop's thread. A signal ends a wait of the loop, after which came() tells.
#pragma once

#include "platform/linux/Fd.h"
#include "runtime/vex/EpollActivityManager.h"

namespace Quillctl {

class StopSignals final : private Vex::ReadableHandler {
 public:
  // Raises Failure(refused) with the system's reason.
  explicit StopSignals(Vex::EpollActivityManager& loop);
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals();

  // The signal that came, 0 for none. Looks; does not wait.
  int came();

 private:
  void onReadable() override;

  Vex::EpollActivityManager& loop_;
  Platform::Linux::Fd fd_;
  int came_ = 0;
};

}  // namespace Quillctl
