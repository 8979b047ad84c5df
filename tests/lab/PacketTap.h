// SPDX-License-Identifier: Apache-2.0
//
// What the lab's listeners have in common: a packet socket with the kernel's time stamps.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/lab/Lab.h"

namespace RingwardLab {

enum class Keep { kAll, kProbes };

// A raw packet socket on one port of the host, or on all if `port` is empty, which hears from the
// first moment on only what it is to keep. The caller closes it. Throws std::system_error.
int openTap(const Lab& lab, const std::string& host, const std::string& port, Keep keep,
            int receiveBuffer);

// When the kernel met the frame of this message; nothing if the message does not say.
std::optional<Clock::time_point> stampOf(msghdr& message);

// Puts the tag that the kernel has taken out of a frame back to its place.
void putTagBack(std::vector<std::uint8_t>& frame, msghdr& message);

// Has the calling thread run before everything that waits for the processor in the ordinary way:
// what is measured is the agent and not the one who measures. Without the right to it nothing
// happens.
void runFirst();

}  // namespace RingwardLab
