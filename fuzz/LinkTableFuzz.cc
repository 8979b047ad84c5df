// SPDX-License-Identifier: Apache-2.0
//
// Datagrams of link messages and dumps into a link table, whose invariants (LinkTable.h) are
// checked after each message: a plain copy of the table, kept by the changes that are reported
// alone, stays equal to it.
//
// The input: steps of a LinkSource.
#include <sys/socket.h>

#include <map>
#include <set>

#include "fuzz/Input.h"
#include "fuzz/LinkSource.h"
#include "platform/linux/LinkTable.h"

namespace {

using Fuzz::require;
using Platform::Linux::LinkInfo;
using Platform::Linux::LinkMessage;
using Platform::Linux::LinkTable;
using Change = std::optional<LinkTable::Change>;

class Judge {
 public:
  explicit Judge(LinkTable& table) : table_(table) {}

  void messageIs(const LinkMessage& message, const Change& change) {
    const bool isNew = message.type == LinkMessage::Type::kNew;
    const bool existed = copy_.contains(message.ifindex);
    changeIs(message.ifindex, change);
    const bool exists = copy_.contains(message.ifindex);

    if (message.family != AF_UNSPEC) {
      require(existed == exists);
      require(message.family == AF_BRIDGE || !change);
    } else if (isNew) {
      require(exists == (existed || message.name.has_value()));
      if (message.name) requireDescribed(message, change);
    } else {
      require(!exists);
    }
    seenIs(message, isNew, existed);
    require(!table_.messageIs(message));  // what is told twice is told once
  }

  void dumpBegun(std::uint8_t family) { (family == AF_BRIDGE ? ports_ : links_).clear(); }

  void unseen(std::uint8_t family, const Change& change) {
    if (change) {
      require(change->before.has_value());
      const int ifindex = change->before->ifindex;
      require(!(family == AF_BRIDGE ? ports_ : links_).contains(ifindex));
      require((change->now == nullptr) == (family == AF_UNSPEC));
      return changeIs(ifindex, change);
    }
    for (const auto& [ifindex, link] : table_.links()) {
      const bool isPort = link.bridgePortState || link.vlans;
      if (family == AF_BRIDGE) {
        require(!isPort || ports_.contains(ifindex));
      } else {
        require(links_.contains(ifindex));
      }
    }
  }

 private:
  // The one change that there is, or none.
  void changeIs(int ifindex, const Change& change) {
    if (change) {
      const auto before = copy_.find(ifindex);
      require(change->before.has_value() == (before != copy_.end()));
      if (before != copy_.end()) require(*change->before == before->second);
      require(change->now == table_.link(ifindex));
      if (change->now != nullptr) {
        require(!change->before || *change->before != *change->now);
        copy_[ifindex] = *change->now;
      } else {
        require(change->before.has_value());
        copy_.erase(ifindex);
      }
    }
    require(copy_ == table_.links());
    for (const auto& [index, link] : copy_) {
      require(index > 0 && index == link.ifindex && !link.name.empty());
    }
  }

  // The link is what a message of its own family says, and of a new master nothing older is known.
  void requireDescribed(const LinkMessage& message, const Change& change) const {
    const LinkInfo& link = copy_.at(message.ifindex);
    require(link.name == *message.name && link.alias == message.alias.value_or(""));
    require(link.flags == message.flags && link.arpType == message.arpType);
    require(link.adminUp() == ((message.flags & 1) != 0));
    require(link.carrier == message.carrier.value_or((message.flags & 0x10000) != 0));
    require(link.address == message.address.value_or(Portus::EthAddr()));
    require(!message.mtu || link.mtu == *message.mtu);
    require(!message.operState || link.operState == *message.operState);
    require(link.master == message.master.value_or(0));
    require(link.kind == message.kind.value_or(""));
    require(link.slaveKind == message.slaveKind.value_or(""));
    require(link.vlanFiltering == message.vlanFiltering && link.protoDown == message.protoDown);
    require(link.protoDownReasons == message.protoDownReasons.value_or(0));
    require(link.master != 0 || !link.bridgePortState);
    if (change && change->before && change->before->master != link.master) {
      require(!link.vlans &&
              (link.master == 0 || link.bridgePortState == message.slaveBridgePortState));
    }
  }

  void seenIs(const LinkMessage& message, bool isNew, bool existed) {
    if (message.family == AF_UNSPEC && isNew) links_.insert(message.ifindex);
    if (message.family == AF_UNSPEC && !isNew) {
      links_.erase(message.ifindex);
      ports_.erase(message.ifindex);
    }
    if (message.family == AF_BRIDGE && isNew && existed) ports_.insert(message.ifindex);
    if (message.family == AF_BRIDGE && !isNew) ports_.erase(message.ifindex);
  }

  LinkTable& table_;
  std::map<int, LinkInfo> copy_;
  std::set<int> links_;  // that a message has named since the dump of their family began
  std::set<int> ports_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input({data, size});
  LinkTable table;
  Judge judge(table);
  Fuzz::LinkSource source(
      input, table,
      {.message = [&](const auto& message,
                      const auto& change) { judge.messageIs(message, change); },
       .dumpBegun = [&](std::uint8_t family) { judge.dumpBegun(family); },
       .unseen = [&](std::uint8_t family, const auto& change) { judge.unseen(family, change); }});
  while (!input.empty()) source.step();
  return 0;
}
