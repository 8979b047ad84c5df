// SPDX-License-Identifier: Apache-2.0
//
// Mem::Atomics and the cells built on it: the only road to bytes that another process may see. A
// cell is a field of a mapped file; its raw bytes are private, so nothing can touch them plainly.
//
// Every access says its memory order by a tag: `Mem::relaxed`, `Mem::acquire`, `Mem::release`.
// There are no fences and no read-modify-write operations. On x86 all of these are plain moves; the
// orders bind the compiler, other processors and the thread sanitizer.
//
// Any thread of any process may load a cell that it has mapped. Storing is for the one writer.
//
// Invariants:
//  1. A 64-bit access is one access: single-copy atomic on every processor for which
//     checkCpuSupport() is true. It never writes when it loads, so that read-only mappings can be
//     loaded from (on 32-bit x86 it is a move through an SSE register, not a compare-exchange).
//  2. The version half of a versioned word may be loaded alone; an aligned word is never torn.
//  3. A copy of bytes is made of word accesses, each with the order named by the operation. It is
//  not
//     atomic as a whole: whoever copies out must be able to tell a mixed copy from a good one.
#pragma once

#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <type_traits>

// What a test build does after each store into shared bytes; nothing in any other.
#ifndef MEM_ATOMICS_STORED
#define MEM_ATOMICS_STORED(address, size) static_cast<void>(0)
#endif

namespace Mem {

struct Relaxed {};
struct Acquire {};
struct Release {};
inline constexpr Relaxed relaxed;
inline constexpr Acquire acquire;
inline constexpr Release release;

// A version and a value which are stored and loaded as one 64-bit word, the version in the low
// half. The version says whether the word has changed since it was loaded.
struct alignas(8) VerU32 {
  std::uint32_t version = 0;
  std::uint32_t value = 0;

  // What the next store into this word must hold.
  constexpr VerU32 next(std::uint32_t newValue) const noexcept { return {version + 1, newValue}; }

  friend constexpr bool operator==(const VerU32&, const VerU32&) noexcept = default;
};
static_assert(sizeof(VerU32) == 8 && std::is_trivially_copyable_v<VerU32>);

// Prints "<version in hexadecimal>:<value in decimal>".
std::ostream& operator<<(std::ostream& out, const VerU32& word);

static_assert(std::endian::native == std::endian::little,
              "the files are little-endian and mapped as they are");

class Atomics {
 public:
  // Whether this processor loads and stores 64 bits in one step.
  static bool checkCpuSupport() noexcept;

  static std::uint32_t load32(const std::uint32_t& word, Relaxed) noexcept {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
  }
  static std::uint32_t load32(const std::uint32_t& word, Acquire) noexcept {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
  }
  static void store32(std::uint32_t& word, std::uint32_t value, Relaxed) noexcept {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
    MEM_ATOMICS_STORED(&word, sizeof word);
  }
  static void store32(std::uint32_t& word, std::uint32_t value, Release) noexcept {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
    MEM_ATOMICS_STORED(&word, sizeof word);
  }

  static VerU32 load64(const VerU32& word, Relaxed) noexcept {
    VerU32 result;
    __atomic_load(&word, &result, __ATOMIC_RELAXED);
    return result;
  }
  static VerU32 load64(const VerU32& word, Acquire) noexcept {
    VerU32 result;
    __atomic_load(&word, &result, __ATOMIC_ACQUIRE);
    return result;
  }
  static void store64(VerU32& word, VerU32 value, Relaxed) noexcept {
    __atomic_store(&word, &value, __ATOMIC_RELAXED);
    MEM_ATOMICS_STORED(&word, sizeof word);
  }
  static void store64(VerU32& word, VerU32 value, Release) noexcept {
    __atomic_store(&word, &value, __ATOMIC_RELEASE);
    MEM_ATOMICS_STORED(&word, sizeof word);
  }

  // Copies `size` bytes out of shared memory, each word loaded with acquire: what is loaded after
  // the copy is at least as new as what the copy saw. REQUIRES: `shared` is aligned to 8 bytes.
  static void copyOut(void* own, const void* shared, std::size_t size) noexcept;
  // Copies `size` bytes into shared memory, each word stored with release: whoever sees a word of
  // the copy sees everything that was stored before it. REQUIRES: as above.
  static void copyIn(void* shared, const void* own, std::size_t size) noexcept;
  // Stores zeros, as copyIn() does.
  static void clear(void* shared, std::size_t size) noexcept;
};

// A 32-bit field of a mapped file.
class SharedU32 {
 public:
  template <class Order>
  std::uint32_t load(Order order) const noexcept {
    return Atomics::load32(raw_, order);
  }
  template <class Order>
  void store(std::uint32_t value, Order order) noexcept {
    Atomics::store32(raw_, value, order);
  }

 private:
  std::uint32_t raw_;
};

// A versioned 64-bit word of a mapped file.
class SharedVerU32 {
 public:
  template <class Order>
  VerU32 load(Order order) const noexcept {
    return Atomics::load64(raw_, order);
  }
  // The low half alone.
  template <class Order>
  std::uint32_t version(Order order) const noexcept {
    return Atomics::load32(raw_.version, order);
  }
  template <class Order>
  void store(VerU32 value, Order order) noexcept {
    Atomics::store64(raw_, value, order);
  }

 private:
  VerU32 raw_;
};

// A 64-bit number of a mapped file.
class SharedU64 {
 public:
  template <class Order>
  std::uint64_t load(Order order) const noexcept {
    return std::bit_cast<std::uint64_t>(Atomics::load64(raw_, order));
  }
  template <class Order>
  void store(std::uint64_t value, Order order) noexcept {
    Atomics::store64(raw_, std::bit_cast<VerU32>(value), order);
  }

 private:
  VerU32 raw_;
};

// Bytes of a mapped file that are copied as a whole.
template <std::size_t kSize>
class alignas(8) SharedBytes {
 public:
  // The first `size` bytes. REQUIRES: `size` <= kSize.
  void copyOut(void* own, std::size_t size = kSize) const noexcept {
    Atomics::copyOut(own, raw_, size);
  }
  void copyIn(const void* own, std::size_t size = kSize) noexcept {
    Atomics::copyIn(raw_, own, size);
  }
  void clear() noexcept { Atomics::clear(raw_, kSize); }
  // Where the bytes lie, for whoever hands the address on.
  void* address() noexcept { return raw_; }

 private:
  unsigned char raw_[kSize];
};

static_assert(sizeof(SharedU32) == 4);
static_assert(alignof(SharedU32) == 4);
static_assert(sizeof(SharedVerU32) == 8);
static_assert(alignof(SharedVerU32) == 8);
static_assert(sizeof(SharedU64) == 8);
static_assert(alignof(SharedU64) == 8);

// --- the copies, word by word. Inline: a lookup copies a handful of words.

namespace Detail {

// The widest word that is moved in one access. As it stands in memory.
using Word = std::uintptr_t;

template <class T>
[[gnu::always_inline]] inline void moveOut(unsigned char*& to, const unsigned char*& from,
                                           std::size_t& size) noexcept {
  using Raw [[gnu::may_alias]] = T;
  while (size >= sizeof(T)) {
    const T word = __atomic_load_n(reinterpret_cast<const Raw*>(from), __ATOMIC_ACQUIRE);
    std::memcpy(to, &word, sizeof(T));
    to += sizeof(T);
    from += sizeof(T);
    size -= sizeof(T);
  }
}

template <class T>
[[gnu::always_inline]] inline void moveIn(unsigned char*& to, const unsigned char*& from,
                                          std::size_t& size) noexcept {
  using Raw [[gnu::may_alias]] = T;
  while (size >= sizeof(T)) {
    T word = 0;
    if (from != nullptr) {
      std::memcpy(&word, from, sizeof(T));
      from += sizeof(T);
    }
    __atomic_store_n(reinterpret_cast<Raw*>(to), word, __ATOMIC_RELEASE);
    MEM_ATOMICS_STORED(to, sizeof(T));
    to += sizeof(T);
    size -= sizeof(T);
  }
}

// `own` null: zeros.
inline void copyInOrClear(void* shared, const void* own, std::size_t size) noexcept {
  auto* to = static_cast<unsigned char*>(shared);
  const auto* from = static_cast<const unsigned char*>(own);
  moveIn<Word>(to, from, size);
  moveIn<std::uint32_t>(to, from, size);
  moveIn<std::uint16_t>(to, from, size);
  moveIn<std::uint8_t>(to, from, size);
}

}  // namespace Detail

inline void Atomics::copyOut(void* own, const void* shared, std::size_t size) noexcept {
  auto* to = static_cast<unsigned char*>(own);
  const auto* from = static_cast<const unsigned char*>(shared);
  Detail::moveOut<Detail::Word>(to, from, size);
  Detail::moveOut<std::uint32_t>(to, from, size);
  Detail::moveOut<std::uint16_t>(to, from, size);
  Detail::moveOut<std::uint8_t>(to, from, size);
}

inline void Atomics::copyIn(void* shared, const void* own, std::size_t size) noexcept {
  Detail::copyInOrClear(shared, own, size);
}

inline void Atomics::clear(void* shared, std::size_t size) noexcept {
  Detail::copyInOrClear(shared, nullptr, size);
}

}  // namespace Mem
