// SPDX-License-Identifier: Apache-2.0
#include "model/status/PacketCounter.h"

namespace Ringward::Status {

CounterIntf PacketCounter::counterIntfDel(const Portus::IntfId& key) {
  const CounterIntf gone = counterIntf(key);
  counterIntf_.valueDel(key);
  return gone;
}

CounterVlan PacketCounter::counterVlanDel(const Bridging::VlanIdOrNone& key) {
  const CounterVlan gone = counterVlan(key);
  counterVlan_.valueDel(key);
  return gone;
}

void PacketCounter::counterIntfDelAll() {
  for (auto it = counterIntf_.iteratorConst(); it; ++it) counterIntf_.valueDel(it.key());
}

void PacketCounter::counterVlanDelAll() {
  for (auto it = counterVlan_.iteratorConst(); it; ++it) counterVlan_.valueDel(it.key());
}

}  // namespace Ringward::Status
