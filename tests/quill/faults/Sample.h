// SPDX-License-Identifier: Apache-2.0
//
// Which faults are tried under something that makes so many calls and allocations, and the trying.
//
// QUILL_FAULT_SHARE deals the faults into so many parts, by QUILL_SEED, and QUILL_FAULT_PART says
// which of them is tried; without these all are. A call that is interrupted for ever is left out:
// it is begun again, by design.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "tests/quill/faults/Calls.h"

namespace Faults {

// Each of the calls, and each allocation from `firstAllocation` on, fails once, and for ever.
inline std::vector<Fault> faultsOf(unsigned calls, unsigned firstAllocation, unsigned allocations) {
  std::vector<Fault> faults;
  for (unsigned at = 1; at <= calls; ++at) {
    for (const int error : {ENOSPC, EMFILE, EACCES, ENOMEM, EIO}) {
      faults.push_back({Kind::call, at, error, false});
      faults.push_back({Kind::call, at, error, true});
    }
    faults.push_back({Kind::call, at, EINTR, false});
    faults.push_back({Kind::call, at, kShort, false});
  }
  for (unsigned at = firstAllocation; at <= allocations; ++at) {
    faults.push_back({Kind::allocation, at, 0, false});
    faults.push_back({Kind::allocation, at, 0, true});
  }
  return faults;
}

inline unsigned long environment(const char* name, unsigned long otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoul(text, nullptr, 10);
}

// `judge` says which rule a fault has broken, "" for none; each is a failure of the test, and after
// ten the rest is left out.
template <class Judge>
void expectRulesKept(const std::string& name, const std::vector<Fault>& faults, Judge judge) {
  const unsigned long share = std::max(environment("QUILL_FAULT_SHARE", 1), 1UL);
  const unsigned long part = environment("QUILL_FAULT_PART", 0);
  const unsigned long seed = environment("QUILL_SEED", 1);
  std::mt19937_64 random(seed);
  unsigned tried = 0;
  unsigned wrong = 0;
  for (const Fault& fault : faults) {
    if (random() % share != part % share) continue;
    ++tried;
    const std::string rule = judge(fault);
    if (rule.empty()) continue;
    ADD_FAILURE() << name << ", " << fault.text() << ": " << rule;
    if (++wrong == 10) break;
  }
  std::cout << "faults: " << tried << " of " << faults.size() << ", seed " << seed << "\n";
}

}  // namespace Faults
