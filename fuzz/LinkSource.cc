// SPDX-License-Identifier: Apache-2.0
#include "fuzz/LinkSource.h"

#include <sys/socket.h>

#include "fuzz/MadeLinkMessage.h"

namespace Fuzz {

void LinkSource::step() {
  const std::uint8_t what = input_.byte();
  switch (what % 16) {
    case 15:
      return datagram(input_.take(input_.byte()));
    case 14:
      return dumpBegin();
    case 13:
      return sweep();
    default:
      break;
  }
  // One datagram of up to four messages, the last of which may be broken.
  std::vector<std::uint8_t> bytes;
  const int count = what / 16 % 4 + 1;
  for (int i = 0; i < count; ++i) {
    MadeLinkMessage made(input_);
    if (i + 1 == count && what / 64 == 3) made.breakLengths(input_);
    bytes.insert(bytes.end(), made.bytes().begin(), made.bytes().end());
  }
  datagram(bytes);
}

void LinkSource::datagram(Bytes bytes) {
  Exactly block(bytes);
  for (Bytes rest = block.bytes(); !rest.empty();) {
    const std::size_t size = Platform::Linux::netlinkMessageSize(rest);
    if (size == 0) return;
    require(size <= rest.size());
    if (const auto message = Platform::Linux::parseLinkMessage(rest.first(size))) {
      observer_.message(*message, table_.messageIs(*message));
    }
    rest = rest.subspan(std::min(rest.size(), Platform::Linux::netlinkAligned(size)));
  }
}

void LinkSource::dumpBegin() {
  const std::uint8_t family = input_.flag() ? AF_BRIDGE : AF_UNSPEC;
  table_.dumpBegin(family);
  observer_.dumpBegun(family);
}

void LinkSource::sweep() {
  const std::uint8_t family = input_.flag() ? AF_BRIDGE : AF_UNSPEC;
  const std::size_t most = table_.links().size();
  for (std::size_t taken = 0;; ++taken) {
    const auto change = table_.unseenDel(family);
    observer_.unseen(family, change);
    if (!change) return;
    require(taken < most);
  }
}

}  // namespace Fuzz
