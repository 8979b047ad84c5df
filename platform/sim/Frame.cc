// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/Frame.h"

#include "runtime/portus/EthHdr.h"

namespace Platform::Sim {

using Portus::Eth8021QHdr;
using Portus::EthHdr;

namespace {

constexpr std::uint16_t kProbeType = 0x88B7;
constexpr std::uint16_t kExperimentalType = 0x88B5;
constexpr std::size_t kSmallestFrame = 60;
constexpr std::size_t kAddressesEnd = 12;

const EthHdr* headerOf(Bytes frame) {
  return frame.size() >= EthHdr::kSize ? EthHdr::at(frame.data()) : nullptr;
}

const Eth8021QHdr* tagHeaderOf(Bytes frame) {
  const EthHdr* header = headerOf(frame);
  if (header == nullptr || header->typeOrLen() != Portus::kEtherType8021Q) return nullptr;
  if (frame.size() < EthHdr::kSize + Eth8021QHdr::kSize) return nullptr;
  return Eth8021QHdr::at(frame.data() + EthHdr::kSize);
}

}  // namespace

Portus::EthAddr sourceOf(Bytes frame) {
  const EthHdr* header = headerOf(frame);
  return header != nullptr ? header->src() : Portus::EthAddr();
}

Portus::EthAddr destinationOf(Bytes frame) {
  const EthHdr* header = headerOf(frame);
  return header != nullptr ? header->dst() : Portus::EthAddr();
}

std::optional<std::uint16_t> tagOf(Bytes frame) {
  const Eth8021QHdr* tag = tagHeaderOf(frame);
  if (tag == nullptr) return std::nullopt;
  return static_cast<std::uint16_t>(tag->tagControl() & Eth8021QHdr::kVlanMask);
}

bool isProbe(Bytes frame) {
  if (const Eth8021QHdr* tag = tagHeaderOf(frame)) return tag->typeOrLen() == kProbeType;
  const EthHdr* header = headerOf(frame);
  return header != nullptr && header->typeOrLen() == kProbeType;
}

Frame withTag(Bytes frame, std::uint16_t vlan) {
  Frame result(frame.begin(), frame.end());
  if (headerOf(frame) == nullptr) return result;
  const Eth8021QHdr* present = tagHeaderOf(frame);
  const std::uint16_t priority =
      present != nullptr
          ? static_cast<std::uint16_t>(present->tagControl() & ~Eth8021QHdr::kVlanMask)
          : std::uint16_t{0};
  if (present == nullptr) {
    result.insert(result.begin() + kAddressesEnd, Eth8021QHdr::kSize, std::uint8_t{0});
    EthHdr::at(result.data())->typeOrLenIs(Portus::kEtherType8021Q);
    // The frame's own type now stands behind the tag, where the tag's header has its type.
  }
  Eth8021QHdr::at(result.data() + EthHdr::kSize)
      ->tagControlIs(static_cast<std::uint16_t>(priority | (vlan & Eth8021QHdr::kVlanMask)));
  return result;
}

Frame withoutTag(Bytes frame) {
  Frame result(frame.begin(), frame.end());
  if (tagHeaderOf(frame) == nullptr) return result;
  const auto begin = result.begin() + kAddressesEnd;
  result.erase(begin, begin + Eth8021QHdr::kSize);
  return result;
}

Frame broadcastFrame(const Portus::EthAddr& source, Bridging::VlanIdOrNone vlan) {
  Frame frame(kSmallestFrame);
  EthHdr* header = EthHdr::at(frame.data());
  header->dstIs(Portus::EthAddr::broadcast());
  header->srcIs(source);
  header->typeOrLenIs(kExperimentalType);
  return vlan ? withTag(frame, vlan.value()) : frame;
}

std::string toHex(Bytes bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace Platform::Sim
