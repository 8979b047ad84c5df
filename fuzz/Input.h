// SPDX-License-Identifier: Apache-2.0
//
// Fuzz::Input: the bytes of one fuzz input as a row of decisions, taken from front to back, so that
// a change of one byte changes one decision. Behind the end every number is zero and every text
// empty, thus any input is a complete one.
//
// Fuzz::Exactly: a copy in a block of exactly its size, where the address sanitizer sees any read
// outside.
//
// One thread. The spans that it gives out are parts of the input and live as long as that.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

namespace Fuzz {

using Bytes = std::span<const std::uint8_t>;

// A broken rule ends the process, which the fuzzer reports with the input that led to it. The place
// is the caller's; Clang 14 has no std::source_location.
inline void require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: a rule is broken\n", file, line);
  std::abort();
}

class Input {
 public:
  explicit Input(Bytes rest) noexcept : rest_(rest) {}

  bool empty() const noexcept { return rest_.empty(); }

  // At most `count` bytes; fewer at the end.
  Bytes take(std::size_t count) noexcept {
    const Bytes taken = rest_.first(std::min(count, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  Bytes takeAll() noexcept { return take(rest_.size()); }

  // The first byte is the highest.
  template <std::unsigned_integral Number>
  Number number() noexcept {
    std::uint64_t result = 0;
    for (const std::uint8_t byte : take(sizeof(Number))) result = result << 8 | byte;
    return static_cast<Number>(result);
  }
  std::uint8_t byte() noexcept { return number<std::uint8_t>(); }
  bool flag() noexcept { return (byte() & 1) != 0; }
  // 0 to `limit` - 1. REQUIRES: `limit` > 0.
  std::size_t below(std::size_t limit) noexcept { return byte() % limit; }
  template <class List>
  auto oneOf(const List& list) noexcept {
    return list[below(std::size(list))];
  }

 private:
  Bytes rest_;
};

class Exactly {
 public:
  explicit Exactly(Bytes bytes)
      : size_(bytes.size()), block_(std::make_unique<std::uint8_t[]>(bytes.size())) {
    if (!bytes.empty()) std::memcpy(block_.get(), bytes.data(), bytes.size());
  }
  std::span<std::uint8_t> bytes() noexcept { return {block_.get(), size_}; }

 private:
  std::size_t size_;
  std::unique_ptr<std::uint8_t[]> block_;
};

}  // namespace Fuzz
