// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PortAction.h"

#include <array>
#include <cerrno>
#include <string>

namespace Platform::Linux {

namespace {

using Action = ErrdisableAction;

// linux/if_bridge.h
constexpr std::uint8_t kStateDisabled = 0;
constexpr std::uint8_t kStateForwarding = 3;

struct Word {
  Action action;
  std::string_view name;
};
constexpr std::array<Word, 5> kWords{{{Action::automatic, "auto"},
                                      {Action::bridgePort, "bridge-port"},
                                      {Action::protoDown, "protodown"},
                                      {Action::adminDown, "admin-down"},
                                      {Action::monitor, "monitor"}}};

constexpr std::array kForBridgePort{Action::bridgePort, Action::protoDown, Action::adminDown};
constexpr std::array kForOther{Action::protoDown, Action::adminDown};

class NotVerified final : public std::error_category {
 public:
  const char* name() const noexcept override { return "errdisable"; }
  std::string message(int /*code*/) const override {
    return "the kernel took the request, but the port has not changed";
  }
};

std::error_code notVerified() {
  static const NotVerified category;
  return {1, category};
}

bool isBridgePort(const LinkInfo& link) { return link.slaveKind == "bridge"; }

std::error_code request(LinkActions& actions, int ifindex, Action action) {
  switch (action) {
    case Action::bridgePort:
      return actions.bridgePortStateIs(ifindex, kStateDisabled);
    case Action::protoDown:
      return actions.protoDownIs(ifindex, true);
    case Action::adminDown:
      return actions.adminUpIs(ifindex, false);
    case Action::automatic:
    case Action::monitor:
      return {};
  }
  return {};
}

}  // namespace

std::string_view errdisableActionName(ErrdisableAction action) {
  for (const Word& word : kWords) {
    if (word.action == action) return word.name;
  }
  return "";
}

std::optional<ErrdisableAction> errdisableActionOf(std::string_view name) {
  for (const Word& word : kWords) {
    if (word.name == name) return word.action;
  }
  return std::nullopt;
}

std::span<const ErrdisableAction> actionsFor(const ErrdisableAction& configured,
                                             const LinkInfo& link) {
  if (configured != Action::automatic) return {&configured, 1};
  if (isBridgePort(link)) return kForBridgePort;
  return kForOther;
}

bool stands(ErrdisableAction action, const LinkInfo& link) {
  switch (action) {
    case Action::bridgePort:
      return isBridgePort(link) && link.bridgePortState == kStateDisabled;
    case Action::protoDown:
      return link.protoDown.value_or(false);
    case Action::adminDown:
      return !link.adminUp();
    case Action::automatic:
    case Action::monitor:
      return true;
  }
  return true;
}

bool possible(ErrdisableAction action, const LinkInfo& link) {
  return action != Action::bridgePort || isBridgePort(link);
}

std::error_code actionIs(LinkActions& actions, const LinkInfo& link, ErrdisableAction action,
                         bool& ours) {
  if (action == Action::monitor || action == Action::automatic) return {};
  const int ifindex = link.ifindex;
  // Each system call of this thread may be made to work off a part of the storm, which takes
  // hundreds of microseconds. So the kernel is asked first only where the answer protects
  // somebody's word: the administrative state is the operator's, and he may have shut the port a
  // moment ago. protodown keeps a list of who wants it, so that it can be joined.
  const bool askFirst = action == Action::adminDown || stands(action, link);
  if (askFirst && action != Action::protoDown) {
    const auto before = actions.read(ifindex);
    if (before && stands(action, *before)) return {};
  }
  if (const std::error_code error = request(actions, ifindex, action)) return error;
  ours = true;
  const auto after = actions.read(ifindex);
  if (!after) return {ENODEV, std::system_category()};
  return stands(action, *after) ? std::error_code() : notVerified();
}

std::error_code actionDel(LinkActions& actions, int ifindex, ErrdisableAction action) {
  std::error_code error;
  bool excused = false;
  switch (action) {
    case Action::bridgePort:
      error = actions.bridgePortStateIs(ifindex, kStateForwarding);
      excused = error.value() == ENETDOWN || error.value() == EOPNOTSUPP;
      break;
    case Action::protoDown:
      error = actions.protoDownIs(ifindex, false);
      excused = error.value() == EBUSY;
      break;
    case Action::adminDown:
      error = actions.adminUpIs(ifindex, true);
      break;
    case Action::automatic:
    case Action::monitor:
      return {};
  }
  if (excused) return {};
  if (error) return error;
  const auto after = actions.read(ifindex);
  if (!after) return {ENODEV, std::system_category()};
  return stands(action, *after) ? notVerified() : std::error_code();
}

}  // namespace Platform::Linux
