// SPDX-License-Identifier: Apache-2.0
//
// Mem::Local and Mem::Shared: one region of memory each, anonymous or a file of a directory, that
// can be made larger or smaller and may move when it is. What lies in it belongs to whoever
// attached it.
//
// An object belongs to one thread; the bytes of a shared region are seen by every process that has
// mapped the file, and are touched through Mem::Atomics only.
//
// Errors: an operation that returns an address returns null on failure, with the reason in errno;
// the region is then as it was before.
//
// Invariants of a shared region:
//  1. Space in the file system is reserved before the file is mapped for writing, so that a full
//     file system is an error of attach() or resize() and never a signal at a store.
//  2. A file that becomes shorter than its mapping gives zeros, not a signal, and truncated() says
//  so
//     from then on (BusGuard.h).
//  3. Only regular files are mapped; the last component of the path is not followed if it is a
//     symbolic link.
//  4. A file that is made here can be read by everybody and written by its owner, whatever the
//  umask.
#pragma once

#include <cstdint>
#include <string>

#include "runtime/mem/BusGuard.h"

namespace Mem {

// Bytes in a page of this machine.
extern const unsigned pageSize_;

// Raises nothing; wraps for a size within one page of 2^32.
inline unsigned roundUpToWholePage(unsigned size) noexcept {
  return (size + pageSize_ - 1) / pageSize_ * pageSize_;
}

enum class Mode : std::uint8_t { readWrite = 0, readOnly = 1 };

class Local {
 public:
  // The one flag word there is: private, unnamed memory.
  static constexpr unsigned LOCAL_DEFAULT_FLAGS = 0;

  Local() noexcept = default;
  Local(const Local&) = delete;
  Local& operator=(const Local&) = delete;
  ~Local() { detach(); }

  // Maps `size` zero bytes, at least one. Detaches what was attached before.
  void* attach(unsigned size, Mode mode);
  // Keeps the first bytes; new ones are zero. REQUIRES: attached. Size 0 is EINVAL.
  void* resize(unsigned size);
  // Safe when nothing is attached.
  void detach() noexcept;

  void* base() const noexcept { return base_; }
  // Bytes attached, 0 if none are.
  unsigned size() const noexcept { return size_; }
  // The file behind the region became shorter than the region: what was read is not to be believed.
  bool truncated() const noexcept { return guard_.hit(); }

 protected:
  void* base_ = nullptr;
  unsigned size_ = 0;
  int file_ = -1;  // of a shared region that is mapped for writing: what resize() works on
  BusGuard guard_;
};

class Shared : public Local {
 public:
  // The one flag word there is: a shared mapping of a file.
  static constexpr unsigned SHARED_DEFAULT_FLAGS = 1;

  // Records only. `flags` is SHARED_DEFAULT_FLAGS or LOCAL_DEFAULT_FLAGS; with the latter the
  // operations of Local are the ones to use. The two booleans are unused and false.
  Shared(std::string directory, const std::string& name, bool reserved1, unsigned flags,
         bool reserved2);

  // Maps the first `size` bytes of the file. Mode readWrite makes the file, or makes it longer, as
  // needed; readOnly needs a file (ENOENT), and what lies behind its end reads as zeros
  // (truncated()). Detaches what was attached before.
  void* attach(unsigned size, Mode mode);
  // Mode readWrite: gives the file this size too, in both directions. Mode readOnly: maps as much.
  // REQUIRES: attached. Size 0 is EINVAL, a file that became shorter than its mapping EIO.
  void* resize(unsigned size);
  // The size of the file, at most 2^32 - 1; 0 with errno 0 if there is none, and 0 with the reason
  // in errno if it cannot be asked about.
  unsigned memSize() const noexcept;

  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
  Mode mode_ = Mode::readOnly;
};

}  // namespace Mem
