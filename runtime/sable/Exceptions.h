// SPDX-License-Identifier: Apache-2.0
//
// The kinds of Sable::Exception. Each says whose turn it is: the caller's, the system's or
// nobody's. name() is the class's full name, for messages and for tools that must not depend on
// typeid.
#pragma once

#include <string>
#include <utility>

#include "runtime/sable/Exception.h"

namespace Sable {

// An object cannot be set up with what it was given or found.
class InvalidInitializeException : public Exception {
 public:
  explicit InvalidInitializeException(std::string text) : Exception(std::move(text), false) {}
  const char* name() const noexcept override { return "Sable::InvalidInitializeException"; }
};

// Memory or space in a file system has run out.
class MemoryResourceException : public Exception {
 public:
  explicit MemoryResourceException(std::string text) : Exception(std::move(text), false) {}
  const char* name() const noexcept override { return "Sable::MemoryResourceException"; }
};

// A call at the wrong time or in the wrong order.
class RuntimeException : public Exception {
 public:
  explicit RuntimeException(std::string text) : Exception(std::move(text), false) {}
  const char* name() const noexcept override { return "Sable::RuntimeException"; }
};

// What was asked for is not this object's to do.
class NoPermissionException : public Exception {
 public:
  explicit NoPermissionException(std::string text) : Exception(std::move(text), false) {}
  const char* name() const noexcept override { return "Sable::NoPermissionException"; }
};

// The operation exists for other kinds of this object.
class UnimplementedException : public Exception {
 public:
  explicit UnimplementedException(std::string text) : Exception(std::move(text), false) {}
  const char* name() const noexcept override { return "Sable::UnimplementedException"; }
};

}  // namespace Sable
