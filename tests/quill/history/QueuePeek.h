// SPDX-License-Identifier: Apache-2.0
//
// Tells whether the next notification of a table will move its queue. Looks at the files alone,
// which it maps, and costs next to nothing. Belongs to the writer's thread.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/mem/Atomics.h"
#include "tests/quill/history/TableModel.h"

namespace QuillTest {

class QueuePeek {
 public:
  // REQUIRES: the files are there.
  explicit QueuePeek(const std::string& directory) {
    for (unsigned id = 0; id < 2; ++id) {
      const std::string path = directory + "/conquer." + std::to_string(id + 1);
      const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      pages_[id] = mmap(nullptr, kPage, PROT_READ, MAP_SHARED, fd, 0);
      close(fd);
      if (pages_[id] == MAP_FAILED) wrong("cannot map " + path);
    }
  }
  QueuePeek(const QueuePeek&) = delete;
  QueuePeek& operator=(const QueuePeek&) = delete;
  ~QueuePeek() {
    for (void* const page : pages_) munmap(page, kPage);
  }

  bool full() const noexcept {
    const unsigned id = field(0, 36) & 1U;
    return field(id, 48) >= field(id, 44);
  }

 private:
  static constexpr std::size_t kPage = 4096;

  // Offsets as docs/formats.md has them.
  std::uint32_t field(unsigned id, std::size_t offset) const noexcept {
    const auto* const bytes = static_cast<const unsigned char*>(pages_[id]) + offset;
    // Relaxed: the thread's own stores.
    return reinterpret_cast<const Mem::SharedU32*>(bytes)->load(Mem::relaxed);
  }

  std::array<void*, 2> pages_{};
};

}  // namespace QuillTest
