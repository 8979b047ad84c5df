// SPDX-License-Identifier: Apache-2.0
#include "agent/ConfigurationReader.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

namespace Agent {
namespace {

constexpr const char* kSample = R"(enabled = true
vlans = "1,10-20"
exclude = ["eth7"]
transmit-interval = 7        # seconds, 0 to 255
disabled-time = 3600         # seconds, 0 = stays down
rate-limit = 50              # probes per second, 0 = none
[ports]
match = ["eth*", "swp*"]
native-vlan = 2
[errdisable]
action = "admin-down"
[packet]
accept-foreign-source = true
)";

// All errors, one line each; "ok" for a configuration.
std::string errorsOf(const ConfigurationResult& result) {
  if (result.ok()) return "ok";
  std::string text;
  for (const ConfigurationError& error : result.errors()) text += toText(error) + '\n';
  return text;
}

std::string errorsOf(std::string_view content) {
  return errorsOf(parseConfiguration(content, "f.toml"));
}

Configuration parsed(std::string_view content) {
  const ConfigurationResult result = parseConfiguration(content, "f.toml");
  EXPECT_EQ(errorsOf(result), "ok");
  return result.ok() ? result.configuration() : Configuration();
}

// A directory that goes away with the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "ringward-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = name;
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string file(const std::string& name, std::string_view content) const {
    const std::string path = path_ / name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

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

TEST(ConfigurationReader, AWrongTypeIsNamedWithTheWantedOne) {
  EXPECT_EQ(errorsOf("enabled = 'yes'"),
            "f.toml:1: enabled: found string \"yes\"; wanted: a boolean, true or false\n");
  EXPECT_EQ(errorsOf("vlans = 1"),
            "f.toml:1: vlans: found integer 1; wanted: a string, such as \"1,10-20\"\n");
  EXPECT_EQ(errorsOf("exclude = 'eth7'"),
            "f.toml:1: exclude: found string \"eth7\"; "
            "wanted: a list of strings, such as [\"eth7\"]\n");
  EXPECT_EQ(errorsOf("exclude = [7]"),
            "f.toml:1: exclude: found integer 7; wanted: a string in the list\n");
  EXPECT_EQ(errorsOf("transmit-interval = '5'"),
            "f.toml:1: transmit-interval: found string \"5\"; "
            "wanted: an integer, 0 to 255 (seconds)\n");
  EXPECT_EQ(errorsOf("disabled-time = 1979-05-27"),
            "f.toml:1: disabled-time: found date 1979-05-27; "
            "wanted: an integer, 0 to 4294967295 (seconds)\n");
  EXPECT_EQ(errorsOf("rate-limit = true"),
            "f.toml:1: rate-limit: found boolean true; "
            "wanted: an integer, 0 to 4294967295 (probes per second)\n");
  EXPECT_EQ(errorsOf("[ports]\nbridge = ['br0']"),
            "f.toml:2: ports.bridge: found array; wanted: a string, such as \"br0\"\n");
  EXPECT_EQ(errorsOf("[ports]\nmatch = 'eth*'"),
            "f.toml:2: ports.match: found string \"eth*\"; "
            "wanted: a list of strings, such as [\"eth7\"]\n");
  EXPECT_EQ(errorsOf("errdisable.action = false"),
            "f.toml:1: errdisable.action: found boolean false; wanted: a string, one of "
            "\"auto\", \"bridge-port\", \"protodown\", \"admin-down\", \"monitor\"\n");
  EXPECT_EQ(errorsOf("[packet]\naccept-foreign-source = {}"),
            "f.toml:2: packet.accept-foreign-source: found table; "
            "wanted: a boolean, true or false\n");
}

TEST(ConfigurationReader, ASectionHasToBeATableAndAKeyMustNotBeOne) {
  EXPECT_EQ(errorsOf("ports = 'br0'\nerrdisable = 1\n[[packet]]\n[enabled]\n"),
            "f.toml:1: ports: found string \"br0\"; wanted: a section [ports]\n"
            "f.toml:2: errdisable: found integer 1; wanted: a section [errdisable]\n"
            "f.toml:3: packet: found array; wanted: a section [packet]\n"
            "f.toml:4: enabled: found table; wanted: a boolean, true or false\n");
}

TEST(ConfigurationReader, AnUnknownKeyIsAnErrorThatListsTheKnownOnes) {
  EXPECT_EQ(errorsOf("frequency = 3"),
            "f.toml:1: frequency: unknown key; allowed: enabled, vlans, exclude, "
            "transmit-interval, disabled-time, rate-limit, state-file, scheduling, ports, "
            "errdisable, packet\n");
  EXPECT_EQ(errorsOf("[errdisable]\nreason = ''"),
            "f.toml:2: errdisable.reason: unknown key; allowed in [errdisable]: action\n");
  EXPECT_EQ(errorsOf("\n[limits]\nx = 1"),
            "f.toml:2: limits: unknown key; allowed: enabled, vlans, exclude, "
            "transmit-interval, disabled-time, rate-limit, state-file, scheduling, ports, "
            "errdisable, packet\n");
  EXPECT_EQ(errorsOf("\"a b\\n\" = 1\n[packet]\n\"\" = 2"),
            "f.toml:1: \"a b\\u000A\": unknown key; allowed: enabled, vlans, exclude, "
            "transmit-interval, disabled-time, rate-limit, state-file, scheduling, ports, "
            "errdisable, packet\n"
            "f.toml:3: packet.\"\": unknown key; allowed in [packet]: accept-foreign-source, "
            "source-address\n");
}

TEST(ConfigurationReader, AnUnknownKeyNearAKnownOneSuggestsIt) {
  const std::string allowed =
      "allowed: enabled, vlans, exclude, transmit-interval, disabled-time, rate-limit, state-file, "
      "scheduling, ports, errdisable, packet\n";
  EXPECT_EQ(errorsOf("vlan = ''"), "f.toml:1: vlan: unknown key; did you mean vlans? " + allowed);
  EXPECT_EQ(errorsOf("Transmit_Interval = 1"),
            "f.toml:1: Transmit_Interval: unknown key; did you mean transmit-interval? " + allowed);
  EXPECT_EQ(errorsOf("[port]"), "f.toml:1: port: unknown key; did you mean ports? " + allowed);
  EXPECT_EQ(errorsOf("[ports]\nbrigde = 'b'\nmatch = ['e']"),
            "f.toml:2: ports.brigde: unknown key; did you mean ports.bridge? "
            "allowed in [ports]: bridge, match, native-vlan\n");
}

TEST(ConfigurationReader, AKeyInTheWrongSectionSuggestsTheRightOne) {
  EXPECT_EQ(errorsOf("native-vlan = 1"),
            "f.toml:1: native-vlan: unknown key; did you mean ports.native-vlan? "
            "allowed: enabled, vlans, exclude, transmit-interval, disabled-time, rate-limit, "
            "state-file, scheduling, ports, errdisable, packet\n");
  EXPECT_EQ(errorsOf("[errdisable]\nrate-limit = 1"),
            "f.toml:2: errdisable.rate-limit: unknown key; did you mean rate-limit, before the "
            "first section? allowed in [errdisable]: action\n");
}

TEST(ConfigurationReader, EnabledNeedsPorts) {
  EXPECT_EQ(errorsOf("\nenabled = true\n"),
            "f.toml:2: ports: missing, but enabled is true; "
            "wanted: a section [ports] with bridge or match\n");
  EXPECT_EQ(errorsOf("enabled = false\n"), "ok");
}

TEST(ConfigurationReader, PortsNeedsExactlyOneOfBridgeAndMatch) {
  EXPECT_EQ(errorsOf("\n[ports]\nnative-vlan = 2\n"),
            "f.toml:2: ports: neither bridge nor match; wanted: exactly one of the two\n");
  EXPECT_EQ(errorsOf("[ports]\nbridge = 'b'\nmatch = ['eth*']\n"),
            "f.toml:3: ports.match: bridge stands here as well; wanted: exactly one of the two\n");
  EXPECT_EQ(errorsOf("[ports]\nmatch = []\n"),
            "f.toml:2: ports.match: the list is empty; wanted: at least one pattern\n");
}

TEST(ConfigurationReader, InterfaceNamesFollowTheRuleOfTheKernel) {
  const std::string rule =
      " is not an interface name; allowed: 1 to 15 bytes without '/', ':' or white space, and not "
      "\".\" or \"..\"\n";
  EXPECT_EQ(parsed("exclude = ['a', '123456789012345', '...', 'é']").exclude.size(), 4u);
  EXPECT_EQ(errorsOf("exclude = ['']"), "f.toml:1: exclude: \"\"" + rule);
  EXPECT_EQ(errorsOf("exclude = ['1234567890123456']"),
            "f.toml:1: exclude: \"1234567890123456\"" + rule);
  EXPECT_EQ(errorsOf("exclude = ['a/b']"), "f.toml:1: exclude: \"a/b\"" + rule);
  EXPECT_EQ(errorsOf("exclude = ['a:1']"), "f.toml:1: exclude: \"a:1\"" + rule);
  EXPECT_EQ(errorsOf("exclude = ['a b']"), "f.toml:1: exclude: \"a b\"" + rule);
  EXPECT_EQ(errorsOf(R"(exclude = ["a\tb"])"), "f.toml:1: exclude: \"a\\u0009b\"" + rule);
  EXPECT_EQ(errorsOf(R"(exclude = ["a\u0000"])"), "f.toml:1: exclude: \"a\\u0000\"" + rule);
  EXPECT_EQ(errorsOf("exclude = ['.']"), "f.toml:1: exclude: \".\"" + rule);
  EXPECT_EQ(errorsOf("exclude = ['..']"), "f.toml:1: exclude: \"..\"" + rule);
  EXPECT_EQ(errorsOf("ports.bridge = 'br 0'"), "f.toml:1: ports.bridge: \"br 0\"" + rule);
}

TEST(ConfigurationReader, PatternsAreOneTo255BytesWithoutNul) {
  EXPECT_EQ(errorsOf("[ports]\nmatch = ['eth*',\n  '']"),
            "f.toml:3: ports.match: \"\" is not a pattern; allowed: 1 to 255 bytes without NUL\n");
  EXPECT_EQ(errorsOf("[ports]\nmatch = [\"\\u0000\"]"),
            "f.toml:2: ports.match: \"\\u0000\" is not a pattern; "
            "allowed: 1 to 255 bytes without NUL\n");
}

TEST(ConfigurationReader, ALongValueIsCutOffBetweenTwoCharacters) {
  std::string name(63, 'x');
  EXPECT_EQ(errorsOf("ports.bridge = '" + name + "éyz'"),
            "f.toml:1: ports.bridge: \"" + name +
                "...\" is not an interface name; allowed: 1 to 15 bytes without '/', ':' or white "
                "space, and not \".\" or \"..\"\n");
}

TEST(ConfigurationReader, AnEntryThatStandsTwiceInAListIsAnError) {
  EXPECT_EQ(errorsOf("exclude = ['eth7', 'eth8',\n 'eth7']"),
            "f.toml:2: exclude: \"eth7\" is a duplicate; allowed: every entry once\n");
  EXPECT_EQ(errorsOf("[ports]\nmatch = ['e*', 'e*']"),
            "f.toml:2: ports.match: \"e*\" is a duplicate; allowed: every entry once\n");
}

TEST(ConfigurationReader, AVlanThatStandsTwiceInTheListIsAnError) {
  EXPECT_EQ(errorsOf("vlans = '10-20,15'"),
            "f.toml:1: vlans: \"10-20,15\" names VLAN 15 more than once; "
            "allowed: every VLAN once\n");
  EXPECT_EQ(errorsOf("vlans = '1,4094,1,10-20,18-30,4094'"),
            "f.toml:1: vlans: \"1,4094,1,10-20,18-30,4094\" names VLAN 1,18-20,4094 more than "
            "once; allowed: every VLAN once\n");
  EXPECT_EQ(parsed("vlans = '1-9,10-20,21'").vlans.count(), 21u);
}

TEST(ConfigurationReader, AListThatIsNoVlanListIsAnError) {
  const std::string allowed = "; allowed are numbers and low-high ranges of 1 to 4094\n";
  EXPECT_EQ(errorsOf("vlans = '0'"),
            "f.toml:1: vlans: \"0\": VLAN list item 1 \"0\": number out of range" + allowed);
  EXPECT_EQ(
      errorsOf("vlans = '5,1-4095'"),
      "f.toml:1: vlans: \"5,1-4095\": VLAN list item 2 \"1-4095\": number out of range" + allowed);
  EXPECT_EQ(errorsOf("vlans = '20-10'"),
            "f.toml:1: vlans: \"20-10\": VLAN list item 1 \"20-10\": range is reversed" + allowed);
  EXPECT_EQ(errorsOf("vlans = '1,,2'"),
            "f.toml:1: vlans: \"1,,2\": VLAN list item 2 \"\": a number is missing" + allowed);
  EXPECT_EQ(errorsOf("vlans = 'all'"),
            "f.toml:1: vlans: \"all\": VLAN list item 1 \"all\": not a number or range" + allowed);
}

TEST(ConfigurationReader, AnUnknownActionIsAnError) {
  EXPECT_EQ(errorsOf("[errdisable]\naction = 'Auto'"),
            "f.toml:2: errdisable.action: \"Auto\" is not an action; "
            "allowed: \"auto\", \"bridge-port\", \"protodown\", \"admin-down\", \"monitor\"\n");
}

TEST(ConfigurationReader, AKeyOrSectionThatStandsTwiceIsAnError) {
  EXPECT_EQ(errorsOf("enabled = true\nenabled = false\n"),
            "f.toml:2:11: not valid TOML: Error while parsing key-value pair: "
            "cannot redefine existing boolean 'enabled'\n");
  EXPECT_EQ(errorsOf("[ports]\nbridge = 'b'\n[ports]\n"),
            "f.toml:3:1: not valid TOML: Error while parsing table header: "
            "cannot redefine existing table 'ports'\n");
}

TEST(ConfigurationReader, ASyntaxErrorHasLineColumnAndDescription) {
  EXPECT_EQ(errorsOf("enabled = true\nvlans =\n"),
            "f.toml:2:8: not valid TOML: Error while parsing key-value pair: "
            "expected value, saw '\\n'\n");
  EXPECT_EQ(errorsOf("[ports\n"),
            "f.toml:1:7: not valid TOML: Error while parsing table header: "
            "expected ']', saw '\\n'\n");
}

TEST(ConfigurationReader, TextThatIsNotUtf8IsAnError) {
  EXPECT_EQ(errorsOf("\nvlans = \"\xff\xfe\"\n"),
            "f.toml:2:9: not valid TOML: Encountered invalid utf-8 sequence\n");
}

TEST(ConfigurationReader, ANulByteIsAnErrorWithItsPlace) {
  using namespace std::string_view_literals;
  EXPECT_EQ(errorsOf("\0"sv), "f.toml:1:1: a NUL byte; allowed: UTF-8 text\n");
  EXPECT_EQ(errorsOf("enabled = true\n# é\0\n"sv), "f.toml:2:4: a NUL byte; allowed: UTF-8 text\n");
}

TEST(ConfigurationReader, MoreThan4096DotsAreAnErrorWithThePlaceOfTheFirstTooMany) {
  EXPECT_EQ(errorsOf("#" + std::string(4096, '.')), "ok");
  EXPECT_EQ(errorsOf("\n#" + std::string(4097, '.')),
            "f.toml:2:4098: too many dots; allowed: 4096 in the whole file\n");
}

TEST(ConfigurationReader, AllErrorsAreReportedInTheOrderOfTheFile) {
  EXPECT_EQ(errorsOf("vlans = '1,1'\ntransmit-interval = 300\nexclude = ['a/b', 7]\n"
                     "enabled = 0\n[ports]\nnative-vlan = 0\nx = 1\n[errdisable]\naction = ''\n"),
            "f.toml:1: vlans: \"1,1\" names VLAN 1 more than once; allowed: every VLAN once\n"
            "f.toml:2: transmit-interval: 300 is out of range; allowed: 0 to 255 (seconds)\n"
            "f.toml:3: exclude: \"a/b\" is not an interface name; allowed: 1 to 15 bytes without "
            "'/', ':' or white space, and not \".\" or \"..\"\n"
            "f.toml:3: exclude: found integer 7; wanted: a string in the list\n"
            "f.toml:4: enabled: found integer 0; wanted: a boolean, true or false\n"
            "f.toml:5: ports: neither bridge nor match; wanted: exactly one of the two\n"
            "f.toml:6: ports.native-vlan: 0 is out of range; allowed: 1 to 4094\n"
            "f.toml:7: ports.x: unknown key; allowed in [ports]: bridge, match, native-vlan\n"
            "f.toml:9: errdisable.action: \"\" is not an action; "
            "allowed: \"auto\", \"bridge-port\", \"protodown\", \"admin-down\", \"monitor\"\n");
}

TEST(ConfigurationReader, AnErrorCarriesItsPartsOneByOne) {
  const ConfigurationResult result = parseConfiguration("\nrate-limit = -1", "f.toml");
  ASSERT_FALSE(result.ok());
  ASSERT_EQ(result.errors().size(), 1u);
  const ConfigurationError& error = result.errors()[0];
  EXPECT_EQ(error.file, "f.toml");
  EXPECT_EQ(error.line, 2u);
  EXPECT_EQ(error.column, 14u);
  EXPECT_EQ(error.key, "rate-limit");
  EXPECT_EQ(error.text, "-1 is out of range; allowed: 0 to 4294967295 (probes per second)");
}

TEST(ConfigurationReader, AFileIsReadWithItsPathInTheErrors) {
  const TemporaryDirectory directory;
  const ConfigurationResult good = readConfiguration(directory.file("good.toml", kSample));
  ASSERT_EQ(errorsOf(good), "ok");
  EXPECT_EQ(good.configuration(), parsed(kSample));
  const std::string bad = directory.file("bad.toml", "\n\n\ntransmit-interval = 300\n");
  EXPECT_EQ(errorsOf(readConfiguration(bad)),
            bad + ":4: transmit-interval: 300 is out of range; allowed: 0 to 255 (seconds)\n");
}

TEST(ConfigurationReader, AFileThatCannotBeReadIsAnErrorWithTheTextOfTheSystem) {
  const TemporaryDirectory directory;
  EXPECT_EQ(errorsOf(readConfiguration(directory.path() + "/none.toml")),
            directory.path() + "/none.toml: cannot read the file: No such file or directory\n");
  EXPECT_EQ(errorsOf(readConfiguration(directory.path())),
            directory.path() + ": cannot read the file: Is a directory\n");
  const std::string file = directory.file("file", "");
  EXPECT_EQ(errorsOf(readConfiguration(file + "/x")),
            file + "/x: cannot read the file: Not a directory\n");
  EXPECT_EQ(errorsOf(readConfiguration("")), ": cannot read the file: No such file or directory\n");
}

TEST(ConfigurationReader, AFileThatIsNotRegularIsAnErrorAndIsNotWaitedFor) {
  const TemporaryDirectory directory;
  const std::string fifo = directory.path() + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(errorsOf(readConfiguration(fifo)), fifo + ": not a regular file\n");
}

TEST(ConfigurationReader, TheSizeOfAFileIsLimitedToOneMebibyte) {
  const TemporaryDirectory directory;
  const std::string comment = "#" + std::string(kMaxConfigurationSize - 1, 'x');
  EXPECT_EQ(errorsOf(readConfiguration(directory.file("most", comment))), "ok");
  const std::string file = directory.file("more", comment + "x");
  EXPECT_EQ(errorsOf(readConfiguration(file)), file + ": larger than the limit of 1048576 bytes\n");
}

TEST(ConfigurationReader, HostileInputNeverEndsTheProcess) {
  const auto repeated = [](std::string_view text, std::size_t count) {
    std::string result;
    while (count-- > 0) result += text;
    return result;
  };
  const std::string inputs[] = {
      "[[[",
      "[[=",
      "\u00e9 = 1",
      "\u040a = 1",
      "enabled = \u00e9",
      "enabled \ufefe",
      "enabled \u2c5f = 1",
      "[.",
      std::string(10000, '['),
      "exclude = " + std::string(10000, '['),
      "exclude = " + std::string(255, '[') + std::string(255, ']'),
      "exclude = " + repeated("[{a=", 10000),
      repeated("a={", 10000),
      repeated("[a]", 10000),
      std::string(kMaxConfigurationSize, 'a'),
      std::string(kMaxConfigurationSize, '.'),
      std::string(kMaxConfigurationSize, '"'),
      std::string(kMaxConfigurationSize, '\n'),
      std::string(kMaxConfigurationSize, '\xff'),
      repeated("a.", kMaxConfigurationDots) + "a = 1",
      "[" + repeated("a.", kMaxConfigurationDots) + "a]",
      repeated("a.", kMaxConfigurationSize / 2 - 3) + "a = 1",
      "vlans = \"" + repeated("1,", 100000) + "1\"",
      "vlans = \"" + repeated("1-4094,", 1000) + "1\"",
      "exclude = [" + repeated("'e',", 30000) + "]",
      "rate-limit = " + std::string(100000, '9'),
      "rate-limit = 0x" + std::string(100000, 'f'),
      "rate-limit = 1e" + std::string(100000, '9'),
      "ports.match = ['" + std::string(1000000, '*') + "']",
      "vlans = \"\"\"",
      "vlans = \"\\uD800\"",
      "vlans = \"\\U00110000\"",
      "disabled-time = 9999-99-99T99:99:99Z",
      "\xef\xbb\xbf",
      "\xfe\xff",
      "\r\r\r",
      "= = =",
  };
  for (const std::string& input : inputs) {
    const ConfigurationResult result = parseConfiguration(input, "f.toml");
    if (!result.ok()) {
      EXPECT_FALSE(result.errors().empty());
    }
  }
}

TEST(ConfigurationReader, RandomBytesNeverEndTheProcess) {
  constexpr unsigned kSeed = 20240611;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  for (int round = 0; round < 3000; ++round) {
    std::string input = round % 2 == 0 ? std::string(random() % 200, ' ') : std::string(kSample);
    const std::size_t changes = round % 2 == 0 ? input.size() : 1 + random() % 8;
    for (std::size_t i = 0; i < changes; ++i) {
      input[random() % input.size()] = static_cast<char>(random());
    }
    const ConfigurationResult result = parseConfiguration(input, "f.toml");
    if (!result.ok()) {
      for (const ConfigurationError& error : result.errors()) {
        EXPECT_EQ(toText(error).find_first_of("\n\r\x1b\x7f"), std::string::npos);
      }
    }
  }
}

TEST(ConfigurationText, IsAFileWithEveryKey) {
  EXPECT_EQ(toText(parsed(kSample)),
            "enabled = true\n"
            "vlans = \"1,10-20\"\n"
            "exclude = [ \"eth7\" ]\n"
            "transmit-interval = 7\n"
            "disabled-time = 3600\n"
            "rate-limit = 50\n"
            "state-file = \"/run/ringward/held.json\"\n"
            "scheduling = \"auto\"\n"
            "\n"
            "[ports]\n"
            "match = [ \"eth*\", \"swp*\" ]\n"
            "native-vlan = 2\n"
            "\n"
            "[errdisable]\n"
            "action = \"admin-down\"\n"
            "\n"
            "[packet]\n"
            "accept-foreign-source = true\n"
            "source-address = \"derived\"\n");
}

// Names of nasty but permitted characters; distinct within one call's list.
std::vector<std::string> randomNames(std::mt19937& random, std::size_t count, bool patterns) {
  static const std::array<const char*, 18> kPieces{"e",  "0", "*",    "?",      "[",  "]",
                                                   "\"", "'", "\\",   "\x01",   "é",  "#",
                                                   "=",  ",", "\x7f", "\u2028", "''", "\x1b"};
  std::vector<std::string> names;
  for (std::size_t i = 0; i < count; ++i) {
    std::string name = std::to_string(i) + '-';
    while (random() % 6 != 0 && name.size() < 12) name += kPieces[random() % kPieces.size()];
    if (patterns && random() % 4 == 0) name += "\n/ \t\r\"\"\"";
    names.push_back(name);
  }
  return names;
}

TEST(ConfigurationText, ReadsBackToAnEqualConfiguration) {
  constexpr unsigned kSeed = 987654;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  const auto flip = [&random] { return random() % 2 == 0; };
  EXPECT_EQ(parsed(toText(Configuration())), Configuration());
  for (int round = 0; round < 500; ++round) {
    Configuration original;
    for (std::size_t i = random() % 40; i > 0; --i) {
      original.vlans.set(static_cast<std::uint16_t>(1 + random() % (flip() ? 4094 : 20)));
    }
    original.exclude = randomNames(random, random() % 20, false);
    original.transmitInterval = static_cast<std::uint32_t>(random() % 256);
    original.disabledTime = static_cast<std::uint32_t>(random());
    original.rateLimit = static_cast<std::uint32_t>(random());
    if (flip()) {
      original.enabled = flip();
      original.ports.emplace();
      if (flip()) {
        original.ports->bridge = randomNames(random, 1, false)[0];
      } else {
        original.ports->match = randomNames(random, 1 + random() % 20, true);
      }
      original.ports->nativeVlan = static_cast<std::uint16_t>(1 + random() % 4094);
    }
    original.errdisableAction = static_cast<ErrdisableAction>(random() % 5);
    original.acceptForeignSource = flip();
    original.sourceAddress.kind = static_cast<SourceAddress::Kind>(random() % 3);
    if (original.sourceAddress.kind == SourceAddress::Kind::fixed) {
      original.sourceAddress.fixed = Portus::EthAddr(static_cast<std::uint8_t>(random() & 0xFEU), 1,
                                                     2, 3, 4, static_cast<std::uint8_t>(random()));
    }
    original.scheduling = static_cast<Scheduling>(random() % 3);
    if (flip()) original.stateFile = flip() ? "" : "/" + randomNames(random, 1, false)[0];

    const std::string text = toText(original);
    const ConfigurationResult result = parseConfiguration(text, "f.toml");
    ASSERT_EQ(errorsOf(result), "ok") << text;
    ASSERT_EQ(result.configuration(), original) << text;
    ASSERT_EQ(toText(result.configuration()), text);
  }
}

// The checkout that this file was compiled from.
std::filesystem::path sourceDirectory() {
  return std::filesystem::absolute(__FILE__).parent_path().parent_path().parent_path();
}

TEST(ConfigurationFiles, TheSampleOfThePackageHasTheDefaultsAndABridge) {
  const ConfigurationResult result =
      readConfiguration((sourceDirectory() / "packaging/ringward.toml").string());
  ASSERT_EQ(errorsOf(result), "ok");
  Configuration expected;
  expected.ports.emplace().bridge = "br0";
  EXPECT_EQ(result.configuration(), expected);
}

TEST(ConfigurationFiles, EveryExampleOfTheManualIsValid) {
  std::ifstream manual(sourceDirectory() / "docs/configuration.md");
  ASSERT_TRUE(manual.is_open());
  int examples = 0;
  std::optional<std::string> example;
  for (std::string line; std::getline(manual, line);) {
    if (line == "```toml") {
      example.emplace();
    } else if (line == "```" && example) {
      EXPECT_EQ(errorsOf(*example), "ok") << *example;
      example.reset();
      ++examples;
    } else if (example) {
      *example += line + '\n';
    }
  }
  EXPECT_FALSE(example.has_value());
  EXPECT_GE(examples, 10);
}

}  // namespace
}  // namespace Agent
