// SPDX-License-Identifier: Apache-2.0
#include "agent/UnknownKey.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

#include "agent/Configuration.h"

namespace Agent {

namespace {

constexpr std::size_t kMaxSuggestionDistance = 2;

// The number of single-character changes between two keys, upper and lower case being equal;
// anything above kMaxSuggestionDistance may come out as any number above it.
std::size_t editDistance(std::string_view a, std::string_view b) {
  const std::size_t difference = a.size() > b.size() ? a.size() - b.size() : b.size() - a.size();
  if (difference > kMaxSuggestionDistance) return difference;
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t changed = diagonal + (lower(a[i]) == lower(b[j]) ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

// The known key that `key` probably means, of any section: a key behind the wrong section header
// is a common slip. Null: none is near.
const KeyName* nearestOf(const std::vector<KeyName>& known, std::string_view key) {
  const KeyName* nearest = nullptr;
  std::size_t limit = kMaxSuggestionDistance + 1;
  for (const KeyName& name : known) {
    const std::size_t distance = editDistance(key, name.key);
    if (distance >= limit) continue;
    nearest = &name;
    limit = distance;
  }
  return nearest;
}

}  // namespace

std::string keyText(const KeyName& name) {
  const auto& [section, key] = name;
  const bool bare =
      !key.empty() && key.size() <= 64 && std::all_of(key.begin(), key.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '_';
      });
  const std::string shown = bare ? std::string(key) : quotedText(key);
  return section.empty() ? shown : std::string(section) + '.' + shown;
}

std::string unknownKeyText(const KeyName& unknown, const std::vector<KeyName>& known) {
  const std::string_view section = unknown.section;
  std::string text = "unknown key; ";
  if (const KeyName* nearest = nearestOf(known, unknown.key)) {
    text += "did you mean " + keyText(*nearest);
    if (nearest->section.empty() && !section.empty()) text += ", before the first section";
    text += "? ";
  }
  text += section.empty() ? "allowed: " : "allowed in [" + std::string(section) + "]: ";
  const char* separator = "";
  for (const KeyName& name : known) {
    if (name.section != section) continue;
    text += std::exchange(separator, ", ") + std::string(name.key);
  }
  return text;
}

}  // namespace Agent
