// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/PtrInterface.h"

#include <new>

namespace Vex {

bool enableThreadSafePointers = false;

void* VFPtrInterface::operator new(std::size_t size) { return ::operator new(size); }

void* VFPtrInterface::operator new(std::size_t /*size*/, void* place) noexcept { return place; }

void VFPtrInterface::operator delete(void* object, std::size_t /*size*/) noexcept {
  // Clang 14 declares the sized global form only with an option of its own.
  ::operator delete(object);
}

}  // namespace Vex
