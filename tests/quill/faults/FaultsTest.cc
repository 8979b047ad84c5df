// SPDX-License-Identifier: Apache-2.0
//
// Every call of the C library that a scenario makes, and every allocation, fails once, and from
// there on for ever. Nobody crashes, nothing leaks, no table is lost, and when the fault is over
// everybody goes on (Scenario.cc has the rules).
//
// QUILL_FAULT_SHARE deals the faults into so many parts, by QUILL_SEED, and QUILL_FAULT_PART says
// which of them is tried; without these all are. A call that is interrupted for ever is left out:
// it is begun again, by design.
//
// Not shown: faults of the kernel that leave a call half done (an error of a disk after the data
// was mapped), calls that fail in several processes at a time, the loop's own calls.
#include <cstdlib>
#include <iostream>
#include <random>

#include "tests/quill/faults/Scenario.h"

namespace QuillTest {

namespace {

using Faults::Fault;
using Faults::Kind;

unsigned long environment(const char* name, unsigned long otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoul(text, nullptr, 10);
}

std::vector<Fault> faultsOf(const Scenario& scenario) {
  std::vector<Fault> faults;
  const unsigned calls = countOf(scenario, Kind::call);
  for (unsigned at = 1; at <= calls; ++at) {
    for (const int error : {ENOSPC, EMFILE, EACCES, ENOMEM, EIO}) {
      faults.push_back({Kind::call, at, error, false});
      faults.push_back({Kind::call, at, error, true});
    }
    faults.push_back({Kind::call, at, EINTR, false});
    faults.push_back({Kind::call, at, Faults::kShort, false});
  }
  const unsigned allocations = countOf(scenario, Kind::allocation);
  for (unsigned at = 1; at <= allocations; ++at) {
    faults.push_back({Kind::allocation, at, 0, false});
    faults.push_back({Kind::allocation, at, 0, true});
  }
  return faults;
}

class FaultsTest : public testing::TestWithParam<Scenario> {};

TEST_P(FaultsTest, NoFailureCrashesLeaksOrLosesATable) {
  const Scenario& scenario = GetParam();
  // The first run makes what lives as long as the process.
  static_cast<void>(judge(scenario, {}));
  const std::vector<Fault> faults = faultsOf(scenario);
  const unsigned long share = std::max(environment("QUILL_FAULT_SHARE", 1), 1UL);
  const unsigned long part = environment("QUILL_FAULT_PART", 0);
  const unsigned long seed = environment("QUILL_SEED", 1);
  std::mt19937_64 random(seed);
  unsigned tried = 0;
  unsigned wrong = 0;
  for (const Fault& fault : faults) {
    if (random() % share != part % share) continue;
    ++tried;
    const std::string rule = judge(scenario, fault);
    if (rule.empty()) continue;
    ADD_FAILURE() << scenario << ", " << fault.text() << ": " << rule;
    if (++wrong == 10) break;
  }
  std::cout << "faults: " << tried << " of " << faults.size() << ", seed " << seed << "\n";
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FaultsTest, testing::ValuesIn(scenarios()),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace

}  // namespace QuillTest
