// SPDX-License-Identifier: Apache-2.0
#include "agent/ValueReader.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <utility>

namespace Agent {

namespace {

// "string "eth0"", "integer 7", "array": what the file holds instead of what it should.
std::string foundText(const toml::node& node) {
  std::ostringstream type;
  type << node.type();
  if (const auto* text = node.as_string()) return "string " + quotedText(text->get());
  if (node.is_table() || node.is_array()) return type.str();
  std::ostringstream value;
  node.visit([&](const auto& typed) { value << typed; });
  return type.str() + ' ' + value.str();
}

}  // namespace

std::string ValueReader::Range::text() const {
  return std::to_string(min) + " to " + std::to_string(max) + unit;
}

ValueReader::ValueReader(const std::string& file) : file_(plainText(file)) {}

void ValueReader::addError(const toml::source_region& where, std::string key, std::string text) {
  errors_.push_back({file_, where.begin.line, where.begin.column, std::move(key), std::move(text)});
}

void ValueReader::addError(const toml::node& node, std::string key, std::string text) {
  addError(node.source(), std::move(key), std::move(text));
}

void ValueReader::addTypeError(const toml::node& node, std::string key, const std::string& wanted) {
  addError(node, std::move(key), "found " + foundText(node) + "; wanted: " + wanted);
}

void ValueReader::addTextError(const toml::node& node, std::string key, std::string_view text,
                               const char* violation, const std::string& allowed) {
  std::string message = quotedText(text);
  message.append(" is ").append(violation).append("; allowed: ").append(allowed);
  addError(node, std::move(key), std::move(message));
}

const std::string* ValueReader::stringOf(const toml::node& node, const char* key,
                                         const std::string& wanted) {
  if (const auto* value = node.as_string()) return &value->get();
  addTypeError(node, key, wanted);
  return nullptr;
}

void ValueReader::readBoolean(const toml::node& node, const char* key, bool& out) {
  if (const auto* value = node.as_boolean()) {
    out = value->get();
  } else {
    addTypeError(node, key, "a boolean, true or false");
  }
}

std::optional<std::int64_t> ValueReader::integerOf(const toml::node& node, const char* key,
                                                   const Range& range) {
  const auto* value = node.as_integer();
  if (value == nullptr) {
    addTypeError(node, key, "an integer, " + range.text());
    return std::nullopt;
  }
  if (value->get() < range.min || value->get() > range.max) {
    addError(node, key,
             std::to_string(value->get()) + " is out of range; allowed: " + range.text());
    return std::nullopt;
  }
  return value->get();
}

void ValueReader::readText(const toml::node& node, const char* key, const std::string& wanted,
                           const TextRule& rule, std::string& out) {
  const std::string* text = stringOf(node, key, wanted);
  if (text == nullptr) return;
  if (!rule.valid(*text)) return addTextError(node, key, *text, rule.violation, rule.allowed);
  out = *text;
}

void ValueReader::readList(const toml::node& node, const char* key, const TextRule& rule,
                           std::vector<std::string>& out) {
  const auto* array = node.as_array();
  if (array == nullptr) return addTypeError(node, key, "a list of strings, such as [\"eth7\"]");
  std::set<std::string_view> seen;
  for (const toml::node& element : *array) {
    const std::string* text = stringOf(element, key, "a string in the list");
    if (text == nullptr) continue;
    if (!rule.valid(*text)) {
      addTextError(element, key, *text, rule.violation, rule.allowed);
    } else if (!seen.insert(*text).second) {
      addTextError(element, key, *text, "a duplicate", "every entry once");
    } else {
      out.push_back(*text);
    }
  }
}

std::vector<ConfigurationError> ValueReader::takeErrors() {
  std::stable_sort(errors_.begin(), errors_.end(), [](const auto& a, const auto& b) {
    return std::pair(a.line, a.column) < std::pair(b.line, b.column);
  });
  return std::exchange(errors_, {});
}

}  // namespace Agent
