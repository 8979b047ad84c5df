// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillMem.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "quill/Text.h"
#include "runtime/sable/Exceptions.h"

namespace Quill {

QuillMem::QuillMem(Sable::Platform::DebugHandler& handler, const RootPath& root, const char* name,
                   bool localMem)
    : Shared(root.rootPath(), name, false,
             localMem ? Local::LOCAL_DEFAULT_FLAGS : Shared::SHARED_DEFAULT_FLAGS, false),
      Debuggable(handler),
      localMem_(localMem) {
  trace(8, [&](std::ostream& os) {
    os << "QuillMem::QuillMem() prefix: " << root.rootPath() << " name:" << name
       << " localMem:" << localMem_;
  });
}

void* QuillMem::attach(unsigned size, Mem::Mode mode) {
  traceCall("attach", size);
  return localMem_ ? Local::attach(size, mode) : Shared::attach(size, mode);
}

void* QuillMem::resize(unsigned size) {
  traceCall("resize", size);
  return localMem_ ? Local::resize(size) : Shared::resize(size);
}

unsigned QuillMem::memSize() const noexcept { return localMem_ ? size() : Shared::memSize(); }

unsigned QuillMem::knownSize() const {
  const unsigned bytes = memSize();
  if (localMem_ || bytes != 0 || errno == 0) return bytes;
  const int error = errno;
  raise<Sable::InvalidInitializeException>("QuillMem: cannot tell the size of ", getFilename(),
                                           ": ", std::strerror(error));
}

unsigned QuillMem::soundSize() const { return std::min(size(), knownSize()); }

void QuillMem::detach() {
  traceCall("detach", size());
  Local::detach();
}

std::string QuillMem::getFilename() const { return localMem_ ? "[ANONYMOUS]" : path(); }

void QuillMem::traceCall(const char* operation, unsigned size) const {
  trace(8, [&](std::ostream& os) {
    os << "QuillMem::" << operation << "() size: " << size << " localMem: " << localMem_
       << " filename: " << getFilename();
  });
}

AutoMemMoveBase::AutoMemMoveBase(Sable::Platform::DebugHandler& handler, const void* pointer,
                                 const void* base, unsigned size) noexcept
    : Debuggable(handler), base_(base) {
  const auto at = reinterpret_cast<std::uintptr_t>(pointer);
  const auto from = reinterpret_cast<std::uintptr_t>(base);
  if (at >= from && at - from <= size) offset_ = at - from;
}

void* AutoMemMoveBase::moved(const void* pointer, void* base) const {
  if (offset_ == 0 || base == base_) {
    trace(9, [&](std::ostream& os) {
      os << "~AutoMemMove::AutoMemMove() ptr:" << pointer << " not moved";
    });
    return nullptr;
  }
  void* const now = static_cast<char*>(base) + offset_;
  trace(8, [&](std::ostream& os) {
    os << "~AutoMemMove::AutoMemMove() ptr:" << now << " moved from:" << pointer;
  });
  return now;
}

}  // namespace Quill
