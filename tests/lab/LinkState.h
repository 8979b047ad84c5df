// SPDX-License-Identifier: Apache-2.0
//
// LinkState: what the kernel says about one network interface, and the netlink socket it is asked
// through. A LinkSocket belongs to the network namespace that its thread was in when it was made
// and stays there. It may be used by one thread at a time.
//
// Netlink is used rather than the files under /sys, because a mounted /sys shows one namespace only
// and the tests look into several at once.
//
// Invariants:
//  1. portState is set exactly for the ports of a bridge.
//  2. Attributes that a message does not carry leave the fields of the caller's LinkState as they
//     were: notifications about bridge ports carry only a part.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace RingwardLab {

using MacAddress = std::array<std::uint8_t, 6>;

// The port states of the Linux bridge (linux/if_bridge.h) that the lab looks at.
inline constexpr int kPortDisabled = 0;
inline constexpr int kPortForwarding = 3;

struct LinkState {
  std::string name;
  int index = 0;
  bool adminUp = false;
  bool running = false;
  bool isBridge = false;
  int master = 0;
  std::optional<int> portState;
  MacAddress address{};
  std::uint64_t rxFrames = 0;
  std::uint64_t txFrames = 0;

  // Taken out of service: by the administrative state, or as a port that its bridge has disabled.
  bool down() const { return !adminUp || portState == kPortDisabled; }
  bool forwarding() const { return adminUp && portState == kPortForwarding; }
};

// One message about a link.
struct LinkMessage {
  int index = 0;
  bool removed = false;
  // From the bridge, about one of its ports: the only kind whose port state is never stale.
  bool fromBridge = false;
  std::vector<std::uint8_t> attributes;
  bool adminUp = false;
  bool running = false;

  void applyTo(LinkState& state) const;
};

class LinkSocket {
 public:
  // `groups`: the RTMGRP_ bits to be told about, 0 for requests only. Throws std::system_error.
  explicit LinkSocket(unsigned groups);
  ~LinkSocket();
  LinkSocket(const LinkSocket&) = delete;
  LinkSocket& operator=(const LinkSocket&) = delete;

  int fd() const { return fd_; }

  // One link by its name; nothing if there is none. REQUIRES: made with groups 0.
  std::optional<LinkState> link(const std::string& name);
  // Asks for every link, as the bridge sees its ports or as the kernel sees its interfaces; the
  // answers come through receive().
  void requestAll(bool fromBridge);
  // Reads what is there, waiting for the first message. Returns false when the kernel had to drop
  // messages (ENOBUFS); `dumpEnded` is set when the last answer to requestAll() was among them.
  bool receive(const std::function<void(const LinkMessage&)>& each, bool* dumpEnded = nullptr);

 private:
  const int fd_;
};

}  // namespace RingwardLab
