// SPDX-License-Identifier: Apache-2.0
//
// mremap(2) as the thread sanitizer can follow it; linked into tests only, and only where that
// sanitizer is at work. It takes over mmap and munmap but not mremap: an address that one thread's
// mapping has left and another thread's mapping then moves to is for it one that both share, and
// what the first did there a data race with the second. Here the new place is first taken by mmap,
// which makes the sanitizer forget what was there before.
//
// What it does not do: no MREMAP_FIXED by the caller, and no mapping stays where it is.
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

extern "C" void* mremap(void* old, size_t oldSize, size_t newSize, int flags, ...) noexcept {
  if (flags != MREMAP_MAYMOVE) {
    errno = EINVAL;
    return MAP_FAILED;
  }
  void* const place = mmap(nullptr, newSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) return MAP_FAILED;
  const long moved =
      syscall(SYS_mremap, old, oldSize, newSize, MREMAP_MAYMOVE | MREMAP_FIXED, place);
  if (moved == -1) {
    const int error = errno;
    munmap(place, newSize);
    errno = error;
    return MAP_FAILED;
  }
  return place;
}
