// SPDX-License-Identifier: Apache-2.0
//
// The text of an exception, for tests that compare it with a literal.
#pragma once

#include <string>

#include "runtime/vex/Exception.h"

namespace RuntimeTest {

// What `call` raises. An exception of another kind passes through and fails the test.
template <class Exception = Vex::RangeException, class Call>
std::string errorOf(Call&& call) {
  try {
    call();
  } catch (const Exception& exception) {
    return exception.what();
  }
  return "(nothing was raised)";
}

}  // namespace RuntimeTest
