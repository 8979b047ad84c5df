// SPDX-License-Identifier: Apache-2.0
//
// Sable::Exception: the root of what the table store raises. Any thread may raise, copy and catch
// one; the object owns its text.
//
// Texts are part of the contract: a caller may compare msg() with a literal.
#pragma once

#include <string>

#include "runtime/vex/Exception.h"

namespace Sable {

class Exception : public Vex::Exception {
 public:
  // `flag`: another process, not this program, caused the failure.
  Exception(std::string text, bool flag);

  // The text alone, as what() gives it; lives as long as the exception.
  const std::string& msg() const noexcept { return text(); }

  // The full name of the class.
  virtual const char* name() const noexcept { return "Sable::Exception"; }
};

}  // namespace Sable
