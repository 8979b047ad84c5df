// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::LinkDirectory: turns the links of a network namespace into the interfaces, ports
// and memberships that the engine reads. Listens to a LinkMonitor and fills the agent's entities.
// Activity thread only.
//
// Every Ethernet link but the loopback, bridges and the members of bonds and teams is an interface
// (a bond or team stands for its members, as the port channel that it is); those that the selection
// admits are ports and carry VLANs. An interface is known by its name: a renamed link is one
// interface that goes and another that comes; a link that leaves its bridge stays an interface and
// is no port.
//
// Invariants:
//  1. What a port needs is there before its membership says that it is one, and what says that the
//     operator wants an interface goes first when the interface goes.
//  2. Each change of a link makes each entity change at most once.
//  3. Of two links under one name, as there are for a moment when messages were lost, the one that
//     was heard of last has it, and the other as soon as that one has gone or has another name.
//  4. adminEnabled is the operator's intent: what Errdisable does to a link does not show in it.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <unordered_map>

#include "platform/linux/Errdisable.h"
#include "platform/linux/LinkMonitor.h"
#include "platform/linux/PacketAccess.h"
#include "runtime/bridging/Config.h"
#include "runtime/bridging/TopologyStatus.h"
#include "runtime/interface/IntfStatus.h"

namespace Platform::Linux {

// Which links are ports: those of one bridge, or those that a predicate picks by name.
struct PortSelection {
  std::string bridge;                                // empty: by `match`
  std::function<bool(std::string_view name)> match;  // used without `bridge`
  Bridging::VlanBitmap vlans;                        // of ports whose bridge does not filter VLANs
  Bridging::VlanIdOrNone nativeVlan{1};              // of the same ports
};

// Which source address the probes carry.
struct SourceAddress {
  enum class Kind : std::uint8_t {
    // A locally administered address made from that of the bridge, and never equal to it. A bridge
    // that hears its own address come back logs a warning for each frame, and the switches of a
    // loop would learn the way to the bridge's address from its probes.
    derived,
    bridge,  // that of the bridge or, without one, of the port with the lowest index
    fixed
  };
  Kind kind = Kind::derived;
  Portus::EthAddr fixed;  // of that kind only

  friend bool operator==(const SourceAddress&, const SourceAddress&) = default;
};

// The address that `derived` makes of another: locally administered, and different in one more bit,
// for addresses that are locally administered already. Zero stays zero.
Portus::EthAddr derivedAddress(const Portus::EthAddr& address);

// The entities to fill; the agent owns them.
struct DirectoryEntities {
  Vex::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir;
  Vex::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir;
  Vex::Ptr<Interface::EthIntfStatusDir> ethIntfStatusDir;
  Vex::Ptr<Bridging::Config> brConfig;
  Vex::Ptr<Bridging::Topology::Config> brTopoConfig;
  Vex::Ptr<Bridging::Topology::Status> brTopoStatus;
};

class LinkDirectory final : public LinkMonitor::Listener, public Errdisable::LinkResolver {
 public:
  LinkDirectory(DirectoryEntities entities, Vex::Ptr<PacketAccess> access, PortSelection selection);

  // Who knows what is held down; null: nothing is. Must outlive its use.
  void errdisableIs(Errdisable* errdisable) noexcept { errdisable_ = errdisable; }

  // Other ports or VLANs from now on; entities whose value stays the same are not touched.
  void selectionIs(PortSelection selection);
  void sourceAddressIs(const SourceAddress& source);

  void linkIs(const LinkInfo& now, const LinkInfo* before) override;
  void linkDel(const LinkInfo& last) override;

  // The link of an interface, null for one that does not exist.
  const LinkInfo* link(const Portus::IntfId& intfId) const override;

  std::size_t ports() const noexcept { return ports_.size(); }

 private:
  struct Intf {
    LinkInfo link;
    Vex::Ptr<Interface::IntfConfig> config;
    Vex::Ptr<Interface::IntfStatus> status;
  };

  // For a change of the selection; walks all links.
  std::optional<LinkInfo> linkNamed(const std::string& name) const;
  bool isPort(const LinkInfo& link) const;
  void intfIs(const LinkInfo& link);
  void intfDel(const Portus::IntfId& intfId);
  void portIs(const Portus::IntfId& intfId, const LinkInfo& link);
  // It is none, or no longer.
  void portDel(const Portus::IntfId& intfId, int ifindex);
  // A link that had the name has it no more: another may have waited for it (invariant 3).
  void handleNameFree(const std::string& name);
  void handleBridgeNameFree();
  // The bridge itself has come, gone or changed.
  void handleBridge(const LinkInfo* bridge);
  void handleSourceAddress();

  const DirectoryEntities entities_;
  const Vex::Ptr<PacketAccess> access_;
  PortSelection selection_;
  SourceAddress source_;
  Errdisable* errdisable_ = nullptr;
  std::map<Portus::IntfId, Intf> intfs_;
  std::unordered_map<int, Portus::IntfId> byIndex_;
  std::map<int, LinkInfo> others_;  // links that are no interfaces now, by kernel index
  std::optional<LinkInfo> bridge_;
  std::map<int, Portus::IntfId> ports_;  // by kernel index
};

}  // namespace Platform::Linux
