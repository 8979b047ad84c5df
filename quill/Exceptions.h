// SPDX-License-Identifier: Apache-2.0
//
// What the table store raises beside the general exceptions of runtime/sable/Exceptions.h. Any
// thread may raise and catch one.
#pragma once

#include <string>
#include <utility>

#include "runtime/sable/Exceptions.h"

namespace Quill {

// What lies in a table's files contradicts itself. Raised where it is found; the text says where.
class CorruptionDetectedException : public Sable::Exception {
 public:
  explicit CorruptionDetectedException(std::string text) : Exception(std::move(text), true) {}
  const char* name() const noexcept override { return "Quill::CorruptionDetectedException"; }
};

// A table takes no further entry.
class TableFullException : public Sable::Exception {
 public:
  explicit TableFullException(std::string text) : Exception(std::move(text), true) {}
  const char* name() const noexcept override { return "Quill::TableFullException"; }
};

}  // namespace Quill
