// SPDX-License-Identifier: Apache-2.0
//
// Vex::String8 and Vex::Name: counted immutable strings of bytes. Copying costs a count; the empty
// string owns nothing. A Name is a String8 that names an entity.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "runtime/vex/PtrInterface.h"

namespace Vex {

class String8 {
 public:
  using IteratorConst = std::string_view::const_iterator;

  String8() noexcept = default;
  // NOLINTNEXTLINE(google-explicit-constructor): a string is a string
  String8(std::string_view text) : rep_(text.empty() ? nullptr : makePtr<Rep>(text)) {}
  // NOLINTNEXTLINE(google-explicit-constructor): a string is a string
  String8(const char* text) : String8(std::string_view(text)) {}
  // NOLINTNEXTLINE(google-explicit-constructor): a string is a string
  String8(const std::string& text) : String8(std::string_view(text)) {}

  std::string_view view() const noexcept { return rep_ ? rep_->text : std::string_view(); }
  std::string str() const { return std::string(view()); }
  std::size_t size() const noexcept { return view().size(); }
  bool empty() const noexcept { return !rep_; }
  IteratorConst begin() const noexcept { return view().begin(); }
  IteratorConst end() const noexcept { return view().end(); }
  // FNV-1a, 32 bits.
  std::uint32_t hash() const noexcept;

  friend String8 operator+(const String8& a, const String8& b) { return a.str() += b.view(); }
  friend bool operator==(const String8& a, const String8& b) noexcept {
    return a.view() == b.view();
  }
  friend std::strong_ordering operator<=>(const String8& a, const String8& b) noexcept {
    return a.view() <=> b.view();
  }
  friend std::ostream& operator<<(std::ostream& os, const String8& s) { return os << s.view(); }

 private:
  struct Rep final : VFPtrInterface {
    explicit Rep(std::string_view t) : text(t) {}
    const std::string text;
  };
  Ptr<Rep const> rep_;
};

class Name : public String8 {
 public:
  using String8::String8;
  Name(const String8& text) noexcept : String8(text) {}  // NOLINT(google-explicit-constructor)
};

}  // namespace Vex
