// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/String8.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/runtime/AllocationCount.h"

namespace {

using Vex::Name;
using Vex::String8;

TEST(String8, KeepsEveryByte) {
  const std::string bytes("a\0\xFFz", 4);
  const String8 sut(bytes);
  EXPECT_EQ(sut.size(), 4U);
  EXPECT_EQ(sut.str(), bytes);
  EXPECT_EQ(std::string(sut.begin(), sut.end()), bytes);
}

TEST(String8, TheEmptyStringOwnsNothing) {
  const AllocationCount allocations;
  const String8 none;
  const String8 empty("");
  EXPECT_TRUE(none.empty());
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(none, empty);
  EXPECT_EQ(none.view(), "");
  EXPECT_EQ(allocations.sinceThen(), 0U);
}

TEST(String8, ACopySharesTheText) {
  const String8 first("a text that is longer than any small buffer of a string");
  const AllocationCount allocations;
  const String8 second = first;
  EXPECT_EQ(second.view().data(), first.view().data());
  EXPECT_EQ(allocations.sinceThen(), 0U);
}

TEST(String8, ATextOutlivesTheStringThatMadeIt) {
  String8 copy;
  {
    const String8 original("kept");
    copy = original;
  }
  EXPECT_EQ(copy.view(), "kept");
}

TEST(String8, PlusJoinsAndLeavesBothAlone) {
  const String8 a("ab");
  const String8 b("cd");
  EXPECT_EQ(a + b, String8("abcd"));
  EXPECT_EQ(a.view(), "ab");
  EXPECT_EQ(b.view(), "cd");
  EXPECT_EQ(a + "", a);
  EXPECT_EQ(String8() + b, b);
}

TEST(String8, ComparesByUnsignedBytesAndThenByLength) {
  EXPECT_LT(String8("a"), String8("b"));
  EXPECT_LT(String8("a"), String8("aa"));
  EXPECT_LT(String8("z"), String8("\xC3"));
  EXPECT_FALSE(String8("a") < String8("a"));
  EXPECT_NE(String8("a"), String8("A"));
  EXPECT_LT(String8(), String8("a"));
}

TEST(String8, HashesAreThoseOfFnv1a) {
  EXPECT_EQ(String8().hash(), 0x811C9DC5U);
  EXPECT_EQ(String8("a").hash(), 0xE40C292CU);
  EXPECT_EQ(String8("foobar").hash(), 0xBF9CF968U);
  EXPECT_EQ(String8("\xFF").hash(), (0x811C9DC5U ^ 0xFFU) * 16777619U);
}

TEST(String8, PrintsItsText) {
  std::ostringstream os;
  os << String8("eth") << Name("1");
  EXPECT_EQ(os.str(), "eth1");
}

TEST(Name, IsAString) {
  const Name sut("topoLibState");
  const Name fromString = sut + "2";
  EXPECT_EQ(sut, Name("topoLibState"));
  EXPECT_EQ(fromString.view(), "topoLibState2");
  EXPECT_LT(sut, fromString);
  EXPECT_EQ(sut.hash(), String8("topoLibState").hash());
}

}  // namespace
