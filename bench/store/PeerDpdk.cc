// SPDX-License-Identifier: Apache-2.0
//
// DPDK's hash table, inside one process, with lock-free readers (a cuckoo hash; extra buckets make
// sure that as many records fit as it was made for) and its own hash function. The value is an
// address: of one of two records that the contestant keeps for each place, of which an update fills
// the other one, as a lock-free reader needs it.
//
// This file alone is compiled with DPDK's own flags.
#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_hash.h>
#include <rte_lcore.h>
#include <sched.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/store/Contestant.h"

namespace StoreBench {
namespace {

// Once in a process. The library binds the thread that calls it to one processor: undone, so that
// nobody who is measured later is bound as well.
void initialize() {
  static const bool done = [] {
    cpu_set_t before;
    sched_getaffinity(0, sizeof before, &before);
    std::array<const char*, 9> arguments{"StoreBench", "--no-huge",      "--no-shconf",
                                         "--no-pci",   "--no-telemetry", "-m",
                                         "1024",       "--log-level",    "lib.*:critical"};
    if (rte_eal_init(static_cast<int>(arguments.size()), const_cast<char**>(arguments.data())) <
        0) {
      std::fprintf(stderr, "StoreBench: rte_eal_init: error %d\n", rte_errno);
      std::exit(1);
    }
    sched_setaffinity(0, sizeof before, &before);
    return true;
  }();
  static_cast<void>(done);
}

class DpdkTable {
 public:
  explicit DpdkTable(std::size_t count) : records_(2 * count) {
    initialize();
    rte_hash_parameters parameters{};
    parameters.name = "bench";
    parameters.entries = static_cast<std::uint32_t>(count);
    parameters.key_len = IntfId::kSize;
    parameters.socket_id = static_cast<int>(rte_socket_id());
    parameters.extra_flag = RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY_LF | RTE_HASH_EXTRA_FLAGS_EXT_TABLE;
    hash_ = rte_hash_create(&parameters);
    if (hash_ == nullptr) {
      std::fprintf(stderr, "StoreBench: rte_hash_create: error %d\n", rte_errno);
      std::exit(1);
    }
  }
  DpdkTable(const DpdkTable&) = delete;
  DpdkTable& operator=(const DpdkTable&) = delete;
  ~DpdkTable() { rte_hash_free(hash_); }

  void insert(std::uint32_t place, const IntfId& key) { store(place, {key, place, 0, 0}); }
  const Record* lookup(std::uint32_t, const IntfId& key) const {
    void* record = nullptr;
    if (rte_hash_lookup_data(hash_, &key, &record) < 0) return nullptr;
    return static_cast<const Record*>(record);
  }
  std::uint64_t lookupMany(const IntfId* keys, unsigned count) const {
    static_assert(kBatch <= RTE_HASH_LOOKUP_BULK_MAX);
    std::array<const void*, kBatch> asked;
    std::array<void*, kBatch> records;
    for (unsigned i = 0; i < count; ++i) asked[i] = &keys[i];
    std::uint64_t found = 0;
    rte_hash_lookup_bulk_data(hash_, asked.data(), count, &found, records.data());
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < count; ++i) {
      sum += (found >> i & 1) != 0 ? static_cast<const Record*>(records[i])->tx : ~0U;
    }
    return sum;
  }
  void update(std::uint32_t place, const IntfId& key, std::uint32_t value) {
    store(place, {key, value, value, value});
  }
  // With lock-free readers a removed key's position is given back in a second step; nobody reads
  // now, so at once.
  void remove(std::uint32_t, const IntfId& key) {
    const std::int32_t position = rte_hash_del_key(hash_, &key);
    if (position >= 0) rte_hash_free_key_with_position(hash_, position);
  }
  template <class Visit>
  void iterate(const Visit& visit) const {
    const void* key = nullptr;
    void* record = nullptr;
    std::uint32_t next = 0;
    while (rte_hash_iterate(hash_, &key, &record, &next) >= 0) {
      visit(*static_cast<const Record*>(record));
    }
  }

 private:
  void store(std::uint32_t place, const Record& record) {
    Record& free = records_[2 * place + (record.tx & 1)];
    free = record;
    if (rte_hash_add_key_data(hash_, &record.key, &free) != 0) {
      std::fprintf(stderr, "StoreBench: rte_hash_add_key_data: no room\n");
      std::exit(1);
    }
  }

  rte_hash* hash_ = nullptr;
  std::vector<Record> records_;
};

const bool registered = registerTable<DpdkTable>("dpdk");

}  // namespace
}  // namespace StoreBench
