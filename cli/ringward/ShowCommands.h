// SPDX-License-Identifier: Apache-2.0
//
// The command show: what is going on, for people or as JSON. Where no agent listens it tells what
// the tables tell, says so, and raises Failure(noAgent). One thread, not from a turn of the loop.
#pragma once

#include "cli/ringward/Context.h"

namespace RingwardCli {

void show(Context& context);

}  // namespace RingwardCli
