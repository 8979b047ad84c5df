// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/EthAddr.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_set>

#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

std::string rangeErrorOf(const std::string& text) {
  try {
    EthAddr::parse(text);
  } catch (const Vex::RangeException& e) {
    return e.text();
  }
  return "no exception";
}

TEST(EthAddr, ZeroMeansNone) {
  EXPECT_FALSE(EthAddr());
  EXPECT_FALSE(EthAddr::parse("00:00:00:00:00:00"));
  EXPECT_TRUE(EthAddr(0, 0, 0, 0, 0, 1));
  EXPECT_TRUE(EthAddr(1, 0, 0, 0, 0, 0));
}

TEST(EthAddr, TextIsLowerCaseHexadecimalWithColons) {
  EXPECT_EQ(EthAddr(2, 0, 0, 0, 0, 1).toText(), "02:00:00:00:00:01");
  EXPECT_EQ(EthAddr::broadcast().toText(), "ff:ff:ff:ff:ff:ff");
  std::ostringstream out;
  out << EthAddr(0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F);
  EXPECT_EQ(out.str(), "0a:1b:2c:3d:4e:5f");
}

TEST(EthAddr, TextOfEitherCaseReadsBack) {
  const EthAddr expected(0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F);
  EXPECT_EQ(EthAddr::parse("0a:1b:2c:3d:4e:5f"), expected);
  EXPECT_EQ(EthAddr::parse("0A:1B:2C:3D:4E:5F"), expected);
}

TEST(EthAddr, WrongTextIsAnErrorThatNamesTextAndPosition) {
  EXPECT_EQ(rangeErrorOf("02:00:00:00:0g:01"),
            "Ethernet address \"02:00:00:00:0g:01\" is wrong at position 13: six bytes 00 to ff "
            "joined by colons expected, such as 02:00:00:00:00:01");
  const struct {
    const char* text;
    const char* position;
  } wrong[] = {{"", "position 0:"},
               {"02", "position 2:"},
               {"02:00:00:00:00", "position 14:"},
               {"02:00:00:00:00:1", "position 16:"},
               {"02-00-00-00-00-01", "position 2:"},
               {"02:00:00:00:00:01 ", "position 17:"},
               {" 02:00:00:00:00:01", "position 0:"},
               {"02:00:00:00:00:01:02", "position 17:"},
               {"2:0:0:0:0:1", "position 1:"}};
  for (const auto& row : wrong) {
    EXPECT_NE(rangeErrorOf(row.text).find(row.position), std::string::npos)
        << row.text << " -> " << rangeErrorOf(row.text);
  }
}

TEST(EthAddr, ErrorShowsOnlyTheBeginningOfHugeTextAndNoControlBytes) {
  const std::string error = rangeErrorOf("\x1b[2J" + std::string(100000, 'z'));
  EXPECT_LT(error.size(), 250U);
  EXPECT_EQ(error.find('\x1b'), std::string::npos);
}

TEST(EthAddr, OrderIsThatOfTheBytes) {
  EXPECT_LT(EthAddr(0, 0, 0, 0, 0, 0xFF), EthAddr(0, 0, 0, 0, 1, 0));
  EXPECT_GT(EthAddr(0x80, 0, 0, 0, 0, 0), EthAddr(0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF));
  EXPECT_EQ(EthAddr(1, 2, 3, 4, 5, 6), EthAddr::fromBytes(EthAddr::Bytes{1, 2, 3, 4, 5, 6}));
}

TEST(EthAddr, EachByteStandsAtItsPlaceOnTheWire) {
  constexpr EthAddr addr(1, 2, 3, 4, 5, 6);
  static_assert(addr.value() == 0x010203040506U);
  EXPECT_EQ(addr.bytes(), (EthAddr::Bytes{1, 2, 3, 4, 5, 6}));
}

TEST(EthAddr, GroupBitIsTheLowestOfTheFirstByte) {
  EXPECT_TRUE(EthAddr(0x01, 0, 0, 0, 0, 0).isMulticast());
  EXPECT_FALSE(EthAddr(0x02, 1, 1, 1, 1, 1).isMulticast());
  EXPECT_TRUE(EthAddr::broadcast().isMulticast());
  EXPECT_TRUE(EthAddr::broadcast().isBroadcast());
  EXPECT_FALSE(EthAddr(0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE).isBroadcast());
}

TEST(EthAddr, HashDependsOnEveryByte) {
  std::unordered_set<std::uint32_t> hashes;
  for (std::size_t i = 0; i < EthAddr::kSize; ++i) {
    for (unsigned byte = 1; byte < 256; ++byte) {
      EthAddr::Bytes bytes{};
      bytes[i] = static_cast<std::uint8_t>(byte);
      hashes.insert(EthAddr(bytes).hash());
    }
  }
  EXPECT_EQ(hashes.size(), 6U * 255U);
}

}  // namespace
}  // namespace Portus
