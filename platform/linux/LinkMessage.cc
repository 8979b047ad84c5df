// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinkMessage.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <limits>
#include <vector>

namespace Platform::Linux {
namespace {

constexpr std::size_t kLongestAlias = 255;
constexpr std::uint16_t kLargestVlan = 4094;

using Bytes = std::span<const std::uint8_t>;

Bytes payload(const nlattr* attr) {
  return {static_cast<const std::uint8_t*>(mnl_attr_get_payload(attr)),
          mnl_attr_get_payload_len(attr)};
}

// Calls `visit(type, payload)` for each attribute of `list`, which is aligned to four bytes. False:
// an attribute does not fit in what is left of the list, or a visit gave false.
template <class Visit>
bool forEachAttribute(Bytes list, Visit&& visit) {
  while (!list.empty()) {
    // nla_len has 16 bits, but a list at the top of a message may be longer than that.
    const auto* attr = reinterpret_cast<const nlattr*>(list.data());
    if (!mnl_attr_ok(attr, static_cast<int>(list.size()))) {
      return false;
    }
    if (!visit(mnl_attr_get_type(attr), payload(attr))) {
      return false;
    }
    const std::size_t step = netlinkAligned(mnl_attr_get_len(attr));
    // The padding behind the last attribute may be missing.
    list = list.subspan(std::min(step, list.size()));
  }
  return true;
}

// A fixed-size value at the start of `data`; false: too short.
template <class Number>
bool read(Bytes data, Number& value) {
  if (data.size() < sizeof(Number)) {
    return false;
  }
  std::memcpy(&value, data.data(), sizeof(Number));
  return true;
}

template <class Number>
bool read(Bytes data, std::optional<Number>& value) {
  Number number{};
  if (!read(data, number)) {
    return false;
  }
  value = number;
  return true;
}

bool readFlag(Bytes data, std::optional<bool>& value) {
  std::uint8_t number = 0;
  if (!read(data, number)) {
    return false;
  }
  value = number != 0;
  return true;
}

bool readIndex(Bytes data, std::optional<int>& value) {
  std::uint32_t number = 0;
  if (!read(data, number) || number > std::uint32_t{std::numeric_limits<int>::max()}) {
    return false;
  }
  value = static_cast<int>(number);
  return true;
}

// Text up to the terminating zero, which must be there: at least `shortest`, at most `longest`
// bytes.
bool readText(Bytes data, std::size_t shortest, std::size_t longest,
              std::optional<std::string>& value) {
  const auto* text = reinterpret_cast<const char*>(data.data());
  const std::size_t length = data.empty() ? 0 : ::strnlen(text, data.size());
  if (length == data.size() || length < shortest || length > longest) {
    return false;
  }
  value.emplace(text, length);
  return true;
}

void readAddress(Bytes data, std::optional<Portus::EthAddr>& value) {
  std::array<std::uint8_t, 6> bytes{};
  if (data.size() == bytes.size()) {
    std::memcpy(bytes.data(), data.data(), bytes.size());
    value = Portus::EthAddr(bytes);
  }
}

bool readPortState(Bytes list, std::optional<std::uint8_t>& state) {
  return forEachAttribute(list, [&](std::uint16_t type, Bytes data) {
    return type != IFLA_BRPORT_STATE || read(data, state);
  });
}

bool readProtoDownReason(Bytes list, std::optional<std::uint32_t>& reasons) {
  return forEachAttribute(list, [&](std::uint16_t type, Bytes data) {
    return type != IFLA_PROTO_DOWN_REASON_VALUE || read(data, reasons);
  });
}

bool readLinkInfo(Bytes list, LinkMessage& message) {
  // What the two data lists mean depends on the kinds, which need not come first.
  Bytes data;
  Bytes slaveData;
  const bool whole = forEachAttribute(list, [&](std::uint16_t type, Bytes value) {
    switch (type) {
      case IFLA_INFO_KIND:
        return readText(value, 0, kLongestAlias, message.kind);
      case IFLA_INFO_SLAVE_KIND:
        return readText(value, 0, kLongestAlias, message.slaveKind);
      case IFLA_INFO_DATA:
        data = value;
        return true;
      case IFLA_INFO_SLAVE_DATA:
        slaveData = value;
        return true;
      default:
        return true;
    }
  });
  if (!whole) {
    return false;
  }
  if (message.kind == "bridge") {
    const bool ok = forEachAttribute(data, [&](std::uint16_t type, Bytes value) {
      return type != IFLA_BR_VLAN_FILTERING || readFlag(value, message.vlanFiltering);
    });
    if (!ok) {
      return false;
    }
  }
  return message.slaveKind != "bridge" || readPortState(slaveData, message.slaveBridgePortState);
}

// Collects entries of IFLA_BRIDGE_VLAN_INFO; a range comes as two entries, its ends.
class VlanReader {
 public:
  bool entryIs(Bytes data) {
    bridge_vlan_info entry{};
    if (!read(data, entry) || entry.vid == 0 || entry.vid > kLargestVlan) {
      return false;
    }
    const bool begins = (entry.flags & BRIDGE_VLAN_INFO_RANGE_BEGIN) != 0;
    const bool ends = (entry.flags & BRIDGE_VLAN_INFO_RANGE_END) != 0;
    const bool isPvid = (entry.flags & BRIDGE_VLAN_INFO_PVID) != 0;
    if ((begins && ends) || ends != (rangeBegin_ != 0) || ((begins || ends) && isPvid)) {
      return false;
    }
    if (begins) {
      rangeBegin_ = entry.vid;
      return true;
    }
    const std::uint16_t first = ends ? rangeBegin_ : entry.vid;
    if (first > entry.vid) {
      return false;
    }
    rangeBegin_ = 0;
    for (std::size_t vlan = first; vlan <= entry.vid; ++vlan) {
      vlans_.members.set(vlan);
      vlans_.untagged.set(vlan, (entry.flags & BRIDGE_VLAN_INFO_UNTAGGED) != 0);
    }
    if (isPvid) {
      vlans_.pvid = entry.vid;
    }
    any_ = true;
    return true;
  }

  bool openRange() const { return rangeBegin_ != 0; }
  std::optional<BridgeVlans> result() const { return any_ ? std::optional(vlans_) : std::nullopt; }

 private:
  BridgeVlans vlans_;
  std::uint16_t rangeBegin_ = 0;
  bool any_ = false;
};

bool readVlans(Bytes list, std::optional<BridgeVlans>& vlans) {
  VlanReader reader;
  const bool whole = forEachAttribute(list, [&](std::uint16_t type, Bytes data) {
    return type != IFLA_BRIDGE_VLAN_INFO || reader.entryIs(data);
  });
  vlans = reader.result();
  return whole && !reader.openRange();
}

bool readAttribute(std::uint16_t type, Bytes data, LinkMessage& message) {
  switch (type) {
    case IFLA_IFNAME:
      return readText(data, 1, IFNAMSIZ - 1, message.name);
    case IFLA_IFALIAS:
      return readText(data, 0, kLongestAlias, message.alias);
    case IFLA_ADDRESS:
      readAddress(data, message.address);
      return true;
    case IFLA_MTU:
      return read(data, message.mtu);
    case IFLA_OPERSTATE:
      return read(data, message.operState);
    case IFLA_CARRIER:
      return readFlag(data, message.carrier);
    case IFLA_PROTO_DOWN:
      return readFlag(data, message.protoDown);
    case IFLA_PROTO_DOWN_REASON:
      return readProtoDownReason(data, message.protoDownReasons);
    case IFLA_MASTER:
      return readIndex(data, message.master);
    case IFLA_LINKINFO:
      return readLinkInfo(data, message);
    case IFLA_PROTINFO:
      // Other families put their own things under these two types.
      return message.family != AF_BRIDGE || readPortState(data, message.bridgePortState);
    case IFLA_AF_SPEC:
      return message.family != AF_BRIDGE || readVlans(data, message.vlans);
    default:
      return true;
  }
}

}  // namespace

// Not mnl_nlmsg_ok(), which takes the length for a signed number: one of 2^31 and more fits in
// every buffer there.
std::size_t netlinkMessageSize(Bytes bytes) {
  nlmsghdr header{};
  const bool whole =
      read(bytes, header) && header.nlmsg_len >= sizeof(header) && header.nlmsg_len <= bytes.size();
  return whole ? header.nlmsg_len : 0;
}

std::optional<LinkMessage> parseLinkMessage(Bytes bytes) {
  if (reinterpret_cast<std::uintptr_t>(bytes.data()) % MNL_ALIGNTO != 0) {
    const std::vector<std::uint8_t> aligned(bytes.begin(), bytes.end());
    return parseLinkMessage(aligned);
  }
  const std::size_t size = netlinkMessageSize(bytes);
  const auto* header = reinterpret_cast<const nlmsghdr*>(bytes.data());
  if (size == 0 || (header->nlmsg_type != RTM_NEWLINK && header->nlmsg_type != RTM_DELLINK)) {
    return std::nullopt;
  }
  Bytes body = bytes.first(size).subspan(netlinkAligned(sizeof(nlmsghdr)));
  ifinfomsg info{};
  if (!read(body, info) || info.ifi_index <= 0) {
    return std::nullopt;
  }
  LinkMessage message;
  message.type =
      header->nlmsg_type == RTM_NEWLINK ? LinkMessage::Type::kNew : LinkMessage::Type::kDel;
  message.family = info.ifi_family;
  message.ifindex = info.ifi_index;
  message.flags = info.ifi_flags;
  message.changeMask = info.ifi_change;
  message.arpType = info.ifi_type;
  const bool whole = forEachAttribute(
      body.subspan(sizeof(info)),
      [&](std::uint16_t type, Bytes data) { return readAttribute(type, data, message); });
  return whole ? std::optional(std::move(message)) : std::nullopt;
}

}  // namespace Platform::Linux
