// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/StopSignals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/quillctl/Failure.h"

namespace Quillctl {

StopSignals::StopSignals(Vex::EpollActivityManager& loop) : loop_(loop) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
  if (sigprocmask(SIG_BLOCK, &set, nullptr) == 0) {
    fd_ = Platform::Linux::Fd(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
  }
  if (!fd_) {
    throw Failure(ExitStatus::refused,
                  std::string("cannot wait for signals: ") + std::strerror(errno));
  }
  loop_.readableIs(fd_.get(), *this);
}

StopSignals::~StopSignals() { loop_.readableDel(fd_.get()); }

int StopSignals::came() {
  onReadable();
  return came_;
}

void StopSignals::onReadable() {
  signalfd_siginfo info{};
  if (read(fd_.get(), &info, sizeof info) == sizeof info) came_ = static_cast<int>(info.ssi_signo);
}

}  // namespace Quillctl
