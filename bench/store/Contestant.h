// SPDX-License-Identifier: Apache-2.0
//
// A contestant, and the registration of the operations that it has. It has a constructor that takes
// the number of records, and of these what it can do:
//
//   insert(place, key)           a record {key, place, 0, 0}
//   lookup(place, key)           its address, valid until the next operation, or null
//   update(place, key, value)    {key, value, value, value} in the place of what is there
//   remove(place, key)
//   iterate(visit)               visit(record) for all
//   lookupMany(keys, count)      the sum of `tx` of those that are there
//   load(keys)                   all records, not timed, where insert() is slow
//   bytes()                      of memory for all that it holds now
//   kVisits                      how many records a pass visits at most, where visits are slow
//   kWrites                      the same for passes that change
//   kMaxRecords                  sizes above it are left out
//   kWaits                       works in another process, too: timed by the real clock
//
// Times are per record, of the processor for this thread, in which others that want the machine do
// not show. Benchmarks are named <operation>/<contestant>/<records>.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "bench/store/Operations.h"

namespace StoreBench {

template <class Table>
std::size_t maxRecordsOf() {
  if constexpr (requires { Table::kMaxRecords; }) {
    return Table::kMaxRecords;
  } else {
    return std::numeric_limits<std::size_t>::max();
  }
}

inline constexpr std::int64_t kSizes[] = {100, 65'536, 1'000'000};

// `iterations` per size for those that have preparations, which Benchmark's own choice would have
// repeated for minutes.
template <class Function>
void registerSizes(const std::string& name, Function function, std::size_t maxRecords,
                   bool real = false, bool prepared = false) {
  for (const std::int64_t size : kSizes) {
    if (static_cast<std::size_t>(size) > maxRecords) continue;
    auto* const made = benchmark::RegisterBenchmark(name.c_str(), function);
    made->Arg(size);
    if (prepared) {
      made->UseManualTime()->Iterations(size < 1'000 ? 100 : size < 100'000 ? 3 : 1);
    } else if (real) {
      made->UseRealTime();
    }
  }
}

template <class Table>
bool registerTable(const std::string& name) {
  const std::size_t most = maxRecordsOf<Table>();
  const bool real = waits<Table>();
  registerSizes("hit/" + name, hit<Table>, most, real);
  if constexpr (!requires { Table::kByPlace; })
    registerSizes("miss/" + name, miss<Table>, most, real);
  if constexpr (requires(const Table& table, const IntfId* keys) { table.lookupMany(keys, 1U); }) {
    registerSizes("bulk/" + name, bulk<Table>, most, real);
  }
  if constexpr (requires(Table & table, const IntfId& key) { table.update(0U, key, 0U); }) {
    registerSizes("update/" + name, update<Table>, most, real);
  }
  if constexpr (requires(Table & table, const IntfId& key) { table.remove(0U, key); }) {
    registerSizes("insert/" + name, insert<Table>, most, real, true);
    registerSizes("reinsert/" + name, reinsert<Table>, most, real, true);
    registerSizes("remove/" + name, remove<Table>, most, real, true);
  }
  if constexpr (requires(Table & table) { table.iterate([](const Record&) {}); }) {
    registerSizes("iterate/" + name, iterate<Table>, most, real);
  }
  return true;
}

}  // namespace StoreBench
