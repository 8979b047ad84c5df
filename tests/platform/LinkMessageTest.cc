// SPDX-License-Identifier: Apache-2.0
//
// Messages are made with libmnl's builders and handed over in a heap block of exactly their size,
// so that the address sanitizer sees any read outside.
#include "platform/linux/LinkMessage.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <vector>

namespace Platform::Linux {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned char kFamilyBridge = AF_BRIDGE;

class Builder {
 public:
  explicit Builder(std::uint16_t type, unsigned char family = AF_UNSPEC, int ifindex = 7) {
    mnl_nlmsg_put_header(storage_)->nlmsg_type = type;
    auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(header(), sizeof(ifinfomsg)));
    info->ifi_family = family;
    info->ifi_index = ifindex;
    info->ifi_flags = IFF_UP | IFF_BROADCAST;
    info->ifi_type = 1;
    info->ifi_change = 0x20;
  }

  Builder& text(std::uint16_t type, const char* value) {
    mnl_attr_put_strz(header(), type, value);
    return *this;
  }
  Builder& u8(std::uint16_t type, std::uint8_t value) {
    mnl_attr_put_u8(header(), type, value);
    return *this;
  }
  Builder& u32(std::uint16_t type, std::uint32_t value) {
    mnl_attr_put_u32(header(), type, value);
    return *this;
  }
  Builder& raw(std::uint16_t type, const Bytes& value) {
    mnl_attr_put(header(), type, value.size(), value.data());
    return *this;
  }
  // With the mark of a nested attribute, NLA_F_NESTED.
  Builder& nest(std::uint16_t type, const std::function<void(Builder&)>& fill) {
    nlattr* start = mnl_attr_nest_start(header(), type);
    fill(*this);
    mnl_attr_nest_end(header(), start);
    return *this;
  }
  Builder& vlan(std::uint16_t vid, unsigned flags = 0) {
    const bridge_vlan_info entry{static_cast<std::uint16_t>(flags), vid};
    mnl_attr_put(header(), IFLA_BRIDGE_VLAN_INFO, sizeof(entry), &entry);
    return *this;
  }

  Bytes bytes() const {
    return {storage_, storage_ + reinterpret_cast<const nlmsghdr*>(storage_)->nlmsg_len};
  }

 private:
  nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(storage_); }

  alignas(nlmsghdr) std::uint8_t storage_[4096] = {};
};

std::optional<LinkMessage> parse(const Bytes& bytes) {
  // Exactly as large as the message: std::vector may keep room behind.
  const auto block = std::make_unique<std::uint8_t[]>(bytes.size());
  if (!bytes.empty()) std::memcpy(block.get(), bytes.data(), bytes.size());
  return parseLinkMessage({block.get(), bytes.size()});
}

std::optional<LinkMessage> parse(const Builder& builder) { return parse(builder.bytes()); }

Builder fullMessage() {
  Builder builder(RTM_NEWLINK);
  builder.text(IFLA_IFNAME, "uplink-1")
      .text(IFLA_IFALIAS, "to the roof")
      .raw(IFLA_ADDRESS, {2, 0, 0, 0, 0, 9})
      .u32(IFLA_MTU, 9000)
      .u8(IFLA_OPERSTATE, 6)
      .u8(IFLA_CARRIER, 1)
      .u32(IFLA_MASTER, 12)
      .nest(IFLA_LINKINFO, [](Builder& info) {
        info.text(IFLA_INFO_KIND, "veth")
            .text(IFLA_INFO_SLAVE_KIND, "bridge")
            .nest(IFLA_INFO_SLAVE_DATA, [](Builder& data) { data.u8(IFLA_BRPORT_STATE, 3); });
      });
  return builder;
}

Builder portMessage() {
  Builder builder(RTM_NEWLINK, kFamilyBridge);
  builder.text(IFLA_IFNAME, "p0").u32(IFLA_MASTER, 12);
  builder.nest(IFLA_PROTINFO, [](Builder& port) { port.u8(IFLA_BRPORT_STATE, 1); });
  builder.nest(IFLA_AF_SPEC, [](Builder& spec) {
    spec.vlan(1, BRIDGE_VLAN_INFO_PVID | BRIDGE_VLAN_INFO_UNTAGGED)
        .vlan(100, BRIDGE_VLAN_INFO_RANGE_BEGIN)
        .vlan(200, BRIDGE_VLAN_INFO_RANGE_END)
        .vlan(4094);
  });
  return builder;
}

std::optional<LinkMessage> parseVlans(const std::function<void(Builder&)>& fill) {
  Builder builder(RTM_NEWLINK, kFamilyBridge);
  builder.nest(IFLA_AF_SPEC, fill);
  return parse(builder);
}

TEST(LinkMessage, EveryAttributeOfALinkIsRead) {
  const auto message = parse(fullMessage());
  ASSERT_TRUE(message);
  EXPECT_EQ(message->type, LinkMessage::Type::kNew);
  EXPECT_EQ(message->family, AF_UNSPEC);
  EXPECT_EQ(message->ifindex, 7);
  EXPECT_EQ(message->flags, unsigned{IFF_UP | IFF_BROADCAST});
  EXPECT_EQ(message->changeMask, 0x20U);
  EXPECT_EQ(message->arpType, 1);
  EXPECT_EQ(message->name, "uplink-1");
  EXPECT_EQ(message->alias, "to the roof");
  EXPECT_EQ(message->address, Portus::EthAddr(2, 0, 0, 0, 0, 9));
  EXPECT_EQ(message->mtu, 9000U);
  EXPECT_EQ(message->operState, 6);
  EXPECT_EQ(message->carrier, true);
  EXPECT_EQ(message->master, 12);
  EXPECT_EQ(message->kind, "veth");
  EXPECT_EQ(message->slaveKind, "bridge");
  EXPECT_EQ(message->slaveBridgePortState, 3);
  EXPECT_FALSE(message->bridgePortState);
  EXPECT_FALSE(message->vlans);
}

TEST(LinkMessage, AttributesThatAreNotThereStayEmpty) {
  const auto message = parse(Builder(RTM_DELLINK));
  ASSERT_TRUE(message);
  EXPECT_EQ(message->type, LinkMessage::Type::kDel);
  EXPECT_FALSE(message->name || message->alias || message->address || message->mtu ||
               message->operState || message->carrier || message->master || message->kind ||
               message->slaveKind || message->bridgePortState || message->slaveBridgePortState ||
               message->vlanFiltering || message->vlans);
}

TEST(LinkMessage, BridgePortStateIsReadWithAndWithoutTheNestedFlag) {
  const Bytes state{5, 0, IFLA_BRPORT_STATE, 0, 4, 0, 0, 0};
  for (const unsigned flag : {0U, unsigned{NLA_F_NESTED}}) {
    const auto type = static_cast<std::uint16_t>(IFLA_PROTINFO | flag);
    const auto message = parse(Builder(RTM_NEWLINK, kFamilyBridge).raw(type, state));
    ASSERT_TRUE(message) << flag;
    EXPECT_EQ(message->bridgePortState, 4) << flag;
  }
}

TEST(LinkMessage, FamilySpecificAttributesOfOtherFamiliesAreNotTheBridges) {
  for (const int family : {AF_UNSPEC, AF_INET6}) {
    Builder builder(RTM_NEWLINK, static_cast<unsigned char>(family));
    builder.nest(IFLA_PROTINFO, [](Builder& port) { port.u8(IFLA_BRPORT_STATE, 4); });
    builder.nest(IFLA_AF_SPEC, [](Builder& spec) { spec.vlan(5); });
    const auto message = parse(builder);
    ASSERT_TRUE(message);
    EXPECT_FALSE(message->bridgePortState);
    EXPECT_FALSE(message->vlans);
  }
}

TEST(LinkMessage, PortDataOfOtherMastersIsNotABridgePortState) {
  Builder builder(RTM_NEWLINK);
  builder.nest(IFLA_LINKINFO, [](Builder& info) {
    info.nest(IFLA_INFO_SLAVE_DATA, [](Builder& data) { data.u8(IFLA_BRPORT_STATE, 3); })
        .text(IFLA_INFO_SLAVE_KIND, "bond");
  });
  const auto message = parse(builder);
  ASSERT_TRUE(message);
  EXPECT_FALSE(message->slaveBridgePortState);
}

TEST(LinkMessage, PortDataMayComeBeforeTheKindOfTheMaster) {
  Builder builder(RTM_NEWLINK);
  builder.nest(IFLA_LINKINFO, [](Builder& info) {
    info.nest(IFLA_INFO_SLAVE_DATA, [](Builder& data) { data.u8(IFLA_BRPORT_STATE, 3); })
        .text(IFLA_INFO_SLAVE_KIND, "bridge");
  });
  const auto message = parse(builder);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->slaveBridgePortState, 3);
}

TEST(LinkMessage, BridgeTellsWhetherItLooksAtTags) {
  for (const std::uint8_t filtering : {std::uint8_t{0}, std::uint8_t{1}}) {
    Builder builder(RTM_NEWLINK);
    builder.nest(IFLA_LINKINFO, [&](Builder& info) {
      info.text(IFLA_INFO_KIND, "bridge").nest(IFLA_INFO_DATA, [&](Builder& data) {
        data.u8(IFLA_BR_VLAN_FILTERING, filtering);
      });
    });
    const auto message = parse(builder);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->vlanFiltering, filtering != 0);
  }
}

TEST(LinkMessage, VlanEntriesAndRangesAreReadWithBothEnds) {
  const auto message = parse(portMessage());
  ASSERT_TRUE(message && message->vlans);
  const BridgeVlans& vlans = *message->vlans;
  EXPECT_EQ(vlans.pvid, 1);
  EXPECT_EQ(vlans.members.count(), 1U + 101U + 1U);
  for (const std::size_t vlan : {1U, 100U, 150U, 200U, 4094U}) EXPECT_TRUE(vlans.members[vlan]);
  for (const std::size_t vlan : {0U, 2U, 99U, 201U, 4095U}) EXPECT_FALSE(vlans.members[vlan]);
  EXPECT_EQ(vlans.untagged.count(), 1U);
  EXPECT_TRUE(vlans.untagged[1]);
}

TEST(LinkMessage, UntaggedRangeIsUntaggedThroughout) {
  constexpr unsigned kUntagged = BRIDGE_VLAN_INFO_UNTAGGED;
  const auto message = parseVlans([](Builder& spec) {
    spec.vlan(10, kUntagged | BRIDGE_VLAN_INFO_RANGE_BEGIN)
        .vlan(13, kUntagged | BRIDGE_VLAN_INFO_RANGE_END);
  });
  ASSERT_TRUE(message && message->vlans);
  EXPECT_EQ(message->vlans->untagged.count(), 4U);
  EXPECT_EQ(message->vlans->pvid, 0);
}

TEST(LinkMessage, BridgeDataWithoutVlanEntriesGivesNoVlans) {
  const auto message = parseVlans([](Builder& spec) { spec.raw(IFLA_BRIDGE_FLAGS, {0, 0}); });
  ASSERT_TRUE(message);
  EXPECT_FALSE(message->vlans);
}

TEST(LinkMessage, ImpossibleVlanEntriesMakeTheMessageMalformed) {
  constexpr unsigned kBegin = BRIDGE_VLAN_INFO_RANGE_BEGIN;
  constexpr unsigned kEnd = BRIDGE_VLAN_INFO_RANGE_END;
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(0); }));
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(4095); }));
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(0xFFFF); }));
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(5, kEnd); })) << "end without begin";
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(5, kBegin); })) << "begin without end";
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(5, kBegin).vlan(7); }));
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(5, kBegin).vlan(7, kBegin); }));
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(7, kBegin).vlan(5, kEnd); })) << "reversed";
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.vlan(5, kBegin | kEnd); }));
  EXPECT_FALSE(parseVlans(
      [](Builder& spec) { spec.vlan(5, kBegin | BRIDGE_VLAN_INFO_PVID).vlan(6, kEnd); }));
  EXPECT_FALSE(parseVlans([](Builder& spec) { spec.raw(IFLA_BRIDGE_VLAN_INFO, {0, 0, 5}); }));
  EXPECT_TRUE(parseVlans([](Builder& spec) { spec.vlan(5, kBegin).vlan(5, kEnd); }));
}

TEST(LinkMessage, KnownAttributesOfTheWrongSizeMakeTheMessageMalformed) {
  const auto withRaw = [](std::uint16_t type, const Bytes& value) {
    return parse(Builder(RTM_NEWLINK).raw(type, value)).has_value();
  };
  EXPECT_FALSE(withRaw(IFLA_MTU, {1, 2, 3}));
  EXPECT_FALSE(withRaw(IFLA_MASTER, {1}));
  EXPECT_FALSE(withRaw(IFLA_MASTER, {0xFF, 0xFF, 0xFF, 0xFF})) << "not an interface index";
  EXPECT_FALSE(withRaw(IFLA_OPERSTATE, {}));
  EXPECT_FALSE(withRaw(IFLA_CARRIER, {}));
  EXPECT_FALSE(withRaw(IFLA_IFNAME, {})) << "no name";
  EXPECT_FALSE(withRaw(IFLA_IFNAME, {0})) << "empty name";
  EXPECT_FALSE(withRaw(IFLA_IFNAME, {'e', '0'})) << "not terminated";
  EXPECT_FALSE(withRaw(IFLA_IFNAME, Bytes(16, 'x'))) << "not terminated";
  Bytes longName(16, 'x');
  longName.push_back(0);
  EXPECT_FALSE(withRaw(IFLA_IFNAME, longName)) << "16 characters";
  longName.erase(longName.begin());
  EXPECT_TRUE(withRaw(IFLA_IFNAME, longName)) << "15 characters";
  EXPECT_FALSE(withRaw(IFLA_LINKINFO, {9, 0, 1, 0, 'v'})) << "inner attribute longer than outer";
  EXPECT_FALSE(withRaw(IFLA_LINKINFO, {3, 0, 1, 0})) << "inner attribute shorter than its header";
  EXPECT_FALSE(withRaw(IFLA_LINKINFO, {4, 0})) << "half an inner header";
}

TEST(LinkMessage, AddressesThatAreNotEthernetAreNone) {
  for (const std::size_t size : {0U, 4U, 5U, 7U, 16U, 20U}) {
    const auto message = parse(Builder(RTM_NEWLINK).raw(IFLA_ADDRESS, Bytes(size, 1)));
    ASSERT_TRUE(message) << size;
    EXPECT_FALSE(message->address) << size;
  }
}

TEST(LinkMessage, UnknownAttributesAreSkippedAndLongerNumbersRead) {
  const auto message = parse(Builder(RTM_NEWLINK)
                                 .raw(1000, {1, 2, 3})
                                 .raw(IFLA_OPERSTATE, {5, 0, 0, 0})
                                 .u32(IFLA_MTU, 68));
  ASSERT_TRUE(message);
  EXPECT_EQ(message->operState, 5);
  EXPECT_EQ(message->mtu, 68U);
}

TEST(LinkMessage, OtherTypesAndImpossibleIndexesAreRefused) {
  EXPECT_FALSE(parse(Builder(RTM_NEWADDR)));
  EXPECT_FALSE(parse(Builder(RTM_GETLINK)));
  EXPECT_FALSE(parse(Builder(NLMSG_DONE)));
  EXPECT_FALSE(parse(Builder(RTM_NEWLINK, AF_UNSPEC, 0)));
  EXPECT_FALSE(parse(Builder(RTM_NEWLINK, AF_UNSPEC, -1)));
}

TEST(LinkMessage, MessageCutOffAtAnyLengthIsRefused) {
  for (const Bytes& whole : {fullMessage().bytes(), portMessage().bytes()}) {
    ASSERT_TRUE(parse(whole));
    for (std::size_t size = 0; size < whole.size(); ++size) {
      EXPECT_FALSE(parse(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))))
          << size;
    }
  }
}

TEST(LinkMessage, MessageThatClaimsMoreThanThereIsIsRefused) {
  const Bytes whole = Builder(RTM_NEWLINK).bytes();
  for (const std::size_t size : {sizeof(nlmsghdr), whole.size()}) {
    Bytes bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    const auto real = static_cast<std::uint32_t>(size);
    // From 2^31 on a length is negative as a signed number.
    for (const std::uint32_t claim : {real + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
      std::memcpy(bytes.data(), &claim, sizeof(claim));
      EXPECT_EQ(netlinkMessageSize(bytes), 0U) << claim;
      EXPECT_FALSE(parse(bytes)) << claim;
    }
    std::memcpy(bytes.data(), &real, sizeof(real));
    EXPECT_EQ(netlinkMessageSize(bytes), size);
  }
}

// The header agrees with the cut: what remains is a message only where an attribute ends.
TEST(LinkMessage, MessageThatEndsInsideAnAttributeIsRefused) {
  for (const Bytes& whole : {fullMessage().bytes(), portMessage().bytes()}) {
    std::set<std::size_t> ends;
    std::size_t at = sizeof(nlmsghdr) + sizeof(ifinfomsg);
    ends.insert(at);
    while (at < whole.size()) {
      const std::size_t length = whole[at] + std::size_t{256} * whole[at + 1];
      // The padding of the last attribute may be missing in part or as a whole.
      for (std::size_t end = at + length; end <= at + netlinkAligned(length); ++end)
        ends.insert(end);
      at += netlinkAligned(length);
    }
    for (std::size_t size = 0; size <= whole.size(); ++size) {
      Bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
      const auto length = static_cast<std::uint32_t>(size);
      if (size > 0) std::memcpy(part.data(), &length, std::min(sizeof(length), size));
      EXPECT_EQ(parse(part).has_value(), ends.contains(size)) << size;
    }
  }
}

TEST(LinkMessage, AnyByteMayHaveAnyValueWithoutAReadOutside) {
  for (const Bytes& whole : {fullMessage().bytes(), portMessage().bytes()}) {
    std::size_t parsed = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
      for (unsigned value = 0; value < 256; ++value) {
        Bytes changed = whole;
        changed[at] = static_cast<std::uint8_t>(value);
        parsed += parse(changed) ? 1U : 0U;
      }
    }
    EXPECT_GT(parsed, 0U);
    EXPECT_LT(parsed, whole.size() * 256);
  }
}

TEST(LinkMessage, AlignmentOfTheBytesDoesNotMatter) {
  const Bytes whole = fullMessage().bytes();
  for (std::size_t shift = 0; shift < 8; ++shift) {
    Bytes moved(shift, 0xEE);
    moved.insert(moved.end(), whole.begin(), whole.end());
    const auto message = parseLinkMessage(std::span(moved).subspan(shift));
    ASSERT_TRUE(message) << shift;
    EXPECT_EQ(message->name, "uplink-1") << shift;
  }
}

TEST(LinkMessage, BytesBehindTheMessageAreNotPartOfIt) {
  Bytes bytes = Builder(RTM_NEWLINK).text(IFLA_IFNAME, "e0").bytes();
  const Bytes next = Builder(RTM_NEWLINK, AF_UNSPEC, 8).text(IFLA_IFNAME, "e1").bytes();
  bytes.insert(bytes.end(), next.begin(), next.end());
  const auto message = parse(bytes);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->name, "e0");
}

}  // namespace
}  // namespace Platform::Linux
