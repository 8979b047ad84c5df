// SPDX-License-Identifier: Apache-2.0
#include "engine/EngineLogs.h"

namespace Ringward {

const Vex::LogHandle RINGWARD_RX_OTHER("RINGWARD_RX_OTHER", Vex::LogSeverity::informational,
                                       "Received a malformed Ringward packet on interface %s",
                                       "This may be caused by other switches on the network using "
                                       "ether type 0x88B7, but the source mac "
                                       "for the packet matched this switch.",
                                       Vex::NoActionRequired, 0.0, 1.0, 0);

const Vex::LogHandle RINGWARD_INTF_UP(
    "RINGWARD_INTF_UP", Vex::LogSeverity::informational,
    "Bringing interface %s back up after a loop was detected",
    "Ringward is configured to bring an interface back up after a period of time has elapsed.",
    Vex::NoActionRequired, 0.0, 1.0, 0);

const Vex::LogHandle RINGWARD_THROTTLE(
    "RINGWARD_THROTTLE", Vex::LogSeverity::warning,
    "Too many Ringward packet transmits in a second. Throttling.",
    "Ringward is configured to rate-limit the number of packets sent per second and this limit was "
    "reached.",
    Vex::NoActionRequired, 0.0, 1.0, 0);

}  // namespace Ringward
