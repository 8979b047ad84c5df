// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/FrameRebuild.h"

#include <linux/if_ether.h>

#include <cstring>

namespace Platform::Linux {
namespace {

constexpr std::size_t kAddressBytes = 2 * ETH_ALEN;

void bigEndian16Is(std::uint8_t* at, std::uint16_t value) {
  at[0] = static_cast<std::uint8_t>(value >> 8);
  at[1] = static_cast<std::uint8_t>(value & 0xFF);
}

}  // namespace

std::span<const std::uint8_t> rebuildFrame(std::span<std::uint8_t> buffer,
                                           const tpacket_auxdata& auxdata) {
  if (buffer.size() < kFrameHeadroom) {
    return {};
  }
  const std::span<std::uint8_t> asRead = buffer.subspan(kFrameHeadroom);
  if ((auxdata.tp_status & TP_STATUS_VLAN_VALID) == 0 || asRead.size() < kAddressBytes) {
    return asRead;
  }
  // Kernels before 3.14 name no type; they removed 802.1Q tags only.
  const bool hasTpid = (auxdata.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
  const std::uint16_t tpid = hasTpid ? auxdata.tp_vlan_tpid : std::uint16_t{ETH_P_8021Q};
  std::memmove(buffer.data(), asRead.data(), kAddressBytes);
  bigEndian16Is(buffer.data() + kAddressBytes, tpid);
  bigEndian16Is(buffer.data() + kAddressBytes + 2, auxdata.tp_vlan_tci);
  return buffer;
}

}  // namespace Platform::Linux
