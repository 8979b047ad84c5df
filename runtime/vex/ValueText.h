// SPDX-License-Identifier: Apache-2.0
//
// The text form of values: Vex::valueToStrep() writes it, Vex::strepToValue<T>() reads it back.
//
//   Value('Ringward::Oui', ** {'byte0': 10, 'byte1': 27, 'byte2': 44})
//
// A described class (Description.h) has this form by its description; every other type has a
// specialisation of Vex::ValueText next to it. Numbers are decimal, truth is "true" or "false", a
// real number is the shortest text that gives the same number back, a string stands in quotes.
//
// Reading takes a place `at` in a text and leaves it behind what was read. Whatever does not fit
// raises RangeException and leaves no value. Nothing here looks behind `end`, and the depth of the
// work is that of the type, not of the text. Pure functions; any thread.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "runtime/vex/Exception.h"
#include "runtime/vex/String8.h"

namespace Vex {

using TextPlace = String8::IteratorConst;

// How one type is written and read:
//   static void write(std::string& out, const T& value);      appends the text
//   static T read(TextPlace& at, const TextPlace& end);
// and, where the text of a key in a path is another one,
//   static T fromKey(std::string_view text);
//   static std::string toKey(const T& value);
// A type whose number has a range error with a text of its own has, in place of its checks in
// read(), `static T narrow(std::int64_t wide)`.
template <class T>
struct ValueText;

// Matches `pattern` at `at` and steps behind it; raises RangeException if it is not there. A blank
// in the pattern stands for any run of white space, none included.
void needString(TextPlace& at, const TextPlace& end, std::string_view pattern);

// The readers of the built-in types. A whole number: an optional sign and decimal digits.
std::int64_t wideNumber(TextPlace& at, const TextPlace& end);
std::uint64_t unsignedNumber(TextPlace& at, const TextPlace& end);
// Of finite ones only, though writeReal() writes "inf" and "nan".
double realNumber(TextPlace& at, const TextPlace& end);
bool truth(TextPlace& at, const TextPlace& end);
// Between quotes of either kind; \\ \' \" \n \r \t and \xNN stand for one byte.
std::string quotedString(TextPlace& at, const TextPlace& end);

void writeNumber(std::string& out, std::int64_t value);
void writeNumber(std::string& out, std::uint64_t value);
void writeReal(std::string& out, double value);
// In single quotes, with a backslash form for the quote, the backslash and every byte that is not
// printable ASCII, so that the text is one line and any byte comes back.
void writeQuoted(std::string& out, std::string_view text);

// "value 300 is out of range: 0 to 255 allowed".
[[noreturn]] void throwOutOfRange(std::int64_t value, std::int64_t least, std::int64_t most);

template <std::integral T>
struct ValueText<T> {
  static void write(std::string& out, const T& value) {
    if constexpr (std::is_unsigned_v<T>) {
      writeNumber(out, static_cast<std::uint64_t>(value));
    } else {
      writeNumber(out, static_cast<std::int64_t>(value));
    }
  }
  static T read(TextPlace& at, const TextPlace& end) {
    if constexpr (sizeof(T) == sizeof(std::uint64_t) && std::is_unsigned_v<T>) {
      return unsignedNumber(at, end);
    } else {
      using Limits = std::numeric_limits<T>;
      const std::int64_t wide = wideNumber(at, end);
      if (wide < Limits::min() || wide > Limits::max()) {
        throwOutOfRange(wide, Limits::min(), Limits::max());
      }
      return static_cast<T>(wide);
    }
  }
};

template <>
struct ValueText<bool> {
  static void write(std::string& out, const bool& value) { out += value ? "true" : "false"; }
  static bool read(TextPlace& at, const TextPlace& end) { return truth(at, end); }
};

template <>
struct ValueText<double> {
  static void write(std::string& out, const double& value) { writeReal(out, value); }
  static double read(TextPlace& at, const TextPlace& end) { return realNumber(at, end); }
};

template <>
struct ValueText<std::string> {
  static void write(std::string& out, const std::string& value) { writeQuoted(out, value); }
  static std::string read(TextPlace& at, const TextPlace& end) { return quotedString(at, end); }
  static std::string fromKey(std::string_view text) { return std::string(text); }
  static std::string toKey(const std::string& value) { return value; }
};

template <std::derived_from<String8> T>
struct ValueText<T> {
  static void write(std::string& out, const T& value) { writeQuoted(out, value.view()); }
  static T read(TextPlace& at, const TextPlace& end) { return T(quotedString(at, end)); }
  static T fromKey(std::string_view text) { return T(text); }
  static std::string toKey(const T& value) { return value.str(); }
};

// Reads one value.
template <class T>
T sequenceToValue(TextPlace& at, const TextPlace& end, const T* /*choose*/ = nullptr) {
  if constexpr (requires { ValueText<T>::narrow(std::int64_t{}); }) {
    return ValueText<T>::narrow(wideNumber(at, end));
  } else {
    return ValueText<T>::read(at, end);
  }
}

// As sequenceToValue(), for the value of an attribute: an error names the attribute. That a number
// is out of its type's range is told by the type's own text alone.
template <class T>
T sequenceToAttribute(TextPlace& at, const TextPlace& end, std::string_view attribute) {
  if constexpr (requires { ValueText<T>::narrow(std::int64_t{}); }) {
    std::int64_t wide = 0;
    try {
      wide = wideNumber(at, end);
    } catch (const RangeException& error) {
      rethrowFromDeserializeAttr(error, attribute);
    }
    return ValueText<T>::narrow(wide);
  } else {
    try {
      return ValueText<T>::read(at, end);
    } catch (const RangeException& error) {
      rethrowFromDeserializeAttr(error, attribute);
    }
  }
}

template <class T>
String8 valueToStrep(const T& value) {
  std::string text;
  ValueText<T>::write(text, value);
  return text;
}

// What an operator<< of a value does: the bytes of its text, whatever the stream's flags say.
template <class T>
std::ostream& writeStrep(std::ostream& out, const T& value) {
  std::string text;
  ValueText<T>::write(text, value);
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

// Raises RangeException "junk at column ... deserializing ..." unless `at` is the end of `text`.
void needEnd(const TextPlace& at, const String8& text);

// Reads a whole text. The pointer chooses T where it is not named.
template <class T>
T strepToValue(const String8& text, const T* choose = nullptr) {
  TextPlace at = text.begin();
  T value = sequenceToValue(at, text.end(), choose);
  needEnd(at, text);
  return value;
}

// Keys as they stand between the brackets of a path.
template <class T>
T keyFromText(std::string_view text) {
  if constexpr (requires { ValueText<T>::fromKey(text); }) {
    return ValueText<T>::fromKey(text);
  } else {
    return strepToValue<T>(String8(text));
  }
}
template <class T>
std::string keyToText(const T& key) {
  if constexpr (requires { ValueText<T>::toKey(key); }) {
    return ValueText<T>::toKey(key);
  } else {
    return valueToStrep(key).str();
  }
}

}  // namespace Vex
