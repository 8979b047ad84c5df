// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::LinkControl: changes and reads single links, one rtnetlink(7) request at a time.
//
// Blocking, but bounded: each call waits for the kernel's answer at most kTimeoutMs (the kernel
// answers within the system call; measured 25 us to 4 ms). One thread at a time. The namespace is
// that of the thread that calls open(). Changes need CAP_NET_ADMIN. Invariants:
//   1. Nothing here throws for what the kernel says: errors are returned as the kernel's errno.
//   2. Only the answer to the request just sent counts; a late answer to an earlier one is skipped.
//   3. A change that is acknowledged has been made. It outlives the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <system_error>
#include <vector>

#include "platform/linux/Fd.h"
#include "platform/linux/LinkTable.h"

struct nlmsghdr;  // linux/netlink.h

namespace Platform::Linux {

class LinkControl {
 public:
  static constexpr int kTimeoutMs = 1000;

  LinkControl() = default;
  LinkControl(const LinkControl&) = delete;
  LinkControl& operator=(const LinkControl&) = delete;

  // Errors of socket(2) and bind(2). Open already: opens anew.
  std::error_code open();

  // Sets or clears IFF_UP. Setting what is set already is no error, and nobody is told of it.
  // ENODEV: no such link; EPERM: not allowed; EAGAIN: no answer in time; EBADF: not open.
  std::error_code adminUpIs(int ifindex, bool up);

  // `state` is BR_STATE_* (linux/if_bridge.h): 0 disabled, 3 forwarding. Besides the above:
  // EOPNOTSUPP: not a port of a bridge; EBUSY: the kernel's own spanning tree runs the port;
  // ENETDOWN: the link is down, or has no carrier and the state is not 0; EINVAL: no such state.
  std::error_code bridgePortStateIs(int ifindex, std::uint8_t state);

  // Holds the link down for a protocol, for the reason with this number (0..31), or lets go of that
  // reason and, when it was the last, of the link. EOPNOTSUPP: the driver cannot; EBUSY: let go of,
  // but others still hold the link down; EINVAL: no such number.
  std::error_code protoDownIs(int ifindex, bool down, unsigned reasonBit);

  // The link as it is now, with the state of its bridge port but without VLANs. Empty: no such
  // link, or no answer; `error`, if given, tells which.
  std::optional<LinkInfo> read(int ifindex, std::error_code* error = nullptr);

 private:
  using Answer = std::function<void(const nlmsghdr&)>;
  std::error_code request(nlmsghdr& header, const Answer& answer);

  Fd socket_;
  std::uint32_t portId_ = 0;
  std::uint32_t sequence_ = 0;
  std::vector<std::uint8_t> buffer_;
};

}  // namespace Platform::Linux
