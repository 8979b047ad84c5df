// SPDX-License-Identifier: Apache-2.0
//
// Fuzz::LinkSource: what a fuzz input says that the kernel tells: datagrams of link messages, and
// the beginnings and ends of dumps. Fills a link table the way that the link monitor does.
//
// One thread. The table is the caller's and outlives the source; so does the input.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "fuzz/Input.h"
#include "platform/linux/LinkMessage.h"
#include "platform/linux/LinkTable.h"

namespace Fuzz {

class LinkSource {
 public:
  using Change = Platform::Linux::LinkTable::Change;

  // Whoever looks at the table; each is called with the table already changed.
  struct Observer {
    std::function<void(const Platform::Linux::LinkMessage&, const std::optional<Change>&)> message;
    std::function<void(std::uint8_t family)> dumpBegun;
    // One link that a dump has not named, and empty at the end.
    std::function<void(std::uint8_t family, const std::optional<Change>&)> unseen;
  };

  LinkSource(Input& input, Platform::Linux::LinkTable& table, Observer observer)
      : input_(input), table_(table), observer_(std::move(observer)) {}

  // Takes one step of the input.
  void step();

 private:
  void datagram(Bytes bytes);
  void dumpBegin();
  void sweep();

  Input& input_;
  Platform::Linux::LinkTable& table_;
  const Observer observer_;
};

}  // namespace Fuzz
