// SPDX-License-Identifier: Apache-2.0
//
// The log entries of the engine.
#pragma once

#include "runtime/vex/LogService.h"

namespace Ringward {

extern const Vex::LogHandle RINGWARD_RX_OTHER;  // argument: the receiving interface
extern const Vex::LogHandle RINGWARD_INTF_UP;   // argument: the interface
extern const Vex::LogHandle RINGWARD_THROTTLE;  // no argument

}  // namespace Ringward
