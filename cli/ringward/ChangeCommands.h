// SPDX-License-Identifier: Apache-2.0
//
// The commands that change what the agent does: enable, disable, clear counters, vlan, exclude.
// Each raises Failure. One thread, not from a turn of the loop.
#pragma once

#include "cli/ringward/Context.h"

namespace RingwardCli {

void enable(Context& context);
void disable(Context& context);
void clearCounters(Context& context);
void addVlans(Context& context);
void delVlans(Context& context);
void addExclude(Context& context);
void delExclude(Context& context);

}  // namespace RingwardCli
