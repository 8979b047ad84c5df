// SPDX-License-Identifier: Apache-2.0
//
// The exceptions of the runtime and the functions that raise them. Any code on any thread may raise
// one; the notification walk is the only place of the runtime that catches them (Notifiee.h).
//
// Texts are part of the contract: a caller compares what() with a literal.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace Vex {

// The root of all exceptions of the system. Copyable; what() lives as long as the object.
class Exception : public std::exception {
 public:
  // `idBits` is a class-specific number for tools that map exceptions to codes (0: none);
  // `flag` marks an exception that a peer caused rather than this program.
  explicit Exception(std::string text, std::uint32_t idBits = 0, bool flag = false)
      : text_(std::move(text)), idBits_(idBits), flag_(flag) {}

  const char* what() const noexcept override { return text_.c_str(); }
  const std::string& text() const noexcept { return text_; }
  std::uint32_t idBits() const noexcept { return idBits_; }
  bool flag() const noexcept { return flag_; }

 private:
  std::string text_;
  std::uint32_t idBits_;
  bool flag_;
};

// A value outside its range; also the text "null ValidPtr".
class RangeException : public Exception {
 public:
  explicit RangeException(std::string text) : Exception(std::move(text), 1) {}
};

// A broken assumption inside the program.
class InternalException : public Exception {
 public:
  explicit InternalException(std::string text) : Exception(std::move(text), 2) {}
};

// An object exists under this name or key with other constructor arguments.
class NameInUseException : public Exception {
 public:
  explicit NameInUseException(std::string text) : Exception(std::move(text), 3) {}
};

[[noreturn]] void throwRangeException(std::string_view text);
[[noreturn]] void throwInternalException(std::string_view text);
[[noreturn]] void throwNameInUseException(std::string_view text);

// Raises `error` again with the name of the attribute in whose text or message it came up.
[[noreturn]] void rethrowFromDeserializeAttr(const RangeException& error,
                                             std::string_view attribute);

// Prints "ASSERTION FAILED: " and the text of the expression to standard error and aborts the
// process. For broken invariants only, never for input.
[[noreturn]] void assertionFailed(const char* expression, const char* file, int line) noexcept;

}  // namespace Vex

// Checked in every build type: the engine's assertions are part of its behaviour. `text` stands for
// the expression in the message, so that the message does not depend on how the code is spelt.
#define VEX_ASSERT_TEXT(expression, text) \
  (static_cast<bool>(expression) ? void(0) : ::Vex::assertionFailed(text, __FILE__, __LINE__))
#define VEX_ASSERT(expression) VEX_ASSERT_TEXT(expression, #expression)
