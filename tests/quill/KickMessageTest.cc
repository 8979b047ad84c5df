// SPDX-License-Identifier: Apache-2.0
#include "quill/KickMessage.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/quill/KickPeer.h"

namespace QuillTest {

namespace {

std::string textOfBytes(const Quill::KickBytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The reason why this is no message, empty if it is one.
std::string reasonAgainst(const std::string& bytes) {
  std::string reason;
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto message = Quill::decodeKick({data, bytes.size()}, bytes.size(), reason);
  EXPECT_EQ(reason.empty(), message.has_value());
  return reason;
}

}  // namespace

TEST(KickMessage, BytesAreThoseOfTheDocumentation) {
  const std::string expected("QKCK\x01\x00\x03\x00\x08\x07\x06\x05\x04\x03\x02\x01", 16);
  EXPECT_EQ(expected,
            textOfBytes(Quill::encodeKick({Quill::KickType::sleep, 0x0102030405060708U})));
}

TEST(KickMessage, WhatIsWrittenReadsBackForEveryType) {
  for (unsigned type = 1; type <= 5; ++type) {
    for (const std::uint64_t sequence :
         {std::uint64_t{0}, std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
      const Quill::KickMessage message{static_cast<Quill::KickType>(type), sequence};
      const Quill::KickBytes bytes = Quill::encodeKick(message);
      EXPECT_EQ(kickBytes(type, sequence), textOfBytes(bytes));
      std::string reason;
      EXPECT_EQ(message, Quill::decodeKick(bytes, bytes.size(), reason));
    }
  }
}

TEST(KickMessage, WrongFieldIsNamedWithWhatIsPermitted) {
  EXPECT_EQ("", reasonAgainst(kickBytes(5, 1)));
  EXPECT_EQ("message of 0 bytes, must be 16", reasonAgainst(""));
  EXPECT_EQ("message of 15 bytes, must be 16", reasonAgainst(kickBytes(1, 0).substr(1)));
  EXPECT_EQ("message of 17 bytes, must be 16", reasonAgainst(kickBytes(1, 0) + "x"));
  EXPECT_EQ("magic 0x4b434b71, must be 0x4b434b51", reasonAgainst("q" + kickBytes(1, 0).substr(1)));
  EXPECT_EQ("message type 0, must be 1 to 5", reasonAgainst(kickBytes(0, 0)));
  EXPECT_EQ("message type 65281, must be 1 to 5", reasonAgainst(kickBytes(0xFF01, 0)));
}

TEST(KickMessage, LengthOnTheSocketCountsAlsoWhereTheRestWasCutOff) {
  const Quill::KickBytes bytes = Quill::encodeKick({});
  std::string reason;
  EXPECT_FALSE(Quill::decodeKick(bytes, 1'000, reason).has_value());
  EXPECT_EQ("message of 1000 bytes, must be 16", reason);
}

TEST(KickMessage, TypesPrintTheirNames) {
  std::ostringstream os;
  for (unsigned type = 0; type <= 5; ++type) os << static_cast<Quill::KickType>(type) << ' ';
  EXPECT_EQ("type 0 HELLO SEQUENCE SLEEP ACK KICK ", os.str());
}

}  // namespace QuillTest
