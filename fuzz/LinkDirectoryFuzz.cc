// SPDX-License-Identifier: Apache-2.0
//
// Datagrams of link messages, dumps, other selections and other source addresses into a link
// directory. Whenever no two links have the same name, which is how it is in a kernel, the entities
// are what a plain reading of the present links gives, whatever has led there.
//
// The input: the first selection, then steps: one byte that says whether the selection (0), the
// source address (1) or what the kernel tells (the rest) changes, and what that needs.
#include <array>
#include <map>
#include <set>
#include <string>

#include "fuzz/Input.h"
#include "fuzz/LinkSource.h"
#include "platform/linux/LinkDirectory.h"
#include "runtime/vex/Exception.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Fuzz::require;
using namespace Platform::Linux;

using Selection = PortSelection;
using Vlans = Bridging::VlanBitmap;
using VlanIdOrNone = Bridging::VlanIdOrNone;

struct Port {
  Vlans vlans;
  VlanIdOrNone nativeVlan;
  bool operator==(const Port&) const = default;
};

struct Intf {
  bool adminEnabled = false;
  bool linkUp = false;
  LinkInfo link;
  std::optional<Port> port;
  bool operator==(const Intf&) const = default;
};

using Intfs = std::map<Portus::IntfId, Intf>;

std::optional<Portus::IntfId> idOf(const std::string& name) {
  try {
    return Portus::IntfId::fromName(name);
  } catch (const Vex::RangeException&) {
    return std::nullopt;
  }
}

Selection selectionFrom(Fuzz::Input& input) {
  constexpr std::array kBridges{"br0", "br1", "eth1", "b\xC3\xBC", ""};
  Selection selection;
  selection.bridge = input.oneOf(kBridges);
  const std::uint8_t letter = input.byte();
  if (selection.bridge.empty() && letter != 0) {
    selection.match = [letter](std::string_view name) { return (name.back() ^ letter) & 1; };
  }
  selection.vlans.set(VlanIdOrNone(1U + input.below(4)));
  selection.nativeVlan = VlanIdOrNone(input.below(4));
  return selection;
}

SourceAddress sourceFrom(Fuzz::Input& input) {
  using Kind = SourceAddress::Kind;
  constexpr std::array kKinds{Kind::derived, Kind::bridge, Kind::fixed};
  SourceAddress source;
  source.kind = input.oneOf(kKinds);
  if (source.kind == Kind::fixed) source.fixed = Portus::EthAddr(2, 0, 0, 0, 1, input.byte());
  return source;
}

bool isInterface(const LinkInfo& link) {
  constexpr unsigned kLoopback = 0x8;
  return link.arpType == 1 && (link.flags & kLoopback) == 0 && link.kind != "bridge" &&
         link.slaveKind != "bond" && link.slaveKind != "team" && idOf(link.name).has_value();
}

const LinkInfo* bridgeOf(const LinkTable& table, const Selection& selection) {
  for (const auto& [ifindex, link] : table.links()) {
    if (!selection.bridge.empty() && link.name == selection.bridge) return &link;
  }
  return nullptr;
}

Intfs wanted(const LinkTable& table, const Selection& selection) {
  const LinkInfo* bridge = bridgeOf(table, selection);
  Intfs intfs;
  for (const auto& [ifindex, link] : table.links()) {
    if (!isInterface(link)) continue;
    Intf intf{link.adminUp(), link.carrier, link, {}};
    const bool isPort = selection.bridge.empty()
                            ? selection.match && selection.match(link.name)
                            : bridge != nullptr && link.master == bridge->ifindex;
    if (isPort) {
      intf.port = Port{selection.vlans, selection.nativeVlan};
      if (bridge != nullptr && bridge->vlanFiltering == true) {
        *intf.port = Port();
        for (std::uint32_t vlan = 1; link.vlans && vlan < 4095; ++vlan) {
          if (link.vlans->members[vlan]) intf.port->vlans.set(vlan);
        }
        if (link.vlans) intf.port->nativeVlan = VlanIdOrNone(link.vlans->pvid);
      }
    }
    intfs.emplace(*idOf(link.name), std::move(intf));
  }
  return intfs;
}

// Nothing: there is none to take it from, and the address is what it was.
std::optional<Portus::EthAddr> wantedAddress(const LinkTable& table, const Selection& selection,
                                             const SourceAddress& source, const Intfs& intfs) {
  if (source.kind == SourceAddress::Kind::fixed) return source.fixed;
  const LinkInfo* from = bridgeOf(table, selection);
  if (from == nullptr) {
    for (const auto& [intfId, intf] : intfs) {
      if (intf.port && (from == nullptr || intf.link.ifindex < from->ifindex)) from = &intf.link;
    }
  }
  if (from == nullptr) return std::nullopt;
  return source.kind == SourceAddress::Kind::bridge ? from->address : derivedAddress(from->address);
}

class World {
 public:
  explicit World(Fuzz::Input& input)
      : selection_(selectionFrom(input)), directory_(entities_, access_, selection_) {}

  void selectionIs(const Selection& selection) {
    selection_ = selection;
    directory_.selectionIs(selection);
  }
  void sourceIs(const SourceAddress& source) {
    source_ = source;
    directory_.sourceAddressIs(source);
  }
  void changeIs(const std::optional<LinkTable::Change>& change) {
    if (!change) return;
    if (change->now == nullptr) {
      directory_.linkDel(*change->before);
    } else {
      directory_.linkIs(*change->now, change->before ? &*change->before : nullptr);
    }
    judge();
  }
  LinkTable& table() { return table_; }

  void judge() const {
    const Intfs intfs = published();
    for (const auto& [intfId, intf] : intfs) {
      const LinkInfo* link = table_.link(intf.link.ifindex);
      require(link != nullptr && *link == intf.link && idOf(link->name) == intfId);
    }
    if (!namesAreDistinct()) return;
    require(intfs == wanted(table_, selection_));
    const auto address = wantedAddress(table_, selection_, source_, intfs);
    require(!address || entities_.brConfig->bridgeMacAddr() == *address);
    require(entities_.brTopoConfig->vlans() == selection_.vlans);
  }

 private:
  Intfs published() const {
    Intfs intfs;
    std::size_t ports = 0;
    for (auto it = entities_.allIntfStatusDir->intfStatusIteratorConst(); it; ++it) {
      const Portus::IntfId id = it.key();
      const auto status = entities_.allIntfStatusDir->intfStatus(id);
      require(entities_.ethIntfStatusDir->ethIntfStatus(id) == status);
      require(static_cast<bool>(entities_.allIntfStatusLocalDir->intfStatusLocal(id)));
      const LinkInfo* link = directory_.link(id);
      require(link != nullptr);
      Intf intf{status->intfConfig()->adminEnabled(), status->linkUp(), *link, {}};
      if (const Vlans* vlans = entities_.brTopoStatus->intfVlans(id)) {
        const auto config = entities_.brConfig->switchIntfConfig(id);
        require(static_cast<bool>(config));
        intf.port = Port{*vlans, config->nativeVlan()};
        ++ports;
      }
      intfs.emplace(id, std::move(intf));
    }
    require(directory_.ports() == ports);
    // Nothing is left of an interface that has gone.
    const auto known = [&](auto it) {
      for (; it; ++it) require(intfs.contains(it.key()));
    };
    known(entities_.ethIntfStatusDir->ethIntfStatusIteratorConst());
    known(entities_.allIntfStatusLocalDir->intfStatusLocalIteratorConst());
    known(entities_.brTopoStatus->intfVlansIteratorConst());
    for (auto it = entities_.brConfig->switchIntfConfigIteratorConst(); it; ++it) {
      require(intfs.contains(it->intfId()));
    }
    return intfs;
  }

  bool namesAreDistinct() const {
    std::set<std::string> names;
    for (const auto& [ifindex, link] : table_.links()) {
      if (!names.insert(link.name).second) return false;
    }
    return true;
  }

  Vex::VirtualActivityManager manager_;
  Vex::CurrentActivityManager current_{manager_};
  const DirectoryEntities entities_{
      Vex::makePtr<Interface::AllIntfStatusDir>(Vex::Name("all")),
      Vex::makePtr<Interface::AllIntfStatusLocalDir>(Vex::Name("local")),
      Vex::makePtr<Interface::EthIntfStatusDir>(Vex::Name("eth")),
      Vex::makePtr<Bridging::Config>(Vex::Name("bridging")),
      Vex::makePtr<Bridging::Topology::Config>(Vex::Name("topology")),
      Vex::makePtr<Bridging::Topology::Status>(Vex::Name("membership"))};
  const Vex::Ptr<PacketAccess> access_ = Vex::makePtr<PacketAccess>(manager_, true);
  LinkTable table_;
  Selection selection_;
  SourceAddress source_;
  LinkDirectory directory_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input({data, size});
  World world(input);
  Fuzz::LinkSource source(
      input, world.table(),
      {.message = [&](const auto&, const auto& change) { world.changeIs(change); },
       .dumpBegun = [](std::uint8_t) {},
       .unseen = [&](std::uint8_t, const auto& change) { world.changeIs(change); }});
  while (!input.empty()) {
    const std::uint8_t what = input.byte() % 16;
    if (what == 0) {
      world.selectionIs(selectionFrom(input));
    } else if (what == 1) {
      world.sourceIs(sourceFrom(input));
    } else {
      source.step();
    }
    world.judge();
  }
  return 0;
}
