// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a received frame, whole, in two fragments, and read from its second fragment: the
// answer is that of a plain reader of docs/formats.md, which is given the bytes and the length of
// the fragment. So a cut in front of the payload's end gives no probe, and behind it changes
// nothing. What is accepted is also read back after writing it anew.
//
// The input: two bytes for the native VLAN, two for the length of the first fragment, the frame.
#include <algorithm>
#include <optional>

#include "engine/ProbeFrame.h"
#include "fuzz/Input.h"
#include "runtime/portus/Pkt.h"
#include "runtime/vex/Exception.h"

namespace {

using Bridging::VlanIdOrNone;
using Fuzz::require;
using Ringward::PacketEncapsulation;

// Empty: refused with the range exception.
using Answer = std::optional<PacketEncapsulation>;

constexpr std::uint8_t kPayloadHead[] = {0x0A, 0x1B, 0x2C, 0x00, 0x03, 0x01};
constexpr std::size_t kPayloadSize = sizeof(kPayloadHead) + Portus::IntfId::kSize;

class PlainReader {
 public:
  // The first `available` bytes lie in the current fragment.
  PlainReader(Fuzz::Bytes frame, std::size_t available) : frame_(frame), available_(available) {}

  Answer answer(VlanIdOrNone nativeVlan) const {
    PacketEncapsulation result;
    if (frame_.size() < 28 || available_ < 14) return result;
    std::size_t payload = 14;
    if (isTagAt(12)) {
      if (available_ < 18) return result;
      const unsigned vlan = numberAt(14) & 0x0FFFU;
      if (vlan == 0x0FFF) return std::nullopt;
      result.vlanId = VlanIdOrNone(vlan);
      payload = payloadBehindTag();
    } else if (numberAt(12) == 0x88B7) {
      result.vlanId = nativeVlan;
    }
    if (available_ < payload + kPayloadSize) return result;
    const Fuzz::Bytes at = frame_.subspan(payload, kPayloadSize);
    if (!std::equal(std::begin(kPayloadHead), std::end(kPayloadHead), at.begin())) return result;
    Portus::EthAddr::Bytes source{};
    std::copy_n(frame_.begin() + 6, source.size(), source.begin());
    result.mac = Portus::EthAddr(source);
    result.senderIntfId = Portus::IntfId::fromBytes(at.last<Portus::IntfId::kSize>());
    return result;
  }

 private:
  unsigned numberAt(std::size_t at) const { return frame_[at] * 256U + frame_[at + 1]; }
  bool isTagAt(std::size_t at) const {
    if (at + 2 > available_) return false;
    return numberAt(at) == 0x8100 || numberAt(at) == 0x9100;
  }
  // The type of a second tag is looked for where it is, that of each further one two bytes too far.
  std::size_t payloadBehindTag() const {
    if (frame_.size() <= 22 || !isTagAt(16)) return 18;
    std::size_t payload = 22;
    while (payload + 4 < frame_.size() && isTagAt(payload + 2)) payload += 4;
    return payload;
  }

  Fuzz::Bytes frame_;
  std::size_t available_;
};

Answer read(const Portus::Pkt& pkt, VlanIdOrNone nativeVlan) {
  try {
    return Ringward::readProbe(pkt, nativeVlan);
  } catch (const Vex::RangeException&) {
    return std::nullopt;
  }
}

void requireReadsBack(const PacketEncapsulation& probe, VlanIdOrNone nativeVlan) {
  const auto pkt = Portus::globalPktManager()->newPkt();
  Ringward::writeProbe(*pkt, probe, nativeVlan);
  require(Ringward::readProbe(*pkt, nativeVlan) == probe);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input({data, size});
  const VlanIdOrNone nativeVlan(input.number<std::uint16_t>() % (Bridging::kMaxVlanId + 1U));
  const std::size_t wanted = input.number<std::uint16_t>();
  const Fuzz::Bytes frame = input.takeAll();
  if (frame.size() > Portus::Pkt::kMaxLength) return 0;
  const std::size_t cut = frame.empty() ? 0 : wanted % (frame.size() + 1);
  const auto pkt = Portus::globalPktManager()->newPkt();

  pkt->bytesIs(frame);
  const Answer whole = read(*pkt, nativeVlan);
  require(whole == PlainReader(frame, frame.size()).answer(nativeVlan));

  pkt->bytesIs(frame.first(cut), frame.subspan(cut));
  const std::size_t available = cut == 0 ? frame.size() : cut;
  require(read(*pkt, nativeVlan) == PlainReader(frame, available).answer(nativeVlan));
  if (pkt->fragments() == 2) {
    pkt->currentFragmentIs(1);
    const Fuzz::Bytes second = frame.subspan(cut);
    require(read(*pkt, nativeVlan) == PlainReader(second, second.size()).answer(nativeVlan));
  }

  if (whole && whole->mac != Portus::EthAddr()) requireReadsBack(*whole, nativeVlan);
  return 0;
}
