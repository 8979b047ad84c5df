// SPDX-License-Identifier: Apache-2.0
//
// Tells WeakMemory of the files that the program maps. Linked with --wrap for each of these.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdarg>

#include "tests/quill/model/orders/WeakMemory.h"

extern "C" {

void* __real_mmap(void* address, std::size_t size, int protection, int flags, int fd, off_t offset);
void* __real_mremap(void* address, std::size_t size, std::size_t newSize, int flags, ...);
int __real_munmap(void* address, std::size_t size);

void* __wrap_mmap(void* address, std::size_t size, int protection, int flags, int fd,
                  off_t offset) {
  void* const base = __real_mmap(address, size, protection, flags, fd, offset);
  struct stat status {};
  if (base != MAP_FAILED && (flags & MAP_SHARED) != 0 && fstat(fd, &status) == 0) {
    QuillTest::WeakMemory::instance().mappingIs(base, size, status.st_ino,
                                                (protection & PROT_WRITE) != 0);
  }
  return base;
}
void* __wrap_mmap64(void* address, std::size_t size, int protection, int flags, int fd,
                    off_t offset) {
  return __wrap_mmap(address, size, protection, flags, fd, offset);
}
void* __wrap_mremap(void* address, std::size_t size, std::size_t newSize, int flags, ...) {
  void* const base = __real_mremap(address, size, newSize, flags);
  if (base != MAP_FAILED) {
    QuillTest::WeakMemory::instance().mappingMoved(address, base, newSize);
  }
  return base;
}
int __wrap_munmap(void* address, std::size_t size) {
  QuillTest::WeakMemory::instance().mappingDel(address);
  return __real_munmap(address, size);
}

}  // extern "C"
