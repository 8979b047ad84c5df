// SPDX-License-Identifier: Apache-2.0
//
// RingwardCli::run: one run of ringward, from its arguments to its exit status. main() adds nothing
// but the loop.
#pragma once

#include <ostream>

#include "cli/ringward/AgentLink.h"
#include "runtime/vex/EpollActivityManager.h"

namespace RingwardCli {

// Turns `loop` while it waits for the agent; whatever else is on the loop goes on meanwhile. Raises
// nothing that the command line, the agent or a table can cause. One thread, not from a turn of the
// loop; the streams stay the caller's. `patience`: seconds that an agent may be silent for.
int run(int argc, const char* const* argv, Vex::EpollActivityManager& loop, std::ostream& out,
        std::ostream& err, double patience = AgentLink::kPatience);

}  // namespace RingwardCli
