// SPDX-License-Identifier: Apache-2.0
//
// Fuzz::MadeLinkMessage: a link message of rtnetlink(7) that a fuzz input decides: header,
// ifinfomsg and attributes as the kernel arranges them, each in any order and with values that
// collide often. What it means is written down beside the bytes while they are made.
//
// The bytes are laid out by hand: the code under test uses libmnl, so that is not asked here.
//
// One thread. Invariants:
//   1. While wellFormed() holds, the bytes are a message that must be read as `meaning`. Before
//      breakLengths() is called, a message for which it does not hold must be refused.
//   2. Each known attribute stands in it once at most, so that `meaning` is the whole of it.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "fuzz/Input.h"
#include "platform/linux/LinkMessage.h"

namespace Fuzz {

class MadeLinkMessage {
 public:
  explicit MadeLinkMessage(Input& input);

  const std::vector<std::uint8_t>& bytes() const noexcept { return bytes_; }
  const Platform::Linux::LinkMessage& meaning() const noexcept { return meaning_; }

  bool wellFormed() const noexcept { return wellFormed_; }

  // Overwrites a few 16-bit numbers, lengths and types mostly. What it is then is not known.
  void breakLengths(Input& input);

 private:
  void attributeIs(unsigned which, Input& input);
  void linkInfoIs(Input& input);
  void vlansIs(Input& input);
  void protoDownIs(Input& input);

  void put16(std::uint16_t value);
  void put32(std::uint32_t value);
  void attribute(std::uint16_t type, Bytes payload);
  void attribute8(std::uint16_t type, std::uint8_t value);
  void attribute32(std::uint16_t type, std::uint32_t value);
  void text(std::uint16_t type, std::string_view value);
  // Returns where the nest begins, which nestEnd() wants to know.
  std::size_t nestBegin(std::uint16_t type, bool marked);
  void nestEnd(std::size_t begin);

  std::vector<std::uint8_t> bytes_;
  Platform::Linux::LinkMessage meaning_;
  bool wellFormed_ = false;
};

}  // namespace Fuzz
