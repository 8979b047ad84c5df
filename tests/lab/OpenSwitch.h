// SPDX-License-Identifier: Apache-2.0
//
// OpenSwitch: an Open vSwitch on one host of the lab, with its datapath in user space, so that it
// needs nothing of the kernel but packet sockets. Its daemons run as processes of the lab and its
// files are in the host's own directory.
//
// Unless it is told otherwise it forwards like any switch, except that it keeps spanning tree's
// frames to itself, as cheap switches do.
#pragma once

#include <string>
#include <vector>

#include "tests/lab/Process.h"

namespace RingwardLab {

class OpenSwitch {
 public:
  // Why there can be none here; empty if there can.
  static std::string missing();

  // A bridge with these ports of the host, forwarding when this returns. `options` are further
  // words for the command that makes it ("-- set bridge fbr rstp_enable=true"). Throws
  // std::runtime_error with what the daemons wrote.
  OpenSwitch(const Lab& lab, const std::string& host, std::string bridge,
             const std::vector<std::string>& ports, const std::string& options = "");
  OpenSwitch(const OpenSwitch&) = delete;
  OpenSwitch& operator=(const OpenSwitch&) = delete;

  // Words of ovs-vsctl(8), divided by single spaces.
  std::string configure(const std::string& words) const;
  // A flow of ovs-ofctl(8), without spaces.
  void flow(const std::string& flow) const;
  const std::string& bridge() const { return bridge_; }

 private:
  const std::string directory_;
  const std::string bridge_;
  Process database_;
  Process daemon_;
};

}  // namespace RingwardLab
