// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillMem: the region behind one file of a table, or behind its counterpart in anonymous
// memory. Quill::AutoMemMove: keeps a pointer right while a region moves.
//
// Belongs to one thread. What a base address points to stays there until the next resize() or
// detach().
#pragma once

#include "quill/RootPath.h"
#include "runtime/mem/Region.h"
#include "runtime/sable/Platform.h"

namespace Quill {

class QuillMem : public Mem::Shared, private Sable::Debuggable {
 public:
  // Records only. `localMem`: anonymous memory, no file.
  QuillMem(Sable::Platform::DebugHandler& handler, const RootPath& root, const char* name,
           bool localMem);

  // Null on failure, with the reason in errno; see runtime/mem/Region.h. Makes the file at that
  // size if there is none and `mode` is readWrite.
  void* attach(unsigned size, Mem::Mode mode);
  void* resize(unsigned size);
  // Local: what is attached. Else the size of the file, 0 if there is none: that is how a writer
  // learns that a file is new.
  unsigned memSize() const noexcept;
  // The same for whoever takes 0 for a new file, or a small number for damage, and would give the
  // contents up: raises Sable::InvalidInitializeException if the size cannot be told.
  unsigned knownSize() const;
  // What is both in the file and mapped. Raises as knownSize().
  unsigned soundSize() const;
  // Safe when nothing is attached; the file stays.
  void detach();
  // "[ANONYMOUS]" or the file's path.
  std::string getFilename() const;
  bool localMem() const noexcept { return localMem_; }

 private:
  void traceCall(const char* operation, unsigned size) const;

  [[maybe_unused]] bool ownsHandler_ = false;  // the handler is always the table's
  bool localMem_;
};

// A guard over a pointer into a region that may move within the guard's scope. `base` is the
// address of the member that holds the region's base, which the region's owner keeps up to date;
// `size` is the region's size now. A pointer outside of the region, and one to its very beginning,
// is left alone.
template <class Pointer, class Base>
class AutoMemMove;

class AutoMemMoveBase : private Sable::Debuggable {
 public:
  AutoMemMoveBase(Sable::Platform::DebugHandler& handler, const void* pointer, const void* base,
                  unsigned size) noexcept;
  AutoMemMoveBase(const AutoMemMoveBase&) = delete;
  AutoMemMoveBase& operator=(const AutoMemMoveBase&) = delete;

 protected:
  ~AutoMemMoveBase() = default;
  // Where the pointer belongs now; null: where it is.
  void* moved(const void* pointer, void* base) const;

 private:
  const void* base_;
  std::size_t offset_ = 0;
};

template <class Pointer, class Base>
class AutoMemMove<Pointer*, Base*> : private AutoMemMoveBase {
 public:
  AutoMemMove(Sable::Platform::DebugHandler& handler, Pointer** pointer, Base** base, unsigned size)
      : AutoMemMoveBase(handler, *pointer, *base, size), pointer_(pointer), base_(base) {}
  ~AutoMemMove() {
    if (void* const now = moved(*pointer_, *base_)) *pointer_ = static_cast<Pointer*>(now);
  }

 private:
  Pointer** pointer_;
  Base** base_;
};

template <class Pointer, class Base>
AutoMemMove(Sable::Platform::DebugHandler&, Pointer**, Base**, unsigned)
    -> AutoMemMove<Pointer*, Base*>;

}  // namespace Quill
