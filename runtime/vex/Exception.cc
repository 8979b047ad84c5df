// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Exception.h"

#include <cstdio>
#include <cstdlib>

namespace Vex {

void throwRangeException(std::string_view text) { throw RangeException(std::string(text)); }

void throwInternalException(std::string_view text) { throw InternalException(std::string(text)); }

void throwNameInUseException(std::string_view text) { throw NameInUseException(std::string(text)); }

void rethrowFromDeserializeAttr(const RangeException& error, std::string_view attribute) {
  throwRangeException("attribute '" + std::string(attribute) + "': " + error.text());
}

void assertionFailed(const char* expression, const char* file, int line) noexcept {
  std::fprintf(stderr, "ASSERTION FAILED: %s (%s:%d)\n", expression, file, line);
  std::abort();
}

}  // namespace Vex
