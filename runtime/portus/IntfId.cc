// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfId.h"

#include <algorithm>
#include <ostream>

#include "runtime/portus/IntfNameTable.h"
#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

constexpr std::size_t kMaxHashedNames = 65536;

// Never destroyed: identifiers are printed by destructors of other static objects too.
IntfNameTable& hashedNames() {
  static IntfNameTable* const table = new IntfNameTable(kMaxHashedNames);
  return *table;
}

bool isPrintable(char c) noexcept { return c >= 0x21 && c <= 0x7E; }

std::string hexByte(char c) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  return {kDigits[byte >> 4], kDigits[byte & 15]};
}

// For messages: other bytes than printable ones as \xNN, and the end of a long text left out.
std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text.substr(0, IntfId::kMaxNameLength)) {
    if (isPrintable(c)) {
      result += c;
    } else {
      result += "\\x" + hexByte(c);
    }
  }
  result += text.size() > IntfId::kMaxNameLength ? "...\"" : "\"";
  return result;
}

// Whether a name may hold the byte and yet stand without quotes in the text of a value.
bool isBare(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-./:_#@+").find(c) != std::string_view::npos;
}

void checkName(std::string_view name) {
  if (name.size() > IntfId::kMaxNameLength) {
    Vex::throwRangeException("interface name " + quoted(name) + " has " +
                             std::to_string(name.size()) + " bytes: 0 to 63 allowed");
  }
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (isPrintable(name[i])) continue;
    Vex::throwRangeException("interface name " + quoted(name) + " has byte 0x" + hexByte(name[i]) +
                             " at position " + std::to_string(i) +
                             ": 0x21 to 0x7E allowed (printable ASCII without blank)");
  }
}

}  // namespace

IntfId IntfId::fromName(std::string_view name) {
  checkName(name);
  if (const auto escaped = intfIdFromEscape(name)) return fromValue(*escaped);
  const IntfIdFields fields = encodeIntfName(name);
  if (fields.form == IntfIdForm::hashed) hashedNames().nameIs(fields.value, name);
  return fromValue(fields.value);
}

std::string IntfId::name() const {
  const std::uint64_t number = value();
  auto known =
      intfIdForm(number) == IntfIdForm::hashed ? hashedNames().name(number) : unpackIntfId(number);
  return known ? *std::move(known) : intfIdEscape(number);
}

bool IntfId::isCanonical() const {
  const std::uint64_t number = value();
  if (intfIdForm(number) != IntfIdForm::hashed) return unpackIntfId(number).has_value();
  return kind() != IntfKind::other;
}

std::ostream& operator<<(std::ostream& out, const IntfId& id) { return out << id.name(); }

}  // namespace Portus

void Vex::ValueText<Portus::IntfId>::write(std::string& out, const Portus::IntfId& id) {
  const std::string name = id.name();
  if (!name.empty() && std::all_of(name.begin(), name.end(), Portus::isBare)) {
    out += name;
  } else {
    writeQuoted(out, name);
  }
}

Portus::IntfId Vex::ValueText<Portus::IntfId>::read(TextPlace& at, const TextPlace& end) {
  if (at == end || !Portus::isBare(*at)) return Portus::IntfId::fromName(quotedString(at, end));
  const TextPlace behind = std::find_if_not(at, end, Portus::isBare);
  const auto id = Portus::IntfId::fromName(std::string_view(at, behind));
  at = behind;
  return id;
}

std::string Vex::ValueText<Portus::IntfId>::toKey(const Portus::IntfId& id) {
  return id ? id.name() : Portus::intfIdEscape(id.value());
}
