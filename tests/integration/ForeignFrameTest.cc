// SPDX-License-Identifier: Apache-2.0
//
// Frames that are no probes of this system, sent into the whole tree from a wire: what is filtered,
// what is counted, and that the engine goes on.
#include "tests/integration/World.h"

namespace Integration {
namespace {

const std::string kOther = "Received a malformed Ringward packet on interface eth1";

class ForeignFrame : public World {
 protected:
  ForeignFrame() {
    fabric.wireIs(sw.newPort("eth1"), station.port(1));
    sw.newPort("eth2");
    sw.start();
    settle();
    // Nothing of the engine's own stirs while a test looks.
    sw.config().vlanEnabledIs(VlanId(10), false);
  }

  // Bytes from hexadecimal digits; blanks are left out.
  static Frame bytes(const std::string& hex) {
    Frame result;
    std::string digits;
    for (const char c : hex) {
      if (c != ' ') digits += c;
    }
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
      result.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return result;
  }
  // A frame from the system's own address: type and all behind it.
  static Frame own(const std::string& hex) { return bytes("ffffffffffff 020000000001" + hex); }
  static std::string probeBehind(const std::string& types, const std::string& sender = "eth2") {
    return types + "0a1b2c 0003 01" + Platform::Sim::toHex(intf(sender).bytes());
  }
  void send(Frame frame) {
    station.send(std::move(frame));
    runFor(2 * kDelay);
  }
  const Platform::Sim::SimDevice::Counts& device() const {
    return sw.system.device("eth1").counts();
  }
  Ringward::Status::CounterVlan vlanCounts(unsigned vlan) const {
    return sw.system.packetCounter->counterVlan(VlanIdOrNone(vlan));
  }
  void expectEngineGoesOn() {
    send(own(probeBehind("8100 e00a 88b7")));
    EXPECT_TRUE(sw.disabled("eth1"));
  }

  Injector station{fabric, "station"};
  Switch sw{fabric};
};

TEST_F(ForeignFrame, FilterRejectsOtherTypesBeforeTheEngineSeesThem) {
  send(own("0800" + std::string(92, '0')));
  send(own("8100 e00a 0800" + std::string(92, '0')));
  send(own(probeBehind("88a8 000a 8100 000a 88b7")));  // a service tag
  send(own(probeBehind("8100 000a 8100 000b 88b7")));  // two tags
  send(bytes("ffffffff"));
  send(Frame{});
  EXPECT_EQ(device().filtered, 6U);
  EXPECT_EQ(device().delivered, 0U);
  EXPECT_EQ(sw.counts("eth1").rxOther, 0U);
  expectEngineGoesOn();
}

TEST_F(ForeignFrame, OtherVendorsFrameIsCountedForItsVlanAndLogged) {
  send(own("8100 000a 88b7 112233 0003 01 0000000000000000"));
  EXPECT_EQ(sw.counts("eth1").rxOther, 1U);
  EXPECT_EQ(vlanCounts(10).rxOther, 1U);
  EXPECT_EQ(logTexts(), std::vector<std::string>{kOther});
  EXPECT_FALSE(sw.disabled("eth1"));
  expectEngineGoesOn();
}

TEST_F(ForeignFrame, OtherVersionAndProtocolAreNoProbes) {
  send(own("8100 000a 88b7 0a1b2c 0003 02" + Platform::Sim::toHex(intf("eth2").bytes())));
  send(own("8100 000a 88b7 0a1b2c 0004 01" + Platform::Sim::toHex(intf("eth2").bytes())));
  EXPECT_EQ(sw.counts("eth1").rxOther, 2U);
  EXPECT_FALSE(sw.disabled("eth1"));
}

TEST_F(ForeignFrame, UntaggedFrameThatIsNoProbeCountsForTheNativeVlan) {
  send(own("88b7 112233 0003 01 0000000000000000"));
  EXPECT_EQ(vlanCounts(1).rxOther, 1U);
}

TEST_F(ForeignFrame, TooShortFrameCountsForNoVlan) {
  send(own("88b7 0a1b2c 0003 01 00000000000000"));  // 27 bytes
  EXPECT_EQ(sw.counts("eth1").rxOther, 1U);
  EXPECT_EQ(vlanCounts(0).rxOther, 1U);
  EXPECT_EQ(vlanCounts(1).rxOther, 0U);
}

TEST_F(ForeignFrame, TaggedFrameOfTheUntaggedLengthCountsForItsTag) {
  send(own("8100 000a 88b7 0a1b2c 0003 01 00000000"));  // 28 bytes, 32 needed
  EXPECT_EQ(vlanCounts(10).rxOther, 1U);
}

TEST_F(ForeignFrame, VlanNumber4095LeavesTheHandlerUncountedAndTheEngineGoesOn) {
  for (int i = 0; i < 3; ++i) send(own(probeBehind("8100 efff 88b7")));
  EXPECT_EQ(device().delivered, 3U);
  EXPECT_FALSE(static_cast<bool>(sw.system.packetCounter->counterIntfIteratorConst()));
  EXPECT_TRUE(logTexts().empty());
  EXPECT_FALSE(sw.disabled("eth1"));
  expectEngineGoesOn();
}

TEST_F(ForeignFrame, PriorityTagWithoutAVlanIsAProbeOfNoVlan) {
  send(own(probeBehind("8100 e000 88b7")));
  EXPECT_EQ(vlanCounts(0).rx, 1U);
  EXPECT_TRUE(sw.disabled("eth1"));
}

TEST_F(ForeignFrame, OlderTagTypeAndPriorityZeroAreProbesLikeOthers) {
  send(own(probeBehind("9100 000a 88b7")));
  EXPECT_EQ(vlanCounts(10).rx, 1U);
  EXPECT_TRUE(sw.disabled("eth1"));
}

TEST_F(ForeignFrame, PaddedProbeIsAProbe) {
  send(own(probeBehind("8100 e00a 88b7") + std::string(56, '0')));  // 60 bytes
  EXPECT_TRUE(sw.disabled("eth1"));
}

TEST_F(ForeignFrame, ProbeOfAnUnknownSenderIsCountedAndDoesNothing) {
  send(own(probeBehind("8100 e00a 88b7", "eth99")));
  EXPECT_EQ(sw.counts("eth1").rx, 1U);
  EXPECT_FALSE(sw.disabled("eth1"));
}

TEST_F(ForeignFrame, ProbeOfAPortThatIsNotUnderDetectionDoesNothing) {
  sw.config().vlanEnabledIs(VlanId(10), true);
  sw.config().intfExcludeIs(intf("eth2"), true);
  send(own(probeBehind("8100 e00a 88b7")));
  EXPECT_EQ(sw.counts("eth1").rx, 1U);
  EXPECT_FALSE(sw.disabled("eth1"));
}

TEST_F(ForeignFrame, RandomBytesOfAnyLengthHarmNothing) {
  for (int i = 0; i < 20'000; ++i) {
    Frame frame(static_cast<std::size_t>(fabric.random() * 80));
    for (auto& byte : frame) byte = static_cast<std::uint8_t>(fabric.random() * 256);
    // Most go as far as the parser.
    const Frame header = own(i % 3 == 0 ? "88b7 0a1b2c" : "8100 000a 88b7 0a1b2c");
    if (i % 5 != 0 && frame.size() > header.size()) {
      std::copy(header.begin(), header.end(), frame.begin());
    }
    station.send(frame);
    runFor(kDelay);
  }
  EXPECT_GT(device().delivered, 5'000U);
  EXPECT_GT(sw.counts("eth1").rxOther, 0U);
  EXPECT_FALSE(sw.disabled("eth1"));
  expectEngineGoesOn();
}

}  // namespace
}  // namespace Integration
