// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/EthAddr.h"

#include <algorithm>
#include <ostream>

#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

constexpr std::size_t kTextLength = 17;
constexpr std::size_t kShownLength = 40;  // of a wrong text, in messages

[[noreturn]] void throwBadAddress(std::string_view text, std::size_t position) {
  std::string shown;
  for (const char c : text.substr(0, kShownLength)) shown += c >= 0x20 && c <= 0x7E ? c : '?';
  if (text.size() > kShownLength) shown += "...";
  Vex::throwRangeException("Ethernet address \"" + shown + "\" is wrong at position " +
                           std::to_string(position) +
                           ": six bytes 00 to ff joined by colons expected, such as "
                           "02:00:00:00:00:01");
}

// 16 for anything else than a hexadecimal digit.
unsigned hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
  return 16;
}

}  // namespace

EthAddr EthAddr::parse(std::string_view text) {
  Bytes bytes{};
  for (std::size_t i = 0; i < kTextLength; ++i) {
    if (i >= text.size()) throwBadAddress(text, i);
    if (i % 3 == 2) {
      if (text[i] != ':') throwBadAddress(text, i);
      continue;
    }
    const unsigned digit = hexDigit(text[i]);
    if (digit > 15) throwBadAddress(text, i);
    std::uint8_t& byte = bytes[i / 3];
    byte = static_cast<std::uint8_t>(byte * 16U + digit);
  }
  if (text.size() > kTextLength) throwBadAddress(text, kTextLength);
  return EthAddr(bytes);
}

std::string EthAddr::toText() const {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(kTextLength);
  for (const std::uint8_t byte : bytes_) {
    if (!text.empty()) text += ':';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::ostream& operator<<(std::ostream& out, const EthAddr& addr) { return out << addr.toText(); }

}  // namespace Portus

Portus::EthAddr Vex::ValueText<Portus::EthAddr>::read(TextPlace& at, const TextPlace& end) {
  const TextPlace behind = at + std::min<std::ptrdiff_t>(end - at, Portus::kTextLength);
  const auto addr = Portus::EthAddr::parse(std::string_view(at, behind));
  at = behind;
  return addr;
}
