// SPDX-License-Identifier: Apache-2.0
#include "engine/ProbeFrame.h"

#include <gtest/gtest.h>

#include "engine/EngineTrace.h"
#include "model/values/Oui.h"
#include "model/values/Payload.h"
#include "runtime/vex/Exception.h"
#include "tests/engine/World.h"

namespace {

using Ringward::PacketEncapsulation;

constexpr char kBadLength[] = "Bad Ringward packet length. Could be another vendor's packet.";
constexpr char kOtherVendor[] = "Received pkt from other vendor/Ringward version";

// eth1 in eight bytes: docs/formats.md.
const Frame kEth1{0x20, 0x80, 0, 0, 0, 0, 0, 0x05};

Frame joined(std::initializer_list<Frame> parts) {
  Frame frame;
  for (const Frame& part : parts) frame.insert(frame.end(), part.begin(), part.end());
  return frame;
}

const Frame kAddresses{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const Frame kPayload = joined({{0x0A, 0x1B, 0x2C, 0, 3, 1}, kEth1});

Frame tag(int type, int control) {
  return {static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type & 0xFF),
          static_cast<std::uint8_t>(control >> 8), static_cast<std::uint8_t>(control & 0xFF)};
}
const Frame kType{0x88, 0xB7};

class ProbeFrame : public testing::Test {
 protected:
  ProbeFrame() {
    Ringward::ringwardSmTrace.enabledIs(true);
    Ringward::ringwardSmTrace.levelIs(9, true);
  }
  ~ProbeFrame() override {
    Ringward::ringwardSmTrace.levelIs(9, false);
    Ringward::ringwardSmTrace.enabledIs(false);
  }
  static Frame written(int vlan, int native) {
    auto pkt = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(*pkt, {kSource, vlanOrNone(vlan), intfOf("eth1")}, vlanOrNone(native));
    return {pkt->bytes().begin(), pkt->bytes().end()};
  }
  PacketEncapsulation read(const Frame& first, const Frame& second = {}) {
    traces.lines.clear();
    auto pkt = Portus::globalPktManager()->newPkt();
    pkt->bytesIs(first, second);
    return Ringward::readProbe(*pkt, vlanOrNone(77));
  }
  void expectProbe(const Frame& frame, int vlan) {
    EXPECT_EQ(read(frame), (PacketEncapsulation{kSource, vlanOrNone(vlan), intfOf("eth1")}));
    EXPECT_EQ(traces.ending("Ringward pkt received from 02:11:22:33:44:55 intf: eth1 on vlan: " +
                            std::to_string(vlan)),
              1)
        << testing::PrintToString(traces.lines);
  }
  void expectRejected(const Frame& frame, int vlan, const char* trace) {
    EXPECT_EQ(read(frame), (PacketEncapsulation{{}, vlanOrNone(vlan), {}}));
    EXPECT_EQ(traces.ending(trace), 1) << testing::PrintToString(traces.lines);
  }

  TraceLines traces;
};

TEST_F(ProbeFrame, ATaggedProbeIsThese32Bytes) {
  EXPECT_EQ(written(0xABC, 1), joined({kAddresses, tag(0x8100, 0xEABC), kType, kPayload}));
}

TEST_F(ProbeFrame, AProbeOfTheNativeVlanIsThese28Bytes) {
  EXPECT_EQ(written(5, 5), joined({kAddresses, kType, kPayload}));
}

TEST_F(ProbeFrame, TheTagCarriesPriority7AndTheWholeVlanNumber) {
  for (const int vlan : {0, 1, 255, 256, 4094}) {
    const Frame frame = written(vlan, 5);
    ASSERT_EQ(frame.size(), 32U);
    EXPECT_EQ(frame[14], 0xE0 | vlan >> 8);
    EXPECT_EQ(frame[15], vlan & 0xFF);
  }
}

TEST_F(ProbeFrame, AnEmptyBufferWithoutRoomEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto pkt = Portus::globalPktManager()->newPkt();
  pkt->headReserve(Portus::Pkt::kInlineCapacity - 31);
  EXPECT_DEATH(Ringward::writeProbe(*pkt, {kSource, vlanOrNone(2), intfOf("eth1")}, vlanOrNone(1)),
               "sharedBuffer_ != 0");
}

TEST_F(ProbeFrame, WhatIsWrittenIsRead) {
  expectProbe(written(10, 1), 10);
  expectProbe(written(10, 10), 77);  // the receiver's own native VLAN
}

TEST_F(ProbeFrame, TwentySevenBytesAreRejectedBeforeTheTypeIsLookedAt) {
  Frame frame = joined({kAddresses, tag(0x8100, 0x0FFF), kType, kPayload});  // would raise
  frame.resize(27);
  expectRejected(frame, 0, kBadLength);
  expectRejected({}, 0, kBadLength);
}

TEST_F(ProbeFrame, TwentyEightTaggedBytesFailTheSecondLengthCheckAndKeepTheirVlan) {
  Frame frame = written(10, 1);
  frame.resize(28);
  expectRejected(frame, 10, kBadLength);
  frame.resize(31);
  expectRejected(frame, 10, kBadLength);
}

TEST_F(ProbeFrame, ThePriorityIsNotJudged) {
  Frame frame = written(10, 1);
  frame[14] = 0;
  expectProbe(frame, 10);
  frame[14] = 0xF0;
  expectProbe(frame, 10);
}

TEST_F(ProbeFrame, AnOuterTypeOf9100IsReadLike8100AndNoOtherTagTypeIs) {
  expectProbe(joined({kAddresses, tag(0x9100, 10), kType, kPayload}), 10);
  expectRejected(joined({kAddresses, tag(0x88A8, 10), kType, kPayload}), 0, kOtherVendor);
}

TEST_F(ProbeFrame, AProbeBehindAnUnknownTypeIsAcceptedWithoutAVlan) {
  expectProbe(joined({kAddresses, {0x12, 0x34}, kPayload}), 0);
}

TEST_F(ProbeFrame, TheTypeBehindTheTagsIsNotJudged) {
  expectProbe(joined({kAddresses, tag(0x8100, 10), {0x12, 0x34}, kPayload}), 10);
}

TEST_F(ProbeFrame, ATagWithVlanZeroIsAProbeWithoutAVlan) {
  expectProbe(joined({kAddresses, tag(0x8100, 0), kType, kPayload}), 0);
}

TEST_F(ProbeFrame, ATagWithVlan4095RaisesWhateverFollows) {
  for (const int control : {0x0FFF, 0xFFFF}) {
    EXPECT_EQ(textOf<Vex::RangeException>([&] {
                read(joined({kAddresses, tag(0x8100, control), Frame(12)}));
              }),
              "VlanIdOrNone::value > 4094 not allowed");
  }
}

TEST_F(ProbeFrame, AnInnerTagWithVlan4095IsNotJudged) {
  expectProbe(joined({kAddresses, tag(0x8100, 10), tag(0x8100, 0x0FFF), kType, kPayload}), 10);
}

TEST_F(ProbeFrame, ADoublyTaggedProbeGivesTheOuterVlan) {
  for (const int inner : {0x8100, 0x9100}) {
    expectProbe(joined({kAddresses, tag(0x8100, 10), tag(inner, 20), kType, kPayload}), 10);
  }
}

TEST_F(ProbeFrame, AProbeBehindThreeTagsFailsTheOuiCheck) {
  expectRejected(
      joined({kAddresses, tag(0x8100, 10), tag(0x8100, 20), tag(0x8100, 30), kType, kPayload}), 10,
      kOtherVendor);
}

TEST_F(ProbeFrame, FromTheSecondStepOnTheTagWalkLooksTwoBytesTooFar) {
  // A tag type at offset 24, where no type stands, makes the walk skip one tag more.
  Frame frame = joined({kAddresses, tag(0x8100, 10), tag(0x8100, 20), kType, {0, 0}, {0x81, 0}});
  ASSERT_EQ(frame[24] << 8 | frame[25], 0x8100);
  frame.resize(26);
  frame.insert(frame.end(), kPayload.begin(), kPayload.end());
  ASSERT_EQ(frame.size(), 40U);
  expectProbe(frame, 10);
}

TEST_F(ProbeFrame, TheTagWalkStopsWhereTheNextStepWouldNotFit) {
  // Second tag at 16, and no more than 22 + 14 - 1 bytes: rejected by length, not read beyond.
  Frame frame = joined({kAddresses, tag(0x8100, 10), tag(0x8100, 20), kType, kPayload});
  frame.resize(35);
  expectRejected(frame, 10, kBadLength);
}

TEST_F(ProbeFrame, AnotherOuiProtocolOrVersionIsAnotherVendors) {
  for (const std::size_t at : {18U, 19U, 20U, 21U, 22U, 23U}) {
    Frame frame = written(10, 1);
    frame[at] ^= 1;
    expectRejected(frame, 10, kOtherVendor);
  }
  Frame version2 = written(10, 1);
  version2[23] = 2;
  expectRejected(version2, 10, kOtherVendor);
  Frame protocol4 = written(10, 1);
  protocol4[22] = 4;
  expectRejected(protocol4, 10, kOtherVendor);
}

TEST_F(ProbeFrame, ARejectedUntaggedFrameKeepsTheReceiversNativeVlan) {
  Frame frame = written(10, 10);
  frame[14] ^= 1;
  expectRejected(frame, 77, kOtherVendor);
  EXPECT_EQ(traces.ending("Received a Ringward packet without vlan tag."), 1);
}

TEST_F(ProbeFrame, AnotherSourceAddressIsReportedAndNotJudged) {
  Frame frame = written(10, 1);
  frame[11] = 0x99;
  const auto enc = read(frame);
  EXPECT_EQ(enc.mac, Portus::EthAddr(0x02, 0x11, 0x22, 0x33, 0x44, 0x99));
  EXPECT_EQ(enc.senderIntfId, intfOf("eth1"));
}

TEST_F(ProbeFrame, TheDestinationIsNotJudgedAndBytesBehindThePayloadAreIgnored) {
  Frame frame = written(10, 1);
  frame[0] = 0;
  frame.resize(1500);
  expectProbe(frame, 10);
}

TEST_F(ProbeFrame, AnySenderBytesAreTakenAsTheyLie) {
  Frame frame = written(10, 1);
  for (std::size_t i = 24; i < 32; ++i) frame[i] = static_cast<std::uint8_t>(0xF0 + i);
  const auto enc = read(frame);
  EXPECT_TRUE(std::equal(frame.begin() + 24, frame.end(), enc.senderIntfId.bytes().begin()));
}

TEST_F(ProbeFrame, HeaderAndPayloadMustLieInTheFirstFragment) {
  const Frame whole = written(10, 1);
  const auto split = [&](std::size_t at) {
    return read(Frame(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(at)),
                Frame(whole.begin() + static_cast<std::ptrdiff_t>(at), whole.end()));
  };
  for (std::size_t at = 1; at < 32; ++at) {
    const auto enc = split(at);
    EXPECT_FALSE(enc.mac) << at;
    // The VLAN as far as it lies in the first fragment.
    EXPECT_EQ(enc.vlanId, vlanOrNone(at < 18 ? 0 : 10)) << at;
    EXPECT_EQ(traces.ending(kBadLength), 1) << at;
  }
}

TEST_F(ProbeFrame, TheLengthIsThatOfBothFragments) {
  Frame first = written(10, 1);
  EXPECT_TRUE(read(first, Frame(10)).mac);
  // 28 bytes at least count for both: 14 in the first fragment and 14 in the second.
  const auto enc = read(joined({kAddresses, kType}), kPayload);
  EXPECT_EQ(enc.vlanId, vlanOrNone(77));
  EXPECT_FALSE(enc.mac);
}

TEST_F(ProbeFrame, OuisAreOrderedByTheirBytes) {
  using Ringward::Oui;
  EXPECT_EQ(Ringward::kProbeOui, (Oui{0x0A, 0x1B, 0x2C}));
  EXPECT_TRUE((Oui{1, 9, 9}) < (Oui{2, 0, 0}));
  EXPECT_TRUE((Oui{1, 1, 9}) < (Oui{1, 2, 0}));
  EXPECT_TRUE((Oui{1, 1, 1}) < (Oui{1, 1, 2}));
}

TEST_F(ProbeFrame, OnlyTheDefaultEncapsulationIsFalse) {
  EXPECT_TRUE(!PacketEncapsulation());
  EXPECT_FALSE(!(PacketEncapsulation{kSource, {}, {}}));
  EXPECT_FALSE(!(PacketEncapsulation{{}, vlanOrNone(1), {}}));
  EXPECT_FALSE(!(PacketEncapsulation{{}, {}, intfOf("eth1")}));
}

}  // namespace
