// SPDX-License-Identifier: Apache-2.0
//
// labScenario: runs one test inside a lab of its own (Isolation.h) and brings the failed checks
// home: the macros of GoogleTest work in the body as everywhere. To be called as the whole of a
// TEST.
//
// Where namespaces are not allowed the test is skipped, loudly; with RINGWARD_LAB_REQUIRED=1 in the
// environment it fails instead, for machines on which it has to run.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

#include "tests/lab/Isolation.h"
#include "tests/lab/Lab.h"

namespace RingwardLab {

// Hands the results of checks to the parent instead of printing them.
class ForwardingListener : public testing::EmptyTestEventListener {
 public:
  explicit ForwardingListener(Report report) : report_(std::move(report)) {}

  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (!result.passed()) {
      report_({result.skipped() ? Finding::Kind::kSkip : Finding::Kind::kFailure,
               result.file_name() != nullptr ? result.file_name() : "", result.line_number(),
               result.message()});
    }
  }

 private:
  const Report report_;
};

inline bool labRequired() {
  const char* value = std::getenv("RINGWARD_LAB_REQUIRED");
  return value != nullptr && std::string_view(value) == "1";
}

// Ends the calling test as one that could not run.
inline void skipLab(const std::string& reason) {
  if (labRequired()) {
    FAIL() << "the lab is required here, but cannot run: " << reason;
  }
  std::fprintf(stderr, "*** NOT RUN: %s\n", reason.c_str());
  GTEST_SKIP() << "not run: " << reason;
}

// Runs the body in a lab; failed checks are in the outcome.
inline Outcome runLab(const std::function<void(Lab&)>& body, std::chrono::milliseconds limit) {
  return runIsolated(
      [&](const Report& report) {
        auto& listeners = testing::UnitTest::GetInstance()->listeners();
        delete listeners.Release(listeners.default_result_printer());
        listeners.Append(new ForwardingListener(report));
        Lab lab;
        body(lab);
        return 0;
      },
      limit);
}

// Makes the outcome of a lab that of the calling test.
inline void takeOutcome(const Outcome& outcome) {
  if (!outcome.permitted) {
    skipLab(outcome.refusal);
    return;
  }
  bool skipped = false;
  for (const Finding& finding : outcome.findings) {
    if (finding.kind == Finding::Kind::kSkip) {
      skipped = true;
    } else {
      ADD_FAILURE_AT(finding.file.c_str(), finding.line) << finding.text;
    }
  }
  if (!outcome.ending.empty()) {
    ADD_FAILURE() << "the scenario was " << outcome.ending;
  }
  if (skipped) {
    skipLab("skipped in the lab");
  }
}

inline void labScenario(const std::function<void(Lab&)>& body,
                        std::chrono::milliseconds limit = std::chrono::seconds(60)) {
  takeOutcome(runLab(body, limit));
}

}  // namespace RingwardLab
