// SPDX-License-Identifier: Apache-2.0
#include "engine/EngineTrace.h"

namespace Ringward {

Vex::TraceHandle ringwardSmTrace("RingwardSm", false);

}  // namespace Ringward
