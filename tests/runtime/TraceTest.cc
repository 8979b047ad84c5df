// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Trace.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/sable/Exception.h"
#include "runtime/vex/Exception.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

class Lines final : public Vex::TraceSink {
 public:
  void line(std::string_view text) override { lines.emplace_back(text); }
  std::vector<std::string> lines;
};

class TraceTest : public testing::Test {
 protected:
  TraceTest() { Vex::traceSinkIs(&sink); }
  ~TraceTest() override {
    Vex::traceSinkIs(nullptr);
    Vex::coverageStream_ = nullptr;
  }
  // How often the text was formatted.
  int traceOnce(unsigned level) {
    int formatted = 0;
    Vex::trace(handle, level, [&](std::ostream& os) {
      ++formatted;
      os << "text";
    });
    return formatted;
  }

  Vex::TraceHandle handle{"TestSm", false};
  Lines sink;
};

TEST_F(TraceTest, NeedsMasterAndLevelSwitch) {
  EXPECT_EQ(traceOnce(8), 0);
  handle.enabledIs(true);
  EXPECT_EQ(traceOnce(8), 0);
  handle.levelIs(8, true);
  EXPECT_EQ(traceOnce(8), 1);
  EXPECT_EQ(traceOnce(7), 0);
  EXPECT_EQ(traceOnce(9), 0);
  handle.enabledIs(false);
  EXPECT_EQ(traceOnce(8), 0);
  handle.enabledIs(true);
  handle.levelIs(8, false);
  EXPECT_EQ(traceOnce(8), 0);
  EXPECT_EQ(sink.lines.size(), 1u);
}

TEST_F(TraceTest, EachOfTheTenLevelsHasItsOwnSwitch) {
  handle.enabledIs(true);
  for (unsigned level = 0; level <= 9; ++level) {
    handle.levelIs(level, true);
    for (unsigned other = 0; other <= 9; ++other) {
      EXPECT_EQ(handle.tracing(other), other == level);
      EXPECT_EQ(handle.level(other), other == level);
    }
    handle.levelIs(level, false);
  }
}

TEST_F(TraceTest, HandleMadeEnabledHasItsMasterSwitchOn) {
  Vex::TraceHandle made("Made", true);
  EXPECT_TRUE(made.enabled());
  made.levelIs(3, true);
  EXPECT_TRUE(made.tracing(3));
}

TEST_F(TraceTest, LevelAboveNineIsARangeException) {
  std::string text;
  try {
    handle.levelIs(10, true);
  } catch (const Vex::RangeException& e) {
    text = e.what();
  }
  EXPECT_EQ(text, "trace level 10 of TestSm: not in 0 to 9");
  EXPECT_FALSE(handle.tracing(10));
  EXPECT_FALSE(handle.tracing(64));
}

TEST_F(TraceTest, LineGivesSourceLevelFunctionAndText) {
  handle.enabledIs(true);
  handle.levelIs(7, true);
  const int line = __LINE__ + 1;
  Vex::trace(handle, 7, [](std::ostream& os) { os << "port " << 3; });
  ASSERT_EQ(sink.lines.size(), 1u);
  const std::string& text = sink.lines[0];
  EXPECT_EQ(text.rfind("TestSm 7 ", 0), 0u) << text;
  EXPECT_NE(text.find("TestBody:" + std::to_string(line) + ": port 3"), std::string::npos) << text;
}

TEST_F(TraceTest, LineBeginsWithTheTimeOfTheCurrentManager) {
  Vex::VirtualActivityManager manager(1234.5);
  const Vex::CurrentActivityManager current(manager);
  handle.enabledIs(true);
  handle.levelIs(7, true);
  traceOnce(7);
  ASSERT_EQ(sink.lines.size(), 1u);
  EXPECT_EQ(sink.lines[0].rfind("1234.500000 TestSm 7 ", 0), 0u) << sink.lines[0];
}

TEST_F(TraceTest, CoverageStreamGetsEveryTraceAndTheSinkOnlyWhatIsOn) {
  std::ostringstream coverage;
  Vex::coverageStream_ = &coverage;
  EXPECT_EQ(traceOnce(9), 1);
  EXPECT_TRUE(sink.lines.empty());
  handle.enabledIs(true);
  handle.levelIs(8, true);
  EXPECT_EQ(traceOnce(8), 1);
  ASSERT_EQ(sink.lines.size(), 1u);
  const std::string text = coverage.str();
  EXPECT_EQ(text.rfind("TestSm 9 ", 0), 0u);
  EXPECT_NE(text.find(sink.lines[0] + "\n"), std::string::npos);
}

TEST_F(TraceTest, TextThatRaisesChangesNothing) {
  handle.enabledIs(true);
  handle.levelIs(7, true);
  EXPECT_NO_THROW(Vex::trace(handle, 7, [](std::ostream& os) {
    os << "half";
    throw std::runtime_error("text");
  }));
  ASSERT_EQ(sink.lines.size(), 1u);
  EXPECT_NE(sink.lines[0].find("half (the rest of the text raised an exception)"),
            std::string::npos);
}

TEST_F(TraceTest, HelperWritesOneLine) {
  std::ostringstream stream;
  stream << "two\nlines";
  Vex::traceHelper("Facility", "prefix ", stream, 5, true, "Source", 12, "function");
  Vex::traceHelper("Facility", "", stream, 5, false, "Source", 12, "function");
  EXPECT_EQ(sink.lines,
            (std::vector<std::string>{"prefix Facility Source 5 function:12: two\\nlines"}));
}

TEST_F(TraceTest, DefaultSinkIsStandardError) {
  Vex::traceSinkIs(nullptr);
  std::ostringstream stream;
  stream << "text";
  testing::internal::CaptureStderr();
  Vex::traceHelper("S", "", stream, 5, true, "S", 1, "f");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "S 5 f:1: text\n");
}

TEST(SableException, CarriesItsTextAndFlag) {
  const Sable::Exception sut("table is full", true);
  EXPECT_EQ(sut.msg(), "table is full");
  EXPECT_STREQ(sut.what(), "table is full");
  EXPECT_TRUE(sut.flag());
  EXPECT_FALSE(Sable::Exception("", false).flag());
  EXPECT_THROW(throw Sable::Exception("x", false), Vex::Exception);
}

}  // namespace
