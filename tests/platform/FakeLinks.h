// SPDX-License-Identifier: Apache-2.0
//
// A kernel for tests of what stands above rtnetlink: links in a map, changed by the actions that
// are tested, with every request recorded. One thread.
#pragma once

#include <net/if.h>
#include <net/if_arp.h>

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/Errdisable.h"

namespace Platform::Linux {

inline LinkInfo ethernetLink(int ifindex, const std::string& name) {
  LinkInfo link;
  link.ifindex = ifindex;
  link.name = name;
  link.arpType = ARPHRD_ETHER;
  link.flags = IFF_UP;
  link.carrier = true;
  link.address =
      Portus::EthAddr(Portus::EthAddr::Bytes{2, 0, 0, 0, 0, static_cast<std::uint8_t>(ifindex)});
  return link;
}

inline LinkInfo bridgePort(int ifindex, const std::string& name, int bridge) {
  LinkInfo link = ethernetLink(ifindex, name);
  link.master = bridge;
  link.slaveKind = "bridge";
  link.bridgePortState = std::uint8_t{3};
  return link;
}

inline LinkInfo bridgeLink(int ifindex, const std::string& name) {
  LinkInfo link = ethernetLink(ifindex, name);
  link.kind = "bridge";
  return link;
}

class FakeKernel final : public LinkActions, public Errdisable::LinkResolver {
 public:
  std::error_code adminUpIs(int ifindex, bool up) override {
    requests.push_back((up ? "up " : "down ") + std::to_string(ifindex));
    if (adminError) return adminError;
    if (takesRequestsOnly) return {};
    auto& flags = links[ifindex].flags;
    flags = up ? flags | IFF_UP : flags & ~static_cast<unsigned>(IFF_UP);
    return {};
  }
  std::error_code bridgePortStateIs(int ifindex, std::uint8_t state) override {
    requests.push_back("state " + std::to_string(state) + " " + std::to_string(ifindex));
    if (portError) return portError;
    if (takesRequestsOnly) return {};
    links[ifindex].bridgePortState = state;
    return {};
  }
  std::error_code protoDownIs(int ifindex, bool down) override {
    requests.push_back((down ? "protodown " : "protoup ") + std::to_string(ifindex));
    if (protoError) return protoError;
    if (takesRequestsOnly) return {};
    links[ifindex].protoDown = down;
    return {};
  }
  std::optional<LinkInfo> read(int ifindex) override {
    if (requests.empty()) ++readsBefore;
    ++reads;
    const auto at = links.find(ifindex);
    return at != links.end() ? std::optional(at->second) : std::nullopt;
  }
  // What the messages have told: `told` where a message is still on its way, else what is so.
  const LinkInfo* link(const Portus::IntfId& intfId) const override {
    if (told && told->name == intfId.name()) return &*told;
    for (const auto& [ifindex, link] : links) {
      if (link.name == intfId.name()) return &link;
    }
    return nullptr;
  }

  std::map<int, LinkInfo> links;
  std::optional<LinkInfo> told;
  std::vector<std::string> requests;
  std::error_code adminError;
  std::error_code portError;
  std::error_code protoError{EOPNOTSUPP, std::system_category()};  // as most drivers say
  bool takesRequestsOnly = false;                                  // and does nothing about them
  unsigned reads = 0;
  unsigned readsBefore = 0;  // of these, before the first request
};

}  // namespace Platform::Linux
