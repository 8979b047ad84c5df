// SPDX-License-Identifier: Apache-2.0
//
// Link messages: one that is well-formed is read as what it means, one with an impossible value is
// refused, and any bytes are read or refused, the same wherever they lie in memory and whatever
// stands behind them.
//
// The input: one byte for the form (0, a whole message; 1, one with broken lengths; 2, the
// rest of the input as it is), then decisions or bytes.
#include <cstdint>
#include <tuple>
#include <vector>

#include "fuzz/Input.h"
#include "fuzz/MadeLinkMessage.h"
#include "platform/linux/LinkMessage.h"

namespace {

using Fuzz::require;
using Platform::Linux::LinkMessage;
using Read = std::optional<LinkMessage>;

auto fields(const LinkMessage& m) {
  return std::tie(m.type, m.family, m.ifindex, m.flags, m.changeMask, m.arpType, m.name, m.alias,
                  m.address, m.mtu, m.operState, m.carrier, m.master, m.kind, m.slaveKind,
                  m.protoDown, m.protoDownReasons, m.bridgePortState, m.slaveBridgePortState,
                  m.vlanFiltering, m.vlans);
}

bool same(const Read& a, const Read& b) {
  return a.has_value() == b.has_value() && (!a || fields(*a) == fields(*b));
}

void requireRules(const LinkMessage& message) {
  require(message.ifindex > 0);
  require(!message.name || (!message.name->empty() && message.name->size() <= 15));
  require(!message.alias || message.alias->size() <= 255);
  require(!message.master || *message.master >= 0);
  if (const auto& vlans = message.vlans) {
    require(message.family == 7);  // AF_BRIDGE
    require(vlans->members.any() && !vlans->members[0] && !vlans->members[4095]);
    require((vlans->untagged & ~vlans->members).none());
    require(vlans->pvid == 0 || vlans->members[vlans->pvid]);
  }
}

Read readEverywhere(Fuzz::Bytes bytes) {
  Fuzz::Exactly block(bytes);
  Read read = Platform::Linux::parseLinkMessage(block.bytes());

  std::vector<std::uint8_t> shifted(1);
  shifted.insert(shifted.end(), bytes.begin(), bytes.end());
  require(same(read, Platform::Linux::parseLinkMessage(Fuzz::Bytes(shifted).subspan(1))));

  std::uint32_t length = 0;
  if (bytes.size() >= sizeof(length)) std::memcpy(&length, bytes.data(), sizeof(length));
  if (length <= bytes.size()) {
    Fuzz::Exactly message(bytes.first(length));
    require(same(read, Platform::Linux::parseLinkMessage(message.bytes())));
  }
  if (read) requireRules(*read);
  return read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input({data, size});
  const std::size_t form = input.below(3);
  if (form == 2) {
    readEverywhere(input.takeAll());
    return 0;
  }
  Fuzz::MadeLinkMessage made(input);
  if (form == 1) {
    made.breakLengths(input);
    readEverywhere(made.bytes());
    return 0;
  }
  require(same(readEverywhere(made.bytes()), made.wellFormed() ? Read(made.meaning()) : Read()));
  return 0;
}
