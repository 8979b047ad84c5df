// SPDX-License-Identifier: Apache-2.0
#include "runtime/bridging/VlanBitmap.h"

#include <ostream>

namespace Bridging {
namespace {

constexpr std::size_t kShownLength = 40;  // of a wrong item, in messages

struct Item {
  std::string_view text;  // without blanks around it
  std::size_t number;     // its place in the list, from 1
};

bool isBlank(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

[[noreturn]] void throwBadItem(const Item& item, const char* why) {
  std::string shown;
  for (const char c : item.text.substr(0, kShownLength)) shown += c >= 0x20 && c <= 0x7E ? c : '?';
  if (item.text.size() > kShownLength) shown += "...";
  Vex::throwRangeException("VLAN list item " + std::to_string(item.number) + " \"" + shown +
                           "\": " + why + "; allowed are numbers and low-high ranges of 1 to 4094");
}

std::uint32_t vlanNumber(std::string_view text, const Item& item) {
  if (text.empty()) throwBadItem(item, "a number is missing");
  std::uint32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') throwBadItem(item, "not a number or range");
    // Leaving at once keeps the value from wrapping round, however long the text is.
    value = value * 10 + static_cast<std::uint32_t>(c - '0');
    if (value > kMaxVlanId) throwBadItem(item, "number out of range");
  }
  if (value == 0) throwBadItem(item, "number out of range");
  return value;
}

void addItem(VlanBitmap& set, const Item& item) {
  const std::size_t dash = item.text.find('-');
  if (dash == std::string_view::npos) {
    set.set(vlanNumber(item.text, item));
    return;
  }
  const std::uint32_t low = vlanNumber(trimmed(item.text.substr(0, dash)), item);
  const std::uint32_t high = vlanNumber(trimmed(item.text.substr(dash + 1)), item);
  if (low > high) throwBadItem(item, "range is reversed");
  set.setRange(low, high);
}

}  // namespace

VlanBitmap VlanBitmap::parse(std::string_view text) {
  VlanBitmap set;
  if (trimmed(text).empty()) return set;
  for (std::size_t number = 1;; ++number) {
    const std::size_t comma = text.find(',');
    addItem(set, {trimmed(text.substr(0, comma)), number});
    if (comma == std::string_view::npos) return set;
    text.remove_prefix(comma + 1);
  }
}

std::string VlanBitmap::toText() const {
  std::string text;
  for (std::uint32_t low = next(0); low < kBits;) {
    const std::uint32_t end = (~*this).next(low);
    if (!text.empty()) text += ',';
    text += std::to_string(low);
    if (end - low > 1) {
      text += '-';
      text += std::to_string(end - 1);
    }
    low = next(end);
  }
  return text;
}

void VlanBitmap::setRange(std::uint32_t low, std::uint32_t high) {
  VEX_ASSERT(low <= high);
  if (high >= kBits) Vex::throwRangeException("VlanBitmap::number > 4095 not allowed");
  for (std::uint32_t n = low; n <= high; ++n) set(n);
}

std::ostream& operator<<(std::ostream& out, const VlanBitmap& set) { return out << set.toText(); }

}  // namespace Bridging
