// SPDX-License-Identifier: Apache-2.0
//
// The trace handle that all machines of the engine share.
#pragma once

#include "runtime/vex/Trace.h"

namespace Ringward {

extern Vex::TraceHandle ringwardSmTrace;

// Traces the entry of a handler, level 8.
template <class... Args>
void traceHandler(std::string_view name, const Args&... args) {
  Vex::trace(ringwardSmTrace, 8, [&](std::ostream& os) {
    os << name;
    ((os << ' ' << args), ...);
  });
}

}  // namespace Ringward
