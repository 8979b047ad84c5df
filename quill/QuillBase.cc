// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillBase.h"

#include "quill/Text.h"

namespace Quill {

std::ostream& operator<<(std::ostream& out, QuillType type) {
  switch (type) {
    case QuillType::shadow:
      return out << "shadow";
    case QuillType::reader:
      return out << "reader";
    case QuillType::keyshadow:
      return out << "keyshadow";
    case QuillType::writer:
      break;
  }
  return out << "writer";
}

std::ostream& operator<<(std::ostream& out, const IterHint& hint) {
  return out << "IterHint{ slot " << hint.slot << ", bucket " << hint.bucket << " }";
}

void throwReadOnly(const char* operation) {
  raise<Sable::NoPermissionException>(operation, " to read-only Quill table");
}

void throwUnimplemented(const char* operation) {
  raise<Sable::UnimplementedException>(operation, " not implemented");
}

}  // namespace Quill
