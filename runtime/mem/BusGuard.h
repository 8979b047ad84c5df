// SPDX-License-Identifier: Apache-2.0
//
// What keeps a process alive when a file that it has mapped becomes shorter. The kernel answers an
// access behind the end of a mapped file with SIGBUS; here the page is replaced by private zeros,
// the guard remembers it, and the access goes on. Whoever reads the mapping asks hit() before it
// believes what it read.
//
// Guards are made and ended on any thread. The process's SIGBUS action is installed with the first
// guard and stays; a SIGBUS at an address that no guard covers goes to the action that was there
// before. A program that installs its own action later takes the protection away, unless it passes
// on what is not its own.
//
// Invariants:
//  1. The handler allocates nothing, takes no lock and calls only mmap(2).
//  2. A guard's record is never freed, only used again: the handler may walk the list at any time.
//  3. The record covers the range from before the first access until after the last one.
#pragma once

#include <atomic>
#include <cstddef>

namespace Mem {

class BusGuard {
 public:
  BusGuard() noexcept = default;
  BusGuard(const BusGuard&) = delete;
  BusGuard& operator=(const BusGuard&) = delete;
  ~BusGuard() { end(); }

  // Covers [base, base + size); forgets what was covered and hit before. Raises
  // Vex::InternalException if the signal action cannot be installed, std::bad_alloc without memory.
  void begin(void* base, std::size_t size);
  void end() noexcept;
  // An access met a page that the file does not have any more. Stays true until begin() or end().
  // One load while no file of the process has ever shrunk.
  bool hit() const noexcept { return any() && recordHit(); }
  // Some guard of the process was hit, ever.
  static bool any() noexcept { return anyHit.load(std::memory_order_relaxed); }

  struct Record;

 private:
  bool recordHit() const noexcept;

  // Some guard of the process was hit, ever. Stored by the handler on the thread that reads it
  // next.
  static std::atomic<bool> anyHit;
  friend struct BusHandler;
  Record* record_ = nullptr;
};

}  // namespace Mem
