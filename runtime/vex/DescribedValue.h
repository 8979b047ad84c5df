// SPDX-License-Identifier: Apache-2.0
//
// The text form of described value classes (ValueText.h), by their fields:
//
//   Value('Ringward::Oui', ** {'byte0': 10, 'byte1': 27, 'byte2': 44})
//
// Written with one blank behind each colon and comma and none elsewhere. Read with white space
// around every token; attributes may come in any order, may repeat (the last one stands) and may be
// missing (then the field keeps what it has).
#pragma once

#include <string>
#include <string_view>

#include "runtime/vex/Description.h"
#include "runtime/vex/ValueText.h"

namespace Vex {

// "Oui" of "Ringward::Oui".
constexpr std::string_view shortTypeName(std::string_view fullName) noexcept {
  const std::size_t colon = fullName.rfind(':');
  return colon == std::string_view::npos ? fullName : fullName.substr(colon + 1);
}

namespace DescribedValueDetail {
// The steps of reading that do not depend on the type.
void begin(TextPlace& at, const TextPlace& end, std::string_view typeName);
// Steps to the next attribute and answers true, or stops at the closing brace.
bool atAttribute(TextPlace& at, const TextPlace& end, std::string_view typeName, bool first);
std::string attributeName(TextPlace& at, const TextPlace& end);
[[noreturn]] void throwNoSuchAttribute(std::string_view typeName, std::string_view name);
void finish(TextPlace& at, const TextPlace& end);
}  // namespace DescribedValueDetail

// What the parsing constructor of a described class does with the fresh object.
template <DescribedValue T>
void readDescribed(T& value, TextPlace& at, const TextPlace& end) {
  constexpr std::string_view kTypeName = Description<T>::kTypeName;
  DescribedValueDetail::begin(at, end, kTypeName);
  for (bool first = true; DescribedValueDetail::atAttribute(at, end, kTypeName, first);
       first = false) {
    const std::string name = DescribedValueDetail::attributeName(at, end);
    bool known = false;
    forEachField<T>([&](const auto& field) {
      if (known || field.name != name) return;
      known = true;
      using Value = FieldValue<std::remove_cvref_t<decltype(field)>, T>;
      fieldIs(field, value, sequenceToAttribute<Value>(at, end, field.name));
    });
    if (!known) DescribedValueDetail::throwNoSuchAttribute(kTypeName, name);
  }
  DescribedValueDetail::finish(at, end);
}

template <DescribedValue T>
struct ValueText<T> {
  static void write(std::string& out, const T& value) {
    out += "Value('";
    out += Description<T>::kTypeName;
    out += "', ** {";
    bool first = true;
    forEachField<T>([&](const auto& field) {
      using Value = FieldValue<std::remove_cvref_t<decltype(field)>, T>;
      out += first ? "'" : ", '";
      first = false;
      out += field.name;
      out += "': ";
      ValueText<Value>::write(out, std::invoke(field.get, value));
    });
    out += "})";
  }
  static T read(TextPlace& at, const TextPlace& end) {
    T value;
    readDescribed(value, at, end);
    return value;
  }
};

}  // namespace Vex
