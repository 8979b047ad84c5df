// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/LogService.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Texts = std::vector<std::string>;

Vex::LogHandle plain("TEST_PLAIN", Vex::LogSeverity::warning, "Something on %s", "It may happen.",
                     Vex::NoActionRequired, 0.0, 1.0, 0);
Vex::LogHandle burst("TEST_BURST", Vex::LogSeverity::error, "Burst %s", "", "", 10.0, 3.0, 0);

class LogServiceTest : public testing::Test {
 protected:
  LogServiceTest() { sut.sinkIs(sink); }
  ~LogServiceTest() override { sut.sinkDel(sink); }

  Vex::LogService sut;
  Vex::MemorySink sink;
};

TEST_F(LogServiceTest, HandleGivesItsConstructorArguments) {
  EXPECT_EQ(plain.id(), "TEST_PLAIN");
  EXPECT_EQ(plain.severity(), Vex::LogSeverity::warning);
  EXPECT_EQ(plain.format(), "Something on %s");
  EXPECT_EQ(plain.explanation(), "It may happen.");
  EXPECT_EQ(plain.recommendedAction(),
            "This message is for informational purposes only and requires no action.");
  EXPECT_EQ(burst.interval(), 10.0);
  EXPECT_EQ(burst.burst(), 3.0);
  EXPECT_EQ(burst.flags(), 0);
}

TEST_F(LogServiceTest, EntryReachesEverySinkUntilItIsRemoved) {
  Vex::MemorySink other;
  sut.sinkIs(other);
  sut.sinkIs(other);
  sut.log(plain, {"a"}, 1.0);
  sut.sinkDel(other);
  sut.log(plain, {"b"}, 1.0);
  EXPECT_EQ(sink.texts(), (Texts{"Something on a", "Something on b"}));
  EXPECT_EQ(other.texts(), (Texts{"Something on a"}));
  EXPECT_EQ(sink.entries()[0].handle, &plain);
}

TEST_F(LogServiceTest, DefaultIsOneEntryASecondForTheSameThing) {
  sut.log(plain, {"a"}, 10.0);
  sut.log(plain, {"a"}, 10.5);
  sut.log(plain, {"a"}, 10.999);
  EXPECT_EQ(sink.entries().size(), 1u);
  sut.log(plain, {"a"}, 11.0);
  EXPECT_EQ(sink.entries().size(), 2u);
}

TEST_F(LogServiceTest, DifferentThingsDoNotLimitEachOther) {
  sut.log(plain, {"a"}, 10.0);
  sut.log(plain, {"b"}, 10.0);
  sut.log(burst, {"a"}, 10.0);
  EXPECT_EQ(sink.entries().size(), 3u);
}

TEST_F(LogServiceTest, BurstEntriesAreWrittenInAnInterval) {
  for (int i = 0; i < 10; ++i) sut.log(burst, {"x"}, 100.0 + i * 0.9);
  EXPECT_EQ(sink.entries().size(), 3u);
  for (int i = 0; i < 10; ++i) sut.log(burst, {"x"}, 110.0 + i * 0.9);
  EXPECT_EQ(sink.entries().size(), 6u);
}

TEST_F(LogServiceTest, ClockThatGoesBackOpensANewWindow) {
  sut.log(plain, {"a"}, 100.0);
  sut.log(plain, {"a"}, 99.9);
  EXPECT_EQ(sink.entries().size(), 2u);
  sut.log(plain, {"a"}, 100.5);
  EXPECT_EQ(sink.entries().size(), 2u);
  sut.log(plain, {"a"}, 100.9);
  EXPECT_EQ(sink.entries().size(), 3u);
}

TEST_F(LogServiceTest, EntriesAreCountedByFate) {
  for (int i = 0; i < 5; ++i) sut.log(burst, {"x"}, 100.0);
  sut.okToLog(burst, 0, 100.0);
  const auto counts = sut.counts(burst);
  EXPECT_EQ(counts.attempts, 1u);
  EXPECT_EQ(counts.written, 3u);
  EXPECT_EQ(counts.suppressed, 2u);
  EXPECT_EQ(sut.counts(plain).written, 0u);
}

TEST_F(LogServiceTest, OkToLogTellsAndTakesNothing) {
  const std::uint32_t key = Vex::rateLimitArgs({"a"});
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(sut.okToLog(plain, key, 50.0));
  sut.log(plain, {"a"}, 50.0);
  EXPECT_EQ(sink.entries().size(), 1u);
  EXPECT_FALSE(sut.okToLog(plain, key, 50.9));
  EXPECT_TRUE(sut.okToLog(plain, Vex::rateLimitArgs({"b"}), 50.9));
  EXPECT_TRUE(sut.okToLog(plain, key, 51.0));
}

TEST_F(LogServiceTest, BurstBelowOneWritesNothing) {
  static const Vex::LogHandle never("TEST_NEVER", Vex::LogSeverity::debug, "", "", "", 1.0, 0.5, 0);
  sut.log(never, {}, 1.0);
  EXPECT_TRUE(sink.entries().empty());
  EXPECT_EQ(sut.counts(never).suppressed, 1u);
}

TEST_F(LogServiceTest, MoreIdentitiesThanAreRememberedLoseNoEntry) {
  for (std::size_t i = 0; i <= Vex::LogService::kMaxIdentities; ++i) {
    sut.log(plain, {std::to_string(i)}, 1.0);
  }
  EXPECT_EQ(sink.entries().size(), Vex::LogService::kMaxIdentities + 1);
  sut.log(plain, {std::to_string(Vex::LogService::kMaxIdentities)}, 1.0);
  EXPECT_EQ(sink.entries().size(), Vex::LogService::kMaxIdentities + 1);
}

TEST(RateLimitArgs, NoArgumentsAreZeroAndOthersAreToldApart) {
  EXPECT_EQ(Vex::rateLimitArgs({}), 0u);
  EXPECT_NE(Vex::rateLimitArgs({""}), 0u);
  EXPECT_NE(Vex::rateLimitArgs({"ab", "c"}), Vex::rateLimitArgs({"a", "bc"}));
  EXPECT_NE(Vex::rateLimitArgs({"a"}), Vex::rateLimitArgs({"a", ""}));
  EXPECT_EQ(Vex::rateLimitArgs({"a", "b"}), Vex::rateLimitArgs({"a", "b"}));
}

TEST(FormatLog, EachPlaceTakesTheNextArgument) {
  EXPECT_EQ(Vex::formatLog("%s and %s", {"one", "two"}), "one and two");
  EXPECT_EQ(Vex::formatLog("none", {"one"}), "none");
  EXPECT_EQ(Vex::formatLog("%s, %s", {"one"}), "one, %s");
  EXPECT_EQ(Vex::formatLog("", {}), "");
  EXPECT_EQ(Vex::formatLog("100% %s", {"sure"}), "100% sure");
}

TEST(FormatLog, ArgumentsAreNotExpanded) {
  EXPECT_EQ(Vex::formatLog("%s %s", {"%s", "x"}), "%s x");
}

TEST(Log, GoesToTheCurrentManagersServiceAtItsTime) {
  Vex::VirtualActivityManager manager;
  Vex::VirtualActivityManager other;
  Vex::MemorySink sink;
  manager.logService().sinkIs(sink);
  const Vex::CurrentActivityManager current(manager);
  Vex::log(plain, 42);
  Vex::log(plain, "42");
  EXPECT_FALSE(plain.okToLog(Vex::rateLimitArgs({"42"})));
  EXPECT_TRUE(plain.okToLog(0));
  manager.runFor(1.0);
  Vex::log(plain, 42);
  EXPECT_EQ(sink.texts(), (Texts{"Something on 42", "Something on 42"}));
  EXPECT_EQ(manager.logService().counts(plain).attempts, 2u);
  const Vex::CurrentActivityManager otherCurrent(other);
  EXPECT_TRUE(plain.okToLog(Vex::rateLimitArgs({"42"})));
}

TEST(Log, WithoutAManagerIsAnInternalException) {
  EXPECT_THROW(Vex::log(plain, 1), Vex::InternalException);
  EXPECT_THROW(plain.okToLog(0), Vex::InternalException);
}

TEST(MemorySink, KeepsTheNewestEntriesWithinItsLimit) {
  Vex::MemorySink sut(16);
  for (int i = 0; i < 100; ++i) {
    sut.entry(plain, std::to_string(i));
    ASSERT_LE(sut.entries().size(), 16u);
  }
  EXPECT_GE(sut.entries().size(), 14u);
  EXPECT_EQ(sut.entries().back().text, "99");
  EXPECT_EQ(sut.entries().front().text, std::to_string(100 - sut.entries().size()));
  sut.clear();
  EXPECT_TRUE(sut.entries().empty());
  Vex::MemorySink none(0);
  none.entry(plain, "x");
  EXPECT_TRUE(none.entries().empty());
}

TEST(StandardErrorSink, WritesOneLineAndNoControlCharacters) {
  Vex::StandardErrorSink sut;
  testing::internal::CaptureStderr();
  sut.entry(plain, "evil \x1b[31m\nname");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "TEST_PLAIN: evil ?[31m?name\n");
}

}  // namespace
