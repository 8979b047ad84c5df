// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/EthHdr.h"

#include <gtest/gtest.h>

#include <array>

namespace Portus {
namespace {

TEST(EthHdr, WritesEachFieldAtItsOffsetInNetworkOrder) {
  std::array<std::uint8_t, 20> frame{};
  EthHdr* const sut = EthHdr::at(frame.data());
  sut->dstIs(EthAddr::broadcast());
  sut->srcIs(EthAddr(2, 3, 4, 5, 6, 7));
  sut->typeOrLenIs(0x88B7);
  const std::array<std::uint8_t, 20> expected = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2,
                                                 3,    4,    5,    6,    7,    0x88, 0xB7};
  EXPECT_EQ(frame, expected);
}

TEST(Eth8021QHdr, WritesTagAtOffset14AndInnerTypeAtOffset16) {
  std::array<std::uint8_t, 20> frame{};
  EthHdr::at(frame.data())->typeOrLenIs(kEtherType8021Q);
  Eth8021QHdr* const sut = Eth8021QHdr::at(frame.data() + EthHdr::kSize);
  sut->tagControlIs(0xE000 | 0x0123);
  sut->typeOrLenIs(0x88B7);
  const std::array<std::uint8_t, 20> expected = {0, 0, 0, 0,    0,    0,    0,    0,    0,
                                                 0, 0, 0, 0x81, 0x00, 0xE1, 0x23, 0x88, 0xB7};
  EXPECT_EQ(frame, expected);
}

TEST(EthHdr, ReadsWhatAnyFrameHoldsAtAnyAddress) {
  std::array<std::uint8_t, 19> buffer{};
  for (std::size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<std::uint8_t>(i);
  const std::uint8_t* const frame = buffer.data() + 1;
  const EthHdr* const eth = EthHdr::at(frame);
  EXPECT_EQ(eth->dst(), EthAddr(1, 2, 3, 4, 5, 6));
  EXPECT_EQ(eth->src(), EthAddr(7, 8, 9, 10, 11, 12));
  EXPECT_EQ(eth->typeOrLen(), 0x0D0E);
  const Eth8021QHdr* const tag = Eth8021QHdr::at(frame + EthHdr::kSize);
  EXPECT_EQ(tag->tagControl(), 0x0F10);
  EXPECT_EQ(tag->typeOrLen(), 0x1112);
}

TEST(Eth8021QHdr, MasksCoverTheTagControlOnce) {
  EXPECT_EQ(Eth8021QHdr::kPriorityMask ^ Eth8021QHdr::kDropEligibleMask ^ Eth8021QHdr::kVlanMask,
            0xFFFF);
}

TEST(EthHdr, AloneIsAllZero) {
  EXPECT_FALSE(EthHdr().dst());
  EXPECT_FALSE(EthHdr().src());
  EXPECT_EQ(EthHdr().typeOrLen(), 0);
  EXPECT_EQ(Eth8021QHdr().tagControl(), 0);
}

}  // namespace
}  // namespace Portus
