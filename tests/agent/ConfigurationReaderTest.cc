// SPDX-License-Identifier: Apache-2.0
#include "agent/ConfigurationReader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/agent/ConfigurationTexts.h"

namespace Agent {
namespace {

TEST(ConfigurationReader, AnEmptyFileHasTheDefaultOfEveryKey) {
  const Configuration sut = parsed("");
  EXPECT_FALSE(sut.enabled);
  EXPECT_EQ(sut.vlans.count(), 0u);
  EXPECT_TRUE(sut.exclude.empty());
  EXPECT_EQ(sut.transmitInterval, 5u);
  EXPECT_EQ(sut.disabledTime, 604800u);
  EXPECT_EQ(sut.rateLimit, 1000u);
  EXPECT_FALSE(sut.ports.has_value());
  EXPECT_EQ(sut.errdisableAction, ErrdisableAction::automatic);
  EXPECT_FALSE(sut.acceptForeignSource);
  EXPECT_EQ(sut, Configuration());
}

TEST(ConfigurationReader, TheSourceAddressIsAWordOrAUnicastAddress) {
  using Kind = SourceAddress::Kind;
  const auto source = [](const std::string& value) {
    return parsed("packet.source-address = '" + value + "'").sourceAddress;
  };
  EXPECT_EQ(source("derived").kind, Kind::derived);
  EXPECT_EQ(source("bridge").kind, Kind::bridge);
  EXPECT_EQ(source("02:00:00:00:00:Ab"),
            (SourceAddress{Kind::fixed, Portus::EthAddr(2, 0, 0, 0, 0, 0xAB)}));
  const std::string allowed =
      " is no source address; allowed: \"derived\", \"bridge\", or a unicast address such as "
      "\"02:00:00:00:00:01\"\n";
  for (const char* const value : {"", "auto", "02:00:00:00:00", "01:00:00:00:00:01",
                                  "ff:ff:ff:ff:ff:ff", "00:00:00:00:00:00"}) {
    EXPECT_EQ(errorsOf(std::string("packet.source-address = '") + value + "'"),
              std::string("f.toml:1: packet.source-address: \"") + value + "\"" + allowed);
  }
  EXPECT_EQ(errorsOf("packet.source-address = 7"),
            "f.toml:1: packet.source-address: found integer 7; wanted: a string: \"derived\", "
            "\"bridge\", or a unicast address such as \"02:00:00:00:00:01\"\n");
}

TEST(ConfigurationReader, TheStateFileIsAPathFromTheRootOrNone) {
  EXPECT_EQ(parsed("").stateFile, "/run/ringward/held.json");
  EXPECT_EQ(parsed("state-file = ''").stateFile, "");
  EXPECT_EQ(parsed("state-file = '/var/lib/r.json'").stateFile, "/var/lib/r.json");
  for (const char* const value : {"held.json", "/run/", "./x"}) {
    EXPECT_EQ(errorsOf(std::string("state-file = '") + value + "'"),
              std::string("f.toml:1: state-file: \"") + value +
                  "\" is not a file's path; allowed: a path from \"/\" of at most 4091 bytes, or "
                  "\"\" for none\n");
  }
  EXPECT_NE(errorsOf("state-file = '/" + std::string(5000, 'x') + "'"), "ok");
  EXPECT_NE(errorsOf("state-file = \"/a\\u0000b\""), "ok");
}

TEST(ConfigurationReader, TheControlSocketStandsInTheRunDirectoryUnlessTheFileSaysOtherwise) {
  EXPECT_EQ(parsed("").control, (Control{"/run/ringward/ringwardd.sock", "ringward", 32}));
  EXPECT_EQ(parsed("[control]\nsocket = ''\ngroup = ''\nmax-clients = 1024").control,
            (Control{"", "", 1024}));
  EXPECT_EQ(errorsOf("[control]\nsocket = 1\ngroup = 2\nmax-clients = 0\nclients = 1"),
            "f.toml:2: control.socket: found integer 1; wanted: a string, such as "
            "\"/run/ringward/ringwardd.sock\"\n"
            "f.toml:3: control.group: found integer 2; wanted: a string, such as \"ringward\"\n"
            "f.toml:4: control.max-clients: 0 is out of range; allowed: 1 to 1024\n"
            "f.toml:5: control.clients: unknown key; allowed in [control]: socket, group, "
            "max-clients\n");
  const std::string longest = "/" + std::string(106, 'x');
  EXPECT_EQ(parsed("control.socket = '" + longest + "'").control.socket, longest);
  for (const std::string& path : {std::string("run/s"), std::string("/run/"), longest + "x"}) {
    EXPECT_NE(errorsOf("control.socket = '" + path + "'")
                  .find(" is not a socket's path; allowed: a path from \"/\" of at most 107 bytes, "
                        "or \"\" for none\n"),
              std::string::npos)
        << path;
  }
  EXPECT_EQ(errorsOf("control.group = \"a\\u0000b\""),
            "f.toml:1: control.group: \"a\\u0000b\" is no name of a group; allowed: at most 255 "
            "bytes without NUL, or \"\" for none\n");
}

TEST(ConfigurationReader, CountersAreSharedUnderTheStoresRootUnlessTheFileSaysOtherwise) {
  EXPECT_EQ(parsed("").counters, (Counters{true, "", 256, 4096}));
  EXPECT_EQ(parsed("[counters]\nshared = false\nroot = '/tmp/t/'\ninterfaces = 1\nvlans = 65536")
                .counters,
            (Counters{false, "/tmp/t/", 1, 65536}));
  EXPECT_EQ(errorsOf("[counters]\ninterfaces = 0\nvlans = 65537\nshared = 1\nroot = 2"),
            "f.toml:2: counters.interfaces: 0 is out of range; allowed: 1 to 65536\n"
            "f.toml:3: counters.vlans: 65537 is out of range; allowed: 1 to 65536\n"
            "f.toml:4: counters.shared: found integer 1; wanted: a boolean, true or false\n"
            "f.toml:5: counters.root: found integer 2; wanted: a string, such as "
            "\"/run/ringward/tables\"\n");
}

TEST(ConfigurationReader, TheRootOfTablesIsAPathFromTheRootOrNone) {
  for (const char* const value : {"tables", "./x", "/a/../b", "/.."}) {
    EXPECT_EQ(errorsOf(std::string("counters.root = '") + value + "'"),
              std::string("f.toml:1: counters.root: \"") + value +
                  "\" is not a directory's path; allowed: a path from \"/\" of at most 3776 bytes "
                  "without \"..\", or \"\" for the store's default\n");
  }
  EXPECT_NE(errorsOf("counters.root = \"/a\\u0000b\""), "ok");
  EXPECT_NE(errorsOf("counters.root = '/" + std::string(4000, 'x') + "'"), "ok");
  EXPECT_EQ(parsed("counters.root = '/a/..b'").counters.root, "/a/..b");
}

TEST(ConfigurationReader, TheSchedulingIsOneOfThreeWords) {
  EXPECT_EQ(parsed("").scheduling, Scheduling::automatic);
  EXPECT_EQ(parsed("scheduling = 'auto'").scheduling, Scheduling::automatic);
  EXPECT_EQ(parsed("scheduling = 'realtime'").scheduling, Scheduling::realtime);
  EXPECT_EQ(parsed("scheduling = 'normal'").scheduling, Scheduling::normal);
  EXPECT_EQ(errorsOf("scheduling = 'fifo'"),
            "f.toml:1: scheduling: \"fifo\" is no scheduling; allowed: \"auto\", \"realtime\", "
            "\"normal\"\n");
  EXPECT_EQ(errorsOf("scheduling = true"),
            "f.toml:1: scheduling: found boolean true; wanted: a string, one of \"auto\", "
            "\"realtime\", \"normal\"\n");
}

TEST(ConfigurationReader, TheNativeVlanIsOneUnlessGiven) {
  const Configuration sut = parsed("[ports]\nbridge = \"br0\"\n");
  ASSERT_TRUE(sut.ports.has_value());
  EXPECT_EQ(sut.ports->bridge, "br0");
  EXPECT_TRUE(sut.ports->match.empty());
  EXPECT_EQ(sut.ports->nativeVlan, 1);
}

TEST(ConfigurationReader, EveryKeyReachesItsField) {
  const Configuration sut = parsed(kSample);
  EXPECT_TRUE(sut.enabled);
  EXPECT_EQ(sut.vlans.toText(), "1,10-20");
  EXPECT_EQ(sut.exclude, std::vector<std::string>{"eth7"});
  EXPECT_EQ(sut.transmitInterval, 7u);
  EXPECT_EQ(sut.disabledTime, 3600u);
  EXPECT_EQ(sut.rateLimit, 50u);
  ASSERT_TRUE(sut.ports.has_value());
  EXPECT_EQ(sut.ports->bridge, "");
  EXPECT_EQ(sut.ports->match, (std::vector<std::string>{"eth*", "swp*"}));
  EXPECT_EQ(sut.ports->nativeVlan, 2);
  EXPECT_EQ(sut.errdisableAction, ErrdisableAction::adminDown);
  EXPECT_TRUE(sut.acceptForeignSource);
}

TEST(ConfigurationReader, EveryActionHasItsWord) {
  EXPECT_EQ(parsed("errdisable.action = 'auto'").errdisableAction, ErrdisableAction::automatic);
  EXPECT_EQ(parsed("errdisable.action = 'bridge-port'").errdisableAction,
            ErrdisableAction::bridgePort);
  EXPECT_EQ(parsed("errdisable.action = 'admin-down'").errdisableAction,
            ErrdisableAction::adminDown);
  EXPECT_EQ(parsed("errdisable.action = 'monitor'").errdisableAction, ErrdisableAction::monitor);
}

TEST(ConfigurationReader, NumbersMayBeTheEndsOfTheirRange) {
  EXPECT_EQ(parsed("transmit-interval = 0").transmitInterval, 0u);
  EXPECT_EQ(parsed("transmit-interval = 255").transmitInterval, 255u);
  EXPECT_EQ(parsed("disabled-time = 0").disabledTime, 0u);
  EXPECT_EQ(parsed("disabled-time = 4294967295").disabledTime, 4294967295u);
  EXPECT_EQ(parsed("rate-limit = 0").rateLimit, 0u);
  EXPECT_EQ(parsed("rate-limit = 4294967295").rateLimit, 4294967295u);
  EXPECT_EQ(parsed("ports = {bridge = 'b', native-vlan = 1}").ports->nativeVlan, 1);
  EXPECT_EQ(parsed("ports = {bridge = 'b', native-vlan = 4094}").ports->nativeVlan, 4094);
}

TEST(ConfigurationReader, NumbersOutsideTheirRangeAreErrors) {
  EXPECT_EQ(errorsOf("\n\n\ntransmit-interval = 300\n"),
            "f.toml:4: transmit-interval: 300 is out of range; allowed: 0 to 255 (seconds)\n");
  EXPECT_EQ(errorsOf("transmit-interval = 256"),
            "f.toml:1: transmit-interval: 256 is out of range; allowed: 0 to 255 (seconds)\n");
  EXPECT_EQ(errorsOf("transmit-interval = -1"),
            "f.toml:1: transmit-interval: -1 is out of range; allowed: 0 to 255 (seconds)\n");
  EXPECT_EQ(errorsOf("disabled-time = 4294967296"),
            "f.toml:1: disabled-time: 4294967296 is out of range; "
            "allowed: 0 to 4294967295 (seconds)\n");
  EXPECT_EQ(errorsOf("rate-limit = 9223372036854775807"),
            "f.toml:1: rate-limit: 9223372036854775807 is out of range; "
            "allowed: 0 to 4294967295 (probes per second)\n");
  EXPECT_EQ(errorsOf("[ports]\nbridge = 'b'\nnative-vlan = 0"),
            "f.toml:3: ports.native-vlan: 0 is out of range; allowed: 1 to 4094\n");
  EXPECT_EQ(errorsOf("[ports]\nbridge = 'b'\nnative-vlan = 4095"),
            "f.toml:3: ports.native-vlan: 4095 is out of range; allowed: 1 to 4094\n");
}

TEST(ConfigurationReader, AnIntegerAbove64BitsIsAnErrorWithTheLargestAllowed) {
  EXPECT_EQ(errorsOf("rate-limit = 99999999999999999999\n"),
            "f.toml:1:34: not valid TOML: Error while parsing decimal integer: "
            "'99999999999999999999' is not representable in 64 bits; "
            "allowed: at most 4294967295 for any key\n");
}

TEST(ConfigurationReader, AFloatIsNotAnInteger) {
  EXPECT_EQ(errorsOf("transmit-interval = 5.5"),
            "f.toml:1: transmit-interval: found floating-point 5.5; "
            "wanted: an integer, 0 to 255 (seconds)\n");
  EXPECT_EQ(errorsOf("rate-limit = inf"),
            "f.toml:1: rate-limit: found floating-point inf; "
            "wanted: an integer, 0 to 4294967295 (probes per second)\n");
}

}  // namespace
}  // namespace Agent
