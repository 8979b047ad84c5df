// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfIdCodec.h"

#include <algorithm>
#include <array>

#include "runtime/portus/Mix.h"

namespace Portus {
namespace {

constexpr unsigned kKindShift = 61;
constexpr unsigned kFormShift = 59;
constexpr unsigned kPrefixShift = 55;
constexpr std::uint64_t kPackedMask = (std::uint64_t{1} << kPrefixShift) - 1;
constexpr std::uint64_t kHashMask = (std::uint64_t{1} << kFormShift) - 1;

// A prefix earns its place by names that would not pack without it. "lan", "vlan" and the like are
// absent because their usual names are at most ten symbols as they stand. The index is on the wire:
// never reorder.
constexpr std::array<std::string_view, 16> kPrefixes = {
    "",        "eth",      "swp",      "enp",          "enP",
    "ens",     "eno",      "veth",     "bond",         "team",
    "port",    "peerbond", "Ethernet", "Port-Channel", "PeerPort-Channel",
    "Loopback"};

// In ASCII order, so that identifiers of one prefix sort as people count: eth2 before eth10.
constexpr std::string_view kCommonSymbols = "-./0123456789:_abcdefghijklmnopqrstuvwxyz";
constexpr std::uint64_t kCommonBase = 41;
constexpr std::size_t kCommonLength = 10;
static_assert(kCommonSymbols.size() == kCommonBase);

constexpr char kFirstPrintable = 0x21;
constexpr char kLastPrintable = 0x7E;
constexpr std::uint64_t kPrintableBase = 94;
constexpr std::size_t kPrintableLength = 8;

constexpr std::string_view kEscapePrefix = "intf#";
constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr unsigned kEscapeDigits = 16;

constexpr bool isPrefixFree() {
  for (std::size_t i = 1; i < kPrefixes.size(); ++i) {
    for (std::size_t j = 1; j < kPrefixes.size(); ++j) {
      if (i != j && kPrefixes[i].starts_with(kPrefixes[j])) return false;
    }
  }
  return true;
}
static_assert(isPrefixFree());

constexpr std::uint64_t largestNumeral(std::uint64_t base, std::size_t length) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < length; ++i) value = value * base + base;
  return value;
}
static_assert(largestNumeral(kCommonBase, kCommonLength) <= kPackedMask);
static_assert(largestNumeral(kPrintableBase, kPrintableLength) <= kPackedMask);

// Digit values run from 1 to the base, so that leading symbols count and no length field is needed.
std::uint64_t commonDigit(char c) noexcept {
  const std::size_t at = kCommonSymbols.find(c);
  return at == std::string_view::npos ? 0 : at + 1;
}

std::uint64_t printableDigit(char c) noexcept {
  if (c < kFirstPrintable || c > kLastPrintable) return 0;
  return static_cast<std::uint64_t>(c - kFirstPrintable) + 1;
}

template <class DigitOf>
std::optional<std::uint64_t> toNumeral(std::string_view text, std::uint64_t base,
                                       std::size_t longest, DigitOf digitOf) noexcept {
  if (text.size() > longest) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    const std::uint64_t digit = digitOf(c);
    if (digit == 0) return std::nullopt;
    value = value * base + digit;
  }
  return value;
}

template <class SymbolOf>
std::string fromNumeral(std::uint64_t value, std::uint64_t base, SymbolOf symbolOf) {
  std::string text;
  while (value != 0) {
    const std::uint64_t digit = (value - 1) % base + 1;
    text.push_back(symbolOf(digit));
    value = (value - digit) / base;
  }
  std::reverse(text.begin(), text.end());
  return text;
}

// No prefix of the table begins with another, so at most one fits besides the empty one.
std::size_t prefixOf(std::string_view name) noexcept {
  for (std::size_t i = 1; i < kPrefixes.size(); ++i) {
    if (name.starts_with(kPrefixes[i])) return i;
  }
  return 0;
}

std::uint64_t nameHash59(std::string_view name) noexcept {
  std::uint64_t hash = 0xcbf29ce484222325U;  // FNV-1a, 64 bits
  for (const char c : name) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x00000100000001b3U;
  }
  hash = mix64(hash);
  return (hash ^ (hash >> kFormShift)) & kHashMask;
}

std::uint64_t headBits(IntfKind kind, IntfIdForm form) noexcept {
  return (static_cast<std::uint64_t>(kind) << kKindShift) |
         (static_cast<std::uint64_t>(form) << kFormShift);
}

}  // namespace

IntfIdFields encodeIntfName(std::string_view name) noexcept {
  const IntfKind kind = intfKindOfName(name);
  const std::size_t prefix = prefixOf(name);
  const std::string_view rest = name.substr(kPrefixes[prefix].size());
  const std::uint64_t prefixBits = static_cast<std::uint64_t>(prefix) << kPrefixShift;
  if (const auto packed = toNumeral(rest, kCommonBase, kCommonLength, commonDigit)) {
    const IntfIdForm form = IntfIdForm::packedCommon;
    return {kind, form, headBits(kind, form) | prefixBits | *packed};
  }
  if (const auto packed = toNumeral(rest, kPrintableBase, kPrintableLength, printableDigit)) {
    const IntfIdForm form = IntfIdForm::packedPrintable;
    return {kind, form, headBits(kind, form) | prefixBits | *packed};
  }
  const IntfIdForm form = IntfIdForm::hashed;
  return {kind, form, headBits(kind, form) | nameHash59(name)};
}

std::optional<std::string> unpackIntfId(std::uint64_t value) {
  std::string rest;
  switch (intfIdForm(value)) {
    case IntfIdForm::packedCommon:
      rest = fromNumeral(value & kPackedMask, kCommonBase,
                         [](std::uint64_t d) { return kCommonSymbols[std::size_t(d - 1)]; });
      break;
    case IntfIdForm::packedPrintable:
      rest = fromNumeral(value & kPackedMask, kPrintableBase,
                         [](std::uint64_t d) { return char(kFirstPrintable + int(d - 1)); });
      break;
    case IntfIdForm::hashed:
    case IntfIdForm::reserved:
      return std::nullopt;
  }
  std::string name(kPrefixes[std::size_t(value >> kPrefixShift) & 15]);
  name += rest;
  // Also turns away numerals of more symbols than the form takes.
  if (encodeIntfName(name).value != value) return std::nullopt;
  return name;
}

IntfIdForm intfIdForm(std::uint64_t value) noexcept {
  return static_cast<IntfIdForm>((value >> kFormShift) & 3);
}

IntfKind intfIdKind(std::uint64_t value) noexcept {
  const std::uint64_t bits = value >> kKindShift;
  if (bits > static_cast<std::uint64_t>(IntfKind::other)) return IntfKind::other;
  if (bits == 0 && value != 0) return IntfKind::other;
  return static_cast<IntfKind>(bits);
}

std::string intfIdEscape(std::uint64_t value) {
  std::string text(kEscapePrefix);
  for (unsigned i = 0; i < kEscapeDigits; ++i) {
    text.push_back(kHexDigits[std::size_t(value >> (60 - 4 * i)) & 15]);
  }
  return text;
}

std::optional<std::uint64_t> intfIdFromEscape(std::string_view text) noexcept {
  if (text.size() != kEscapePrefix.size() + kEscapeDigits) return std::nullopt;
  if (!text.starts_with(kEscapePrefix)) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text.substr(kEscapePrefix.size())) {
    const std::size_t digit = kHexDigits.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    value = value << 4 | digit;
  }
  return value;
}

}  // namespace Portus
