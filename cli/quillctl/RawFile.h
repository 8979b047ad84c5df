// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::RawFile: a file of a table as bytes, for a process that must not change it. The kernel
// copies the bytes out (pread(2)), so nothing here touches memory that another process changes, and
// a file that becomes shorter ends a read and not the process.
//
// An object belongs to one thread and owns its descriptor. Links and everything that is no regular
// file are refused: the directory may be somebody else's.
#pragma once

#include <cstdint>
#include <string>

#include "platform/linux/Fd.h"

namespace Quillctl {

class RawFile {
 public:
  explicit RawFile(const std::string& path);

  // 0, or why the file could not be opened, or read the last time that failed.
  int error() const noexcept { return error_; }
  bool opened() const noexcept { return error_ == 0; }
  std::uint64_t size() const noexcept { return size_; }
  // `count` bytes from `offset` on, fewer where the file ends.
  std::string bytes(std::uint64_t offset, std::size_t count) const;

 private:
  Platform::Linux::Fd fd_;
  mutable int error_ = 0;  // no part of the file
  std::uint64_t size_ = 0;
};

}  // namespace Quillctl
