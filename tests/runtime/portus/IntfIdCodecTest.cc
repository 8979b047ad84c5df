// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfIdCodec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace Portus {
namespace {

// Every name of up to 10 common or 8 printable symbols after its prefix reads back in a process
// that never saw it.
TEST(IntfIdCodec, ShortNamesPackAndReadBackWithoutATable) {
  constexpr std::uint32_t kSeed = 20240611;
  std::mt19937 generator(kSeed);
  const auto random = [&generator] { return static_cast<std::uint32_t>(generator()); };
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  const std::string common = "abcdefghijklmnopqrstuvwxyz0123456789-_./:";
  const std::vector<std::string> prefixes = {
      "",        "eth",      "swp",      "enp",          "enP",
      "ens",     "eno",      "veth",     "bond",         "team",
      "port",    "peerbond", "Ethernet", "Port-Channel", "PeerPort-Channel",
      "Loopback"};
  for (int i = 0; i < 100000; ++i) {
    std::string name = prefixes[random() % prefixes.size()];
    const bool printable = random() % 2 == 0;
    for (std::uint32_t n = random() % (printable ? 9 : 11); n > 0; --n) {
      name += printable ? static_cast<char>(0x21 + random() % 94) : common[random() % 41];
    }
    const IntfIdFields fields = encodeIntfName(name);
    ASSERT_NE(fields.form, IntfIdForm::hashed) << name;
    ASSERT_EQ(unpackIntfId(fields.value), name);
    ASSERT_EQ(intfIdKind(fields.value), intfKindOfName(name)) << name;
  }
}

TEST(IntfIdCodec, FormChangesExactlyAtItsLimit) {
  EXPECT_EQ(encodeIntfName("abcdefghij").form, IntfIdForm::packedCommon);
  EXPECT_EQ(encodeIntfName("abcdefghijk").form, IntfIdForm::hashed);
  EXPECT_EQ(encodeIntfName("ethabcdefghij").form, IntfIdForm::packedCommon);
  EXPECT_EQ(encodeIntfName("ABCDEFGH").form, IntfIdForm::packedPrintable);
  EXPECT_EQ(encodeIntfName("ABCDEFGHI").form, IntfIdForm::hashed);
  EXPECT_EQ(encodeIntfName("LoopbackABCDEFGH").form, IntfIdForm::packedPrintable);
  EXPECT_EQ(encodeIntfName("abcdefghiJ").form, IntfIdForm::hashed);
}

// A million names as switches, servers and container hosts have them, packed and hashed.
TEST(IntfIdCodec, MillionTypicalNamesHaveAMillionIdentifiers) {
  std::vector<std::uint64_t> ids;
  const auto add = [&ids](const std::string& name) { ids.push_back(encodeIntfName(name).value); };
  for (const char* stem : {"eth",      "swp",  "Ethernet", "Port-Channel", "PeerPort-Channel",
                           "po",       "bond", "team",     "Vlan",         "vlan",
                           "Loopback", "lo",   "lan",      "port",         "br",
                           "tap",      "vnet", "peerbond", "Management",   "dummy"}) {
    for (int n = 0; n < 10000; ++n) add(stem + std::to_string(n));
  }
  for (int port = 0; port < 100; ++port) {
    for (int vlan = 1; vlan <= 4094; ++vlan) {
      add("swp" + std::to_string(port) + "." + std::to_string(vlan));
    }
  }
  for (int slot = 0; slot < 100; ++slot) {
    for (int port = 0; port < 100; ++port) {
      for (int lane = 0; lane < 4; ++lane) {
        const std::string digits = std::to_string(slot) + "/" + std::to_string(port);
        add("Ethernet" + digits + "/" + std::to_string(lane));
        add("enp" + std::to_string(slot) + "s" + std::to_string(port) + "f" + std::to_string(lane));
      }
    }
  }
  for (unsigned n = 0; n < 200000; ++n) {
    const std::string hex = intfIdEscape(n * 0x9e3779b1ULL).substr(9);
    add("br-" + hex);  // hashed: 12 digits
    add("veth" + hex.substr(5));
  }
  ASSERT_GE(ids.size(), 1000000U);
  const std::size_t all = ids.size();
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  EXPECT_EQ(ids.size(), all);
}

}  // namespace
}  // namespace Portus
