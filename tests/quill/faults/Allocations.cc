// SPDX-License-Identifier: Apache-2.0
//
// operator new and operator delete of this program: they count, and new fails as planned.
#include <cstdlib>
#include <new>

#include "tests/quill/faults/Calls.h"

namespace {

long live = 0;

void* allocated(std::size_t size) noexcept {
  if (Faults::failing(Faults::Kind::allocation, "operator new") != 0) return nullptr;
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block != nullptr) ++live;
  return block;
}

void released(void* block) noexcept {
  if (block != nullptr) --live;
  std::free(block);
}

}  // namespace

namespace Faults {

long liveBlocks() noexcept { return live; }

}  // namespace Faults

void* operator new(std::size_t size) {
  if (void* const block = allocated(size)) return block;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocated(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocated(size); }
void operator delete(void* block) noexcept { released(block); }
void operator delete[](void* block) noexcept { released(block); }
void operator delete(void* block, std::size_t) noexcept { released(block); }
void operator delete[](void* block, std::size_t) noexcept { released(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { released(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { released(block); }
