// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/LineReader.h"

#include <gtest/gtest.h>

#include <vector>

namespace Quillctl {
namespace {

using Lines = std::vector<std::string>;

// Takes every line and notes its number and text.
class Taker {
 public:
  bool operator()(const InputLine& line) const {
    lines_.push_back(std::to_string(line.number) + ":" + line.text + (line.tooLong ? "!" : ""));
    return true;
  }
  const Lines& lines() const { return lines_; }

 private:
  mutable Lines lines_;
};

TEST(QuillctlLineReader, LinesAreCutWhereTheyEndHoweverTheBytesCome) {
  const std::string text = "put 1 2 3 4\n\ndel 7\n";
  for (std::size_t piece = 1; piece <= text.size(); ++piece) {
    LineReader sut;
    const Taker taker;
    for (std::size_t at = 0; at < text.size(); at += piece) {
      EXPECT_TRUE(sut.take(std::string_view(text).substr(at, piece), taker));
    }
    EXPECT_TRUE(sut.end(taker));
    EXPECT_EQ(taker.lines(), (Lines{"1:put 1 2 3 4", "2:", "3:del 7"})) << "pieces of " << piece;
  }
}

TEST(QuillctlLineReader, TheLastLineMayLackItsNewline) {
  LineReader sut;
  const Taker taker;
  EXPECT_TRUE(sut.take("a\nb", taker));
  EXPECT_EQ(taker.lines(), Lines{"1:a"});
  EXPECT_TRUE(sut.end(taker));
  EXPECT_EQ(taker.lines(), (Lines{"1:a", "2:b"}));
}

TEST(QuillctlLineReader, ALineOfTheLongestLengthIsOne) {
  LineReader sut;
  const Taker taker;
  const std::string longest(LineReader::kMaxLine, 'x');
  EXPECT_TRUE(sut.take(longest + "\n", taker));
  EXPECT_EQ(taker.lines(), Lines{"1:" + longest});
}

TEST(QuillctlLineReader, ALineThatIsTooLongEndsTheReadingBeforeItsEnd) {
  LineReader sut;
  const Taker taker;
  EXPECT_FALSE(sut.take("a\n" + std::string(LineReader::kMaxLine + 1, 'x'), taker));
  ASSERT_EQ(taker.lines().size(), 2U);
  EXPECT_EQ(taker.lines()[1], "2:" + std::string(LineReader::kMaxLine + 1, 'x') + "!");
}

TEST(QuillctlLineReader, ALineThatIsNotTakenIsTheLast) {
  LineReader sut;
  Lines lines;
  EXPECT_FALSE(sut.take("a\nb\nc\n", [&](const InputLine& line) {
    lines.push_back(line.text);
    return line.text != "b";
  }));
  EXPECT_EQ(lines, (Lines{"a", "b"}));
}

}  // namespace
}  // namespace Quillctl
