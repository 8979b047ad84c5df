// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/ValueText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>
#include <system_error>

namespace Vex {
namespace {

constexpr std::size_t kShown = 40;  // bytes of a wrong text, in messages

bool isBlank(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

constexpr char kHexDigits[] = "0123456789abcdef";

// What stands at `at`, quoted and cut short.
std::string shown(const TextPlace& at, const TextPlace& end) {
  std::string_view rest(at, end);
  const bool cut = rest.size() > kShown;
  std::string result;
  writeQuoted(result, rest.substr(0, kShown));
  return cut ? result + "..." : result;
}

[[noreturn]] void throwExpected(std::string_view what, const TextPlace& at, const TextPlace& end) {
  throwRangeException("expected " + std::string(what) + " at " +
                      (at == end ? "the end of the text" : shown(at, end)));
}

// 16 for anything else than a hexadecimal digit.
unsigned hexDigit(char c) noexcept {
  if (isDigit(c)) return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
  return 16;
}

template <class Number>
Number number(TextPlace& at, const TextPlace& end) {
  TextPlace from = at;
  if (from != end && *from == '+' && end - from > 1 && isDigit(from[1])) ++from;
  Number value = 0;
  const auto [behind, error] = std::from_chars(std::to_address(from), std::to_address(end), value);
  if (error == std::errc::result_out_of_range) {
    const auto length = behind - std::to_address(from);
    throwRangeException("number " + shown(from, from + length) +
                        " is out of range: " + std::to_string(std::numeric_limits<Number>::min()) +
                        " to " + std::to_string(std::numeric_limits<Number>::max()) + " allowed");
  }
  if (error != std::errc()) throwExpected("a decimal number", at, end);
  at = from + (behind - std::to_address(from));
  return value;
}

// The byte that an escape stands for; `at` is behind the backslash.
char escaped(TextPlace& at, const TextPlace& end) {
  if (at == end) throwExpected("the rest of an escape", at, end);
  const TextPlace escape = at;
  switch (*at++) {
    case '\\':
      return '\\';
    case '\'':
      return '\'';
    case '"':
      return '"';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'x':
      if (end - at >= 2 && hexDigit(at[0]) < 16 && hexDigit(at[1]) < 16) {
        const unsigned byte = hexDigit(at[0]) * 16 + hexDigit(at[1]);
        at += 2;
        return static_cast<char>(byte);
      }
      break;
    default:
      break;
  }
  throwExpected(R"(\\, \', \", \n, \r, \t or \xNN behind a backslash)", escape, end);
}

}  // namespace

void needString(TextPlace& at, const TextPlace& end, std::string_view pattern) {
  TextPlace token = at;  // for the message: a pattern is one token with blanks around it
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (i == 0 || pattern[i - 1] == ' ') token = at;
    if (pattern[i] == ' ') {
      while (at != end && isBlank(*at)) ++at;
    } else if (at != end && *at == pattern[i]) {
      ++at;
    } else {
      std::string_view wanted = pattern.substr(pattern.find_first_not_of(' '));
      wanted = wanted.substr(0, wanted.find_last_not_of(' ') + 1);
      throwExpected(wanted, token, end);
    }
  }
}

std::int64_t wideNumber(TextPlace& at, const TextPlace& end) {
  return number<std::int64_t>(at, end);
}

std::uint64_t unsignedNumber(TextPlace& at, const TextPlace& end) {
  return number<std::uint64_t>(at, end);
}

double realNumber(TextPlace& at, const TextPlace& end) {
  // No text of a number that a double can tell from its neighbours is longer; without a limit the
  // work would be that of the text's length, digit for digit.
  constexpr std::ptrdiff_t kLongest = 800;
  const TextPlace last = at + std::min(end - at, kLongest);
  double value = 0;
  const auto [behind, error] = std::from_chars(std::to_address(at), std::to_address(last), value);
  // What from_chars() takes for infinite or no number is no value that anybody may give: not one
  // comparison with a limit would hold for the latter.
  const bool infinite = error == std::errc() && !std::isfinite(value);
  if (infinite || error == std::errc::result_out_of_range) {
    throwRangeException("number " + shown(at, at + (behind - std::to_address(at))) +
                        " is out of range: -1.8e308 to 1.8e308 allowed");
  }
  if (error != std::errc()) throwExpected("a number", at, end);
  at += behind - std::to_address(at);
  return value;
}

bool truth(TextPlace& at, const TextPlace& end) {
  const std::string_view rest(at, end);
  for (const std::string_view text : {"true", "false"}) {
    if (!rest.starts_with(text)) continue;
    at += static_cast<std::ptrdiff_t>(text.size());
    return text == "true";
  }
  throwExpected("true or false", at, end);
}

std::string quotedString(TextPlace& at, const TextPlace& end) {
  if (at == end || (*at != '\'' && *at != '"')) throwExpected("a quoted string", at, end);
  const TextPlace begin = at;
  const char quote = *at++;
  std::string text;
  while (at != end && *at != quote) {
    const char c = *at++;
    text += c == '\\' ? escaped(at, end) : c;
  }
  if (at == end) {
    throwRangeException("the string " + shown(begin, end) + " has no closing quote");
  }
  ++at;
  return text;
}

void writeNumber(std::string& out, std::int64_t value) { out += std::to_string(value); }

void writeNumber(std::string& out, std::uint64_t value) { out += std::to_string(value); }

void writeReal(std::string& out, double value) {
  char text[32];
  const auto result = std::to_chars(std::begin(text), std::end(text), value);
  out.append(text, result.ptr);
}

void writeQuoted(std::string& out, std::string_view text) {
  out += '\'';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\'' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte < 0x20 || byte > 0x7E) {
      out += "\\x";
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 15];
    } else {
      out += c;
    }
  }
  out += '\'';
}

void throwOutOfRange(std::int64_t value, std::int64_t least, std::int64_t most) {
  throwRangeException("value " + std::to_string(value) + " is out of range: " +
                      std::to_string(least) + " to " + std::to_string(most) + " allowed");
}

void needEnd(const TextPlace& at, const String8& text) {
  if (at == text.end()) return;
  throwRangeException("junk at column " + std::to_string(at - text.begin()) + " deserializing " +
                      text.str());
}

}  // namespace Vex
