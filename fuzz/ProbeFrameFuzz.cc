// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a received frame, in one fragment or in two: the reader returns, or refuses a VLAN
// number with the range exception. Anything else that is raised ends the process, which the fuzzer
// reports. What it accepts it must also read back after writing it anew.
//
// The input: two bytes for the native VLAN, two for the length of the first fragment, the frame.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "engine/ProbeFrame.h"
#include "runtime/portus/Pkt.h"
#include "runtime/vex/Exception.h"

namespace {

constexpr std::size_t kHead = 4;

std::size_t numberAt(const std::uint8_t* data) { return std::size_t{data[0]} << 8 | data[1]; }

void readBack(const Ringward::PacketEncapsulation& probe, Bridging::VlanIdOrNone nativeVlan) {
  const auto pkt = Portus::globalPktManager()->newPkt();
  Ringward::writeProbe(*pkt, probe, nativeVlan);
  if (Ringward::readProbe(*pkt, nativeVlan) != probe) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHead || size - kHead > Portus::Pkt::kMaxLength) return 0;
  const std::span<const std::uint8_t> frame(data + kHead, size - kHead);
  const Bridging::VlanIdOrNone nativeVlan(numberAt(data) % (Bridging::kMaxVlanId + 1U));
  const std::size_t split = std::min(numberAt(data + 2), frame.size());
  const auto pkt = Portus::globalPktManager()->newPkt();
  pkt->bytesIs(frame.first(split), frame.subspan(split));
  try {
    const Ringward::PacketEncapsulation probe = Ringward::readProbe(*pkt, nativeVlan);
    if (probe.mac != Portus::EthAddr()) readBack(probe, nativeVlan);
  } catch (const Vex::RangeException&) {  // a tag with VLAN 4095
  }
  return 0;
}
