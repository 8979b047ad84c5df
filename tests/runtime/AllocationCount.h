// SPDX-License-Identifier: Apache-2.0
//
// Counts what this thread allocates: AllocationCount.cc replaces the global operator new of the
// binary that links it. For tests of what must not allocate:
//
//   const AllocationCount allocations;
//   timer->timeMinIs(1001.0);
//   EXPECT_EQ(allocations.sinceThen(), 0u);
//
// Any thread; each sees its own count. malloc() called directly is not seen.
#pragma once

#include <cstdint>

class AllocationCount {
 public:
  AllocationCount() noexcept : before_(ofThisThread()) {}

  std::uint64_t sinceThen() const noexcept { return ofThisThread() - before_; }

  static std::uint64_t ofThisThread() noexcept;

 private:
  std::uint64_t before_;
};
