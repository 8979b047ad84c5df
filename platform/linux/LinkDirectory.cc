// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinkDirectory.h"

#include <net/if.h>
#include <net/if_arp.h>

#include <algorithm>
#include <utility>

#include "runtime/vex/LogService.h"

namespace Platform::Linux {

namespace {

const Vex::LogHandle RINGWARD_INTF_NAME(
    "RINGWARD_INTF_NAME", Vex::LogSeverity::error, "Interface cannot be watched: %s",
    "Its name has no identifier of its own, so probes could not tell it from others.",
    "Give the interface another name.", 0.0, 1.0, 0);

bool isInterface(const LinkInfo& link) {
  return link.arpType == ARPHRD_ETHER && (link.flags & IFF_LOOPBACK) == 0 &&
         link.kind != "bridge" && link.slaveKind != "bond" && link.slaveKind != "team";
}

std::optional<Portus::IntfId> intfIdOf(const std::string& name) {
  try {
    return Portus::IntfId::fromName(name);
  } catch (const Vex::RangeException& e) {
    Vex::log(RINGWARD_INTF_NAME, e.text());
    return std::nullopt;
  }
}

Bridging::VlanBitmap bitmapOf(const BridgeVlans& vlans) {
  Bridging::VlanBitmap result;
  for (std::uint32_t vlan = 1; vlan <= Bridging::kMaxVlanId; ++vlan) {
    if (vlans.members.test(vlan)) result.set(vlan);
  }
  return result;
}

}  // namespace

LinkDirectory::LinkDirectory(DirectoryEntities entities, Vex::Ptr<PacketAccess> access,
                             PortSelection selection)
    : entities_(std::move(entities)), access_(std::move(access)), selection_(std::move(selection)) {
  entities_.brTopoConfig->vlansIs(selection_.vlans);
}

const LinkInfo* LinkDirectory::link(const Portus::IntfId& intfId) const {
  const auto at = intfs_.find(intfId);
  return at != intfs_.end() ? &at->second.link : nullptr;
}

void LinkDirectory::selectionIs(PortSelection selection) {
  selection_ = std::move(selection);
  entities_.brTopoConfig->vlansIs(selection_.vlans);
  bridge_ = linkNamed(selection_.bridge);
  for (const auto& [intfId, intf] : intfs_) portIs(intfId, intf.link);
  handleSourceAddress();
}

void LinkDirectory::sourceAddressIs(const SourceAddress& source) {
  source_ = source;
  handleSourceAddress();
}

std::optional<LinkInfo> LinkDirectory::linkNamed(const std::string& name) const {
  const auto named = [&](const LinkInfo& link) { return link.name == name; };
  for (const auto& [ifindex, link] : others_) {
    if (named(link)) return link;
  }
  for (const auto& [intfId, intf] : intfs_) {
    if (named(intf.link)) return intf.link;
  }
  return std::nullopt;
}

bool LinkDirectory::isPort(const LinkInfo& link) const {
  if (selection_.bridge.empty()) return selection_.match && selection_.match(link.name);
  return bridge_ && link.master == bridge_->ifindex;
}

void LinkDirectory::linkIs(const LinkInfo& now, const LinkInfo* before) {
  const bool isBridge = !selection_.bridge.empty() && now.name == selection_.bridge;
  const bool wasBridge = bridge_ && bridge_->ifindex == now.ifindex;
  if (isBridge) {
    handleBridge(&now);
  } else if (wasBridge) {
    handleBridge(nullptr);  // the bridge has another name now
  }
  const bool isRenamed = before != nullptr && before->name != now.name;
  if (isRenamed) {
    if (const auto known = byIndex_.find(now.ifindex); known != byIndex_.end()) {
      intfDel(Portus::IntfId(known->second));
    }
  }
  if (isInterface(now)) {
    others_.erase(now.ifindex);
    intfIs(now);
  } else {
    const auto known = byIndex_.find(now.ifindex);
    const bool wasInterface = known != byIndex_.end();
    if (wasInterface) intfDel(Portus::IntfId(known->second));
    others_[now.ifindex] = now;
    if (wasInterface) handleNameFree(now.name);
  }
  if (isRenamed) handleNameFree(before->name);
  if (wasBridge && !isBridge) handleBridgeNameFree();
  handleSourceAddress();
}

void LinkDirectory::linkDel(const LinkInfo& last) {
  const bool wasBridge = bridge_ && bridge_->ifindex == last.ifindex;
  if (wasBridge) handleBridge(nullptr);
  if (const auto known = byIndex_.find(last.ifindex); known != byIndex_.end()) {
    intfDel(Portus::IntfId(known->second));
  }
  others_.erase(last.ifindex);
  access_->linkDel(last.ifindex);
  handleNameFree(last.name);
  if (wasBridge) handleBridgeNameFree();
  handleSourceAddress();
}

void LinkDirectory::handleNameFree(const std::string& name) {
  for (const auto& [ifindex, link] : others_) {
    if (link.name != name || !isInterface(link)) continue;
    const auto id = intfIdOf(name);
    if (!id || intfs_.contains(*id)) return;
    const LinkInfo waiting = link;
    others_.erase(ifindex);
    intfIs(waiting);
    return;
  }
}

void LinkDirectory::handleBridgeNameFree() {
  if (const auto other = linkNamed(selection_.bridge)) handleBridge(&*other);
}

void LinkDirectory::intfIs(const LinkInfo& link) {
  const auto id = intfIdOf(link.name);
  if (!id) {
    others_[link.ifindex] = link;
    return;
  }
  auto at = intfs_.find(*id);
  if (at != intfs_.end() && at->second.link.ifindex != link.ifindex) {
    // The name has moved to another link before the old one was heard of, which may have it again
    // when it is heard of: what happens between is lost when messages are.
    others_[at->second.link.ifindex] = at->second.link;
    intfDel(*id);
    at = intfs_.end();
  }
  const bool isNew = at == intfs_.end();
  if (isNew) {
    auto config = Vex::makePtr<Interface::IntfConfig>(*id);
    auto status = Vex::makePtr<Interface::IntfStatus>(*id, config);
    at = intfs_.emplace(*id, Intf{link, config, status}).first;
    byIndex_[link.ifindex] = *id;
  }
  // Copies: what follows may run reactions, but none that change this directory.
  at->second.link = link;
  const Intf intf = at->second;
  access_->carrierIs(link.ifindex, link.adminUp() && link.carrier);
  intf.status->linkUpIs(link.carrier);
  intf.config->adminEnabledIs(errdisable_ != nullptr ? errdisable_->adminEnabled(*id, link)
                                                     : link.adminUp());
  if (isNew) {
    entities_.allIntfStatusDir->intfStatusIs(*id, intf.status);
    entities_.allIntfStatusLocalDir->intfStatusLocalIs(
        *id, Vex::makePtr<Interface::IntfStatusLocal>(access_->newDevice(link.ifindex)));
    entities_.ethIntfStatusDir->ethIntfStatusIs(*id, intf.status);
  }
  portIs(*id, link);
  if (errdisable_ != nullptr && errdisable_->handleLink(*id, link)) {
    // Raised by the operator while it was held: to the engine, shut and raised, so that it starts
    // anew and finds the loop if it is still there.
    intf.config->adminEnabledIs(false);
    intf.config->adminEnabledIs(true);
  }
}

void LinkDirectory::portIs(const Portus::IntfId& intfId, const LinkInfo& link) {
  if (!isPort(link)) {
    portDel(intfId, link.ifindex);
    return;
  }
  ports_[link.ifindex] = intfId;
  const bool filtering = bridge_ && bridge_->vlanFiltering.value_or(false);
  const BridgeVlans none;
  const BridgeVlans& kernel = link.vlans ? *link.vlans : none;
  entities_.brConfig->switchIntfConfigIs(intfId)->nativeVlanIs(
      filtering ? Bridging::VlanIdOrNone(kernel.pvid <= Bridging::kMaxVlanId ? kernel.pvid
                                                                             : std::uint16_t{0})
                : selection_.nativeVlan);
  entities_.brTopoStatus->intfVlansIs(intfId, filtering ? bitmapOf(kernel) : selection_.vlans);
}

void LinkDirectory::portDel(const Portus::IntfId& intfId, int ifindex) {
  ports_.erase(ifindex);
  entities_.brTopoStatus->intfVlansDel(intfId);
}

void LinkDirectory::intfDel(const Portus::IntfId& intfId) {
  const auto at = intfs_.find(intfId);
  if (at == intfs_.end()) return;
  const int ifindex = at->second.link.ifindex;
  byIndex_.erase(ifindex);
  intfs_.erase(at);
  if (errdisable_ != nullptr) errdisable_->handleLinkGone(intfId);
  entities_.allIntfStatusDir->intfStatusDel(intfId);
  entities_.allIntfStatusLocalDir->intfStatusLocalDel(intfId);
  entities_.ethIntfStatusDir->ethIntfStatusDel(intfId);
  portDel(intfId, ifindex);
  entities_.brConfig->switchIntfConfigDel(intfId);
}

void LinkDirectory::handleBridge(const LinkInfo* bridge) {
  const int indexBefore = bridge_ ? bridge_->ifindex : 0;
  const bool filteringBefore = bridge_ && bridge_->vlanFiltering.value_or(false);
  bridge_ = bridge != nullptr ? std::optional(*bridge) : std::nullopt;
  const int index = bridge_ ? bridge_->ifindex : 0;
  const bool filtering = bridge_ && bridge_->vlanFiltering.value_or(false);
  if (index == indexBefore && filtering == filteringBefore) return;
  for (const auto& [intfId, intf] : intfs_) portIs(intfId, intf.link);
}

// Once for each change of a link: bounded by the depth of the map of ports, not by their number.
void LinkDirectory::handleSourceAddress() {
  Portus::EthAddr address = source_.fixed;
  if (source_.kind != SourceAddress::Kind::fixed) {
    if (bridge_) {
      address = bridge_->address;
    } else if (!ports_.empty()) {
      // Without a bridge the system has no address of its own: it takes that of its first port and
      // keeps it while that port exists.
      address = intfs_.at(ports_.begin()->second).link.address;
    } else {
      return;
    }
    if (source_.kind == SourceAddress::Kind::derived) address = derivedAddress(address);
  }
  entities_.brConfig->bridgeMacAddrIs(address);
}

Portus::EthAddr derivedAddress(const Portus::EthAddr& address) {
  constexpr std::uint8_t kMulticast = 0x01;
  constexpr std::uint8_t kLocal = 0x02;
  constexpr std::uint8_t kOther = 0x40;
  if (address == Portus::EthAddr()) return address;
  auto bytes = address.bytes();
  bytes[0] = static_cast<std::uint8_t>(((bytes[0] ^ kOther) | kLocal) & ~kMulticast);
  return Portus::EthAddr(bytes);
}

}  // namespace Platform::Linux
