// SPDX-License-Identifier: Apache-2.0
//
// A configuration written as a file, and that file read again.
#include "agent/ConfigurationReader.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "tests/agent/ConfigurationTexts.h"

namespace Agent {
namespace {

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
            "source-address = \"derived\"\n"
            "\n"
            "[counters]\n"
            "shared = true\n"
            "root = \"\"\n"
            "interfaces = 256\n"
            "vlans = 4096\n"
            "\n"
            "[control]\n"
            "socket = \"/run/ringward/ringwardd.sock\"\n"
            "group = \"ringward\"\n"
            "max-clients = 32\n");
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
    original.counters.shared = flip();
    if (flip()) original.counters.root = "/" + randomNames(random, 1, false)[0];
    original.counters.interfaces = static_cast<std::uint32_t>(1 + random() % 65536);
    original.counters.vlans = static_cast<std::uint32_t>(1 + random() % 65536);
    if (flip()) original.control.socket = flip() ? "" : "/" + randomNames(random, 1, false)[0];
    if (flip()) original.control.group = randomNames(random, 1, false)[0];
    original.control.maxClients = static_cast<std::uint32_t>(1 + random() % 1024);
    if (flip()) original.stateFile = flip() ? "" : "/" + randomNames(random, 1, false)[0];

    const std::string text = toText(original);
    const ConfigurationResult result = parseConfiguration(text, "f.toml");
    ASSERT_EQ(errorsOf(result), "ok") << text;
    ASSERT_EQ(result.configuration(), original) << text;
    ASSERT_EQ(toText(result.configuration()), text);
  }
}

}  // namespace
}  // namespace Agent
