// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/DescribedValue.h"

namespace Vex::DescribedValueDetail {

void begin(TextPlace& at, const TextPlace& end, std::string_view typeName) {
  needString(at, end, " Value");
  needString(at, end, " (");
  needString(at, end, " '" + std::string(typeName) + "'");
  needString(at, end, " ,");
  needString(at, end, " **");
  needString(at, end, " {");
}

bool atAttribute(TextPlace& at, const TextPlace& end, std::string_view typeName, bool first) {
  needString(at, end, " ");
  if (at == end) {
    throwRangeException("premature end of value type " + std::string(shortTypeName(typeName)));
  }
  if (*at == '}') return false;
  if (!first) needString(at, end, ", ");
  return true;
}

std::string attributeName(TextPlace& at, const TextPlace& end) {
  std::string name = quotedString(at, end);
  needString(at, end, " : ");
  return name;
}

void throwNoSuchAttribute(std::string_view typeName, std::string_view name) {
  throwRangeException(std::string(shortTypeName(typeName)) +
                      " has no such attribute: " + std::string(name));
}

void finish(TextPlace& at, const TextPlace& end) {
  needString(at, end, "} ");
  needString(at, end, ") ");
}

}  // namespace Vex::DescribedValueDetail
