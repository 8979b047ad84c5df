// SPDX-License-Identifier: Apache-2.0
#include "agent/Configuration.h"

#include <array>
#include <cstdio>

namespace Agent {

namespace {

constexpr std::size_t kMaxQuotedSize = 64;
constexpr std::size_t kMaxPlainSize = 240;

}  // namespace

bool isInterfaceName(std::string_view text) {
  using namespace std::string_view_literals;
  return !text.empty() && text.size() <= kMaxInterfaceNameSize && text != "." && text != ".." &&
         text.find_first_of("/: \t\n\v\f\r\0"sv) == std::string_view::npos;
}

std::string quotedText(std::string_view text) {
  std::string_view shown = text.substr(0, kMaxQuotedSize);
  if (shown.size() < text.size()) {
    // Not in the middle of a UTF-8 character: step back over its continuation bytes.
    while (!shown.empty() && (static_cast<unsigned char>(text[shown.size()]) & 0xC0u) == 0x80u) {
      shown.remove_suffix(1);
    }
  }
  std::string result = "\"";
  for (const char c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      result += '\\';
      result += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      std::array<char, 8> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "\\u%04X", static_cast<unsigned>(byte));
      result += escaped.data();
    } else {
      result += c;
    }
  }
  if (shown.size() < text.size()) result += "...";
  return result + '"';
}

std::string plainText(std::string_view text) {
  std::string result;
  for (const char c : text.substr(0, kMaxPlainSize)) {
    const auto byte = static_cast<unsigned char>(c);
    result += byte < 0x20 || byte == 0x7F ? '?' : c;
  }
  if (text.size() > kMaxPlainSize) result += "...";
  return result;
}

}  // namespace Agent
