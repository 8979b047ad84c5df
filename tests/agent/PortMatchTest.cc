// SPDX-License-Identifier: Apache-2.0
#include "agent/PortMatch.h"

#include <gtest/gtest.h>

#include "runtime/vex/Exception.h"

namespace Agent {
namespace {

TEST(PortMatch, FollowsTheRulesOfFnmatch) {
  const struct {
    const char* pattern;
    const char* name;
    bool expected;
  } cases[] = {
      {"eth*", "eth0", true},       {"eth*", "eth", true},        {"eth*", "xeth0", false},
      {"eth0", "eth0", true},       {"eth0", "eth00", false},     {"eth?", "eth1", true},
      {"eth?", "eth10", false},     {"eth[0-3]", "eth3", true},   {"eth[0-3]", "eth4", false},
      {"eth[!0-3]", "eth4", true},  {"eth[!0-3]", "eth3", false}, {"*", ".hidden", true},
      {"*.100", "eth0.100", true},  {"eth\\*", "eth*", true},     {"eth\\*", "eth0", false},
      {"ETH*", "eth0", false},      {"*", "eth0", true},          {"eth[0", "eth[0", true},
      {"eth[0", "eth0", false},     {"\\", "eth0", false},        {"[[:digit:]]x", "7x", true},
      {"[[:digit:]]x", "ax", false}};
  for (const auto& c : cases) {
    const PortMatch sut({c.pattern});
    EXPECT_EQ(sut.matches(c.name), c.expected) << c.pattern << " " << c.name;
  }
}

TEST(PortMatch, OneMatchingPatternIsEnough) {
  const PortMatch sut({"eth*", "swp*"});
  EXPECT_TRUE(sut.matches("eth1"));
  EXPECT_TRUE(sut.matches("swp1"));
  EXPECT_FALSE(sut.matches("wlan0"));
}

TEST(PortMatch, LoopbackNeverMatches) {
  const PortMatch sut({"*", "lo", "l?"});
  EXPECT_FALSE(sut.matches("lo"));
  EXPECT_TRUE(sut.matches("lo0"));
  EXPECT_TRUE(sut.matches("l0"));
}

TEST(PortMatch, WithoutPatternsNothingMatches) { EXPECT_FALSE(PortMatch({}).matches("eth0")); }

TEST(PortMatch, WhatIsNoInterfaceNameNeverMatches) {
  using namespace std::string_view_literals;
  const PortMatch sut({"*"});
  EXPECT_TRUE(sut.matches("123456789012345"));
  for (const std::string_view name :
       {""sv, "."sv, ".."sv, "1234567890123456"sv, "a/b"sv, "a b"sv, "a:b"sv, "eth0\0"sv}) {
    EXPECT_FALSE(sut.matches(name)) << name;
  }
}

TEST(PortMatch, ReadsNoByteBehindTheNameItIsGiven) {
  const std::string text = "eth0123";
  EXPECT_TRUE(PortMatch({"eth0"}).matches(std::string_view(text).substr(0, 4)));
}

TEST(PortMatch, APatternIsOneTo255BytesWithoutNul) {
  EXPECT_FALSE(PortMatch::isPattern(""));
  EXPECT_TRUE(PortMatch::isPattern("*"));
  EXPECT_TRUE(PortMatch::isPattern(std::string(255, 'a')));
  EXPECT_FALSE(PortMatch::isPattern(std::string(256, 'a')));
  EXPECT_FALSE(PortMatch::isPattern(std::string_view("a\0b", 3)));
}

TEST(PortMatch, AnInvalidPatternIsNamedInTheException) {
  try {
    const PortMatch sut({"eth*", std::string("a\0b", 3)});
    FAIL() << "no exception";
  } catch (const Vex::RangeException& error) {
    EXPECT_EQ(error.text(),
              "\"a\\u0000b\" is not a port pattern; allowed: 1 to 255 bytes without NUL");
  }
}

TEST(PortMatch, APatternOfManyStarsIsAnsweredAtOnce) {
  std::string pattern;
  while (pattern.size() + 2 < PortMatch::kMaxPatternSize) pattern += "*a";
  EXPECT_FALSE(PortMatch({pattern + "b"}).matches("aaaaaaaaaaaaaaa"));
  EXPECT_FALSE(PortMatch({"*a*a*a*a*a*a*a*b"}).matches("aaaaaaaaaaaaaaa"));
  EXPECT_TRUE(PortMatch({std::string(255, '*')}).matches("eth0"));
}

}  // namespace
}  // namespace Agent
