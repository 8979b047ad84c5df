// SPDX-License-Identifier: Apache-2.0
//
// Every call of the C library that a scenario makes, and every allocation, fails once, and from
// there on for ever. Nobody crashes, nothing leaks, no table is lost, and when the fault is over
// everybody goes on (Scenario.cc has the rules, Sample.h the faults).
//
// Not shown: faults of the kernel that leave a call half done (an error of a disk after the data
// was mapped), calls that fail in several processes at a time, the loop's own calls.
#include <gtest/gtest.h>

#include <string>

#include "tests/quill/faults/Sample.h"
#include "tests/quill/faults/Scenario.h"

namespace QuillTest {

namespace {

using Faults::Fault;
using Faults::Kind;

class FaultsTest : public testing::TestWithParam<Scenario> {};

TEST_P(FaultsTest, NoFailureCrashesLeaksOrLosesATable) {
  const Scenario& scenario = GetParam();
  // The first run makes what lives as long as the process.
  static_cast<void>(judge(scenario, {}));
  const unsigned calls = countOf(scenario, Kind::call);
  const unsigned allocations = countOf(scenario, Kind::allocation);
  const auto faults = Faults::faultsOf(calls, 1, allocations);
  Faults::expectRulesKept(scenario.name, faults,
                          [&](const Fault& fault) { return judge(scenario, fault); });
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FaultsTest, testing::ValuesIn(scenarios()),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace

}  // namespace QuillTest
