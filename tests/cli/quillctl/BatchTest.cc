// SPDX-License-Identifier: Apache-2.0
//
// The command batch, as a user runs it.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <fstream>

#include "tests/cli/quillctl/Tool.h"

namespace QuillctlTest {
namespace {

class QuillctlBatch : public testing::Test {
 protected:
  QuillctlBatch() { root_.done({"create", "v", "--type", "counterVlan", "--size", "50"}); }

  // A batch that ends at its second line.
  void expectSecondLineRefused(const std::string& line, int status, const std::string& text) const {
    const Outcome outcome = root_.run({"batch", "v"}, "put 1 1 1 1\n" + line + "\nput 3 3 3 3\n");
    EXPECT_EQ(outcome.status, status) << line;
    EXPECT_EQ(outcome.out, "1 applied, 1 entries in table v\n");
    EXPECT_EQ(outcome.err, "quillctl: line 2, " + text + "; applied before it: 1 changes\n");
    EXPECT_EQ(root_.done({"dump", "v"}), "1: tx 1, rx 1, rxOther 1\n");
  }

  Root root_;
};

TEST_F(QuillctlBatch, LinesAreAppliedInTheirOrder) {
  EXPECT_EQ(root_.done({"batch", "v"},
                       "put 1 1 1 1\n# a comment\n\n  put\t2 2 2 2  \r\nput 1 7 8 9\ndel 2"),
            "4 applied, 1 entries in table v\n");
  EXPECT_EQ(root_.done({"dump", "v"}), "1: tx 7, rx 8, rxOther 9\n");
  EXPECT_EQ(root_.done({"batch", "v", "--json"}, "del 1\n"),
            "{\"table\":\"v\",\"applied\":1,\"entries\":0,\"sequence\":5}\n");
}

TEST_F(QuillctlBatch, NoInputChangesNothing) {
  EXPECT_EQ(root_.done({"batch", "v"}), "0 applied, 0 entries in table v\n");
}

TEST_F(QuillctlBatch, AWrongLineIsNamedAndNothingBehindItApplied) {
  expectSecondLineRefused("pot 2 2 2 2", 1,
                          "\"pot 2 2 2 2\": must be \"put KEY TX RX RXOTHER\" or \"del KEY\"");
  expectSecondLineRefused("put 2 2 2", 1,
                          "\"put 2 2 2\": must be \"put KEY TX RX RXOTHER\" or \"del KEY\"");
  expectSecondLineRefused(
      "put 2 2 -2 2", 1,
      "\"put 2 2 -2 2\": RX \"-2\": must be a decimal number from 0 to 4294967295");
  expectSecondLineRefused("del 4095", 1,
                          "\"del 4095\": key \"4095\": VlanIdOrNone::value > 4094 not allowed");
  expectSecondLineRefused("del 77", 3, "\"del 77\": no key \"77\" in the table");
}

TEST_F(QuillctlBatch, AVeryLongLineIsRefusedBeforeItsEnd) {
  const std::string line = "put " + std::string(10'000'000, '1');
  expectSecondLineRefused(
      line, 1,
      "\"put " + std::string(60, '1') + "\"... (1025 bytes): the line is longer than 1024 bytes");
}

TEST_F(QuillctlBatch, ANulByteIsRefused) {
  expectSecondLineRefused(std::string("put 2 2\0 2 2", 12), 1,
                          "\"put 2 2\\x00 2 2\": byte 8 is NUL");
}

TEST_F(QuillctlBatch, AFileIsAnInputAsAPipeIs) {
  const std::string path = root_.path() + "/input";
  {
    std::ofstream input(path);
    for (int i = 1; i <= 4000; ++i) input << "put " << i << " 1 2 3\n";
  }
  const std::string command = std::string(std::getenv("QUILLCTL")) + " --root " + root_.path() +
                              " batch v < " + path + " > " + root_.path() + "/output";
  EXPECT_EQ(std::system(command.c_str()), 0);
  std::ifstream output(root_.path() + "/output");
  std::string line;
  std::getline(output, line);
  EXPECT_EQ(line, "4000 applied, 4000 entries in table v");
}

TEST_F(QuillctlBatch, ASignalEndsItBetweenTwoLines) {
  Running sut(root_, {"batch", "v"});
  sut.say("put 1 1 1 1\n");
  while (root_.run({"get", "v", "1"}).status != 0) {
  }
  sut.signal(SIGTERM);
  const Outcome outcome = sut.end();
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "1 applied, 1 entries in table v\n");
  EXPECT_EQ(outcome.err, "quillctl: interrupted; applied before it: 1 changes\n");
  EXPECT_EQ(root_.done({"verify", "v"}), "table v: sound, 1 entries\n");
}

}  // namespace
}  // namespace QuillctlTest
