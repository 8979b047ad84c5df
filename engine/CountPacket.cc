// SPDX-License-Identifier: Apache-2.0
#include "engine/CountPacket.h"

namespace Ringward {

namespace {

// A record with the count of `kind` one above that of `before` and zeros elsewhere.
template <class Record>
Record counted(CounterKind kind, const Record& before, const decltype(Record::key)& key) {
  Record record;
  record.key = key;
  switch (kind) {
    case CounterKind::tx:
      record.tx = before.tx + 1;
      break;
    case CounterKind::rx:
      record.rx = before.rx + 1;
      break;
    case CounterKind::rxOther:
      record.rxOther = before.rxOther + 1;
      break;
  }
  return record;
}

}  // namespace

void countPacket(CounterKind kind, const Portus::IntfId& intfId, Bridging::VlanIdOrNone vlanId,
                 Status::PacketCounter& packetCounter) {
  const auto intf = counted(kind, packetCounter.counterIntf(intfId), intfId);
  const auto vlan = counted(kind, packetCounter.counterVlan(vlanId), vlanId);
  packetCounter.counterIntfIs(intf);
  packetCounter.counterVlanIs(vlan);
}

}  // namespace Ringward
