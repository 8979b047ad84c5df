// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfId.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <unordered_set>
#include <vector>

#include "runtime/portus/IntfIdCodec.h"
#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

using testing::HasSubstr;

constexpr std::uint32_t kSeed = 20240611;

struct Pinned {
  const char* name;
  std::uint64_t value;
  std::uint32_t hash;
};

// Computed by a second program, written from the description in docs/formats.md. In ascending order
// of the identifiers. A change here breaks the exchange of probes with systems in service.
constexpr Pinned kPinned[] = {
    {"", 0x0000000000000000, 0x00000000},
    {"lan1", 0x20000000001cd2bd, 0xd65a8e87},
    {"wlp2s0", 0x200000010b165114, 0xfc1c677e},
    {"zzzzzzzzzz", 0x2030e108912033e2, 0x8293df65},
    {"eth0", 0x2080000000000004, 0xf048dccf},
    {"eth2", 0x2080000000000006, 0xacb4d75a},
    {"eth10", 0x20800000000000d1, 0x8169eeff},
    {"swp1", 0x2100000000000005, 0x675a79de},
    {"enp0s31f6", 0x218000002160ce51, 0xf4e5fe59},
    {"enP2p1s0f0np0", 0x2207dcacebdb33b9, 0xbf675c71},
    {"ens3", 0x2280000000000007, 0x24b79735},
    {"eno1", 0x2300000000000005, 0xaa3b4af9},
    {"veth1a2b3c4", 0x23800005f7362c75, 0x5472d84c},
    {"bond", 0x2400000000000000, 0x488aedaf},
    {"port3", 0x2500000000000007, 0x575f19fd},
    {"Ethernet1", 0x2600000000000005, 0x62ae5290},
    {"Ethernet1/1", 0x2600000000002155, 0x023d3732},
    {"Eth1/1", 0x28000040c3ca78b7, 0x619b02bb},
    {"~~~~~~~~", 0x2815e39c2dbb220a, 0x66bc5c51},
    {"Uplink:East", 0x305b83368ae0a2cf, 0x79d9c006},
    {"br-0123456789ab", 0x306bc0f69dc4baa9, 0x05e5a795},
    {"enxaabbccddeeff", 0x370b032a0af9529b, 0xd6953530},
    {"my_very_long_interface_name", 0x379f2d9734d8acce, 0xce919d5b},
    {"po1", 0x400000000000d062, 0x98896905},
    {"bond0", 0x4400000000000004, 0xedd5b799},
    {"team0", 0x4480000000000004, 0x385923f1},
    {"Port-Channel1", 0x4680000000000005, 0x0c5c72b4},
    {"peerbond1", 0x6580000000000005, 0xe55a28a2},
    {"PeerPort-Channel1", 0x6700000000000005, 0xe3b3cbfc},
    {"vlan100", 0x80000029a902d34a, 0x554a7a67},
    {"eth0.100", 0x8080000000aeb473, 0x68171ce9},
    {"Vlan100", 0x88002264b1cc7154, 0x1c96c6be},
    {"lo", 0xa000000000000471, 0x4157eb2e},
    {"Loopback0", 0xa780000000000004, 0x37530557},
};

std::string rangeErrorOf(const std::string& name) {
  try {
    IntfId::fromName(name);
  } catch (const Vex::RangeException& e) {
    return e.text();
  }
  return "no exception";
}

TEST(IntfId, BytesAndHashesOfKnownNamesNeverChange) {
  for (const Pinned& row : kPinned) {
    const IntfId id = IntfId::fromName(row.name);
    IntfId::Bytes expected{};
    for (std::size_t i = 0; i < 8; ++i) {
      expected[i] = static_cast<std::uint8_t>(row.value >> (56 - 8 * i));
    }
    EXPECT_EQ(id.bytes(), expected) << row.name;
    EXPECT_EQ(id.hash(), row.hash) << row.name;
    EXPECT_EQ(id.name(), row.name);
    EXPECT_TRUE(id.isCanonical()) << row.name;
  }
}

TEST(IntfId, OrderIsBytewise) {
  for (std::size_t i = 1; i < std::size(kPinned); ++i) {
    const IntfId low = IntfId::fromName(kPinned[i - 1].name);
    const IntfId high = IntfId::fromName(kPinned[i].name);
    EXPECT_LT(low, high) << low << ' ' << high;
    EXPECT_NE(low, high);
    EXPECT_TRUE(std::ranges::lexicographical_compare(low.bytes(), high.bytes()));
  }
}

TEST(IntfId, PortsOfOnePrefixSortByTheirNumber) {
  for (int port = 1; port < 2000; ++port) {
    EXPECT_LT(IntfId::fromName("eth" + std::to_string(port)),
              IntfId::fromName("eth" + std::to_string(port + 1)));
  }
}

TEST(IntfId, EmptyNameIsTheDefaultOfEightZeroBytes) {
  const IntfId empty = IntfId::fromName("");
  EXPECT_EQ(empty, IntfId());
  EXPECT_EQ(empty.bytes(), IntfId::Bytes{});
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.name(), "");
  EXPECT_EQ(empty.kind(), IntfKind::none);
  EXPECT_TRUE(empty.isCanonical());
  EXPECT_TRUE(IntfId::fromName("eth0"));
}

TEST(IntfId, BytesComeBackUnchangedWhateverTheyAre) {
  const IntfId::Bytes bytes = {0xFF, 0x01, 0x80, 0x00, 0x7F, 0xAA, 0x55, 0xFE};
  EXPECT_EQ(IntfId::fromBytes(bytes).bytes(), bytes);
  EXPECT_EQ(IntfId::fromBytes(bytes).value(), 0xFF0180007FAA55FEU);
  EXPECT_EQ(IntfId::fromValue(0xFF0180007FAA55FEU).bytes(), bytes);
}

TEST(IntfId, PrintsItsName) {
  std::ostringstream out;
  out << IntfId::fromName("swp1") << '|' << IntfId() << '|' << IntfId::fromValue(0x1234);
  EXPECT_EQ(out.str(), "swp1||intf#0000000000001234");
}

TEST(IntfId, RefusesNamesOver63Bytes) {
  const std::string longest(63, 'x');
  EXPECT_EQ(IntfId::fromName(longest).name(), longest);
  EXPECT_EQ(rangeErrorOf(longest + "y"),
            "interface name \"" + longest + "...\" has 64 bytes: 0 to 63 allowed");
}

TEST(IntfId, RefusesBytesOutsidePrintableAscii) {
  EXPECT_EQ(rangeErrorOf("eth 0"),
            "interface name \"eth\\x200\" has byte 0x20 at position 3: 0x21 to 0x7E allowed "
            "(printable ASCII without blank)");
  EXPECT_THAT(rangeErrorOf(std::string("a\0b", 3)), HasSubstr("byte 0x00 at position 1"));
  EXPECT_THAT(rangeErrorOf("a\x7F"), HasSubstr("byte 0x7F at position 1"));
  EXPECT_THAT(rangeErrorOf("\xC3\xA9th0"), HasSubstr("byte 0xC3 at position 0"));
  EXPECT_EQ(IntfId::fromName("!~").name(), "!~");
}

TEST(IntfId, UnknownHashPrintsAsHexadecimalAndReadsBack) {
  const std::string name = "never-given-to-fromName";
  const IntfId id = IntfId::fromValue(encodeIntfName(name).value);
  const std::string text = id.name();
  EXPECT_EQ(text, intfIdEscape(id.value()));
  EXPECT_EQ(text.size(), 21U);
  EXPECT_EQ(IntfId::fromName(text), id);
  EXPECT_EQ(id.kind(), IntfKind::ethernet);
  EXPECT_TRUE(id.isCanonical());
}

TEST(IntfId, EscapedTextGivesExactlyItsBytes) {
  EXPECT_EQ(IntfId::fromName("intf#0123456789abcdef").value(), 0x0123456789ABCDEFU);
  EXPECT_EQ(IntfId::fromName("intf#0000000000000000"), IntfId());
  EXPECT_EQ(IntfId::fromName("intf#2080000000000004").name(), "eth0");
}

TEST(IntfId, TextThatOnlyResemblesTheEscapeIsAnOrdinaryName) {
  for (const char* name :
       {"intf#0123456789ABCDEF", "intf#0123456789abcde", "intf#0123456789abcdefg",
        "Intf#0123456789abcdef", "intf#0123456789abcdeg"}) {
    EXPECT_EQ(IntfId::fromName(name).name(), name);
  }
}

// Random bytes: whatever prints as a name must be the one identifier of that name.
TEST(IntfId, AnyBytesPrintAndReadBackToThemselves) {
  std::mt19937_64 random(kSeed);
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  int packed = 0;
  for (int i = 0; i < 200000; ++i) {
    std::uint64_t value = random();
    if (i % 2 == 0) value >>= random() % 50;  // small numbers, as short names have
    if (i % 4 == 0) value |= std::uint64_t{1} << 61;
    const IntfId id = IntfId::fromValue(value);
    const std::string text = id.name();
    EXPECT_EQ(IntfId::fromName(text), id) << text;
    const bool escaped = text.starts_with("intf#");
    if (!escaped) ++packed;
    if (intfIdForm(value) != IntfIdForm::hashed) {
      EXPECT_EQ(id.isCanonical(), !escaped) << text;
    }
  }
  EXPECT_GT(packed, 1000);
}

TEST(IntfId, OtherEncodingsOfANameAreNotCanonical) {
  const std::uint64_t eth0 = IntfId::fromName("eth0").value();
  ASSERT_EQ(eth0, 0x2080000000000004U);
  const std::uint64_t wrong[] = {
      eth0 ^ std::uint64_t{3} << 61,  // port channel
      eth0 | std::uint64_t{7} << 61,  // unassigned kind
      0x2880000000000010U,            // "0" after "eth", in printable symbols
      0x2880000000000621U,            // "0a" after "eth", in printable symbols
      0x200000000015f1faU,            // all of "eth0" without the prefix
      0x207FFFFFFFFFFFFFU,            // a numeral of more than ten symbols
      0x387FFFFFFFFFFFFFU,            // the reserved form
      std::uint64_t{2} << 59,         // a hash without a kind
      std::uint64_t{7} << 61 | std::uint64_t{2} << 59,
  };
  for (const std::uint64_t value : wrong) {
    const IntfId id = IntfId::fromValue(value);
    EXPECT_FALSE(id.isCanonical()) << id;
    EXPECT_EQ(id.name(), intfIdEscape(value));
  }
}

TEST(IntfId, KindBitsOutsideTheAssignedNumbersAreOther) {
  EXPECT_EQ(IntfId::fromValue(std::uint64_t{7} << 61).kind(), IntfKind::other);
  EXPECT_EQ(IntfId::fromValue(std::uint64_t{6} << 61).kind(), IntfKind::other);
  EXPECT_EQ(IntfId::fromValue(1).kind(), IntfKind::other);
}

TEST(IntfId, PeerPortChannelIsAPortChannelAndNothingElse) {
  const IntfId peer = IntfId::fromName("PeerPort-Channel10");
  EXPECT_TRUE(PeerPortChannelIntfId::isPeerPortChannelIntfId(peer));
  EXPECT_TRUE(PortChannelIntfId::isPortChannelIntfId(peer));
  EXPECT_FALSE(EthIntfId::isEthIntfId(peer));
}

TEST(IntfId, PortChannelIsNoPeerPortChannel) {
  const IntfId channel = IntfId::fromName("Port-Channel10");
  EXPECT_FALSE(PeerPortChannelIntfId::isPeerPortChannelIntfId(channel));
  EXPECT_TRUE(PortChannelIntfId::isPortChannelIntfId(channel));
  EXPECT_FALSE(EthIntfId::isEthIntfId(channel));
}

TEST(IntfId, EthernetIsNoPortChannel) {
  const IntfId eth = IntfId::fromName("eth0");
  EXPECT_FALSE(PeerPortChannelIntfId::isPeerPortChannelIntfId(eth));
  EXPECT_FALSE(PortChannelIntfId::isPortChannelIntfId(eth));
  EXPECT_TRUE(EthIntfId::isEthIntfId(eth));
}

TEST(IntfId, OtherKindsAreNeitherEthernetNorPortChannel) {
  for (const char* name : {"", "lo", "Vlan10", "eth0.10", "Loopback0"}) {
    const IntfId id = IntfId::fromName(name);
    EXPECT_FALSE(EthIntfId::isEthIntfId(id)) << name;
    EXPECT_FALSE(PortChannelIntfId::isPortChannelIntfId(id)) << name;
    EXPECT_FALSE(PeerPortChannelIntfId::isPeerPortChannelIntfId(id)) << name;
  }
}

TEST(IntfId, HashSpreadsNumberedPortsOverBuckets) {
  std::vector<int> buckets(256);
  std::unordered_set<std::uint32_t> hashes;
  for (int port = 0; port < 4096; ++port) {
    const std::uint32_t hash = IntfId::fromName("swp" + std::to_string(port)).hash();
    ++buckets[hash % 256];
    hashes.insert(hash);
  }
  EXPECT_EQ(hashes.size(), 4096U);
  EXPECT_LT(*std::max_element(buckets.begin(), buckets.end()), 48);  // 16 on average
}

}  // namespace
}  // namespace Portus
