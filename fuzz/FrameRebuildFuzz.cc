// SPDX-License-Identifier: Apache-2.0
//
// A received frame with any auxiliary data: the rebuilt frame is the one that a plain copy with the
// tag put in gives, and lies inside the buffer.
//
// The input: four bytes of status, two of the tag's control field, two of its type, the buffer.
#include <linux/if_packet.h>

#include <algorithm>
#include <vector>

#include "fuzz/Input.h"
#include "platform/linux/FrameRebuild.h"

namespace {

// From packet(7), by number: a wrong constant in the code under test is not one here as well.
constexpr std::uint32_t kVlanValid = 0x10;
constexpr std::uint32_t kVlanTpidValid = 0x40;
constexpr std::size_t kAddresses = 12;
constexpr std::size_t kRoom = 4;

std::vector<std::uint8_t> onTheWire(Fuzz::Bytes buffer, const tpacket_auxdata& auxdata) {
  if (buffer.size() < kRoom) return {};
  std::vector<std::uint8_t> frame(buffer.begin() + kRoom, buffer.end());
  if ((auxdata.tp_status & kVlanValid) == 0 || frame.size() < kAddresses) return frame;
  const unsigned type = (auxdata.tp_status & kVlanTpidValid) != 0 ? auxdata.tp_vlan_tpid : 0x8100U;
  const std::uint8_t tag[] = {static_cast<std::uint8_t>(type / 256),
                              static_cast<std::uint8_t>(type % 256),
                              static_cast<std::uint8_t>(auxdata.tp_vlan_tci / 256),
                              static_cast<std::uint8_t>(auxdata.tp_vlan_tci % 256)};
  frame.insert(frame.begin() + kAddresses, std::begin(tag), std::end(tag));
  return frame;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input({data, size});
  tpacket_auxdata auxdata{};
  auxdata.tp_status = input.number<std::uint32_t>();
  auxdata.tp_vlan_tci = input.number<std::uint16_t>();
  auxdata.tp_vlan_tpid = input.number<std::uint16_t>();
  const Fuzz::Bytes asRead = input.takeAll();
  auxdata.tp_len = auxdata.tp_snaplen = static_cast<std::uint32_t>(asRead.size());
  Fuzz::Exactly buffer(asRead);

  const auto frame = Platform::Linux::rebuildFrame(buffer.bytes(), auxdata);

  Fuzz::require(std::ranges::equal(frame, onTheWire(asRead, auxdata)));
  Fuzz::require(frame.empty() ||
                (frame.data() >= buffer.bytes().data() && &frame.back() <= &buffer.bytes().back()));
  return 0;
}
