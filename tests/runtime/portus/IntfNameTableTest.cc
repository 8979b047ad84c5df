// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfNameTable.h"

#include <gtest/gtest.h>

#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

TEST(IntfNameTable, TwoNamesOfOneIdentifierAreAnErrorThatNamesBoth) {
  IntfNameTable sut(10);
  sut.nameIs(0x3000000000000001, "first-long-name");
  sut.nameIs(0x3000000000000001, "first-long-name");
  try {
    sut.nameIs(0x3000000000000001, "second-long-name");
    FAIL() << "no exception";
  } catch (const Vex::RangeException& e) {
    EXPECT_EQ(e.text(),
              "interface names \"first-long-name\" and \"second-long-name\" give the same "
              "identifier intf#3000000000000001: only one of them can be used");
  }
  EXPECT_EQ(sut.name(0x3000000000000001), "first-long-name");
  EXPECT_EQ(sut.size(), 1U);
}

TEST(IntfNameTable, FullTableRefusesNewNamesAndKeepsTheOld) {
  IntfNameTable sut(2);
  sut.nameIs(1, "one");
  sut.nameIs(2, "two");
  try {
    sut.nameIs(3, "three");
    FAIL() << "no exception";
  } catch (const Vex::RangeException& e) {
    EXPECT_EQ(e.text(),
              "no room for interface name \"three\": at most 2 names too long to pack can be used "
              "in one process");
  }
  sut.nameIs(1, "one");
  EXPECT_EQ(sut.name(2), "two");
  EXPECT_EQ(sut.name(3), std::nullopt);
}

}  // namespace
}  // namespace Portus
