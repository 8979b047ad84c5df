// SPDX-License-Identifier: Apache-2.0
//
// Quill::Remainder: the remainder of a division by one divisor, again and again: two
// multiplications in place of the division, exact for all 32-bit numbers (D. Lemire, O. Kaser and
// N. Kurz, "Faster remainder by direct computation", 2019). Every operation on a table begins with
// one.
//
// A value. A divisor of 0 gives 0.
#pragma once

#include <cstdint>

namespace Quill {

class Remainder {
 public:
  constexpr Remainder() noexcept = default;
  constexpr explicit Remainder(std::uint32_t divisor) noexcept
      : divisor_(divisor), inverse_(divisor == 0 ? 0 : UINT64_MAX / divisor + 1) {}

  constexpr std::uint32_t operator()(std::uint32_t number) const noexcept {
#ifdef __SIZEOF_INT128__
    __extension__ using Wide = unsigned __int128;
    return static_cast<std::uint32_t>(Wide{inverse_ * number} * divisor_ >> 64);
#else
    return divisor_ == 0 ? 0 : number % divisor_;
#endif
  }

 private:
  std::uint32_t divisor_ = 0;
  std::uint64_t inverse_ = 0;  // 2^64 / divisor, rounded up
};

}  // namespace Quill
