// SPDX-License-Identifier: Apache-2.0
//
// The commands that go straight to a path: get, set, del, ls, call. Each raises Failure. One
// thread, not from a turn of the loop.
#pragma once

#include "cli/ringward/Context.h"

namespace RingwardCli {

void getValue(Context& context);
void setValue(Context& context);
void delElement(Context& context);
void listNodes(Context& context);
void callFunction(Context& context);

}  // namespace RingwardCli
