// SPDX-License-Identifier: Apache-2.0
#include "runtime/bridging/VlanId.h"

#include <ostream>
#include <string>

namespace Bridging {
namespace {

constexpr std::uint32_t kTooLarge = 65536;

std::uint32_t number(std::string_view text, const char* range) {
  std::uint32_t value = 0;
  bool wrong = text.empty();
  for (const char c : text) {
    if (c < '0' || c > '9') {
      wrong = true;
      break;
    }
    // Stays put once out of range, so that no length of text can bring it back in.
    if (value < kTooLarge) value = value * 10 + static_cast<std::uint32_t>(c - '0');
  }
  if (wrong) {
    std::string shown;
    for (const char c : text.substr(0, 40)) shown += c >= 0x20 && c <= 0x7E ? c : '?';
    if (text.size() > 40) shown += "...";
    Vex::throwRangeException("VLAN \"" + shown + "\" is not a decimal number from " + range);
  }
  return value;
}

}  // namespace

VlanId VlanId::parse(std::string_view text) { return VlanId(number(text, "1 to 4094")); }

VlanIdOrNone VlanIdOrNone::parse(std::string_view text) {
  return VlanIdOrNone(number(text, "0 to 4094"));
}

std::ostream& operator<<(std::ostream& out, VlanId vlanId) { return out << vlanId.value(); }

std::ostream& operator<<(std::ostream& out, VlanIdOrNone vlanId) { return out << vlanId.value(); }

}  // namespace Bridging
