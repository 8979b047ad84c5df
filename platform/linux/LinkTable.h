// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::LinkTable: all links of one network namespace as told by link messages, and what
// each further message changes in it.
//
// Pure data, no system call; used by one thread at a time. The table owns the links; a pointer into
// it is good until the next non-const call. Invariants:
//   1. A link is known by its index alone; a name may move from one index to another at any time.
//   2. Only a message of family AF_UNSPEC makes or deletes a link. AF_BRIDGE messages tell what a
//      bridge knows of its port, and an AF_BRIDGE deletion says that the port left the bridge. All
//      other families are ignored.
//   3. A message that changes nothing that LinkInfo holds is no change, whatever its change mask
//   says;
//      a change may come with a change mask of 0.
//   4. Repeating a full dump into the table between `dumpBegin` and `unseenDel` leaves exactly what
//      the kernel has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/linux/LinkMessage.h"
#include "runtime/portus/EthAddr.h"

namespace Platform::Linux {

struct LinkInfo {
  int ifindex = 0;
  std::string name;
  std::string alias;
  unsigned flags = 0;  // IFF_* with IFF_UP and IFF_LOWER_UP
  bool carrier = false;
  std::uint8_t operState = 0;  // IF_OPER_*, RFC 2863
  unsigned short arpType = 0;  // ARPHRD_*
  unsigned mtu = 0;            // bytes
  Portus::EthAddr address;     // zero: none of 6 bytes
  int master = 0;              // 0: none
  std::string kind;            // empty for a physical device
  std::string slaveKind;       // kind of the master, empty without one

  // Held down for a protocol (empty: the kernel does not say), and a bit for each that wants it so.
  std::optional<bool> protoDown;
  std::uint32_t protoDownReasons = 0;

  // Of a port of a bridge: BR_STATE_*; empty for everything else.
  std::optional<std::uint8_t> bridgePortState;

  // Of a bridge device: whether it looks at VLAN tags at all. Where it does not, a port carries all
  // VLANs and `vlans` has no meaning; where it does, empty `vlans` means none.
  std::optional<bool> vlanFiltering;
  std::optional<BridgeVlans> vlans;

  bool adminUp() const;  // IFF_UP

  bool operator==(const LinkInfo&) const = default;
};

// What the link is once `message` has been heard; `before` is null for an unknown index. Empty:
// there is no such link (any more).
std::optional<LinkInfo> linkAfter(const LinkInfo* before, const LinkMessage& message);

class LinkTable {
 public:
  struct Change {
    const LinkInfo* now = nullptr;   // null: the link is gone
    std::optional<LinkInfo> before;  // empty: the link is new
  };

  // Empty: nothing changed.
  std::optional<Change> messageIs(const LinkMessage& message);

  const LinkInfo* link(int ifindex) const;  // null: unknown
  const std::map<int, LinkInfo>& links() const { return links_; }

  // From here on the table remembers which links messages of `family` name. AF_UNSPEC or AF_BRIDGE.
  void dumpBegin(std::uint8_t family);

  // After a whole dump of the family, called until it gives empty: each call takes out one link
  // that nothing named since dumpBegin (AF_UNSPEC), or drops the bridge port data of one
  // (AF_BRIDGE). All of these calls together cost one walk of the table.
  std::optional<Change> unseenDel(std::uint8_t family);

 private:
  void seenIs(const LinkMessage& message);
  std::optional<Change> linkIs(std::map<int, LinkInfo>::iterator it, std::optional<LinkInfo> after);

  std::map<int, LinkInfo> links_;
  std::set<int> seenLinks_;
  std::set<int> seenPorts_;
  int sweptTo_ = 0;  // unseenDel() is done with the links up to this index
};

}  // namespace Platform::Linux
