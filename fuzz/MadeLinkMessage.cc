// SPDX-License-Identifier: Apache-2.0
#include "fuzz/MadeLinkMessage.h"

#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <array>
#include <limits>
#include <string>

namespace Fuzz {
namespace {

using namespace std::string_view_literals;

// Few, so that links meet under one name; the last ones are names for which there is no interface
// identifier, and one of the greatest length.
constexpr std::array kNames{"br0"sv,       "eth1"sv,  "eth2"sv,           "eth3"sv, "lo"sv,
                            "br1"sv,       "bond0"sv, "vlan10"sv,         "x"sv,    "eth1.10"sv,
                            "b\xC3\xBC"sv, "\xFF"sv,  "fifteen-bytes-x"sv};
constexpr std::array kKinds{"bridge"sv, "bond"sv, "team"sv, "veth"sv, ""sv};
constexpr int kIndexes = 8;
constexpr std::uint16_t kNestMark = 0x8000;  // NLA_F_NESTED, which is optional
constexpr std::uint16_t kUnknownType = 0x0FF0;
constexpr unsigned kLowerUp = 0x10000;  // IFF_LOWER_UP, which <net/if.h> does not have

constexpr unsigned kAttributes = 13;

int indexFrom(std::uint8_t byte) {
  switch (byte) {
    case 0xFF:
      return 0;
    case 0xFE:
      return -1;
    case 0xFD:
      return std::numeric_limits<int>::max();
    default:
      return byte % kIndexes + 1;
  }
}

}  // namespace

MadeLinkMessage::MadeLinkMessage(Input& input) {
  using Type = Platform::Linux::LinkMessage::Type;
  const std::uint8_t kind = input.byte();
  meaning_.type = kind % 8 == 7 ? Type::kDel : Type::kNew;
  constexpr std::array<std::uint8_t, 4> kFamilies{AF_UNSPEC, AF_UNSPEC, AF_BRIDGE, AF_INET};
  meaning_.family = kFamilies[kind / 8 % kFamilies.size()];
  meaning_.ifindex = indexFrom(input.byte());
  const std::uint8_t state = input.byte();
  meaning_.flags = ((state & 1) != 0 ? unsigned{IFF_UP} : 0U) | ((state & 2) != 0 ? kLowerUp : 0U) |
                   (state / 4 % 8 == 7 ? unsigned{IFF_LOOPBACK} : 0U);
  meaning_.arpType = state / 32 == 7 ? ARPHRD_LOOPBACK : ARPHRD_ETHER;
  meaning_.changeMask = state;
  wellFormed_ = meaning_.ifindex > 0;

  put32(0);  // the length, known at the end
  put16(meaning_.type == Type::kNew ? RTM_NEWLINK : RTM_DELLINK);
  put16(0);
  put32(0);
  put32(0);
  bytes_.push_back(meaning_.family);
  bytes_.push_back(0);
  put16(meaning_.arpType);
  put32(static_cast<std::uint32_t>(meaning_.ifindex));
  put32(meaning_.flags);
  put32(meaning_.changeMask);

  const unsigned present = input.number<std::uint16_t>();
  const std::size_t start = input.below(kAttributes);
  for (unsigned i = 0; i < kAttributes; ++i) {
    const auto which = static_cast<unsigned>((start + i) % kAttributes);
    if ((present >> which & 1) != 0) attributeIs(which, input);
  }
  const auto length = static_cast<std::uint32_t>(bytes_.size());
  std::memcpy(bytes_.data(), &length, sizeof(length));
}

void MadeLinkMessage::attributeIs(unsigned which, Input& input) {
  switch (which) {
    case 0:
      meaning_.name = std::string(input.oneOf(kNames));
      return text(IFLA_IFNAME, *meaning_.name);
    case 1:
      meaning_.alias = std::string(input.below(256), 'a');
      return text(IFLA_IFALIAS, *meaning_.alias);
    case 2: {
      const std::uint8_t last = input.byte();
      const std::array<std::uint8_t, 8> address{2, 0, 0, 0, 0, last, 0, 0};
      // Not every link has an address of six bytes.
      const std::size_t size = last == 0xFF ? 8 : 6;
      if (size == 6) meaning_.address = Portus::EthAddr(2, 0, 0, 0, 0, last);
      return attribute(IFLA_ADDRESS, Bytes(address).first(size));
    }
    case 3:
      meaning_.mtu = input.number<std::uint32_t>();
      return attribute32(IFLA_MTU, *meaning_.mtu);
    case 4:
      meaning_.operState = input.byte();
      return attribute8(IFLA_OPERSTATE, *meaning_.operState);
    case 5: {
      const std::uint8_t carrier = input.byte();
      meaning_.carrier = carrier != 0;
      return attribute8(IFLA_CARRIER, carrier);
    }
    case 6:
      return protoDownIs(input);
    case 7:
      meaning_.master = static_cast<int>(input.below(kIndexes + 1));
      return attribute32(IFLA_MASTER, static_cast<std::uint32_t>(*meaning_.master));
    case 8:
    case 9:  // twice, for these are what most depends on
      if (!meaning_.kind && !meaning_.slaveKind) linkInfoIs(input);
      return;
    case 10: {
      const std::uint8_t state = input.byte();
      if (meaning_.family == AF_BRIDGE) meaning_.bridgePortState = state;
      const std::size_t nest = nestBegin(IFLA_PROTINFO, input.flag());
      attribute8(IFLA_BRPORT_STATE, state);
      return nestEnd(nest);
    }
    case 11:
      return vlansIs(input);
    default:
      return attribute(kUnknownType, input.take(input.below(16)));
  }
}

void MadeLinkMessage::protoDownIs(Input& input) {
  const std::uint8_t down = input.byte();
  meaning_.protoDown = down != 0;
  attribute8(IFLA_PROTO_DOWN, down);
  const std::size_t nest = nestBegin(IFLA_PROTO_DOWN_REASON, (down & 2) != 0);
  attribute32(IFLA_PROTO_DOWN_REASON_MASK, 0xFFFFFFFF);
  if ((down & 4) != 0) {
    meaning_.protoDownReasons = input.number<std::uint32_t>();
    attribute32(IFLA_PROTO_DOWN_REASON_VALUE, *meaning_.protoDownReasons);
  }
  nestEnd(nest);
}

// The kinds stand before or behind the data whose meaning they decide.
void MadeLinkMessage::linkInfoIs(Input& input) {
  const std::uint8_t form = input.byte();
  const bool kindsFirst = (form & 1) != 0;
  const std::string_view kind = input.oneOf(kKinds);
  const std::string_view slaveKind = input.oneOf(kKinds);
  const auto kinds = [&] {
    meaning_.kind = std::string(kind);
    text(IFLA_INFO_KIND, kind);
    if ((form & 2) == 0) return;
    meaning_.slaveKind = std::string(slaveKind);
    text(IFLA_INFO_SLAVE_KIND, slaveKind);
  };
  const std::size_t info = nestBegin(IFLA_LINKINFO, (form & 4) != 0);
  if (kindsFirst) kinds();
  if ((form & 8) != 0) {
    const std::uint8_t filtering = input.byte();
    if (kind == "bridge") meaning_.vlanFiltering = filtering != 0;
    const std::size_t data = nestBegin(IFLA_INFO_DATA, (form & 16) != 0);
    attribute8(IFLA_BR_VLAN_FILTERING, filtering);
    nestEnd(data);
  }
  if ((form & 32) != 0) {
    const std::uint8_t state = input.byte();
    if (slaveKind == "bridge" && (form & 2) != 0) meaning_.slaveBridgePortState = state;
    const std::size_t data = nestBegin(IFLA_INFO_SLAVE_DATA, (form & 64) != 0);
    attribute8(IFLA_BRPORT_STATE, state);
    nestEnd(data);
  }
  if (!kindsFirst) kinds();
  nestEnd(info);
}

void MadeLinkMessage::vlansIs(Input& input) {
  Platform::Linux::BridgeVlans vlans;
  const auto entry = [this](unsigned flags, unsigned vlan) {
    const std::size_t begin = nestBegin(IFLA_BRIDGE_VLAN_INFO, false);
    put16(static_cast<std::uint16_t>(flags));
    put16(static_cast<std::uint16_t>(vlan));
    nestEnd(begin);
  };
  const std::uint8_t form = input.byte();
  const std::size_t count = form % 16;
  const std::size_t list = nestBegin(IFLA_AF_SPEC, form / 16 % 2 != 0);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t how = input.byte();
    if (how / 8 == 31) {
      struct Impossible {
        unsigned flags;
        unsigned vlan;
      };
      constexpr std::array<Impossible, 5> kImpossible{
          {{0, 0},
           {0, 4095},
           {BRIDGE_VLAN_INFO_RANGE_END, 10},
           {BRIDGE_VLAN_INFO_RANGE_BEGIN | BRIDGE_VLAN_INFO_RANGE_END, 10},
           {BRIDGE_VLAN_INFO_RANGE_BEGIN | BRIDGE_VLAN_INFO_PVID, 10}}};
      const Impossible& impossible = kImpossible[how % kImpossible.size()];
      entry(impossible.flags, impossible.vlan);
      wellFormed_ = wellFormed_ && meaning_.family != AF_BRIDGE;
      continue;
    }
    // The last VLAN more often than chance has it.
    const unsigned first = (how & 8) != 0 ? 4094U : input.number<std::uint16_t>() % 4094U + 1;
    unsigned last = first;
    const unsigned untagged = (how & 1) != 0 ? BRIDGE_VLAN_INFO_UNTAGGED : 0U;
    if ((how & 2) != 0) {
      last = std::min(4094U, first + input.number<std::uint16_t>() % 4094U);
      entry(untagged | BRIDGE_VLAN_INFO_RANGE_BEGIN, first);
      entry(untagged | BRIDGE_VLAN_INFO_RANGE_END, last);
    } else {
      const bool isPvid = (how & 4) != 0;
      if (isPvid) vlans.pvid = static_cast<std::uint16_t>(first);
      entry(untagged | (isPvid ? BRIDGE_VLAN_INFO_PVID : 0U), first);
    }
    for (std::size_t vlan = first; vlan <= last; ++vlan) {
      vlans.members.set(vlan);
      vlans.untagged.set(vlan, untagged != 0);
    }
  }
  nestEnd(list);
  if (vlans.members.any() && meaning_.family == AF_BRIDGE) meaning_.vlans = vlans;
}

void MadeLinkMessage::breakLengths(Input& input) {
  wellFormed_ = false;
  constexpr std::array<std::uint16_t, 8> kValues{0, 1, 3, 4, 5, 0x7FFF, 0x8000, 0xFFFF};
  const std::size_t count = input.below(4) + 1;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = input.number<std::uint16_t>() % (bytes_.size() / 2) * 2;
    const std::uint8_t how = input.byte();
    std::uint16_t value = 0;
    std::memcpy(&value, bytes_.data() + at, sizeof(value));
    value =
        how < 128 ? kValues[how % kValues.size()] : static_cast<std::uint16_t>(value + how - 192);
    std::memcpy(bytes_.data() + at, &value, sizeof(value));
  }
}

void MadeLinkMessage::put16(std::uint16_t value) {
  bytes_.resize(bytes_.size() + sizeof(value));
  std::memcpy(bytes_.data() + bytes_.size() - sizeof(value), &value, sizeof(value));
}

void MadeLinkMessage::put32(std::uint32_t value) {
  bytes_.resize(bytes_.size() + sizeof(value));
  std::memcpy(bytes_.data() + bytes_.size() - sizeof(value), &value, sizeof(value));
}

void MadeLinkMessage::attribute(std::uint16_t type, Bytes payload) {
  const std::size_t begin = nestBegin(type, false);
  bytes_.insert(bytes_.end(), payload.begin(), payload.end());
  nestEnd(begin);
}

void MadeLinkMessage::attribute8(std::uint16_t type, std::uint8_t value) {
  attribute(type, Bytes(&value, 1));
}

void MadeLinkMessage::attribute32(std::uint16_t type, std::uint32_t value) {
  const std::size_t begin = nestBegin(type, false);
  put32(value);
  nestEnd(begin);
}

void MadeLinkMessage::text(std::uint16_t type, std::string_view value) {
  const std::size_t begin = nestBegin(type, false);
  bytes_.insert(bytes_.end(), value.begin(), value.end());
  bytes_.push_back(0);
  nestEnd(begin);
}

std::size_t MadeLinkMessage::nestBegin(std::uint16_t type, bool marked) {
  const std::size_t begin = bytes_.size();
  put16(0);
  put16(marked ? static_cast<std::uint16_t>(type | kNestMark) : type);
  return begin;
}

// The length is that without the padding.
void MadeLinkMessage::nestEnd(std::size_t begin) {
  const auto length = static_cast<std::uint16_t>(bytes_.size() - begin);
  std::memcpy(bytes_.data() + begin, &length, sizeof(length));
  bytes_.resize(Platform::Linux::netlinkAligned(bytes_.size()));
}

}  // namespace Fuzz
