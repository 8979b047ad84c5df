// SPDX-License-Identifier: Apache-2.0
//
// A memory that is as weak as C++ allows, for the store's own code: one writer, which maps its
// files for writing, and one reader, which maps them for reading, in one thread of one process, one
// after the other. Every store into a mapped file is kept with its place among all stores; a load
// through a read-only mapping answers any store of its place that the orders of the code do not
// forbid, chosen by a seeded generator. docs/ordering-proofs.md says why no more is allowed than
// what this gives; the rules are those of tests/quill/model/memory.pml.
//
// scripts/check-orders puts weakLoad() and weakStore() into a copy of runtime/mem/Atomics.h in the
// places of the compiler's operations. Who stores and who loads is told by the mapping, so that the
// program needs no threads, and a run is repeated by its seed.
//
// Invariants:
//  1. A place is a word that is stored by one access: of 8 bytes or of 4, always the same. A load
//     of half of a word takes the half of one store; a load of two places chooses twice.
//  2. A writer's load answers the newest store.
//  3. Memory that is no mapped file is plain memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <stdexcept>
#include <type_traits>
#include <unordered_map>

namespace QuillTest {

class WeakMemory {
 public:
  static WeakMemory& instance() {
    static WeakMemory memory;
    return memory;
  }

  // --- told by the wrapped calls of the system

  void mappingIs(const void* base, std::size_t size, std::uint64_t file, bool writes) {
    mappings_[reinterpret_cast<std::uintptr_t>(base)] = {size, file, writes};
  }
  void mappingDel(const void* base) {
    mappings_.erase(reinterpret_cast<std::uintptr_t>(base));
    last_ = nullptr;
  }
  void mappingMoved(const void* from, const void* to, std::size_t size) {
    const auto found = mappings_.find(reinterpret_cast<std::uintptr_t>(from));
    if (found == mappings_.end()) return;
    Mapping moved = found->second;
    mappings_.erase(found);
    moved.size = size;
    mappings_[reinterpret_cast<std::uintptr_t>(to)] = moved;
    last_ = nullptr;
  }

  // --- asked by the program

  // Begins anew, with no file mapped.
  void seedIs(std::uint64_t seed) {
    random_.seed(seed);
    cells_.clear();
    stores_ = 0;
    seen_ = 0;
  }
  // A moment of the writer's life.
  std::uint64_t now() const { return stores_; }
  // The reader begins something after that moment: it knows of all stores before it.
  void readerKnows(std::uint64_t moment) {
    if (moment > seen_) seen_ = moment;
  }
  // Answers of loads that were not the newest.
  std::uint64_t oldAnswers() const { return oldAnswers_; }

  // --- in the place of the compiler's operations

  template <class T>
  T load(const T* address, int order) {
    const Mapping* const mapping = mappingOf(address);
    T result;
    if (mapping == nullptr || mapping->writes) {
      std::memcpy(&result, address, sizeof result);
      return result;
    }
    const std::uint64_t at = placeOf(*mapping, address);
    const std::uint64_t word = at & ~std::uint64_t{7};
    const auto found = cells_.find(word);
    if (found == cells_.end()) {
      std::memcpy(&result, address, sizeof result);  // never stored into
      return result;
    }
    Cell& cell = found->second;
    std::uint64_t value;
    if (cell.wide) {
      value = choose(cell.places[0], order) >> (8 * (at & 7));
    } else if (sizeof(T) == 8) {
      value = choose(cell.places[0], order);
      value |= choose(cell.places[1], order) << 32;
    } else {
      value = choose(cell.places[(at & 4) != 0 ? 1 : 0], order) >> (8 * (at & 3));
    }
    std::memcpy(&result, &value, sizeof result);
    return result;
  }

  template <class T>
  void store(T* address, T stored, int order) {
    const Mapping* const mapping = mappingOf(address);
    if (mapping != nullptr) {
      static_assert(sizeof(T) == 8 || sizeof(T) == 4 || sizeof(T) < 4);
      if (sizeof(T) < 4) throw std::logic_error("WeakMemory: a store of less than four bytes");
      const std::uint64_t at = placeOf(*mapping, address);
      auto [found, fresh] = cells_.try_emplace(at & ~std::uint64_t{7});
      Cell& cell = found->second;
      if (fresh) {
        cell.wide = sizeof(T) == 8;
        std::uint64_t before;
        const auto* const begin = reinterpret_cast<const unsigned char*>(address) - (at & 7);
        std::memcpy(&before, begin, sizeof before);
        cell.places[0].messages.push_back({cell.wide ? before : before & 0xFFFFFFFFU, 0, true});
        cell.places[1].messages.push_back({before >> 32, 0, true});
      } else if (cell.wide != (sizeof(T) == 8)) {
        throw std::logic_error("WeakMemory: one word stored in two sizes");
      }
      std::uint64_t value = 0;
      std::memcpy(&value, &stored, sizeof stored);
      Place& place = cell.places[!cell.wide && (at & 4) != 0 ? 1 : 0];
      place.messages.push_back({value, ++stores_, order == __ATOMIC_RELEASE});
      if (place.messages.size() > kKept) place.messages.pop_front();
    }
    std::memcpy(address, &stored, sizeof stored);
  }

 private:
  static constexpr std::size_t kKept = 48;

  struct Mapping {
    std::size_t size = 0;
    std::uint64_t file = 0;
    bool writes = false;
  };
  struct Message {
    std::uint64_t value;
    std::uint64_t moment;  // its number among all stores
    bool release;
  };
  struct Place {
    std::deque<Message> messages;
    std::uint64_t floor = 0;  // the newest that the reader has loaded
  };
  struct Cell {
    bool wide = false;
    Place places[2];
  };

  const Mapping* mappingOf(const void* address) {
    const auto number = reinterpret_cast<std::uintptr_t>(address);
    if (last_ != nullptr && number >= lastBase_ && number < lastBase_ + last_->size) return last_;
    auto next = mappings_.upper_bound(number);
    if (next == mappings_.begin()) return nullptr;
    --next;
    if (number >= next->first + next->second.size) return nullptr;
    lastBase_ = next->first;
    last_ = &next->second;
    return last_;
  }
  // REQUIRES: `mapping` was answered for `address`.
  std::uint64_t placeOf(const Mapping& mapping, const void* address) const {
    return (mapping.file << 32) + (reinterpret_cast<std::uintptr_t>(address) - lastBase_);
  }

  std::uint64_t choose(Place& place, int order) {
    const std::deque<Message>& all = place.messages;
    std::size_t oldest = all.size() - 1;
    while (oldest > 0 && all[oldest].moment > seen_ && all[oldest].moment > place.floor) --oldest;
    std::size_t taken = all.size() - 1;
    // The extremes are the likeliest to show something.
    if (const auto chance = random_() % 4; chance == 0) {
      taken = oldest;
    } else if (chance == 1) {
      taken = oldest + static_cast<std::size_t>(random_()) % (taken - oldest + 1);
    }
    if (taken != all.size() - 1) ++oldAnswers_;
    const Message& message = all[taken];
    if (message.moment > place.floor) place.floor = message.moment;
    if (order == __ATOMIC_ACQUIRE && message.release && message.moment > seen_) {
      seen_ = message.moment;
    }
    return message.value;
  }

  std::map<std::uintptr_t, Mapping> mappings_;
  std::uintptr_t lastBase_ = 0;
  const Mapping* last_ = nullptr;
  std::unordered_map<std::uint64_t, Cell> cells_;
  std::mt19937_64 random_{1};
  std::uint64_t stores_ = 0;
  std::uint64_t seen_ = 0;
  std::uint64_t oldAnswers_ = 0;
};

template <class T>
T weakLoad(const T* address, int order) {
  return WeakMemory::instance().load(const_cast<const std::remove_cv_t<T>*>(address), order);
}
template <class T>
void weakLoadTo(const T* address, T* result, int order) {
  std::uint64_t word =
      WeakMemory::instance().load(reinterpret_cast<const std::uint64_t*>(address), order);
  static_assert(sizeof(T) == sizeof word);
  std::memcpy(static_cast<void*>(result), &word, sizeof word);
}
template <class T>
void weakStore(T* address, T value, int order) {
  WeakMemory::instance().store(address, value, order);
}
template <class T>
void weakStoreFrom(T* address, T* value, int order) {
  std::uint64_t word;
  static_assert(sizeof(T) == sizeof word);
  std::memcpy(&word, value, sizeof word);
  WeakMemory::instance().store(reinterpret_cast<std::uint64_t*>(address), word, order);
}

}  // namespace QuillTest
