// SPDX-License-Identifier: Apache-2.0
//
// Which kinds of interfaces can carry probes, and that the topology sees the filter through its
// base alone.
#include "engine/RingwardIntfFilter.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/engine/World.h"

namespace {

using Topology::Library::FilterIntf;
using Topology::Library::RingwardIntfFilter;

class IntfFilter : public testing::Test {
 protected:
  bool admits(std::string_view name) const { return sut->isValidIntf(intfOf(name)); }
  const std::unique_ptr<FilterIntf> sut = std::make_unique<RingwardIntfFilter>();
};

TEST_F(IntfFilter, AnEthernetInterfaceIsAdmitted) {
  EXPECT_TRUE(admits("eth1"));
  EXPECT_TRUE(admits("Ethernet3/1"));
}

TEST_F(IntfFilter, APortChannelIsAdmitted) {
  for (const char* name : {"Port-Channel1", "bond0", "team4", "po17"}) {
    EXPECT_TRUE(admits(name)) << name;
  }
}

TEST_F(IntfFilter, APortChannelOfThePeerIsAPortChannelAndYetNotAdmitted) {
  for (const char* name : {"PeerPort-Channel1", "peerbond0"}) {
    EXPECT_TRUE(Portus::PortChannelIntfId::isPortChannelIntfId(intfOf(name))) << name;
    EXPECT_FALSE(admits(name)) << name;
  }
}

TEST_F(IntfFilter, AVlanInterfaceIsNotAdmitted) {
  for (const char* name : {"Vlan1", "vlan4094", "eth1.10", "bond0.7"}) {
    EXPECT_FALSE(admits(name)) << name;
  }
}

TEST_F(IntfFilter, ALoopbackIsNotAdmitted) {
  for (const char* name : {"lo", "lo1", "Loopback7"}) EXPECT_FALSE(admits(name)) << name;
}

TEST_F(IntfFilter, NoInterfaceIsNotAdmitted) { EXPECT_FALSE(sut->isValidIntf({})); }

TEST_F(IntfFilter, OtherKindsAreNotAdmittedWhateverTheirBytes) {
  for (std::uint64_t top = 0; top < 256; ++top) {
    const auto intfId = Portus::IntfId::fromValue(top << 56 | 0x1234);
    const bool wanted = intfId.kind() == Portus::IntfKind::ethernet ||
                        intfId.kind() == Portus::IntfKind::portChannel;
    EXPECT_EQ(sut->isValidIntf(intfId), wanted) << top;
  }
}

}  // namespace
