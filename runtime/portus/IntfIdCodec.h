// SPDX-License-Identifier: Apache-2.0
//
// The arithmetic behind Portus::IntfId: an interface name to a 64-bit value and back. The value's
// big-endian bytes are the identifier. docs/formats.md describes the encoding byte for byte; the
// two change together, and a change breaks the exchange of probes with systems that run the old
// one, and tables on disk.
//
// Pure functions; any thread; nothing is stored. Code outside runtime/portus uses IntfId instead.
//
// Invariants:
//  1. encodeIntfName is a function of the name alone: same name, same value, on every system.
//  2. Packed names never share a value; unpackIntfId gives exactly the name back.
//  3. unpackIntfId accepts only values that encodeIntfName makes: one encoding for each name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/portus/IntfKind.h"

namespace Portus {

enum class IntfIdForm : std::uint8_t {
  packedCommon = 0,     // prefix and up to 10 of the 41 common symbols
  packedPrintable = 1,  // prefix and up to 8 of the 94 printable symbols
  hashed = 2,           // 59 bits of hash; the name cannot be computed from the value
  reserved = 3,
};

struct IntfIdFields {
  IntfKind kind = IntfKind::none;
  IntfIdForm form = IntfIdForm::packedCommon;
  std::uint64_t value = 0;  // all 64 bits, those of kind and form included
};

// REQUIRES: every byte of `name` is printable ASCII (0x21 to 0x7E).
IntfIdFields encodeIntfName(std::string_view name) noexcept;

// The name of a packed value; nothing for hashed values and for values that no name gives.
std::optional<std::string> unpackIntfId(std::uint64_t value);

IntfIdForm intfIdForm(std::uint64_t value) noexcept;

// From the kind bits; `other` for the unassigned number 7, and for 0 in a value that is not 0.
IntfKind intfIdKind(std::uint64_t value) noexcept;

// The text of a value whose name is not known: "intf#" and 16 lower-case hexadecimal digits, and
// back. The parser gives nothing for any text that intfIdEscape does not make.
std::string intfIdEscape(std::uint64_t value);
std::optional<std::uint64_t> intfIdFromEscape(std::string_view text) noexcept;

}  // namespace Portus
