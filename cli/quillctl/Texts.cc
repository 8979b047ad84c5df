// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Texts.h"

#include <algorithm>
#include <charconv>
#include <numeric>
#include <utility>

#include "cli/quillctl/Failure.h"

namespace Quillctl {

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

void hexByteTo(std::string& out, char c) {
  const auto byte = static_cast<unsigned char>(c);
  out += kHexDigits[byte >> 4];
  out += kHexDigits[byte & 0xf];
}

}  // namespace

std::string printable(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    if (c == '\\') {
      shown += "\\\\";
    } else if (c >= ' ' && c <= '~') {
      shown += c;
    } else {
      shown += "\\x";
      hexByteTo(shown, c);
    }
  }
  return shown;
}

std::string inQuotes(std::string_view text) {
  if (text.size() <= kMaxShown) return '"' + printable(text) + '"';
  return '"' + printable(text.substr(0, kMaxShown)) + "\"... (" + std::to_string(text.size()) +
         " bytes)";
}

std::uint32_t numberOf(std::string_view text, std::string_view what, std::uint32_t least,
                       std::uint32_t most) {
  std::uint32_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stopped != end || value < least || value > most) {
    throw Failure(ExitStatus::usage, std::string(what) + " " + inQuotes(text) +
                                         ": must be a decimal number from " +
                                         std::to_string(least) + " to " + std::to_string(most));
  }
  return value;
}

std::size_t editDistance(std::string_view a, std::string_view b) {
  // One row of the matrix: row[j] is the distance of a's beginning to b's first j characters.
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

std::string nearest(std::string_view given, const std::vector<std::string>& candidates) {
  const auto found = std::min_element(candidates.begin(), candidates.end(),
                                      [&](const std::string& a, const std::string& b) {
                                        return editDistance(given, a) < editDistance(given, b);
                                      });
  return found == candidates.end() ? std::string() : *found;
}

std::string hex(std::string_view bytes) {
  std::string digits;
  for (const char c : bytes) hexByteTo(digits, c);
  return digits;
}

}  // namespace Quillctl
