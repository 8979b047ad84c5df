// SPDX-License-Identifier: Apache-2.0
//
// How long a proof runs and with which random numbers. As one test of many it takes a fixed number
// of steps; QUILL_SECONDS makes it a run of that length, whose end is a signal and not a look at a
// clock. QUILL_SEED says from where the random numbers start.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace QuillTest {

class ProofRun {
 public:
  // `steps` of a run without QUILL_SECONDS.
  explicit ProofRun(std::uint64_t steps) : steps_(steps) {
    over_ = 0;
    if (seconds() == 0) return;
    steps_ = ~std::uint64_t{0};
    struct sigaction action {};
    action.sa_handler = [](int) { over_ = 1; };
    sigaction(SIGALRM, &action, &before_);
    alarm(seconds());
  }
  ProofRun(const ProofRun&) = delete;
  ProofRun& operator=(const ProofRun&) = delete;
  ~ProofRun() {
    if (seconds() == 0) return;
    alarm(0);
    sigaction(SIGALRM, &before_, nullptr);
  }

  bool goesOn(std::uint64_t stepsTaken) const { return over_ == 0 && stepsTaken < steps_; }

  static unsigned seconds() { return numberFrom("QUILL_SECONDS", 0); }
  static unsigned seed() { return numberFrom("QUILL_SEED", 20); }

 private:
  static unsigned numberFrom(const char* variable, unsigned otherwise) {
    const char* const text = std::getenv(variable);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
  }

  inline static volatile sig_atomic_t over_ = 0;
  std::uint64_t steps_;
  struct sigaction before_ {};
};

}  // namespace QuillTest
