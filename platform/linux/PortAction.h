// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux: the ways to take a port out of service and to put it back, each a pure step on
// the kernel: ask, do, read back. Which of them is used when, and how often it is tried, is
// Errdisable's business. Activity thread only.
//
// Invariants:
//  1. An action that is reported as made was seen in the kernel afterwards.
//  2. Nothing here undoes what it did not do: `ours` says so, and goes from the making to the
//     undoing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>

#include "platform/linux/LinkTable.h"

namespace Platform::Linux {

enum class ErrdisableAction : std::uint8_t {
  automatic,   // the first of the others that works for the port's kind
  bridgePort,  // the port's state in its kernel bridge: disabled
  protoDown,   // the carrier is taken away on behalf of a protocol (IFLA_PROTO_DOWN)
  adminDown,   // the interface is shut
  monitor      // nothing
};

// The word of an action as operators write it: "auto", "bridge-port", "protodown", "admin-down",
// "monitor"; and back.
std::string_view errdisableActionName(ErrdisableAction action);
std::optional<ErrdisableAction> errdisableActionOf(std::string_view name);

// The bit of IFLA_PROTO_DOWN_REASON that says "held by Ringward". The kernel gives the 32 bits no
// meaning; packaging/protodown_reasons.d names this one for ip(8).
inline constexpr unsigned kProtoDownReasonBit = 11;

// What the actions do to the kernel; LinkControl in service, something else in a test.
class LinkActions {
 public:
  virtual std::error_code adminUpIs(int ifindex, bool up) = 0;
  virtual std::error_code bridgePortStateIs(int ifindex, std::uint8_t state) = 0;
  // With kProtoDownReasonBit. EBUSY when it is to end and others hold the link down as well.
  virtual std::error_code protoDownIs(int ifindex, bool down) = 0;
  // The link as it is now; empty: there is none, or no answer.
  virtual std::optional<LinkInfo> read(int ifindex) = 0;

 protected:
  ~LinkActions() = default;
};

// The actions to be tried on a link, best first: `configured` alone, or what automatic means for a
// link of this kind.
//   a port of a kernel bridge   bridge-port, protodown, admin-down
//   any other link              protodown, admin-down
// bridge-port comes first because frames are still read on the port and its neighbour sees nothing.
// With protodown and admin-down the link goes down, but only admin-down uses the flag that is the
// operator's. A port of Open vSwitch obeys the last two, whichever datapath it has.
std::span<const ErrdisableAction> actionsFor(const ErrdisableAction& configured,
                                             const LinkInfo& link);

// Whether the link is out of service in this way.
bool stands(ErrdisableAction action, const LinkInfo& link);

// Whether the link can be taken out of service in this way at all.
bool possible(ErrdisableAction action, const LinkInfo& link);

// Makes the action and reads it back. `link` is what is known of the link so far. `ours` becomes
// true as soon as the kernel has taken a request for it, and is left alone when the port is out of
// service in this way already. Errors: those of the kernel; "not verified" when the kernel took the
// request and the state is another all the same.
std::error_code actionIs(LinkActions& actions, const LinkInfo& link, ErrdisableAction action,
                         bool& ours);

// Undoes an action that is ours. That others hold the link down as well, that the port has left its
// bridge, or that its link is down and the kernel will let it forward when it comes, is no error;
// that the link is gone (ENODEV) is one.
std::error_code actionDel(LinkActions& actions, int ifindex, ErrdisableAction action);

}  // namespace Platform::Linux
