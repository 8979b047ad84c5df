// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfKind.h"

#include <gtest/gtest.h>

#include <vector>

#include "runtime/portus/IntfId.h"

namespace Portus {
namespace {

TEST(IntfKind, FollowsFromTheNameAlone) {
  const struct {
    IntfKind kind;
    std::vector<const char*> names;
  } rules[] = {
      {IntfKind::none, {""}},
      {IntfKind::loopback, {"lo", "lo0", "lo12", "Loopback0", "Loopback4094"}},
      {IntfKind::vlanIntf,
       {"vlan1", "Vlan4094", "eth0.1", "Port-Channel1.100", "a.b.3", "lo.1", "bond0.7", "..1"}},
      {IntfKind::peerPortChannel, {"PeerPort-Channel1", "peerbond0"}},
      {IntfKind::portChannel, {"Port-Channel1", "po1", "bond0", "team12"}},
      {IntfKind::ethernet,
       {"eth0",
        "swp1",
        "Ethernet1/1",
        "loop",
        "Loopback",
        "loopback0",
        "vlan",
        "Vlan1a",
        ".1",
        "eth0.",
        "eth0.a",
        "po",
        "po1a",
        "bond",
        "Bond0",
        "team",
        "peerbond",
        "PeerPort-Channel",
        "Port-Channel",
        "br0",
        "VLAN1",
        "port1",
        "polo1",
        "1",
        "."}},
  };
  for (const auto& rule : rules) {
    for (const char* name : rule.names) {
      EXPECT_EQ(intfKindOfName(name), rule.kind) << name << ' ' << intfKindText(rule.kind);
      EXPECT_EQ(IntfId::fromName(name).kind(), rule.kind) << name;
    }
  }
}

}  // namespace
}  // namespace Portus
