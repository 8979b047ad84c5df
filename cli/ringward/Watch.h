// SPDX-License-Identifier: Apache-2.0
//
// The command watch: follows the agent's entities by their attribute log and prints each change
// below the paths, one line each, until SIGINT, SIGTERM or SIGHUP, or until the agent goes. One
// thread, not from a turn of the loop.
#pragma once

#include "cli/ringward/Context.h"

namespace RingwardCli {

// Raises Failure.
void watch(Context& context);

}  // namespace RingwardCli
