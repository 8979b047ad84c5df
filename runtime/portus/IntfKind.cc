// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfKind.h"

#include <algorithm>

namespace Portus {
namespace {

bool isNumber(std::string_view text) noexcept {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

struct NumberedName {
  std::string_view stem;
  IntfKind kind;
};

constexpr NumberedName kNumberedNames[] = {
    {"lo", IntfKind::loopback},
    {"Loopback", IntfKind::loopback},
    {"vlan", IntfKind::vlanIntf},
    {"Vlan", IntfKind::vlanIntf},
    {"PeerPort-Channel", IntfKind::peerPortChannel},
    {"peerbond", IntfKind::peerPortChannel},
    {"Port-Channel", IntfKind::portChannel},
    {"po", IntfKind::portChannel},
    {"bond", IntfKind::portChannel},
    {"team", IntfKind::portChannel},
};

}  // namespace

IntfKind intfKindOfName(std::string_view name) noexcept {
  if (name.empty()) return IntfKind::none;
  if (name == "lo") return IntfKind::loopback;
  for (const NumberedName& rule : kNumberedNames) {
    if (name.starts_with(rule.stem) && isNumber(name.substr(rule.stem.size()))) return rule.kind;
  }
  const std::size_t dot = name.rfind('.');
  if (dot != std::string_view::npos && dot != 0 && isNumber(name.substr(dot + 1))) {
    return IntfKind::vlanIntf;
  }
  return IntfKind::ethernet;
}

const char* intfKindText(IntfKind kind) noexcept {
  switch (kind) {
    case IntfKind::none:
      return "none";
    case IntfKind::ethernet:
      return "Ethernet";
    case IntfKind::portChannel:
      return "port channel";
    case IntfKind::peerPortChannel:
      return "peer port channel";
    case IntfKind::vlanIntf:
      return "VLAN interface";
    case IntfKind::loopback:
      return "loopback";
    case IntfKind::other:
      return "other";
  }
  return "other";
}

}  // namespace Portus
