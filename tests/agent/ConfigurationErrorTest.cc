// SPDX-License-Identifier: Apache-2.0
//
// What the reader of the configuration says about a file that is wrong.
#include "agent/ConfigurationReader.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/agent/ConfigurationTexts.h"

namespace Agent {
namespace {

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
            "errdisable, packet, counters, control\n");
  EXPECT_EQ(errorsOf("[errdisable]\nreason = ''"),
            "f.toml:2: errdisable.reason: unknown key; allowed in [errdisable]: action\n");
  EXPECT_EQ(errorsOf("\n[limits]\nx = 1"),
            "f.toml:2: limits: unknown key; allowed: enabled, vlans, exclude, "
            "transmit-interval, disabled-time, rate-limit, state-file, scheduling, ports, "
            "errdisable, packet, counters, control\n");
  EXPECT_EQ(errorsOf("\"a b\\n\" = 1\n[packet]\n\"\" = 2"),
            "f.toml:1: \"a b\\u000A\": unknown key; allowed: enabled, vlans, exclude, "
            "transmit-interval, disabled-time, rate-limit, state-file, scheduling, ports, "
            "errdisable, packet, counters, control\n"
            "f.toml:3: packet.\"\": unknown key; allowed in [packet]: accept-foreign-source, "
            "source-address\n");
}

TEST(ConfigurationReader, AnUnknownKeyNearAKnownOneSuggestsIt) {
  const std::string allowed =
      "allowed: enabled, vlans, exclude, transmit-interval, disabled-time, rate-limit, state-file, "
      "scheduling, ports, errdisable, packet, counters, control\n";
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
            "state-file, scheduling, ports, errdisable, packet, counters, control\n");
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

}  // namespace
}  // namespace Agent
