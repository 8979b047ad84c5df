// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinkTable.h"

#include <linux/if.h>
#include <sys/socket.h>

#include <utility>

namespace Platform::Linux {
namespace {

// What only the bridge's own messages tell.
void bridgePortDataDel(LinkInfo& link) {
  link.bridgePortState.reset();
  link.vlans.reset();
}

bool hasBridgePortData(const LinkInfo& link) { return link.bridgePortState || link.vlans; }

void bridgeDel(LinkInfo& link) {
  if (link.slaveKind == "bridge") {
    link.slaveKind.clear();
    link.master = 0;
  }
  bridgePortDataDel(link);
}

void newLinkIs(LinkInfo& link, const LinkMessage& message) {
  link.flags = message.flags;
  link.arpType = message.arpType;
  link.name = message.name.value_or("");
  link.alias = message.alias.value_or("");
  link.carrier = message.carrier.value_or((message.flags & IFF_LOWER_UP) != 0);
  link.operState = message.operState.value_or(link.operState);
  link.mtu = message.mtu.value_or(link.mtu);
  link.address = message.address.value_or(Portus::EthAddr());
  link.kind = message.kind.value_or("");
  link.slaveKind = message.slaveKind.value_or("");
  link.vlanFiltering = message.vlanFiltering;
  link.protoDown = message.protoDown;
  // The kernel leaves the reasons out when there are none.
  link.protoDownReasons = message.protoDownReasons.value_or(0);
  if (const int master = message.master.value_or(0); master != link.master) {
    link.master = master;
    bridgePortDataDel(link);
  }
  if (link.master == 0) {
    link.bridgePortState.reset();
  } else if (!link.bridgePortState) {
    // A message of this family may have been made just before the state changed, while the bridge's
    // own message of each change is exact. So this one counts only until the first of those.
    link.bridgePortState = message.slaveBridgePortState;
  }
}

void bridgePortIs(LinkInfo& link, const LinkMessage& message) {
  const bool fromBridge = message.bridgePortState.has_value();
  if (fromBridge) {
    link.bridgePortState = message.bridgePortState;
    if (message.master && *message.master != 0) {
      link.master = *message.master;
      link.slaveKind = "bridge";
    }
  }
  // A bridge tells all VLANs or, where there are none, nothing; a network adapter that answers for
  // this family itself does not speak for the bridge.
  if (fromBridge || link.kind == "bridge" || message.vlans) {
    link.vlans = message.vlans;
  }
}

}  // namespace

bool LinkInfo::adminUp() const { return (flags & IFF_UP) != 0; }

std::optional<LinkInfo> linkAfter(const LinkInfo* before, const LinkMessage& message) {
  using Type = LinkMessage::Type;
  std::optional<LinkInfo> after;
  if (before != nullptr) {
    after = *before;
  }
  if (message.family == AF_UNSPEC) {
    if (message.type == Type::kDel) {
      return std::nullopt;
    }
    // Wireless events come as link messages without a name that carry nothing but themselves.
    if (message.name) {
      if (!after) {
        after.emplace();
        after->ifindex = message.ifindex;
      }
      newLinkIs(*after, message);
    }
  } else if (message.family == AF_BRIDGE && after) {
    if (message.type == Type::kDel) {
      bridgeDel(*after);
    } else {
      bridgePortIs(*after, message);
    }
  }
  return after;
}

std::optional<LinkTable::Change> LinkTable::messageIs(const LinkMessage& message) {
  seenIs(message);
  const auto it = links_.find(message.ifindex);
  return linkIs(it, linkAfter(it == links_.end() ? nullptr : &it->second, message));
}

// Links that went are not "seen" any more, so the sets never outgrow the table by much.
void LinkTable::seenIs(const LinkMessage& message) {
  const bool isNew = message.type == LinkMessage::Type::kNew;
  if (message.family == AF_UNSPEC) {
    if (isNew) {
      seenLinks_.insert(message.ifindex);
    } else {
      seenLinks_.erase(message.ifindex);
      seenPorts_.erase(message.ifindex);
    }
  } else if (message.family == AF_BRIDGE) {
    if (isNew && link(message.ifindex) != nullptr) {
      seenPorts_.insert(message.ifindex);
    } else {
      seenPorts_.erase(message.ifindex);
    }
  }
}

std::optional<LinkTable::Change> LinkTable::linkIs(std::map<int, LinkInfo>::iterator it,
                                                   std::optional<LinkInfo> after) {
  Change change;
  if (it == links_.end()) {
    if (!after) {
      return std::nullopt;
    }
    const int ifindex = after->ifindex;
    change.now = &links_.emplace(ifindex, *std::move(after)).first->second;
  } else if (!after) {
    change.before = std::move(it->second);
    links_.erase(it);
  } else if (*after == it->second) {
    return std::nullopt;
  } else {
    change.before = std::exchange(it->second, *std::move(after));
    change.now = &it->second;
  }
  return change;
}

const LinkInfo* LinkTable::link(int ifindex) const {
  const auto it = links_.find(ifindex);
  return it == links_.end() ? nullptr : &it->second;
}

void LinkTable::dumpBegin(std::uint8_t family) {
  (family == AF_BRIDGE ? seenPorts_ : seenLinks_).clear();
  sweptTo_ = 0;
}

std::optional<LinkTable::Change> LinkTable::unseenDel(std::uint8_t family) {
  for (auto it = links_.upper_bound(sweptTo_); it != links_.end(); ++it) {
    sweptTo_ = it->first;
    if (family == AF_BRIDGE) {
      if (hasBridgePortData(it->second) && !seenPorts_.contains(it->first)) {
        // The master is for the other family to tell, and it has just been dumped.
        LinkInfo after = it->second;
        bridgePortDataDel(after);
        return linkIs(it, std::move(after));
      }
    } else if (!seenLinks_.contains(it->first)) {
      return linkIs(it, std::nullopt);
    }
  }
  sweptTo_ = 0;
  return std::nullopt;
}

}  // namespace Platform::Linux
