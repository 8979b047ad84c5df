// SPDX-License-Identifier: Apache-2.0
//
// The operations that are timed, the same loops for every contestant; Contestant.h says what that
// is. Each pass is checked by what it found.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "bench/store/Records.h"

namespace StoreBench {

// How many records one call of lookupMany() asks for.
inline constexpr unsigned kBatch = 64;

template <class Table>
std::size_t visitsOf(const Keys& keys) {
  if constexpr (requires { Table::kVisits; }) {
    return std::min(keys.count(), std::size_t{Table::kVisits});
  } else {
    return keys.count();
  }
}

template <class Table>
std::size_t writesOf(const Keys& keys) {
  if constexpr (requires { Table::kWrites; }) {
    return std::min(keys.count(), std::size_t{Table::kWrites});
  } else {
    return visitsOf<Table>(keys);
  }
}

template <class Table>
void fill(Table& table, const Keys& keys) {
  for (std::uint32_t place = 0; place < keys.count(); ++place) {
    table.insert(place, keys.byPlace[place]);
  }
}

template <class Table>
void load(Table& table, const Keys& keys) {
  if constexpr (requires { table.load(keys); }) {
    table.load(keys);
  } else {
    fill(table, keys);
  }
}

inline void perRecord(benchmark::State& state, std::size_t records) {
  state.counters["ns"] = benchmark::Counter(
      static_cast<double>(records) / 1e9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class Table>
void perEntry(benchmark::State& state, Table& table, const Keys& keys) {
  if constexpr (requires { table.bytes(); }) {
    state.counters["bytes"] =
        static_cast<double>(table.bytes()) / static_cast<double>(keys.count());
  }
}

inline const Keys& keysOf(const benchmark::State& state) {
  return keysOf(static_cast<std::size_t>(state.range(0)));
}

template <class Table>
constexpr bool waits() {
  return requires { Table::kWaits; };
}

inline double secondsNow(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Seconds that `work` on so many records takes, for benchmarks whose preparations must not count.
// The clock of a thread costs a system call, which would show beside little work; that is seldom
// interrupted, and the real clock does.
template <class Work>
double secondsOf(std::size_t records, bool real, const Work& work) {
  const clockid_t clock = real || records < 10'000 ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID;
  const double start = secondsNow(clock);
  work();
  benchmark::ClobberMemory();
  return secondsNow(clock) - start;
}

template <class Table>
std::uint64_t sumOfHits(Table& table, const Keys& keys, std::size_t visits) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < visits; ++i) {
    const Record* const record = table.lookup(keys.place[i], keys.present[i]);
    if (record == nullptr) return ~std::uint64_t{0};
    sum += record->tx;
  }
  return sum;
}

template <class Table>
void hit(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::size_t visits = visitsOf<Table>(keys);
  const std::uint64_t expected = keys.sum(visits);
  Table table(keys.count());
  load(table, keys);
  for (auto _ : state) {
    if (sumOfHits(table, keys, visits) != expected) state.SkipWithError("a wrong record");
  }
  perRecord(state, visits);
  perEntry(state, table, keys);
}

template <class Table>
void miss(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::size_t visits = visitsOf<Table>(keys);
  Table table(keys.count());
  load(table, keys);
  for (auto _ : state) {
    std::size_t found = 0;
    for (std::size_t i = 0; i < visits; ++i) {
      if (table.lookup(keys.place[i], keys.absent[i]) != nullptr) ++found;
    }
    if (found != 0) state.SkipWithError("found what is not there");
  }
  perRecord(state, visits);
}

template <class Table>
void bulk(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::size_t visits = visitsOf<Table>(keys);
  const std::uint64_t expected = keys.sum(visits);
  Table table(keys.count());
  load(table, keys);
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < visits; i += kBatch) {
      const auto count = static_cast<unsigned>(std::min<std::size_t>(kBatch, visits - i));
      sum += table.lookupMany(&keys.present[i], count);
    }
    if (sum != expected) state.SkipWithError("a wrong record");
  }
  perRecord(state, visits);
}

template <class Table>
void update(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::size_t visits = writesOf<Table>(keys);
  Table table(keys.count());
  load(table, keys);
  std::uint32_t value = 0;
  for (auto _ : state) {
    ++value;
    for (std::size_t i = 0; i < visits; ++i) table.update(keys.place[i], keys.present[i], value);
    benchmark::ClobberMemory();
  }
  if (sumOfHits(table, keys, visits) != std::uint64_t{value} * visits) {
    state.SkipWithError("an update was lost");
  }
  perRecord(state, visits);
  perEntry(state, table, keys);
}

// Into an empty table that was made for so many; what it allocates and touches for the first time
// is in the time.
template <class Table>
void insert(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::size_t visits = writesOf<Table>(keys);
  for (auto _ : state) {
    auto table = std::make_unique<Table>(keys.count());
    state.SetIterationTime(secondsOf(visits, waits<Table>(), [&] {
      for (std::uint32_t place = 0; place < visits; ++place) {
        table->insert(place, keys.byPlace[place]);
      }
    }));
    const auto last = static_cast<std::uint32_t>(visits - 1);
    const Record* const record = table->lookup(last, keys.byPlace[last]);
    if (record == nullptr || record->tx != last) state.SkipWithError("an insert was lost");
  }
  perRecord(state, visits);
}

// Into a table that held as many records before: its memory is there and has been touched.
template <class Table>
void reinsert(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::size_t visits = writesOf<Table>(keys);
  Table table(keys.count());
  load(table, keys);
  for (auto _ : state) {
    for (std::size_t i = 0; i < visits; ++i) table.remove(keys.place[i], keys.present[i]);
    state.SetIterationTime(secondsOf(visits, waits<Table>(), [&] {
      for (std::size_t i = 0; i < visits; ++i) table.insert(keys.place[i], keys.present[i]);
    }));
  }
  if (sumOfHits(table, keys, visits) != keys.sum(visits)) {
    state.SkipWithError("an insert was lost");
  }
  perRecord(state, visits);
}

template <class Table>
void remove(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::size_t visits = writesOf<Table>(keys);
  Table table(keys.count());
  load(table, keys);
  for (auto _ : state) {
    state.SetIterationTime(secondsOf(visits, waits<Table>(), [&] {
      for (std::size_t i = 0; i < visits; ++i) table.remove(keys.place[i], keys.present[i]);
    }));
    for (std::size_t i = 0; i < visits; ++i) {
      if (table.lookup(keys.place[i], keys.present[i]) != nullptr) {
        state.SkipWithError("a removal was lost");
        break;
      }
      table.insert(keys.place[i], keys.present[i]);
    }
  }
  perRecord(state, visits);
}

template <class Table>
void iterate(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const std::uint64_t expected = keys.sum(keys.count());
  Table table(keys.count());
  load(table, keys);
  for (auto _ : state) {
    std::size_t seen = 0;
    std::uint64_t sum = 0;
    table.iterate([&](const Record& record) {
      ++seen;
      sum += record.tx;
    });
    if (seen != keys.count() || sum != expected) state.SkipWithError("not every record was met");
  }
  perRecord(state, keys.count());
}

}  // namespace StoreBench
