// SPDX-License-Identifier: Apache-2.0
//
// Random histories of a table against a plain map, in one process and in virtual time. What they
// prove and what not: each operation is complete before the next begins, so this is about states,
// not about stores of another processor; ThreadsTest and ProcessTest are about those.
//
// The seed is fixed and printed; RC_PARAMS="seed=7 max_success=1000" runs others.
#include <gtest/gtest.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <rapidcheck.h>

#include <string>
#include <vector>

#include "tests/quill/RawFile.h"
#include "tests/quill/history/History.h"

namespace QuillTest {

namespace {

rc::Gen<Step> anyStep() {
  const auto kind = rc::gen::weightedElement<Step::Kind>(
      {{12, Step::write},         {3, Step::writeNew},     {8, Step::remove},
       {4, Step::direct},         {6, Step::fill},         {5, Step::drain},
       {3, Step::churn},          {16, Step::run},         {4, Step::runAll},
       {3, Step::leap},           {2, Step::close},        {3, Step::restart},
       {2, Step::restartDamaged}, {2, Step::cutReaders},   {2, Step::cutWriter},
       {2, Step::away},           {1, Step::falseReport},  {1, Step::damage},
       {4, Step::settings},       {2, Step::notifyingOff}, {4, Step::notifyingOn},
       {1, Step::quiet},          {4, Step::nearWrap}});
  return rc::gen::resize(
      rc::kNominalSize,
      rc::gen::construct<Step>(kind, rc::gen::inRange<std::uint16_t>(0, History::kKeys),
                               rc::gen::inRange<std::uint16_t>(0, 250)));
}

// What the checker of table files, a program of its own, says of a table at rest: nothing if it is
// sound.
std::string foundByChecker(const std::string& directory) {
  const std::string report = directory + ".report";
  const std::string command = "exec python3 -B \"$0\" \"$1\" > \"$2\" 2>&1";
  std::vector<std::string> words{"sh", "-c", command, RINGWARD_TABLE_CHECK, directory, report};
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, arguments.data(), environ) != 0) {
    return "the checker cannot be run";
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return "the checker is gone";
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  return "the checker ends with status " + std::to_string(status) + ": " + RawFile(report).all();
}

// Runs steps and the quiet after them; every `checked`th history is shown to the checker as well.
void live(const std::vector<Step>& steps, unsigned checked) {
  History sut;
  for (const Step& step : steps) sut.take(step);
  sut.quiet();
  if (History::coverage().histories % checked != 0) return;
  const std::string finding = foundByChecker(sut.directory());
  if (!finding.empty()) wrong(finding);
}

}  // namespace

class HistoryTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { setenv("RC_PARAMS", "seed=20 max_success=40", 0); }
};

TEST_F(HistoryTest, EveryAnswerIsTheMapsAndEveryChangedKeyIsNotified) {
  History::coverage() = {};
  const auto longHistory = rc::gen::resize(300, rc::gen::container<std::vector<Step>>(anyStep()));

  const bool held = rc::check("a table behaves as a map", [&] {
    const std::vector<Step> steps = *longHistory;
    live(steps, 10);
  });

  EXPECT_TRUE(held);
  const History::Coverage& seen = History::coverage();
  EXPECT_GT(seen.slotGrowths, 0U);
  EXPECT_GT(seen.compactions, 0U);
  EXPECT_GT(seen.prunes, 0U);
  EXPECT_GT(seen.queueGrowths, 0U);
  EXPECT_GT(seen.kept, 0U);
  EXPECT_GT(seen.givenUp, 0U);
  EXPECT_GT(seen.connectionsCut, 0U);
  EXPECT_GT(seen.resyncs, 0U);
  EXPECT_GT(seen.batchYields, 0U);
  EXPECT_GT(seen.syncYields, 0U);
  EXPECT_GT(seen.slotMoves, 0U);
  EXPECT_GT(seen.damagesMet, 0U);
  EXPECT_GT(seen.wrapped, 0U);
  EXPECT_GT(seen.sequencesPassed, 0U);
  EXPECT_LT(seen.newsLost * 10, seen.quiets);
}

}  // namespace QuillTest
