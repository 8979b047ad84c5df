// SPDX-License-Identifier: Apache-2.0
//
// Who a client of the control socket is and what it may do: the operator root, whoever the agent
// runs as and the members of one group change what is writable, everybody else reads.
//
// The kernel answers both questions from what the client's process was when it connected
// (SO_PEERCRED, SO_PEERGROUPS, unix(7)). Asking the user database for the groups of a user, as
// getgrouplist(3) does, may ask a server on the network, and the loop would wait for it; the price
// is the usual one, that a membership counts from the next login on.
//
// Activity thread only.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

namespace Agent {

struct Credentials {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // supplementary
};

// The seam for tests.
class Rights {
 public:
  virtual ~Rights() = default;
  // Nothing if the kernel does not tell.
  virtual std::optional<Credentials> peer(int fd) const = 0;
  virtual bool mayWrite(const Credentials& who) const = 0;
  // Why it may not, for the one who asked: "user 1000 is neither root nor in the group ringward".
  virtual std::string reason(const Credentials& who) const = 0;
};

class SystemRights final : public Rights {
 public:
  // Looks the group up, once; one that does not exist has no members. `own` is the user that the
  // agent runs as.
  explicit SystemRights(std::string group, uid_t own = geteuid());

  std::optional<Credentials> peer(int fd) const override;
  bool mayWrite(const Credentials& who) const override;
  std::string reason(const Credentials& who) const override;

 private:
  std::string group_;
  uid_t own_;
  std::optional<gid_t> gid_;
};

}  // namespace Agent
