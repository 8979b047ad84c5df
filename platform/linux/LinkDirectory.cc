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
  return link.arpType == ARPHRD_ETHER && (link.flags & IFF_LOOPBACK) == 0 && link.kind != "bridge";
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

std::size_t LinkDirectory::ports() const {
  return static_cast<std::size_t>(std::count_if(
      intfs_.begin(), intfs_.end(), [&](const auto& entry) { return isPort(entry.second.link); }));
}

bool LinkDirectory::isPort(const LinkInfo& link) const {
  if (selection_.bridge.empty()) return selection_.match && selection_.match(link.name);
  return bridge_ && link.master == bridge_->ifindex;
}

void LinkDirectory::linkIs(const LinkInfo& now, const LinkInfo* before) {
  if (!selection_.bridge.empty()) {
    if (now.name == selection_.bridge) {
      handleBridge(&now);
    } else if (bridge_ && bridge_->ifindex == now.ifindex) {
      handleBridge(nullptr);  // the bridge has another name now
    }
  }
  if (before != nullptr && before->name != now.name) {
    if (const auto known = byIndex_.find(now.ifindex); known != byIndex_.end()) {
      intfDel(Portus::IntfId(known->second));
    }
  }
  if (isInterface(now)) {
    intfIs(now);
  } else if (const auto known = byIndex_.find(now.ifindex); known != byIndex_.end()) {
    intfDel(Portus::IntfId(known->second));
  }
  handleSourceAddress();
}

void LinkDirectory::linkDel(const LinkInfo& last) {
  if (bridge_ && bridge_->ifindex == last.ifindex) handleBridge(nullptr);
  if (const auto known = byIndex_.find(last.ifindex); known != byIndex_.end()) {
    intfDel(Portus::IntfId(known->second));
  }
  handleSourceAddress();
}

void LinkDirectory::intfIs(const LinkInfo& link) {
  const auto id = intfIdOf(link.name);
  if (!id) return;
  auto at = intfs_.find(*id);
  if (at != intfs_.end() && at->second.link.ifindex != link.ifindex) {
    // The name has moved to another link before the old one was heard of.
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
  if (errdisable_ != nullptr) errdisable_->handleLink(*id, link);
}

void LinkDirectory::portIs(const Portus::IntfId& intfId, const LinkInfo& link) {
  if (!isPort(link)) {
    entities_.brTopoStatus->intfVlansDel(intfId);
    return;
  }
  const bool filtering = bridge_ && bridge_->vlanFiltering.value_or(false);
  const BridgeVlans none;
  const BridgeVlans& kernel = link.vlans ? *link.vlans : none;
  entities_.brConfig->switchIntfConfigIs(intfId)->nativeVlanIs(
      filtering ? Bridging::VlanIdOrNone(kernel.pvid <= Bridging::kMaxVlanId ? kernel.pvid
                                                                             : std::uint16_t{0})
                : selection_.nativeVlan);
  entities_.brTopoStatus->intfVlansIs(intfId, filtering ? bitmapOf(kernel) : selection_.vlans);
}

void LinkDirectory::intfDel(const Portus::IntfId& intfId) {
  const auto at = intfs_.find(intfId);
  if (at == intfs_.end()) return;
  byIndex_.erase(at->second.link.ifindex);
  intfs_.erase(at);
  if (errdisable_ != nullptr) errdisable_->handleLinkGone(intfId);
  entities_.allIntfStatusDir->intfStatusDel(intfId);
  entities_.allIntfStatusLocalDir->intfStatusLocalDel(intfId);
  entities_.ethIntfStatusDir->ethIntfStatusDel(intfId);
  entities_.brTopoStatus->intfVlansDel(intfId);
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

void LinkDirectory::handleSourceAddress() {
  if (bridge_) {
    entities_.brConfig->bridgeMacAddrIs(bridge_->address);
    return;
  }
  // Without a bridge the system has no address of its own: it takes that of its first port, the one
  // with the lowest index, and keeps it while that port exists.
  const LinkInfo* first = nullptr;
  for (const auto& [intfId, intf] : intfs_) {
    if (isPort(intf.link) && (first == nullptr || intf.link.ifindex < first->ifindex)) {
      first = &intf.link;
    }
  }
  if (first != nullptr) entities_.brConfig->bridgeMacAddrIs(first->address);
}

}  // namespace Platform::Linux
