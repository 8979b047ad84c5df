// SPDX-License-Identifier: Apache-2.0
//
// The command watch, as a user runs it: in one process, with changes from others.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/cli/quillctl/Tool.h"

namespace QuillctlTest {
namespace {

class QuillctlWatch : public testing::Test {
 protected:
  void makeVlans() const { root_.done({"create", "v", "--type", "counterVlan", "--size", "50"}); }

  // The next line that is no remark.
  static std::string change(Running& sut) {
    std::string line;
    do {
      line = sut.line();
    } while (line.starts_with("#"));
    return line;
  }

  Root root_;
};

TEST_F(QuillctlWatch, PrintsWhatIsThereAndThenEachChangeOfALivingWriter) {
  makeVlans();
  root_.done({"put", "v", "5", "1", "2", "3"});
  Running sut(root_, {"watch", "v"});
  EXPECT_EQ(sut.line(), "5: tx 1, rx 2, rxOther 3");
  EXPECT_EQ(sut.line(), "# the table is there, 1 entries, no writer");
  Running writer(root_, {"batch", "v"});
  EXPECT_EQ(sut.line(), "# the table is there, 1 entries, its writer lives");
  writer.say("put 6 4 4 4\n");
  EXPECT_EQ(sut.line(), "6: tx 4, rx 4, rxOther 4");
  writer.say("put 5 7 7 7\n");
  EXPECT_EQ(sut.line(), "5: tx 7, rx 7, rxOther 7");
  writer.say("del 6\n");
  EXPECT_EQ(sut.line(), "6: gone");
  EXPECT_EQ(writer.end().status, 0);
  EXPECT_EQ(sut.line(), "# the table is there, 1 entries, no writer");
  sut.signal(SIGINT);
  const Outcome outcome = sut.end();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST_F(QuillctlWatch, WaitsForATableThatIsNotThereYet) {
  Running sut(root_, {"watch", "v"});
  EXPECT_EQ(sut.line(), "# no table yet");
  makeVlans();
  const std::string there = sut.line();
  EXPECT_TRUE(there.starts_with("# the table is there, 0 entries, ")) << there;
  Running writer(root_, {"batch", "v"});
  writer.say("put 6 4 4 4\n");
  EXPECT_EQ(change(sut), "6: tx 4, rx 4, rxOther 4");
  sut.signal(SIGTERM);
  EXPECT_EQ(sut.end().status, 0);
}

TEST_F(QuillctlWatch, EndsAtASignalAlsoBeforeThereIsATable) {
  Running sut(root_, {"--json", "watch", "v"});
  EXPECT_EQ(sut.line(), "{\"event\":\"unmounted\"}");
  sut.signal(SIGINT);
  EXPECT_EQ(sut.end().status, 0);
}

TEST_F(QuillctlWatch, SurvivesTheEndOfTheTableAndTheNextOne) {
  makeVlans();
  root_.done({"put", "v", "5", "1", "2", "3"});
  Running sut(root_, {"watch", "v", "--json"});
  EXPECT_EQ(sut.line(), "{\"key\":5,\"tx\":1,\"rx\":2,\"rxOther\":3,\"event\":\"changed\"}");
  EXPECT_EQ(sut.line(), "{\"event\":\"mounted\",\"entries\":1}");
  root_.done({"remove", "v"});
  EXPECT_EQ(sut.line(), "{\"key\":5,\"event\":\"gone\"}");
  EXPECT_EQ(sut.line(), "{\"event\":\"unmounted\"}");
  makeVlans();
  EXPECT_TRUE(sut.line().ends_with("\"entries\":0}"));
  sut.signal(SIGINT);
  EXPECT_EQ(sut.end().status, 0);
}

TEST_F(QuillctlWatch, SurvivesAWriterThatIsKilled) {
  makeVlans();
  root_.done({"put", "v", "5", "1", "2", "3"});
  Running sut(root_, {"watch", "v"});
  EXPECT_EQ(sut.line(), "5: tx 1, rx 2, rxOther 3");
  EXPECT_EQ(sut.line(), "# the table is there, 1 entries, no writer");
  {
    Running writer(root_, {"batch", "v"});
    writer.say("put 6 4 4 4\n");
    EXPECT_EQ(change(sut), "6: tx 4, rx 4, rxOther 4");
    writer.signal(SIGKILL);
    EXPECT_EQ(writer.end().status, 1000 + SIGKILL);
  }
  EXPECT_EQ(sut.line(), "# the table is there, 2 entries, no writer");
  Running writer(root_, {"batch", "v"});
  writer.say("put 7 1 1 1\n");
  EXPECT_EQ(change(sut), "7: tx 1, rx 1, rxOther 1");
  sut.signal(SIGINT);
  EXPECT_EQ(sut.end().status, 0);
}

}  // namespace
}  // namespace QuillctlTest
