// SPDX-License-Identifier: Apache-2.0
#include "runtime/sable/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace Sable {

std::string demangled(const char* name) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
  return status == 0 && text != nullptr ? text.get() : name;
}

}  // namespace Sable
