// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Machine.h"

namespace Vex {

namespace {
TraceHandle reactorTrace("Vex", false);
}  // namespace

void traceNotificationException(std::string_view machine, AttributeId id) {
  trace(reactorTrace, 7, [&](std::ostream& os) {
    os << "a reactor of " << machine << " raised on attribute " << id;
    try {
      if (std::current_exception()) throw;
    } catch (const std::exception& e) {
      os << ": " << e.what();
    } catch (...) {
      os << ": an exception of an unknown class";
    }
  });
}

}  // namespace Vex
