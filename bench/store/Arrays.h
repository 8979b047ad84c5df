// SPDX-License-Identifier: Apache-2.0
//
// What bounds the store from below: arrays without any synchronisation, inside one process, for one
// thread.
//
// FlatByKey is what the store's times are divided by: the least that finds a record by its key,
// with the store's own hash. It has open addressing with linear probing, a power of two of places
// and at most half of them in use; a default key marks a free place.
#pragma once

#include <bit>
#include <cstdint>
#include <vector>

#include "bench/store/Records.h"

namespace StoreBench {

// The place of each record is known: no hash, no search.
class FlatByPlace {
 public:
  static constexpr bool kByPlace = true;

  explicit FlatByPlace(std::size_t count) : records_(count) {}
  void insert(std::uint32_t place, const IntfId& key) { records_[place] = {key, place, 0, 0}; }
  const Record* lookup(std::uint32_t place, const IntfId&) const {
    const Record& record = records_[place];
    return record.key == IntfId() ? nullptr : &record;
  }
  void update(std::uint32_t place, const IntfId& key, std::uint32_t value) {
    records_[place] = {key, value, value, value};
  }
  void remove(std::uint32_t place, const IntfId&) { records_[place] = {}; }
  template <class Visit>
  void iterate(const Visit& visit) const {
    for (const Record& record : records_) visit(record);
  }
  std::size_t bytes() const { return records_.size() * sizeof(Record); }

 private:
  std::vector<Record> records_;
};

class FlatByKey {
 public:
  explicit FlatByKey(std::size_t count)
      : records_(std::bit_ceil(2 * count)), mask_(records_.size() - 1) {}
  void insert(std::uint32_t place, const IntfId& key) { records_[find(key)] = {key, place, 0, 0}; }
  const Record* lookup(std::uint32_t, const IntfId& key) const {
    const Record& record = records_[find(key)];
    return record.key == IntfId() ? nullptr : &record;
  }
  std::uint64_t lookupMany(const IntfId* keys, unsigned count) const {
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < count; ++i) sum += records_[find(keys[i])].tx;
    return sum;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    records_[find(key)] = {key, value, value, value};
  }
  // Those behind it move up, so that no search ends at the hole.
  void remove(std::uint32_t, const IntfId& key) {
    std::size_t hole = find(key);
    records_[hole] = {};
    for (std::size_t at = (hole + 1) & mask_; records_[at].key != IntfId(); at = (at + 1) & mask_) {
      const std::size_t home = records_[at].key.hash() & mask_;
      if (((at - home) & mask_) < ((at - hole) & mask_)) continue;
      records_[hole] = records_[at];
      records_[at] = {};
      hole = at;
    }
  }
  template <class Visit>
  void iterate(const Visit& visit) const {
    for (const Record& record : records_) {
      if (record.key != IntfId()) visit(record);
    }
  }
  std::size_t bytes() const { return records_.size() * sizeof(Record); }

 private:
  // The place of the key, or the free one that ends its search.
  std::size_t find(const IntfId& key) const {
    std::size_t at = key.hash() & mask_;
    while (records_[at].key != key && records_[at].key != IntfId()) at = (at + 1) & mask_;
    return at;
  }

  std::vector<Record> records_;
  std::size_t mask_;
};

}  // namespace StoreBench
