// SPDX-License-Identifier: Apache-2.0
//
// The configuration and the errors that a text gives, for tests of the reader and of the writer.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "agent/ConfigurationReader.h"

namespace Agent {

// A file with most of the keys, none of them at its default.
inline constexpr const char* kSample = R"(enabled = true
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
inline std::string errorsOf(const ConfigurationResult& result) {
  if (result.ok()) return "ok";
  std::string text;
  for (const ConfigurationError& error : result.errors()) text += toText(error) + '\n';
  return text;
}

inline std::string errorsOf(std::string_view content) {
  return errorsOf(parseConfiguration(content, "f.toml"));
}

inline Configuration parsed(std::string_view content) {
  const ConfigurationResult result = parseConfiguration(content, "f.toml");
  EXPECT_EQ(errorsOf(result), "ok");
  return result.ok() ? result.configuration() : Configuration();
}

}  // namespace Agent
