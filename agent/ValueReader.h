// SPDX-License-Identifier: Apache-2.0
//
// Reads single values of a parsed TOML file into variables of the configuration and collects what
// is wrong with them. What the keys mean is not known here: see ConfigurationKeys.h.
//
// One thread at a time. An object keeps nothing of the nodes that it is given; `key` is always the
// name of the value with its section, "ports.bridge".
//
// Invariants:
//  1. A value that is not as wanted adds at least one error and leaves `out` alone; a list takes
//     over those of its elements that are as wanted.
//  2. An error is added at the place of its value, names what was found and says what is allowed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ConfigurationReader.h"
#include "agent/Toml.h"

namespace Agent {

class ValueReader {
 public:
  struct Range {
    std::int64_t min;
    std::int64_t max;
    const char* unit;  // "" or " (seconds)"

    std::string text() const;
  };

  struct TextRule {
    bool (*valid)(std::string_view text);
    const char* violation;  // what a text is that is not valid: "not an interface name"
    std::string allowed;
  };

  // `file` is only a name for the errors.
  explicit ValueReader(const std::string& file);

  void addError(const toml::source_region& where, std::string key, std::string text);
  void addError(const toml::node& node, std::string key, std::string text);
  void addTypeError(const toml::node& node, std::string key, const std::string& wanted);
  // For a text with which something is wrong besides its type; see TextRule.
  void addTextError(const toml::node& node, std::string key, std::string_view text,
                    const char* violation, const std::string& allowed);

  // The string that `node` is; null after an error: it is none. Lives as long as the node.
  const std::string* stringOf(const toml::node& node, const char* key, const std::string& wanted);

  void readBoolean(const toml::node& node, const char* key, bool& out);
  // REQUIRES: Integer holds every number of the range.
  template <typename Integer>
  void readInteger(const toml::node& node, const char* key, const Range& range, Integer& out) {
    if (const auto value = integerOf(node, key, range)) out = static_cast<Integer>(*value);
  }
  void readText(const toml::node& node, const char* key, const std::string& wanted,
                const TextRule& rule, std::string& out);
  // One of some words; `choiceOf` gives none for any other text.
  template <typename Choice>
  void readChoice(const toml::node& node, const char* key,
                  std::optional<Choice> (*choiceOf)(std::string_view), const char* violation,
                  const std::string& allowed, Choice& out) {
    const std::string* text = stringOf(node, key, "a string, one of " + allowed);
    if (text == nullptr) return;
    const std::optional<Choice> choice = choiceOf(*text);
    if (!choice) return addTextError(node, key, *text, violation, allowed);
    out = *choice;
  }
  // A list of different strings that all satisfy the rule.
  void readList(const toml::node& node, const char* key, const TextRule& rule,
                std::vector<std::string>& out);

  // All errors so far, in the order of the file. Nothing is left behind.
  std::vector<ConfigurationError> takeErrors();

 private:
  std::optional<std::int64_t> integerOf(const toml::node& node, const char* key,
                                        const Range& range);

  std::string file_;
  std::vector<ConfigurationError> errors_;
};

}  // namespace Agent
