// SPDX-License-Identifier: Apache-2.0
//
// Message texts: the parts written one after the other, as operator<< writes them.
#pragma once

#include <sstream>
#include <string>

namespace Quill {

template <class... Parts>
[[gnu::noinline, gnu::cold]] std::string textOf(const Parts&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

// Raises `Exception` with the text of the parts. Cold: stays out of the callers' loops.
template <class Exception, class... Parts>
[[noreturn, gnu::noinline, gnu::cold]] void raise(const Parts&... parts) {
  throw Exception(textOf(parts...));
}

}  // namespace Quill
