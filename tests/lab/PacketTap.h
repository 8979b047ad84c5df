// SPDX-License-Identifier: Apache-2.0
//
// What the lab's listeners have in common: a packet socket with the kernel's time stamps.
#pragma once

#include <linux/if_packet.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/lab/Lab.h"

namespace RingwardLab {

enum class Keep { kAll, kProbes };

// A raw packet socket on one port of the host, or on all if `port` is empty, which hears from the
// first moment on only what it is to keep. The caller closes it. Throws std::system_error.
int openTap(const Lab& lab, const std::string& host, const std::string& port, Keep keep,
            int receiveBuffer);

// Reads a tap frame by frame; what it says is of the frame read last. One thread.
class TapReader {
 public:
  // False if there was nothing to be read: also when a port has gone down, which a socket says
  // once.
  bool read(int fd);

  int ifindex() const { return from_.sll_ifindex; }
  bool outgoing() const { return from_.sll_pkttype == PACKET_OUTGOING; }
  // When the kernel met the frame.
  Clock::time_point at() const { return at_; }
  // The image on the wire: a tag that the kernel had taken out is back in its place.
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

 private:
  sockaddr_ll from_{};
  Clock::time_point at_;
  std::vector<std::uint8_t> bytes_;
};

// Has the calling thread run before everything that waits for the processor in the ordinary way:
// what is measured is the agent and not the one who measures. Without the right to it nothing
// happens.
void runFirst();

}  // namespace RingwardLab
