// SPDX-License-Identifier: Apache-2.0
//
// What a message says about a key of the configuration file that nobody knows: which known one was
// probably meant, and which are allowed.
//
// Pure functions without state: any thread may call them. Nothing of the arguments is kept.
//
// Invariants:
//  1. No text holds a control character, whatever the key is.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Agent {

struct KeyName {
  std::string_view section;  // empty: before the first section
  std::string_view key;

  friend bool operator==(const KeyName&, const KeyName&) = default;
};

// "ports.bridge", or "bridge" without a section; a key that TOML takes only in quotes is quoted.
std::string keyText(const KeyName& name);

// "unknown key; did you mean vlans? allowed: ...". What is allowed is listed in the order of
// `known`.
std::string unknownKeyText(const KeyName& unknown, const std::vector<KeyName>& known);

}  // namespace Agent
